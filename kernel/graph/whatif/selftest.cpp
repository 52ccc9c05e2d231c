// Self-tests of the engine on small graphs that they record.
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/whatif/internal.h"

namespace {

/// root -> mid -> leaf, behind whatever the task did last.
struct chain_t {
    uint32_t root;
    uint32_t mid;
    uint32_t leaf;
};

uint32_t record(const char* desc, uint32_t parent) {
    return causal_emit(CAUSAL_USER, "whatif", desc, &parent, 1);
}

chain_t record_chain() {
    chain_t chain;
    chain.root = record("selftest root", causal_get_current());
    chain.mid = record("selftest mid", chain.root);
    chain.leaf = record("selftest leaf", chain.mid);
    return chain;
}

/// The leaf is the current event of the task, so that more may follow it before the branch is made.
bool chain_is(const whatif_impact_t& impact, const chain_t& chain) {
    const uint32_t* found = impact.deepest_chain;
    return impact.eliminated == 2 && impact.verdict == WHATIF_LOW_IMPACT &&
           impact.num_subsystems == 1 && impact.deepest_depth == 2 && impact.deepest_len == 3 &&
           found[0] == chain.leaf && found[1] == chain.mid && found[2] == chain.root;
}

/// One operation after the other on branch `slot`; what went wrong first, or null.
const char* check_operations(int slot, const chain_t& chain, whatif_impact_t* impact)
    REQUIRES(whatif_lock) {
    if (whatif_branches[slot].count != 3)
        return "branch";
    if (whatif_remove_locked(slot, chain.mid) != 0)
        return "remove";
    if (whatif_inject_locked(slot, CAUSAL_USER, "whatif", "opstest hypothesis") != 0)
        return "inject";
    if (whatif_analyze_locked(slot) != 1)
        return "analyze";
    const whatif_shadow_t* shadows = whatif_branches[slot].events;
    const bool marked =
        shadows[0].status == WHATIF_ORIGINAL && shadows[1].status == WHATIF_REMOVED &&
        shadows[2].status == WHATIF_AFFECTED && shadows[3].status == WHATIF_INJECTED;
    if (!marked)
        return "status";
    if (whatif_impact_locked(slot, impact) != 1 || impact->deepest_depth != 1)
        return "impact";
    // The graph is as it was.
    causal_event_t ev;
    const bool kept = causal_copy(chain.leaf, &ev) && ev.parents[0] == chain.mid;
    return kept ? nullptr : "graph";
}

const char* run_operations(const chain_t& chain) REQUIRES(whatif_lock) {
    static whatif_impact_t impact;
    const int slot = whatif_branch_locked(chain.root, "opstest");
    if (slot < 0)
        return "slot";
    const char* wrong = check_operations(slot, chain, &impact);
    whatif_destroy_locked(slot);
    if (wrong == nullptr && whatif_branches[slot].active)
        return "destroy";
    return wrong;
}

bool begins_with(const char* text, const char* start) {
    return strncmp(text, start, strlen(start)) == 0;
}

}  // namespace

bool whatif_takes_along_locked(uint32_t event_id, const whatif_wanted_t& wanted, uint32_t bystander,
                               whatif_impact_t* out) {
    whatif_quiet_scope scope(true);
    const int slot = whatif_branch_locked(event_id, "self-test");
    if (slot < 0)
        return false;
    whatif_branch_t& branch = whatif_branches[slot];
    whatif_remove_locked(slot, event_id);
    whatif_impact_locked(slot, out);
    bool found = false;
    for (uint32_t i = 0; i < branch.count && !found; i++) {
        const whatif_shadow_t& shadow = branch.events[i];
        found = shadow.status == WHATIF_AFFECTED &&
                strcmp(shadow.subsystem, wanted.subsystem) == 0 &&
                begins_with(shadow.desc, wanted.desc);
    }
    const bool alone = whatif_shadow_of(branch, bystander) == nullptr;
    whatif_destroy_locked(slot);
    return found && alone;
}

void whatif_selftest() {
    static whatif_impact_t impact;
    mutex_guard lock(whatif_lock);
    const uint32_t before = causal_get_current();
    const chain_t chain = record_chain();
    causal_set_current(before);
    const bool passed =
        whatif_run_drop_locked(chain.root, true, &impact) == 0 && chain_is(impact, chain);
    kprintf("whatif selftest: %s root=%u mid=%u leaf=%u eliminated=%u verdict=%s\n",
            passed ? "PASS" : "FAIL", chain.root, chain.mid, chain.leaf, impact.eliminated,
            verdict_label(impact.verdict));
}

void whatif_opstest() {
    mutex_guard lock(whatif_lock);
    whatif_quiet_scope scope(true);
    const uint32_t before = causal_get_current();
    const chain_t chain = record_chain();
    causal_set_current(before);
    const char* wrong = run_operations(chain);
    if (wrong == nullptr)
        kprintf("whatif opstest: PASS branch remove inject analyze impact destroy\n");
    else
        kprintf("whatif opstest: FAIL at %s\n", wrong);
}
