#include "kernel/core/x86.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "arch/x86/tables.h"
#include "kernel/core/interrupt.h"

namespace {

using bytes = std::vector<uint8_t>;

template <typename T>
bytes bytes_of(const T& object) {
    bytes out(sizeof object);
    std::memcpy(out.data(), &object, sizeof object);
    return out;
}

uint32_t address(const void* object) { return reinterpret_cast<uintptr_t>(object); }

TEST(Gdt, DescriptorsHaveTheBytesTheProcessorReads) {
    gdt_init();
    const bytes flat_tail = {0xFF, 0xFF, 0, 0, 0};
    const uint8_t access[] = {0x9A, 0x92, 0xFA, 0xF2};
    EXPECT_EQ(bytes_of(gdt[0]), bytes(8));
    for (int i = 0; i < 4; ++i) {
        bytes expected = flat_tail;
        expected.insert(expected.end(), {access[i], 0xCF, 0});
        EXPECT_EQ(bytes_of(gdt[i + 1]), expected) << i + 1;
    }
    const uint32_t base = address(&tss);
    const bytes expected = {0x67,
                            0,
                            static_cast<uint8_t>(base),
                            static_cast<uint8_t>(base >> 8),
                            static_cast<uint8_t>(base >> 16),
                            0x89,
                            0,
                            static_cast<uint8_t>(base >> 24)};
    EXPECT_EQ(bytes_of(gdt[5]), expected);
    EXPECT_EQ(loaded_tables.gdt.limit, 47);
    EXPECT_EQ(loaded_tables.gdt.base, address(gdt));
}

TEST(Tss, HoldsTheKernelStackAndCanBeLoadedAgain) {
    gdt_init();
    gdt[5].access = 0x8B;  // busy, as the processor leaves it
    tss.cr3 = 0x1234;
    tss_init();
    EXPECT_EQ(gdt[5].access, 0x89);
    EXPECT_EQ(loaded_tables.task_register, 0x2B);
    tss_set_kernel_stack(0x00ABC000);
    bytes expected(104);
    expected[5] = 0xC0;
    expected[6] = 0xAB;
    expected[8] = 0x10;
    expected[102] = 104;
    EXPECT_EQ(bytes_of(tss), expected);
}

TEST(Idt, GatesStandWhereTheyBelongAndNowhereElse) {
    idt[200].type_attr = 0x8E;
    idt_init();
    for (uint32_t vector = 0; vector < IDT_ENTRIES; ++vector) {
        uint32_t stub = 0;
        uint8_t type = 0x8E;
        if (vector < 32)
            stub = isr_stubs[vector];
        else if (vector < 48)
            stub = irq_stubs[vector - 32];
        else if (vector == 254)
            stub = stub_lapic_ipi();
        else if (vector == 255)
            stub = stub_lapic_spurious();
        else if (vector == 128) {
            stub = stub_isr128();
            type = 0xEE;
        }
        idt_entry expected = {};
        if (stub != 0)
            expected = {static_cast<uint16_t>(stub), 0x08, 0, type,
                        static_cast<uint16_t>(stub >> 16)};
        EXPECT_EQ(bytes_of(idt[vector]), bytes_of(expected)) << vector;
    }
    const int loads = loaded_tables.idt_loads;
    idt_reload();
    EXPECT_EQ(loaded_tables.idt_loads, loads + 1);
    EXPECT_EQ(loaded_tables.idt.limit, 2047);
    EXPECT_EQ(loaded_tables.idt.base, address(idt));
}

}  // namespace
