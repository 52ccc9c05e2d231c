// Blame: which cause of a fault explains most of what went wrong.
//
// Suspects are the fault's ancestors. One is judged by its effects in the ring:
//
//   score = (faults it explains / faults that any suspect explains)
//         * (effects that lead to a fault / all effects), in tenths of a percent
//
// so that neither the last step before the fault, which explains only this one, nor the start of
// the system, from which everything follows, takes the blame of what lies between. What follows
// only from a fault is left out of the second part: it is the fault's doing. An event is a fault
// when its description says so (ring_read.h); the one asked about is one in any case.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr int BLAME_SUSPECTS = 32;
constexpr int BLAME_SCORE_MAX = 1000;

struct blame_suspect_t {
    uint32_t event_id;
    int score;             ///< tenths of a percent, 0..1000
    uint32_t faults;       ///< fault-like descendants in the ring
    uint32_t descendants;  ///< all descendants in the ring
    char desc[CAUSAL_DESC_SIZE];
};

/// Records CAUSAL_USER "blame" "blame analysis ready". Start-up.
void blame_init();

/// Fills `out` with the suspects of `event_id`, the most blamed first, of equals the one with more
/// descendants, then the nearer one; at most `max` of the nearest BLAME_SUSPECTS. Their number, 0
/// for an event without a cause that can still be fetched, -1 when the event is not found or an
/// argument is wrong. One pass over the ring each way. Task context; callers wait for each other.
[[nodiscard]] int blame_analyze(uint32_t event_id, blame_suspect_t* out, int max);
