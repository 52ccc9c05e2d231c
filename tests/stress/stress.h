// The stress image: the kernel's own objects under a start-up that preempts its workers between any
// two instructions at which a tick could come, while they check each other's data.
#pragma once

#include <stdint.h>

/// How the next phase preempts.
struct pace_t {
    bool step;       ///< stop after each instruction of the workers
    uint32_t every;  ///< preempt at every n-th of them where interrupts are on
    bool random;     ///< or at random ones, one in `every`
};

extern volatile bool stop_workers;
extern volatile uint32_t workers_alive;

/// Says what broke, with two numbers that tell more, and switches the machine off.
[[noreturn]] void stress_fail(const char* what, uint32_t a, uint32_t b);

// --- stepping.cpp ---

/// Takes over the debug exception; `seed` drives the random paces.
void stepping_init(uint32_t seed);
void stepping_set(const pace_t& pace);

/// From now on the calling task is stepped whenever the pace says so.
void step_me();

/// Preemptions made so far.
uint32_t preemptions();

// --- workers.cpp ---

/// A RAM file that workers share; room for it is made beforehand.
constexpr const char* SHARED_FILE = "/home/demo.sl";
constexpr uint32_t SHARED_FILE_BYTES = 400;

/// An actor whose mailbox workers share.
constexpr const char* SHARED_ACTOR = "inbox";

/// Creates the workers; each runs until stop_workers.
void workers_start();

/// Wakes those that wait, so that they see stop_workers.
void workers_release();

/// Every kind of worker has got something done, and nothing was lost on the way.
void workers_verify();

/// A worker may have put the next key into the keyboard's controller (interrupts masked).
void feed_key();

/// No key waits while its reader is blocked.
void verify_keys();

/// Checks all events in the ring: numbers, clock, and the texts and payloads of our own.
void verify_events();
