// The machine's PCI functions, found once at start-up, and access to their configuration registers
// through configuration mechanism 1 (PCI 3.0, 3.2.2.3).
//
// The table is filled by pci_init and only read afterwards. An access to configuration space is two
// port accesses under an irq_guard: any context of processor 0.
#pragma once

#include <stdint.h>

constexpr int PCI_DEVICES_MAX = 64;
constexpr int PCI_BARS = 6;

/// One PCI function.
struct pci_device_t {
    uint8_t bus;       ///< 0..255
    uint8_t device;    ///< slot, 0..31
    uint8_t function;  ///< 0..7
    uint16_t vendor_id;
    uint16_t device_id;
    uint8_t class_code;
    uint8_t subclass;
    uint8_t header_type;     ///< as read, with the multi-function bit
    uint8_t irq_line;        ///< 0 for what is not an ordinary device (header type 0)
    uint32_t bar[PCI_BARS];  ///< as read; all 0 for what is not an ordinary device
};

/// The functions found, in scan order; the first pci_device_count count.
extern pci_device_t pci_devices[PCI_DEVICES_MAX];
extern int pci_device_count;

/// Reads the 32-bit configuration register at `offset` (its low two bits are ignored); all ones
/// where there is no function.
uint32_t pci_read_config(uint8_t bus, uint8_t device, uint8_t func, uint8_t offset);

/// Writes the 32-bit configuration register at `offset`.
void pci_write_config(uint8_t bus, uint8_t device, uint8_t func, uint8_t offset, uint32_t value);

/// Scans all buses into the table and prints a line for each function recorded; what does not fit
/// into the table is neither recorded nor printed. Start-up.
void pci_init(void);

/// Functions in the table.
int pci_device_count_get(void);

/// The first function in scan order with both identifiers; null when there is none.
pci_device_t* pci_find_device(uint16_t vendor_id, uint16_t device_id);

/// Base address register `index` without its flag bits; 0 for a null device or an index outside
/// 0..5.
uint32_t pci_get_bar(const pci_device_t* dev, int index);

/// Lets the device access memory by itself: sets bit 2 of its command register. Null is ignored.
void pci_enable_bus_mastering(const pci_device_t* dev);

/// Keeps the device from accessing memory by itself. Null is ignored.
void pci_disable_bus_mastering(const pci_device_t* dev);
