// The power button of machines with ACPI fixed hardware (ACPI 6.5, 4.8.3.1): where
// its registers are, and its interrupt. Without ACPI, or with tables that do not hold together,
// there is no button and nothing happens.
#pragma once

#include <stdint.h>

/// `len` bytes of physical memory at `address` as they can be read now; null where they cannot.
using acpi_memory_fn = const uint8_t* (*)(uint32_t address, uint32_t len);

/// What the fixed ACPI description table says about the power button.
struct acpi_button_t {
    uint16_t status_port;   ///< PM1 event status; 0: there is no fixed button
    uint16_t enable_port;   ///< PM1 event enable
    uint16_t control_port;  ///< PM1 control; 0: not known
    uint16_t command_port;  ///< where `enable_command` goes; 0: the machine is in ACPI mode
    uint8_t enable_command;
    uint8_t line;  ///< interrupt line, 0..15
};

/// Finds the table by way of the root pointer in the BIOS areas and the root table, every length
/// and checksum checked; all zero when anything does not hold. Pure: reads through `memory`.
acpi_button_t acpi_find_button(acpi_memory_fn memory);

/// Turns the button on: ACPI mode, its event, its interrupt line. From then on `pressed` is called
/// for each press, by the interrupt handler with interrupts masked: it must only wake. 0, or -1
/// when the machine has no fixed button. Start-up, after the interrupt controller.
int acpi_button_init(const acpi_button_t& button, void (*pressed)());
