// Timing in the measuring image: every figure is the median of RUNS runs, with the fastest and the
// slowest, in time-stamp counts for one operation.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <array>

#include "arch/x86/cpu.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/multiboot.h"

constexpr size_t RUNS = 9;

/// Times `body` RUNS times at `operations` operations each, after one run that is not timed.
template <typename Body>
void measure(const char* name, uint32_t operations, Body body) {
    std::array<uint64_t, RUNS> costs;
    body();
    for (uint64_t& cost : costs) {
        const uint64_t start = cpu_rdtsc();
        body();
        cost = (cpu_rdtsc() - start) / operations;
    }
    std::sort(costs.begin(), costs.end());
    kprintf("bench %s %llu %llu %llu\n", name, costs[RUNS / 2], costs.front(), costs.back());
}

/// measure() for an operation that costs little: repeats it.
template <typename Operation>
void measure_each(const char* name, uint32_t repeats, Operation operation) {
    measure(name, repeats, [&] {
        for (uint32_t i = 0; i < repeats; ++i)
            operation();
    });
}

/// Measures the tools that ask the graph, and fills the ring for that.
void measure_graph();

/// Measures the storage of a machine with a disk, which loses what was on it. Prints a line that
/// begins with "bench failed" for what goes wrong.
void measure_storage();

/// Prints "bench failed" and the name when `result` is not 0.
inline void check(const char* name, int result) {
    if (result != 0)
        kprintf("bench failed %s\n", name);
}

constexpr uint32_t MEASURE_SECTORS = 128;  // 64 KB

/// Measures the journal on a new volume and leaves a sealed one; `data` is MEASURE_SECTORS sectors
/// that are no superblock.
void measure_journal(const uint8_t* data);

/// Time-stamp counts of a second, by the timer's channel 2, which needs no interrupt.
uint64_t counts_a_second();

/// A load on the journal: events a second, and for how long.
struct sustained_t {
    uint32_t rate, seconds;
};

/// The load that the command line asks for; a rate of 0 without one. Before memory is handed out.
sustained_t sustained_load_wanted(const multiboot_info_t* info);

/// Puts that load on a journal on a new volume, and leaves it sealed.
void measure_sustained(const sustained_t& wanted);

/// Measures the filesystem on the same disk; `second` is the time-stamp counts of a second.
void measure_vofs(uint64_t second);
