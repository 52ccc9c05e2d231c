// What the engine prints: analyses, impacts, tables; and the analyses in one go.
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/text_line.h"
#include "kernel/graph/blame.h"
#include "kernel/graph/whatif/internal.h"

namespace {

constexpr const char* STATUS_LABELS[] = {"original", "REMOVED", "INJECTED", "AFFECTED"};
constexpr const char* VERDICT_LABELS[] = {"NO IMPACT", "LOW IMPACT", "MEDIUM IMPACT",
                                          "HIGH IMPACT"};

using line_t = text_line_t<KPRINTF_BYTES>;

uint32_t count_status(const whatif_branch_t& branch, whatif_status_t status) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < branch.count; i++)
        count += branch.events[i].status == status ? 1 : 0;
    return count;
}

void print_affected(const whatif_branch_t& branch) {
    kprintf("  affected events:\n");
    for (uint32_t i = 0; i < branch.count; i++) {
        const whatif_shadow_t& shadow = branch.events[i];
        if (shadow.status == WHATIF_AFFECTED)
            kprintf("    [%u] %s: %s\n", shadow.orig_id, shadow.subsystem, shadow.desc);
    }
}

void print_analysis(const whatif_branch_t& branch, int slot, uint32_t affected) {
    const uint32_t removed = count_status(branch, WHATIF_REMOVED);
    const uint32_t injected = count_status(branch, WHATIF_INJECTED);
    kprintf("whatif: branch %d analysis — \"%s\"\n", slot, branch.description);
    kprintf("  fork point:  event %u\n", branch.fork_event);
    kprintf("  total shadow events: %u\n", branch.count);
    kprintf("  removed:   %u\n", removed);
    kprintf("  injected:  %u\n", injected);
    kprintf("  affected:  %u (would not have happened)\n", affected);
    kprintf("  unchanged: %u\n", branch.count - removed - affected - injected);
    if (affected != 0)
        print_affected(branch);
}

void print_row(const char* id, const char* status, const char* subsystem, const char* desc) {
    kprintf("  %-6s  %-10s  %-10s  %s\n", id, status, subsystem, desc);
}

void print_shadow(const whatif_shadow_t& shadow) {
    char id[12] = "(new)";
    if (shadow.status != WHATIF_INJECTED)
        ksnprintf(id, sizeof id, "%u", shadow.orig_id);
    print_row(id, status_label(shadow.status), shadow.subsystem, shadow.desc);
}

const char* type_label(uint32_t type) {
    return type < CAUSAL_TYPE_COUNT ? causal_type_label_upper(type) : "OTHER";
}

void print_chain(const whatif_impact_t& impact) {
    line_t line;
    line.add("  Deepest chain removed: depth %u (", impact.deepest_depth);
    for (uint32_t i = impact.deepest_len; i > 0; i--)
        line.add("%u%s", impact.deepest_chain[i - 1], i > 1 ? " -> " : "");
    line.add(")\n");
    line.print();
}

void print_tasks(const whatif_impact_t& impact) {
    line_t line;
    line.add("  Affected tasks:");
    for (uint32_t i = 0; i < impact.num_pids; i++)
        line.add("%s PID %u", i == 0 ? "" : ",", impact.pids[i]);
    line.add("\n");
    line.print();
}

/// The impact of the analysis in hand; too big for a stack.
whatif_impact_t impact_in_hand GUARDED_BY(whatif_lock);

/// Copies what is printed about an event; prints the refusal when there is none.
bool find_event(uint32_t event_id, causal_event_t* ev) {
    if (causal_copy(event_id, ev))
        return true;
    kprintf("whatif: event %u not found\n", event_id);
    return false;
}

/// The most blamed one; of equals the one with more descendants, then the first.
const blame_suspect_t* choose(const blame_suspect_t* suspects, int count) {
    const blame_suspect_t* best = suspects;
    for (const blame_suspect_t* one = suspects + 1; one < suspects + count; ++one) {
        const bool more = one->score > best->score ||
                          (one->score == best->score && one->descendants > best->descendants);
        if (more)
            best = one;
    }
    return best;
}

void print_summary(uint32_t event_id, const char* subsystem, const whatif_impact_t& impact) {
    line_t line;
    line.add("whatif: drop #%u (%s) -> %u event%s eliminated", event_id, subsystem,
             impact.eliminated, impact.eliminated == 1 ? "" : "s");
    if (impact.num_subsystems != 0)
        line.add(", subsystems:");
    whatif_add_subsystems(line, impact);
    line.add(", verdict: %s\n", verdict_label(impact.verdict));
    line.print();
}

}  // namespace

const char* status_label(uint32_t status) {
    return status <= WHATIF_AFFECTED ? STATUS_LABELS[status] : "?";
}

const char* verdict_label(uint32_t verdict) {
    return verdict <= WHATIF_HIGH_IMPACT ? VERDICT_LABELS[verdict] : "UNKNOWN";
}

