// Descriptor tables: flat segments for rings 0 and 3, the one task state segment, and the interrupt
// gates. Built once at start-up on the bootstrap processor; afterwards only tss.esp0 changes.
// Layouts: Intel SDM volume 3, 3.4.5 (segments), 7.2.1 (task state segment), 6.11 (gates).
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr uint16_t SELECTOR_KERNEL_CODE = 0x08;
constexpr uint16_t SELECTOR_KERNEL_DATA = 0x10;
constexpr uint16_t SELECTOR_USER_CODE = 0x1B;
constexpr uint16_t SELECTOR_USER_DATA = 0x23;
constexpr uint16_t SELECTOR_TSS = 0x2B;

constexpr uint32_t GDT_ENTRIES = 6;
constexpr uint32_t IDT_ENTRIES = 256;

struct [[gnu::packed]] gdt_entry {
    uint16_t limit_low;
    uint16_t base_low;
    uint8_t base_mid;
    uint8_t access;
    uint8_t granularity;  ///< limit bits 16..19 in the low nibble, flags in the high one
    uint8_t base_high;
};
static_assert(sizeof(gdt_entry) == 8);
static_assert(offsetof(gdt_entry, access) == 5);

struct [[gnu::packed]] tss_entry {
    uint32_t prev_tss;
    uint32_t esp0, ss0, esp1, ss1, esp2, ss2;
    uint32_t cr3, eip, eflags;
    uint32_t eax, ecx, edx, ebx, esp, ebp, esi, edi;
    uint32_t es, cs, ss, ds, fs, gs, ldt;
    uint16_t trap, iomap_base;
};
static_assert(sizeof(tss_entry) == 104);
static_assert(offsetof(tss_entry, esp0) == 4);
static_assert(offsetof(tss_entry, iomap_base) == 102);

struct [[gnu::packed]] idt_entry {
    uint16_t offset_low;
    uint16_t selector;
    uint8_t zero;
    uint8_t type_attr;
    uint16_t offset_high;
};
static_assert(sizeof(idt_entry) == 8);
static_assert(offsetof(idt_entry, type_attr) == 5);

extern gdt_entry gdt[GDT_ENTRIES];
extern tss_entry tss;
extern idt_entry idt[IDT_ENTRIES];

/// Builds the six descriptors, loads the table and reloads all segment registers. Start-up only.
void gdt_init(void);

/// Clears the task state segment, fills its descriptor and loads the task register. No I/O
/// permission bitmap: ring 3 reaches no port. Start-up only, after gdt_init.
void tss_init(void);

/// Sets the stack pointer for transitions from ring 3 to ring 0. Called at each switch to a user
/// task, interrupts masked.
void tss_set_kernel_stack(uint32_t esp0);

/// Builds the 256 gates, resets the dispatch behind them (interrupt_init) and loads the table.
/// Start-up only, interrupts masked.
void idt_init(void);

/// Loads the same table on a further processor as it starts.
void idt_reload(void);
