// What the files of workers share: their kinds, and the loop that each runs.
#pragma once

#include "kernel/core/task.h"
#include "tests/stress/stress.h"

constexpr int WORKER_PRIORITY = 4;

/// The tasks of one kind.
struct worker_t {
    const char* name;
    task_entry_fn entry;
    uint32_t tasks;
    uint32_t expected;  ///< steps that they make together, at least
    bool on_disk;
    volatile uint32_t done;  ///< steps so far
};

/// What the running task is one of.
worker_t& this_worker();

uint32_t new_seed();

/// Runs `step` over and over, single-stepped, until the workers shall stop.
template <typename Step>
void work(Step step) {
    uint32_t seed = new_seed();
    step_me();
    while (!stop_workers) {
        step(&seed);
        __atomic_add_fetch(&this_worker().done, 1, __ATOMIC_RELAXED);
    }
    __atomic_sub_fetch(&workers_alive, 1, __ATOMIC_RELAXED);
}

/// What one reads of a shared file was written at once, by itself or by another.
inline void verify_uniform(const uint8_t* data, int count) {
    for (int i = 1; i < count; ++i)
        if (data[i] != data[0])
            stress_fail("a file of two writes", static_cast<uint32_t>(i), data[0]);
}

// --- storage.cpp ---

void timeline_worker();
void volume_worker();
void journal_worker();

/// Mounts the volume, if there is a disk, and starts its journal.
void storage_start();

/// The timeline does not fork; the volume is sound, the journal verifies.
void verify_storage();
