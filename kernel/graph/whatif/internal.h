// What the files of the what-if engine share. Private to kernel/graph/whatif/.
#pragma once

#include "kernel/core/mutex.h"
#include "kernel/graph/whatif.h"

extern mutex_t whatif_lock;

/// Suppresses what successful operations print.
extern bool whatif_quiet GUARDED_BY(whatif_lock);

extern whatif_branch_t whatif_branches[WHATIF_BRANCHES] GUARDED_BY(whatif_lock);

/// Sets whatif_quiet for a scope.
class whatif_quiet_scope {
public:
    explicit whatif_quiet_scope(bool quiet) REQUIRES(whatif_lock) : saved_(whatif_quiet) {
        whatif_quiet = quiet;
    }
    ~whatif_quiet_scope() NO_THREAD_SAFETY_ANALYSIS { whatif_quiet = saved_; }
    whatif_quiet_scope(const whatif_quiet_scope&) = delete;
    whatif_quiet_scope& operator=(const whatif_quiet_scope&) = delete;

private:
    bool saved_;
};

/// The branch in that slot; prints the refusal and gives null when there is none.
whatif_branch_t* whatif_find(int branch) REQUIRES(whatif_lock);

/// The shadow of an event, null when the branch has none. 0 is no event.
whatif_shadow_t* whatif_shadow_of(whatif_branch_t& branch, uint32_t event_id) REQUIRES(whatif_lock);

/// Whether the shadow is gone in its branch.
inline bool whatif_gone(const whatif_shadow_t& shadow) {
    return shadow.status == WHATIF_REMOVED || shadow.status == WHATIF_AFFECTED;
}

/// For each shadow the places of its parents in the branch.
struct whatif_links_t {
    static constexpr uint16_t NONE = 0xFFFF;
    uint16_t parents[WHATIF_SHADOWS][CAUSAL_PARENTS_MAX];
};

/// The links of a branch; they hold until the next call.
const whatif_links_t& whatif_link(const whatif_branch_t& branch) REQUIRES(whatif_lock);

/// Marks what goes with the removed shadows; prints nothing. Returns the number.
uint32_t whatif_propagate(whatif_branch_t& branch) REQUIRES(whatif_lock);

/// Fills `out` from the affected shadows.
void whatif_sum_up(const whatif_branch_t& branch, uint32_t eliminated, whatif_impact_t* out)
    REQUIRES(whatif_lock);

/// Prints an impact.
void whatif_print_impact(whatif_branch_t& branch, const whatif_impact_t& impact)
    REQUIRES(whatif_lock);

/// Adds " %s(%u)" for each subsystem, separated by ",", to `line`.
template <typename line_t>
void whatif_add_subsystems(line_t& line, const whatif_impact_t& impact) {
    for (uint32_t i = 0; i < impact.num_subsystems; i++)
        line.add("%s %s(%u)", i == 0 ? "" : ",", impact.subsystem_names[i],
                 impact.subsystem_counts[i]);
}

// The operations of the header with the lock held.
int whatif_branch_locked(uint32_t event_id, const char* description) REQUIRES(whatif_lock);
int whatif_remove_locked(int branch, uint32_t event_id) REQUIRES(whatif_lock);
int whatif_inject_locked(int branch, uint32_t type, const char* subsystem, const char* desc)
    REQUIRES(whatif_lock);
int whatif_analyze_locked(int branch) REQUIRES(whatif_lock);
int whatif_impact_locked(int branch, whatif_impact_t* out) REQUIRES(whatif_lock);
void whatif_destroy_locked(int branch) REQUIRES(whatif_lock);

/// Removes `event_id` in a branch made for that, sums up into `out` and frees the branch. 0, or -1
/// when no branch could be made.
int whatif_run_drop_locked(uint32_t event_id, bool quiet, whatif_impact_t* out)
    REQUIRES(whatif_lock);

/// What a self-test looks for among the events that go with the removed one.
struct whatif_wanted_t {
    const char* subsystem;
    const char* desc;  ///< how its description begins
};

/// Removes `event_id` in a branch made for that and sums up into `out`. True when an event as
/// wanted is gone with it while `bystander` is none of the branch; false as well when no branch
/// could be made.
bool whatif_takes_along_locked(uint32_t event_id, const whatif_wanted_t& wanted, uint32_t bystander,
                               whatif_impact_t* out) REQUIRES(whatif_lock);
