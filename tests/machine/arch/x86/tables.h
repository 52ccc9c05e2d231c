// Descriptor tables of the fake machine, in the shape of the real header: what was loaded last, and
// addresses for entry stubs that nobody calls.
#pragma once

#include <stdint.h>

struct [[gnu::packed]] table_pointer_t {
    uint16_t limit;
    uint32_t base;
};

/// What the processor's table registers hold.
struct loaded_tables_t {
    table_pointer_t gdt = {}, idt = {};
    uint16_t task_register = 0;
};
inline loaded_tables_t loaded_tables;

struct fake_stubs_t {
    uint32_t first;
    uint32_t operator[](uint32_t i) const { return first + 0x10 * i; }
};
constexpr fake_stubs_t isr_stubs{0x00121000};
constexpr fake_stubs_t irq_stubs{0x00122000};
constexpr uint32_t FAKE_STUB_RETURN = 0x00123450;

inline uint32_t stub_isr128() { return 0x00123000; }
inline uint32_t stub_lapic_ipi() { return 0x00123010; }
inline uint32_t stub_lapic_spurious() { return 0x00123020; }
inline bool stub_returns_to(uint32_t address) { return address == FAKE_STUB_RETURN; }

inline void gdt_flush(const table_pointer_t* table) { loaded_tables.gdt = *table; }
inline void idt_load(const table_pointer_t* table) { loaded_tables.idt = *table; }
inline void tss_flush(uint16_t selector) { loaded_tables.task_register = selector; }
