// What-if: which events would not have happened without a given one. A branch is a scratch copy of
// an event and what followed from it ("shadows"); removing shadows and following the parent links
// tells what else is gone. The graph itself never changes.
//
//   fork event -> shadows, depth first (256 at most) -> remove / inject -> affected -> impact
//
// A branch keeps showing the graph as it was when it was made. What does not fit into 256 shadows
// is left out. Task context only: events come from the archive too. One mutex guards the four
// branches, so that shells wait for each other; it stands above the journal's. Every function
// prints one line for what it refuses, and then changes nothing. Events are CAUSAL_USER "whatif".
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr int WHATIF_BRANCHES = 4;
constexpr uint32_t WHATIF_SHADOWS = 256;
constexpr uint32_t WHATIF_CHILDREN = 16;  ///< effects of one event that are followed
constexpr uint32_t WHATIF_NAMES = 16;     ///< subsystems, and tasks, that an impact lists
constexpr uint32_t WHATIF_CHAIN = 8;
constexpr uint32_t WHATIF_LABEL_SIZE = 32;

enum whatif_status_t : uint32_t {
    WHATIF_ORIGINAL = 0,
    WHATIF_REMOVED = 1,
    WHATIF_INJECTED = 2,
    WHATIF_AFFECTED = 3,
};

enum whatif_verdict_t : uint32_t {
    WHATIF_NO_IMPACT = 0,
    WHATIF_LOW_IMPACT = 1,     ///< 1 to 5 events
    WHATIF_MEDIUM_IMPACT = 2,  ///< 6 to 20
    WHATIF_HIGH_IMPACT = 3,    ///< more
};

/// The copy of one event.
struct whatif_shadow_t {
    uint32_t orig_id;  ///< 0: injected
    uint32_t type;
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    uint32_t parents[CAUSAL_PARENTS_MAX];
    uint8_t num_parents;
    uint32_t wall_ticks;
    uint64_t lamport;
    whatif_status_t status;
};

struct whatif_branch_t {
    bool active;
    uint32_t fork_event;
    char description[CAUSAL_DESC_SIZE];
    whatif_shadow_t events[WHATIF_SHADOWS];  ///< the fork event first
    uint32_t count;
};

/// What a removal takes along.
struct whatif_impact_t {
    char subsystem_names[WHATIF_NAMES][CAUSAL_SUBSYSTEM_SIZE];
    uint32_t subsystem_counts[WHATIF_NAMES];
    uint32_t num_subsystems;
    uint32_t pids[WHATIF_NAMES];
    char pid_labels[WHATIF_NAMES][WHATIF_LABEL_SIZE];
    uint32_t num_pids;
    uint32_t eliminated;
    uint32_t deepest_depth;
    uint32_t deepest_chain[WHATIF_CHAIN];  ///< from the deepest event towards the removed one
    uint32_t deepest_len;
    whatif_verdict_t verdict;
};

/// Frees all branches. Start-up.
void whatif_init();

/// "original", "REMOVED", "INJECTED", "AFFECTED"; "?" for another value.
const char* status_label(uint32_t status);

/// "NO IMPACT" to "HIGH IMPACT"; "UNKNOWN" for another value.
const char* verdict_label(uint32_t verdict);

// --- Branches: 0, a slot or a count on success, -1 on failure ------------------------------------

/// A new branch from event `event_id`; `description` (null or empty: "unnamed branch") is cut at
/// 79 characters. Its slot 0..3. Records "branch %d from event %u (%u shadow events)".
int whatif_branch(uint32_t event_id, const char* description);

/// Marks a shadow removed.
int whatif_remove(int branch, uint32_t event_id);

/// Adds an event that never was, as an effect of the fork event; texts are cut to their fields.
int whatif_inject(int branch, uint32_t type, const char* subsystem, const char* desc);

/// Marks what would not have happened without the removed shadows and prints it; their number.
/// Injected shadows neither vanish nor pass removal on.
int whatif_analyze(int branch);

/// whatif_analyze, and what it means for subsystems and tasks, into `out` (not null) and printed.
int whatif_analyze_impact(int branch, whatif_impact_t* out);

/// Prints all shadows as a table.
void whatif_compare(int branch);

/// Prints the branches there are.
void whatif_list();

/// Frees the branch.
void whatif_destroy(int branch);

// --- In one go: a branch for the time of the call ------------------------------------------------

/// Prints what the removal of `event_id` would take along.
void whatif_drop(uint32_t event_id);

/// The same without printing.
void whatif_quick(uint32_t event_id);

/// The same in one line.
void whatif_summary(uint32_t event_id);

/// Looks for the likely cause of a fault (blame.h) and prints what its removal would take along.
void whatif_fix(uint32_t fault_event_id);

// --- Self-tests: record events of their own, analyse them, print PASS or FAIL --------------------

/// root -> mid -> leaf: what goes with the root.
void whatif_selftest();

/// Each operation on a branch in turn.
void whatif_opstest();

/// Runs the demonstration `name` ("actordemo", "fsdemo", "delaydemo", "capdemo", "netdemo",
/// "remotedemo"), or all for "demos"; false when there is none of that name.
bool whatif_demo(const char* name);

/// Runs the live test `name` ("sleeptest", "fstest", "captest", "nettest"), or all for "live", on
/// what the system itself records; false when there is none of that name.
bool whatif_live(const char* name);
