// Registers of this processor's local APIC, memory-mapped at their standard place (Intel SDM
// volume 3, 10.4.1). The host tests replace this header with a fake.
#pragma once

#include <stdint.h>

constexpr uint32_t LAPIC_BASE = 0xFEE00000;
constexpr uint32_t LAPIC_ID = 0x20;        ///< bits 24..31: the APIC id
constexpr uint32_t LAPIC_EOI = 0xB0;       ///< end of interrupt: write 0
constexpr uint32_t LAPIC_SPURIOUS = 0xF0;  ///< spurious-interrupt vector, and bit 8: enabled
constexpr uint32_t LAPIC_ICR_LOW = 0x300;
constexpr uint32_t LAPIC_ICR_HIGH = 0x310;

/// Reads the register at byte `offset`. The page must be mapped, uncached.
inline uint32_t lapic_read(uint32_t offset) {
    return *reinterpret_cast<volatile uint32_t*>(LAPIC_BASE + offset);
}

/// Writes the register at byte `offset`.
inline void lapic_write(uint32_t offset, uint32_t value) {
    *reinterpret_cast<volatile uint32_t*>(LAPIC_BASE + offset) = value;
}
