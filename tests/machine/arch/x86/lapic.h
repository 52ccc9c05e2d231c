// The local APIC of the fake machine, in the shape of the real header.
#pragma once

#include <stdint.h>

#include <map>
#include <utility>
#include <vector>

constexpr uint32_t LAPIC_BASE = 0xFEE00000;
constexpr uint32_t LAPIC_ID = 0x20;
constexpr uint32_t LAPIC_EOI = 0xB0;
constexpr uint32_t LAPIC_SPURIOUS = 0xF0;
constexpr uint32_t LAPIC_ICR_LOW = 0x300;
constexpr uint32_t LAPIC_ICR_HIGH = 0x310;

/// Register values that reads give, and the writes in their order.
struct fake_lapic_t {
    std::map<uint32_t, uint32_t> registers;
    std::vector<std::pair<uint32_t, uint32_t>> writes;
};
inline fake_lapic_t fake_lapic;

inline uint32_t lapic_read(uint32_t offset) { return fake_lapic.registers[offset]; }
inline void lapic_write(uint32_t offset, uint32_t value) {
    fake_lapic.writes.emplace_back(offset, value);
}
