#include "tests/machine/pci_bus.h"

namespace {

constexpr uint16_t ADDRESS_PORT = 0xCF8;
constexpr uint16_t DATA_PORT = 0xCFC;
constexpr uint32_t ENABLED = 1u << 31;

}  // namespace

pci_space_t& pci_bus::add(uint8_t bus, uint8_t device, uint8_t function, uint16_t vendor,
                          uint16_t device_id, uint32_t bar0) {
    pci_space_t& space = functions_[uint32_t{bus} << 8 | device << 3 | function];
    space = {};
    space[0] = uint32_t{device_id} << 16 | vendor;
    space[4] = bar0;
    return space;
}

uint32_t* pci_bus::selected() {
    const auto found = functions_.find(address_ >> 8 & 0xFFFF);
    if ((address_ & ENABLED) == 0 || found == functions_.end())
        return nullptr;
    return &found->second[address_ >> 2 & 63];
}

uint32_t pci_bus::read(uint16_t port, unsigned bytes) {
    if (port == ADDRESS_PORT && bytes == 4)
        return address_;
    const uint32_t* where = port == DATA_PORT && bytes == 4 ? selected() : nullptr;
    return where != nullptr ? *where : ~0u;
}

void pci_bus::write(uint16_t port, uint32_t value, unsigned bytes) {
    if (port == ADDRESS_PORT && bytes == 4)
        address_ = value;
    else if (uint32_t* where = port == DATA_PORT && bytes == 4 ? selected() : nullptr)
        *where = value;
}