void whatif_print_impact(whatif_branch_t& branch, const whatif_impact_t& impact) {
    line_t line;
    line.add("\nWhat-if: Remove event %u", branch.fork_event);
    if (const whatif_shadow_t* fork = whatif_shadow_of(branch, branch.fork_event))
        line.add(" (%s: %s)", type_label(fork->type), fork->desc);
    line.add("\n  Would eliminate: %u downstream events\n", impact.eliminated);
    line.print();
    if (impact.num_subsystems != 0) {
        line_t subsystems;
        subsystems.add("  Affected subsystems:");
        whatif_add_subsystems(subsystems, impact);
        subsystems.add("\n");
        subsystems.print();
    }
    if (impact.num_pids != 0)
        print_tasks(impact);
    if (impact.deepest_depth != 0)
        print_chain(impact);
    line_t verdict;
    verdict.add("  Verdict: %s", verdict_label(impact.verdict));
    if (impact.eliminated != 0 && impact.num_pids != 0)
        verdict.add(" — removing this event disrupts %u service%s", impact.num_pids,
                    impact.num_pids == 1 ? "" : "s");
    verdict.add("\n");
    verdict.print();
}

int whatif_analyze_locked(int branch) {
    whatif_branch_t* found = whatif_find(branch);
    if (found == nullptr)
        return -1;
    const uint32_t affected = whatif_propagate(*found);
    if (!whatif_quiet)
        print_analysis(*found, branch, affected);
    return static_cast<int>(affected);
}

int whatif_impact_locked(int branch, whatif_impact_t* out) {
    const int affected = whatif_analyze_locked(branch);
    if (affected < 0)
        return -1;
    whatif_branch_t& found = whatif_branches[branch];
    whatif_sum_up(found, static_cast<uint32_t>(affected), out);
    if (!whatif_quiet)
        whatif_print_impact(found, *out);
    return affected;
}

int whatif_run_drop_locked(uint32_t event_id, bool quiet, whatif_impact_t* out) {
    whatif_quiet_scope scope(quiet);
    *out = {};
    const int branch = whatif_branch_locked(event_id, "drop analysis");
    if (branch < 0)
        return -1;
    whatif_remove_locked(branch, event_id);
    whatif_impact_locked(branch, out);
    whatif_destroy_locked(branch);
    return 0;
}

int whatif_analyze(int branch) {
    mutex_guard lock(whatif_lock);
    return whatif_analyze_locked(branch);
}

int whatif_analyze_impact(int branch, whatif_impact_t* out) {
    mutex_guard lock(whatif_lock);
    return whatif_impact_locked(branch, out);
}

void whatif_compare(int branch) {
    constexpr const char* DASHES = "----------------------------------------";
    mutex_guard lock(whatif_lock);
    const whatif_branch_t* found = whatif_find(branch);
    if (found == nullptr)
        return;
    kprintf("whatif: branch %d — \"%s\" (fork at event %u)\n", branch, found->description,
            found->fork_event);
    print_row("ID", "STATUS", "SUBSYSTEM", "DESCRIPTION");
    print_row("------", "----------", "----------", DASHES);
    for (uint32_t i = 0; i < found->count; i++)
        print_shadow(found->events[i]);
}

void whatif_list() {
    mutex_guard lock(whatif_lock);
    bool any = false;
    for (int i = 0; i < WHATIF_BRANCHES; i++) {
        const whatif_branch_t& branch = whatif_branches[i];
        if (!branch.active)
            continue;
        any = true;
        kprintf("  branch %d: fork@%u, %u events — \"%s\"\n", i, branch.fork_event, branch.count,
                branch.description);
    }
    if (!any)
        kprintf("whatif: no active branches\n");
}

void whatif_drop(uint32_t event_id) {
    mutex_guard lock(whatif_lock);
    whatif_run_drop_locked(event_id, false, &impact_in_hand);
}

void whatif_quick(uint32_t event_id) {
    mutex_guard lock(whatif_lock);
    whatif_run_drop_locked(event_id, true, &impact_in_hand);
}

void whatif_summary(uint32_t event_id) {
    causal_event_t ev;
    if (!find_event(event_id, &ev))
        return;
    mutex_guard lock(whatif_lock);
    if (whatif_run_drop_locked(event_id, true, &impact_in_hand) == 0)
        print_summary(event_id, ev.subsystem, impact_in_hand);
}

void whatif_fix(uint32_t fault_event_id) {
    causal_event_t fault;
    if (!find_event(fault_event_id, &fault))
        return;
    auto suspects = heap_ptr<blame_suspect_t>::make(BLAME_SUSPECTS);
    if (!suspects) {
        kprintf("whatif fix: out of memory\n");
        return;
    }
    const int count = blame_analyze(fault_event_id, suspects.get(), BLAME_SUSPECTS);
    if (count <= 0) {
        kprintf("whatif fix: event %u has no upstream cause (it is a root event)\n",
                fault_event_id);
        return;
    }
    const blame_suspect_t& cause = *choose(suspects.get(), count);
    kprintf("whatif fix: fault #%u \"%s\"\n", fault_event_id, fault.desc);
    kprintf("  suspected root cause: #%u \"%s\" (blame %d.%d%%)\n", cause.event_id, cause.desc,
            cause.score / 10, cause.score % 10);
    kprintf("  fixing it would remove the following downstream effects:\n");
    whatif_drop(cause.event_id);
}
