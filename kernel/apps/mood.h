// The mood: what the recent events say of the system, as one of six faces.
//
// The task "mood" samples the store every 100 ticks: how many events there were, and how many of
// the recent ones speak of a fault. The mood moves when five samples in a row ask for the same new
// one, so that a single fault passes by.
//
//   faults > 2 -> critical      no faults, after stressed or critical -> recovering
//   faults 1..2 -> stressed     then, below 50 events a sample -> calm
//   no faults: zen below 5 events a sample, calm below 50, else busy
//
// The state is guarded by irq_guard; task context. Events are CAUSAL_USER "mood".
#pragma once

#include <stdint.h>

enum mood_t : uint32_t {
    MOOD_ZEN = 0,
    MOOD_CALM = 1,
    MOOD_BUSY = 2,
    MOOD_STRESSED = 3,
    MOOD_CRITICAL = 4,
    MOOD_RECOVERING = 5,
    MOOD_COUNT = 6,
};

/// Forgets everything, is zen and starts the task "mood". Start-up.
void mood_init();

/// One sample; nothing while a mood is pinned. Records "mood: %s -> %s" when the mood changes. Part
/// of the task "mood".
void mood_tick();

mood_t mood_current();

/// `mood [history|explain|set <mood>|reset]`: shows, explains, lists, pins and releases the mood.
/// Pinning one records its change.
void cmd_mood(int argc, char** argv);
