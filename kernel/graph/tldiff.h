// Two timelines side by side, or as one: position by position, or merged by Lamport time. Their
// events are those that the ring holds. Task context.
#pragma once

#include <stdint.h>

#include "kernel/graph/timeline.h"

constexpr int TLDIFF_ENTRIES_MAX = 128;
constexpr int TLDIFF_EVENTS_MAX = 256;  ///< of one timeline

enum tldiff_type_t : uint32_t {
    TLDIFF_COMMON = 0,
    TLDIFF_ONLY_LEFT = 1,
    TLDIFF_ONLY_RIGHT = 2,
    TLDIFF_DIVERGE = 3,
};

struct tldiff_entry_t {
    tldiff_type_t type;
    uint32_t left_event_id, right_event_id;  ///< 0: absent
    int32_t position;
};

struct tldiff_result_t {
    tldiff_entry_t entries[TLDIFF_ENTRIES_MAX];
    int32_t count;
    int32_t common_count, left_only, right_only, diverged;
    char left_name[TIMELINE_NAME_SIZE], right_name[TIMELINE_NAME_SIZE];
};

/// Records CAUSAL_USER "tldiff" "timeline diff/merge initialized". Start-up.
void tldiff_init();

/// Compares the first 128 positions: 0, or -1 for a null argument, an unknown timeline or without
/// memory. Records "diff '%s' vs '%s': %d common, %d diverged".
int tldiff_compare(const char* left, const char* right, tldiff_result_t* out);

/// Makes a timeline whose events name those of both by their Lamport times, left before right:
/// their number, or -1. Records "merged '%s' + '%s' -> '%s' (%d events)".
int tldiff_merge(const char* left, const char* right, const char* merged_name);

/// `tldiff <left> <right>`, `tldiff merge <left> <right> <merged-name>`; without arguments the
/// timelines there are.
void cmd_tldiff(int argc, char** argv);
