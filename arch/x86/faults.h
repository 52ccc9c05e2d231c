// Instructions that fault on purpose. The host tests replace this header with a fake machine of the
// same shape.
#pragma once

#include <stdint.h>

/// Divide error (vector 0).
inline void fault_divide() {
    uint32_t low = 1;
    uint32_t high = 0;
    asm volatile("divl %2" : "+a"(low), "+d"(high) : "r"(0u) : "cc");
}

/// Breakpoint (vector 3).
inline void fault_breakpoint() { asm volatile("int3" : : : "memory"); }

/// Invalid opcode (vector 6).
inline void fault_opcode() { asm volatile("ud2" : : : "memory"); }

/// General protection fault (vector 13): a selector beyond the descriptor table.
inline void fault_protection() { asm volatile("movw %w0, %%fs" : : "r"(0xFFF8u) : "memory"); }

/// Page fault (vector 14), if the page at `virt` is not mapped for writing.
inline void fault_page(uintptr_t virt) { *reinterpret_cast<volatile uint32_t*>(virt) = 0; }
