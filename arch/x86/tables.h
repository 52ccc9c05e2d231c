// Loading the descriptor tables, and the entry stubs that the gates point at (stubs.S). The host
// tests replace this header with a record of what was loaded.
#pragma once

#include <stdint.h>

/// The operand of LGDT and LIDT.
struct [[gnu::packed]] table_pointer_t {
    uint16_t limit;  ///< bytes of the table, minus one
    uint32_t base;
};
static_assert(sizeof(table_pointer_t) == 6);

extern "C" {
extern const uint32_t isr_stubs[32];  ///< addresses of isr0..isr31
extern const uint32_t irq_stubs[16];  ///< addresses of irq0..irq15
void isr128();
void isr_lapic_ipi();
void isr_lapic_spurious();
// Where the dispatchers return to in the stubs: what a backtrace sees of an interrupt.
extern const char isr_common_return[];
extern const char irq_common_return[];
}

inline uint32_t stub_isr128() { return reinterpret_cast<uintptr_t>(isr128); }
inline uint32_t stub_lapic_ipi() { return reinterpret_cast<uintptr_t>(isr_lapic_ipi); }
inline uint32_t stub_lapic_spurious() { return reinterpret_cast<uintptr_t>(isr_lapic_spurious); }

/// Whether a return address leads into the entry stubs. The saved registers then stand right above
/// the dispatcher's argument.
inline bool stub_returns_to(uint32_t address) {
    return address == reinterpret_cast<uintptr_t>(isr_common_return) ||
           address == reinterpret_cast<uintptr_t>(irq_common_return);
}

/// Loads the global descriptor table, the kernel data selector 0x10 into DS, ES, FS, GS and SS, and
/// the kernel code selector 0x08 into CS.
inline void gdt_flush(const table_pointer_t* table) {
    asm volatile(
        "lgdt %0\n\t"
        "ljmp $0x08, $1f\n"
        "1:\n\t"
        "movw %w1, %%ds\n\t"
        "movw %w1, %%es\n\t"
        "movw %w1, %%fs\n\t"
        "movw %w1, %%gs\n\t"
        "movw %w1, %%ss"
        :
        : "m"(*table), "r"(0x10)
        : "memory");
}

/// Loads the interrupt descriptor table.
inline void idt_load(const table_pointer_t* table) {
    asm volatile("lidt %0" : : "m"(*table) : "memory");
}

/// Loads the task register; the descriptor becomes busy.
inline void tss_flush(uint16_t selector) { asm volatile("ltr %0" : : "r"(selector) : "memory"); }
