// Processor instructions that C++ cannot say. The host tests replace this header with a fake
// machine of the same shape.
#pragma once

#include <stddef.h>
#include <stdint.h>

/// EFLAGS bit 9: maskable interrupts are on.
constexpr uint32_t EFLAGS_IF = 1u << 9;

/// The four result registers of CPUID.
struct cpuid_result_t {
    uint32_t eax, ebx, ecx, edx;
};

/// CPUID of `leaf` and `subleaf`; a leaf above the highest one gives zeros.
inline cpuid_result_t cpu_cpuid(uint32_t leaf, uint32_t subleaf) {
    cpuid_result_t r = {};
    uint32_t highest;
    asm volatile("cpuid" : "=a"(highest) : "a"(leaf & 0x80000000u) : "ebx", "ecx", "edx");
    if (leaf > highest)
        return r;
    asm volatile("cpuid"
                 : "=a"(r.eax), "=b"(r.ebx), "=c"(r.ecx), "=d"(r.edx)
                 : "a"(leaf), "c"(subleaf));
    return r;
}

/// The time-stamp counter.
inline uint64_t cpu_rdtsc() {
    uint64_t value;
    asm volatile("rdtsc" : "=A"(value));
    return value;
}

/// One RDRAND: true and a word on success; on failure false and 0. Only where CPUID reports it.
inline bool cpu_rdrand(uint32_t* word) {
    uint8_t ok;
    asm volatile("rdrand %0; setc %1" : "=r"(*word), "=qm"(ok) : : "cc");
    return ok != 0;
}

/// One RDSEED, with the contract of cpu_rdrand.
inline bool cpu_rdseed(uint32_t* word) {
    uint8_t ok;
    asm volatile("rdseed %0; setc %1" : "=r"(*word), "=qm"(ok) : : "cc");
    return ok != 0;
}

/// The present EFLAGS.
inline uint32_t cpu_flags() {
    uint32_t flags;
    asm volatile("pushfl; popl %0" : "=r"(flags) : : "memory");
    return flags;
}

/// Masks interrupts on this processor.
inline void cpu_cli() { asm volatile("cli" : : : "memory"); }

/// Unmasks interrupts on this processor.
inline void cpu_sti() { asm volatile("sti" : : : "memory"); }

/// Waits for the next interrupt; returns after it was handled.
inline void cpu_hlt() { asm volatile("hlt" : : : "memory"); }

/// Unmasks interrupts and waits for the next one; none can slip in between the two.
inline void cpu_sti_hlt() { asm volatile("sti; hlt" : : : "memory"); }

/// The spin-loop hint.
inline void cpu_pause() { asm volatile("pause" : : : "memory"); }

/// Halts this processor for good, with interrupts masked.
[[noreturn]] inline void cpu_halt_forever() {
    for (;;)
        asm volatile("cli; hlt" : : : "memory");
}

/// CR2: the address of the last page fault.
inline uint32_t cpu_read_cr2() {
    uint32_t value;
    asm volatile("movl %%cr2, %0" : "=r"(value));
    return value;
}

/// CR3: the physical address of the page directory in force.
inline uint32_t cpu_read_cr3() {
    uint32_t value;
    asm volatile("movl %%cr3, %0" : "=r"(value));
    return value;
}

/// Loads CR3, which drops all cached translations.
inline void cpu_write_cr3(uint32_t value) {
    asm volatile("movl %0, %%cr3" : : "r"(value) : "memory");
}

/// CR0.
inline uint32_t cpu_read_cr0() {
    uint32_t value;
    asm volatile("movl %%cr0, %0" : "=r"(value));
    return value;
}

/// Loads CR0.
inline void cpu_write_cr0(uint32_t value) {
    asm volatile("movl %0, %%cr0" : : "r"(value) : "memory");
}

/// Drops the cached translation of the page that holds `virt`.
inline void cpu_invlpg(uintptr_t virt) { asm volatile("invlpg (%0)" : : "r"(virt) : "memory"); }

/// Copies `words` 32-bit words upwards (REP MOVSL); neither side needs alignment.
inline void cpu_copy_words(void* dest, const void* src, size_t words) {
    asm volatile("rep movsl" : "+D"(dest), "+S"(src), "+c"(words) : : "memory");
}

/// Stores `words` copies of `value` upwards (REP STOSL); `dest` needs no alignment.
inline void cpu_fill_words(void* dest, uint32_t value, size_t words) {
    asm volatile("rep stosl" : "+D"(dest), "+c"(words) : "a"(value) : "memory");
}
