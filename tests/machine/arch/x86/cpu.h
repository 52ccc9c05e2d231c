// Processor instructions of the fake machine, in the shape of the real header.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "tests/machine/machine.h"

constexpr uint32_t EFLAGS_IF = 1u << 9;

struct cpuid_result_t {
    uint32_t eax, ebx, ecx, edx;
};

inline cpuid_result_t cpu_cpuid(uint32_t leaf, uint32_t) {
    cpuid_result_t r = {};
    if (leaf == 1 && machine().rdrand)
        r.ecx = 1u << 30;
    if (leaf == 7 && machine().rdseed)
        r.ebx = 1u << 18;
    return r;
}

inline uint64_t cpu_rdtsc() { return machine().tsc += machine().tsc_step; }

inline bool cpu_rdrand(uint32_t* word) {
    *word = 0;
    return machine().rdrand && machine().rdrand(word);
}

inline bool cpu_rdseed(uint32_t* word) {
    *word = 0;
    return machine().rdseed && machine().rdseed(word);
}

inline uint32_t cpu_flags() { return machine().interrupts_on ? EFLAGS_IF : 0; }
inline void cpu_cli() { machine().interrupts_on = false; }
inline void cpu_sti() { machine().interrupts_on = true; }

inline void cpu_hlt() {
    if (machine().on_hlt)
        machine().on_hlt();
}

inline void cpu_sti_hlt() {
    cpu_sti();
    cpu_hlt();
}

inline void cpu_pause() {
    if (machine().on_pause)
        machine().on_pause();
}

[[noreturn]] inline void cpu_halt_forever() {
    cpu_cli();
    machine_halt();
}

inline uint32_t cpu_read_cr2() { return machine().cr2; }
inline uint32_t cpu_read_cr3() { return machine().cr3; }
inline void cpu_write_cr3(uint32_t value) { machine().cr3 = value; }
inline uint32_t cpu_read_cr0() { return machine().cr0; }
inline void cpu_write_cr0(uint32_t value) { machine().cr0 = value; }
inline void cpu_invlpg(uintptr_t virt) { machine().invalidated.push_back(virt); }

// Plain loops: the sanitizer sees every access.
inline void cpu_copy_words(void* dest, const void* src, size_t words) {
    auto* to = static_cast<uint8_t*>(dest);
    const auto* from = static_cast<const uint8_t*>(src);
    for (size_t i = 0; i < words * 4; ++i)
        to[i] = from[i];
}

inline void cpu_fill_words(void* dest, uint32_t value, size_t words) {
    auto* to = static_cast<uint8_t*>(dest);
    for (size_t i = 0; i < words * 4; ++i)
        to[i] = static_cast<uint8_t>(value >> (8 * (i % 4)));
}
