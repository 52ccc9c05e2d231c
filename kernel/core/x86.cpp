#include "kernel/core/x86.h"

#include "arch/x86/tables.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"

gdt_entry gdt[GDT_ENTRIES];
tss_entry tss;
idt_entry idt[IDT_ENTRIES];

namespace {

constexpr uint32_t FLAT_LIMIT = 0xFFFFF;  // in pages: 4 GiB
constexpr uint8_t FLAT_FLAGS = 0xC;       // limit in pages, 32-bit segment
constexpr uint8_t ACCESS_KERNEL_CODE = 0x9A;
constexpr uint8_t ACCESS_KERNEL_DATA = 0x92;
constexpr uint8_t ACCESS_USER_CODE = 0xFA;
constexpr uint8_t ACCESS_USER_DATA = 0xF2;
constexpr uint8_t ACCESS_TSS = 0x89;
constexpr uint32_t TSS_INDEX = 5;

constexpr uint8_t GATE_KERNEL = 0x8E;
constexpr uint8_t GATE_USER = 0xEE;
constexpr uint32_t VECTOR_LAPIC_SPURIOUS = 255;

constexpr gdt_entry segment(uint32_t base, uint32_t limit, uint8_t access, uint8_t flags) {
    return {
        .limit_low = static_cast<uint16_t>(limit),
        .base_low = static_cast<uint16_t>(base),
        .base_mid = static_cast<uint8_t>(base >> 16),
        .access = access,
        .granularity = static_cast<uint8_t>(flags << 4 | ((limit >> 16) & 0xF)),
        .base_high = static_cast<uint8_t>(base >> 24),
    };
}

gdt_entry tss_descriptor() {
    return segment(reinterpret_cast<uintptr_t>(&tss), sizeof(tss_entry) - 1, ACCESS_TSS, 0);
}

constexpr idt_entry gate(uint32_t stub, uint8_t type_attr) {
    return {
        .offset_low = static_cast<uint16_t>(stub),
        .selector = SELECTOR_KERNEL_CODE,
        .zero = 0,
        .type_attr = type_attr,
        .offset_high = static_cast<uint16_t>(stub >> 16),
    };
}

template <typename entry_t, uint32_t N>
table_pointer_t pointer_to(const entry_t (&table)[N]) {
    return {sizeof table - 1, reinterpret_cast<uintptr_t>(table)};
}

}  // namespace

void gdt_init(void) {
    gdt[0] = {};
    gdt[1] = segment(0, FLAT_LIMIT, ACCESS_KERNEL_CODE, FLAT_FLAGS);
    gdt[2] = segment(0, FLAT_LIMIT, ACCESS_KERNEL_DATA, FLAT_FLAGS);
    gdt[3] = segment(0, FLAT_LIMIT, ACCESS_USER_CODE, FLAT_FLAGS);
    gdt[4] = segment(0, FLAT_LIMIT, ACCESS_USER_DATA, FLAT_FLAGS);
    gdt[TSS_INDEX] = tss_descriptor();
    const table_pointer_t pointer = pointer_to(gdt);
    gdt_flush(&pointer);
}

void tss_init(void) {
    tss = {};
    tss.ss0 = SELECTOR_KERNEL_DATA;
    tss.iomap_base = sizeof(tss_entry);
    // Loading the task register marks the descriptor busy; a fresh one can be loaded again.
    gdt[TSS_INDEX] = tss_descriptor();
    tss_flush(SELECTOR_TSS);
}

void tss_set_kernel_stack(uint32_t esp0) { tss.esp0 = esp0; }

void idt_init(void) {
    interrupt_init();
    memset(idt, 0, sizeof idt);
    for (uint32_t vector = 0; vector < EXCEPTION_COUNT; ++vector)
        idt[vector] = gate(isr_stubs[vector], GATE_KERNEL);
    for (uint32_t line = 0; line < IRQ_LINES; ++line)
        idt[VECTOR_IRQ_BASE + line] = gate(irq_stubs[line], GATE_KERNEL);
    idt[VECTOR_SYSCALL] = gate(stub_isr128(), GATE_USER);
    idt[VECTOR_IPI] = gate(stub_lapic_ipi(), GATE_KERNEL);
    idt[VECTOR_LAPIC_SPURIOUS] = gate(stub_lapic_spurious(), GATE_KERNEL);
    idt_reload();
}

void idt_reload(void) {
    const table_pointer_t pointer = pointer_to(idt);
    idt_load(&pointer);
}
