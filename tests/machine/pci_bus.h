// A PCI bus of the fake machine: configuration space behind the ports 0xCF8 and 0xCFC.
#pragma once

#include <array>
#include <map>

#include "tests/machine/machine.h"

/// The 256 bytes of one function's configuration space.
using pci_space_t = std::array<uint32_t, 64>;

/// Functions that are not there read as all ones; writes go to what is there.
class pci_bus : public port_device {
public:
    /// Puts the bus into the machine.
    void attach() { machine_attach(0xCF8, 0xCFF, this); }
    /// Adds a function of header type 0 and returns its registers, for more to be set.
    pci_space_t& add(uint8_t bus, uint8_t device, uint8_t function, uint16_t vendor,
                     uint16_t device_id, uint32_t bar0 = 0);
    uint32_t read(uint16_t port, unsigned bytes) override;
    void write(uint16_t port, uint32_t value, unsigned bytes) override;

private:
    uint32_t* selected();
    uint32_t address_ = 0;
    std::map<uint32_t, pci_space_t> functions_;  ///< by bits 8..23 of the address
};
