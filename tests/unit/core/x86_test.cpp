#include "kernel/core/x86.h"

#include <gtest/gtest.h>

#include <cstring>

#include "arch/x86/tables.h"
#include "kernel/core/interrupt.h"

namespace {

template <typename T>
uint64_t eight_bytes(const T& record) {
    uint64_t out = 0;
    std::memcpy(&out, &record, sizeof out);
    return out;
}

uint32_t address(const void* object) { return reinterpret_cast<uintptr_t>(object); }

TEST(DescriptorTables, SegmentsHaveTheBytesTheProcessorReads) {
    gdt_init();
    const uint64_t base = address(&tss);
    const uint64_t expected[] = {
        0,
        0x00CF9A000000FFFF,
        0x00CF92000000FFFF,
        0x00CFFA000000FFFF,
        0x00CFF2000000FFFF,
        (base >> 24) << 56 | 0x89ull << 40 | (base & 0xFFFFFF) << 16 | 0x67,
    };
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(eight_bytes(gdt[i]), expected[i]) << i;
    EXPECT_EQ(loaded_tables.gdt.limit, 47);
    EXPECT_EQ(loaded_tables.gdt.base, address(gdt));
    gdt[5].access = 0x8B;  // busy, as the processor leaves it
    tss_init();
    EXPECT_EQ(eight_bytes(gdt[5]), expected[5]);
    EXPECT_EQ(loaded_tables.task_register, 0x2B);
    EXPECT_EQ(tss.ss0, 0x10u);
    EXPECT_EQ(tss.iomap_base, 104);
}

TEST(DescriptorTables, GatesStandWhereTheyBelongAndNowhereElse) {
    idt[200].type_attr = 0x8E;
    idt_init();
    for (uint32_t vector = 0; vector < IDT_ENTRIES; ++vector) {
        uint64_t stub = vector < 32 ? isr_stubs[vector] : irq_stubs[vector - 32];
        if (vector == 128)
            stub = stub_isr128();
        if (vector >= 254)
            stub = vector == 254 ? stub_lapic_ipi() : stub_lapic_spurious();
        const uint64_t type = vector == 128 ? 0xEE : 0x8E;
        const bool present = vector < 48 || vector == 128 || vector >= 254;
        const uint64_t gate = (stub >> 16) << 48 | type << 40 | 0x08 << 16 | (stub & 0xFFFF);
        EXPECT_EQ(eight_bytes(idt[vector]), present ? gate : 0) << vector;
    }
    EXPECT_EQ(loaded_tables.idt.limit, 2047);
    EXPECT_EQ(loaded_tables.idt.base, address(idt));
}

}  // namespace
