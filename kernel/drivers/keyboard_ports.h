// The two input devices as ports: the 8042's output buffer and the 16550's receiver. A port that
// is not there reads as all ones and never holds a byte.
#pragma once

#include <stdint.h>

#include "arch/x86/ports.h"

constexpr uint16_t KBC_DATA = 0x60;
constexpr uint16_t KBC_STATUS = 0x64;  ///< written: commands
constexpr uint8_t KBC_OUTPUT_FULL = 0x01;
constexpr uint8_t KBC_INPUT_FULL = 0x02;
constexpr uint8_t KBC_FROM_MOUSE = 0x20;

constexpr uint16_t SERIAL_DATA = 0x3F8;
constexpr uint16_t SERIAL_INTERRUPTS = 0x3F9;
constexpr uint16_t SERIAL_STATUS = 0x3FD;
constexpr uint8_t SERIAL_RECEIVED = 0x01;
constexpr uint8_t SERIAL_RECEIVE_INTERRUPT = 0x01;

constexpr uint8_t PORT_ABSENT = 0xFF;

/// Whether the 8042 holds a byte. Test and read belong into one irq_guard: a second read gives the
/// same byte again.
inline bool kbc_has_byte() {
    const uint8_t status = inb(KBC_STATUS);
    return status != PORT_ABSENT && (status & KBC_OUTPUT_FULL) != 0;
}

/// Whether the serial port holds a byte.
inline bool serial_has_byte() {
    const uint8_t status = inb(SERIAL_STATUS);
    return status != PORT_ABSENT && (status & SERIAL_RECEIVED) != 0;
}
