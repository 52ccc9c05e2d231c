// Configuration mechanism 1 and the scan of all buses. The scan asks every slot of every bus, so
// that bridges need not be understood.
#include "kernel/drivers/pci.h"

#include "arch/x86/ports.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"

pci_device_t pci_devices[PCI_DEVICES_MAX];
int pci_device_count;

namespace {

constexpr uint16_t CONFIG_ADDRESS = 0xCF8;
constexpr uint16_t CONFIG_DATA = 0xCFC;
constexpr uint32_t ADDRESS_ENABLE = 1u << 31;

constexpr uint8_t REG_ID = 0x00;
constexpr uint8_t REG_COMMAND = 0x04;
constexpr uint8_t REG_CLASS = 0x08;
constexpr uint8_t REG_HEADER_TYPE = 0x0C;
constexpr uint8_t REG_BAR0 = 0x10;
constexpr uint8_t REG_INTERRUPT = 0x3C;

constexpr uint16_t NO_VENDOR = 0xFFFF;
constexpr uint8_t HEADER_MULTI_FUNCTION = 0x80;
constexpr uint32_t COMMAND_BUS_MASTER = 1u << 2;
constexpr uint32_t BAR_IO = 1;
constexpr uint32_t BAR_IO_FLAGS = 0x3;
constexpr uint32_t BAR_MEMORY_FLAGS = 0xF;

constexpr int BUSES = 256;
constexpr uint8_t SLOTS = 32;
constexpr uint8_t FUNCTIONS = 8;

uint32_t config_address(uint8_t bus, uint8_t device, uint8_t func, uint8_t offset) {
    return ADDRESS_ENABLE | uint32_t{bus} << 16 | (device & 0x1Fu) << 11 | (func & 0x7u) << 8 |
           (offset & 0xFCu);
}

uint16_t vendor_of(uint8_t bus, uint8_t device, uint8_t func) {
    return static_cast<uint16_t>(pci_read_config(bus, device, func, REG_ID));
}

void read_resources(pci_device_t& d) {
    for (uint8_t i = 0; i < PCI_BARS; ++i) {
        const auto reg = static_cast<uint8_t>(REG_BAR0 + 4 * i);
        d.bar[i] = pci_read_config(d.bus, d.device, d.function, reg);
    }
    const uint32_t interrupt = pci_read_config(d.bus, d.device, d.function, REG_INTERRUPT);
    d.irq_line = static_cast<uint8_t>(interrupt);
}

void record_function(uint8_t bus, uint8_t device, uint8_t func) {
    const uint32_t id = pci_read_config(bus, device, func, REG_ID);
    const auto vendor = static_cast<uint16_t>(id);
    if (vendor == NO_VENDOR || pci_device_count >= PCI_DEVICES_MAX)
        return;
    const uint32_t class_reg = pci_read_config(bus, device, func, REG_CLASS);
    const uint32_t header_reg = pci_read_config(bus, device, func, REG_HEADER_TYPE);
    pci_device_t& d = pci_devices[pci_device_count++];
    d = {};
    d.bus = bus;
    d.device = device;
    d.function = func;
    d.vendor_id = vendor;
    d.device_id = static_cast<uint16_t>(id >> 16);
    d.class_code = static_cast<uint8_t>(class_reg >> 24);
    d.subclass = static_cast<uint8_t>(class_reg >> 16);
    d.header_type = static_cast<uint8_t>(header_reg >> 16);
    if ((d.header_type & ~HEADER_MULTI_FUNCTION) == 0)
        read_resources(d);
    kprintf("  PCI %02x:%02x.%x  %04x:%04x  class %02x:%02x\n", bus, device, func, d.vendor_id,
            d.device_id, d.class_code, d.subclass);
}

void scan_slot(uint8_t bus, uint8_t device) {
    if (vendor_of(bus, device, 0) == NO_VENDOR)
        return;
    record_function(bus, device, 0);
    const uint32_t header_reg = pci_read_config(bus, device, 0, REG_HEADER_TYPE);
    if ((header_reg >> 16 & HEADER_MULTI_FUNCTION) == 0)
        return;
    for (uint8_t func = 1; func < FUNCTIONS; ++func)
        record_function(bus, device, func);
}

uint32_t read_command(const pci_device_t& d) {
    return pci_read_config(d.bus, d.device, d.function, REG_COMMAND);
}

/// The status half of the register is written as zeros: ones would clear its bits.
void set_command(const pci_device_t& d, uint32_t command) {
    pci_write_config(d.bus, d.device, d.function, REG_COMMAND, command & 0xFFFFu);
}

}  // namespace

uint32_t pci_read_config(uint8_t bus, uint8_t device, uint8_t func, uint8_t offset) {
    const irq_guard guard;
    outl(CONFIG_ADDRESS, config_address(bus, device, func, offset));
    return inl(CONFIG_DATA);
}

void pci_write_config(uint8_t bus, uint8_t device, uint8_t func, uint8_t offset, uint32_t value) {
    const irq_guard guard;
    outl(CONFIG_ADDRESS, config_address(bus, device, func, offset));
    outl(CONFIG_DATA, value);
}

void pci_init(void) {
    pci_device_count = 0;
    for (int bus = 0; bus < BUSES; ++bus)
        for (uint8_t device = 0; device < SLOTS; ++device)
            scan_slot(static_cast<uint8_t>(bus), device);
}

int pci_device_count_get(void) { return pci_device_count; }

pci_device_t* pci_find_device(uint16_t vendor_id, uint16_t device_id) {
    for (int i = 0; i < pci_device_count; ++i) {
        pci_device_t& d = pci_devices[i];
        if (d.vendor_id == vendor_id && d.device_id == device_id)
            return &d;
    }
    return nullptr;
}

uint32_t pci_get_bar(const pci_device_t* dev, int index) {
    if (dev == nullptr || index < 0 || index >= PCI_BARS)
        return 0;
    const uint32_t bar = dev->bar[index];
    return bar & ~((bar & BAR_IO) != 0 ? BAR_IO_FLAGS : BAR_MEMORY_FLAGS);
}

void pci_enable_bus_mastering(const pci_device_t* dev) {
    if (dev != nullptr)
        set_command(*dev, read_command(*dev) | COMMAND_BUS_MASTER);
}

void pci_disable_bus_mastering(const pci_device_t* dev) {
    if (dev != nullptr)
        set_command(*dev, read_command(*dev) & ~COMMAND_BUS_MASTER);
}
