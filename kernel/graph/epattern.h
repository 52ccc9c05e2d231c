// Event patterns: short causal sequences, found among the newest 512 events.
//
//   sched sched+ -> net|io/virtio within 50
//   step  step      step                   up to 4 steps; each matched event descends (within 8
//                                          generations) from the one matched before it
//
//   step: [!]TYPE[|ALT][+][/SUBSYSTEM]     ! any type but these, + one or more events in a row;
//                                          a TYPE that is no type's name means any
//   within N: the last step follows the one before it after at most N ticks
//
// Four watchers keep a pattern each; the task "epattern", which the first watcher starts, looks
// every second for what they newly match, counts it and records it. All events are CAUSAL_USER
// "epattern". Task context; one mutex serialises everything, above the journal's.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr int EPATTERN_STEPS = 4;
constexpr uint32_t EPATTERN_WINDOW = 512;  ///< newest events that a match may start at
constexpr int EPATTERN_WATCHERS = 4;
constexpr uint32_t EPATTERN_RECORDED = 256;  ///< matches of a watcher in a check that get an event
constexpr int EPATTERN_ANY = -1;
constexpr uint32_t EPATTERN_REPEAT = 1;   ///< flag: one or more events
constexpr uint32_t EPATTERN_NEGATED = 2;  ///< flag: the types are the wrong ones

struct epattern_step_t {
    int type_filter;                        ///< a causal type or EPATTERN_ANY
    int alt_type;                           ///< a causal type or EPATTERN_ANY: none
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];  ///< "*": any
    uint32_t max_gap;                       ///< ticks since the step before; 0: no limit
    uint32_t flags;
};

struct epattern_t {
    epattern_step_t steps[EPATTERN_STEPS];
    int num_steps;
    bool valid;
};

struct epattern_match_t {
    uint32_t event_ids[EPATTERN_STEPS];  ///< for each step the first event matched
    int num_events;
};

struct epattern_watcher_t {
    epattern_t pattern;
    uint32_t last_checked;  ///< matches whose last event is newer count
    uint32_t match_count;
    bool active;
};

/// Forgets the watchers. Start-up.
void epattern_init();

/// Reads a pattern; 0, or -1 for a null or empty text or one without a step before its end or
/// "within". What follows the fourth step is ignored.
[[nodiscard]] int epattern_compile(const char* text, epattern_t* out);

/// Stores the matches, by their first events, at most `max`; their number. `out` may be null.
int epattern_match(const epattern_t* p, epattern_match_t* out, int max);

constexpr int EPATTERN_NO_SLOT = -1;  ///< all watchers are in use
constexpr int EPATTERN_NO_TASK = -2;  ///< no memory for the task

/// Installs a watcher for what happens from now on: its slot, or one of the codes above. Records
/// "watcher %d: '%s'" with `text`, the pattern as typed.
[[nodiscard]] int epattern_watch(const epattern_t& pattern, const char* text);

/// Copies the watcher in slot 0..3; false when there is none.
[[nodiscard]] bool epattern_get_watcher(int slot, epattern_watcher_t* out);

/// Counts for each watcher the sequences that were completed since it was last looked at. For each
/// of the first EPATTERN_RECORDED it records "watcher %d matched #%u..#%u", which follows the
/// sequence's last event, and for the rest one "watcher %d matched %u more up to #%u", so that a
/// pattern that fits everything does not push the history that it is about out of the ring. Events
/// of this module are no part of a sequence here, so that watching leads to no more of it. A
/// sequence that spans more than 256 identifiers may be missed.
void epattern_check();
