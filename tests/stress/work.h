// What the files of workers share: their kinds, and the loop that each runs.
#pragma once

#include <array>

#include "tests/stress/stress.h"

enum kind_t {
    HEAP,
    EVENTS,
    TOKENS,
    SLEEPS,
    CHILDREN,
    MUTEX,
    CONSOLE,
    LOG,
    KEYS,
    QUEUES,
    FILES,
    ACTORS,
    TIMELINES,
    VOLUME,
    JOURNAL,
    KINDS,
    FIRST_ON_DISK = VOLUME,
};

constexpr int WORKER_PRIORITY = 4;

/// Steps of each kind so far.
extern std::array<volatile uint32_t, KINDS> done;

uint32_t new_seed();

/// Runs `step` over and over, single-stepped, until the workers shall stop.
template <typename Step>
void work(kind_t kind, Step step) {
    uint32_t seed = new_seed();
    step_me();
    while (!stop_workers) {
        step(&seed);
        __atomic_add_fetch(&done[kind], 1, __ATOMIC_RELAXED);
    }
    __atomic_sub_fetch(&workers_alive, 1, __ATOMIC_RELAXED);
}

// --- storage.cpp ---

void timeline_worker();
void volume_worker();
void journal_worker();

/// Mounts the volume, if there is a disk, and starts its journal.
void storage_start();

/// The timeline does not fork; the volume is sound, the journal verifies.
void verify_storage();
