// Which shadows go with the removed ones, and how far down.
#include <algorithm>

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/text_line.h"
#include "kernel/graph/whatif/internal.h"

namespace {

constexpr uint16_t NONE = whatif_links_t::NONE;

/// A shadow's identifier and place, sorted by identifier.
struct place_t {
    uint32_t id;
    uint16_t at;
};

struct link_work_t {
    place_t places[WHATIF_SHADOWS];
    whatif_links_t links;
};

link_work_t work GUARDED_BY(whatif_lock);

uint16_t find_place(const place_t* places, uint32_t count, uint32_t id) {
    if (id == 0)
        return NONE;  // also what injected shadows have
    const place_t* end = places + count;
    const place_t* at = std::lower_bound(
        places, end, id, [](const place_t& place, uint32_t wanted) { return place.id < wanted; });
    return at != end && at->id == id ? at->at : NONE;
}

bool follows_gone(const whatif_branch_t& branch, const uint16_t* parents) {
    for (uint32_t i = 0; i < CAUSAL_PARENTS_MAX; i++) {
        if (parents[i] != NONE && whatif_gone(branch.events[parents[i]]))
            return true;
    }
    return false;
}

/// The walk from a shadow up its gone parents, which finds for each the longest way to the end.
/// A way that comes back to itself, which only lying identifiers make, ends there.
class heights_t {
public:
    void reset(const whatif_branch_t& branch, const whatif_links_t& links) {
        branch_ = &branch;
        links_ = &links;
        for (node_t& node : nodes_)
            node = {};
    }
    /// Steps from shadow `start` to the far end.
    uint32_t measure(uint16_t start) {
        if (nodes_[start].state == DONE)
            return nodes_[start].height;
        nodes_[start].state = ENTERED;
        for (uint16_t at = start;;) {
            const uint16_t parent = next_parent(at);
            if (parent != NONE) {
                nodes_[parent].below = at;
                at = parent;
                continue;
            }
            nodes_[at].state = DONE;
            if (at == start)
                return nodes_[at].height;
            offer(nodes_[at].below, at);
            at = nodes_[at].below;
        }
    }
    /// The next shadow on the longest way, NONE at its end.
    uint16_t up(uint16_t at) const { return nodes_[at].up; }

private:
    enum state_t : uint8_t { NEW, ENTERED, DONE };
    struct node_t {
        uint16_t height = 0;
        uint16_t up = NONE;
        uint16_t below = NONE;  ///< where the walk came from
        uint8_t next = 0;       ///< parent to look at
        state_t state = NEW;
    };

    /// `at` can go on through `parent`, whose height is known.
    void offer(uint16_t at, uint16_t parent) {
        const uint16_t height = static_cast<uint16_t>(nodes_[parent].height + 1);
        if (height < nodes_[at].height)
            return;
        nodes_[at].height = height;
        nodes_[at].up = parent;
    }

    /// The next gone parent whose height is not known yet, now entered.
    uint16_t next_parent(uint16_t at) {
        while (nodes_[at].next < CAUSAL_PARENTS_MAX) {
            const uint16_t parent = links_->parents[at][nodes_[at].next++];
            if (parent == NONE || !whatif_gone(branch_->events[parent]))
                continue;
            if (nodes_[parent].state == DONE)
                offer(at, parent);
            if (nodes_[parent].state != NEW)
                continue;
            nodes_[parent].state = ENTERED;
            return parent;
        }
        return NONE;
    }

    const whatif_branch_t* branch_;
    const whatif_links_t* links_;
    node_t nodes_[WHATIF_SHADOWS];
};

heights_t heights GUARDED_BY(whatif_lock);

void count_subsystem(whatif_impact_t* out, const char* name) {
    for (uint32_t i = 0; i < out->num_subsystems; i++) {
        if (strcmp(out->subsystem_names[i], name) == 0) {
            ++out->subsystem_counts[i];
            return;
        }
    }
    if (out->num_subsystems == WHATIF_NAMES)
        return;
    const uint32_t at = out->num_subsystems++;
    string_copy(out->subsystem_names[at], name, CAUSAL_SUBSYSTEM_SIZE);
    out->subsystem_counts[at] = 1;
}

bool is_gap(char c) { return c == ' ' || c == ':'; }

bool is_letter(char c, char lower) { return c == lower || c == lower - 'a' + 'A'; }

/// Finds the task that a description names: "pid", a gap, a number.
bool find_pid(const char* desc, uint32_t* pid) {
    for (const char* at = desc; *at != '\0'; ++at) {
        if (!is_letter(at[0], 'p') || !is_letter(at[1], 'i') || !is_letter(at[2], 'd'))
            continue;
        const char* number = at + 3;
        while (is_gap(*number))
            ++number;
        if (number == at + 3 || *number < '0' || *number > '9')
            continue;
        *pid = causal_parse_uint(number);
        return true;
    }
    return false;
}

void note_task(whatif_impact_t* out, const char* desc) {
    constexpr uint32_t LABEL_LENGTH = 30;
    uint32_t pid;
    if (!find_pid(desc, &pid) || out->num_pids == WHATIF_NAMES)
        return;
    uint32_t* end = out->pids + out->num_pids;
    if (std::find(out->pids, end, pid) != end)
        return;
    const uint32_t at = out->num_pids++;
    out->pids[at] = pid;
    string_copy(out->pid_labels[at], desc, LABEL_LENGTH + 1);
    if (char* line_end = strchr(out->pid_labels[at], '\n'))
        *line_end = '\0';
}

void keep_chain(const whatif_branch_t& branch, uint16_t from, uint32_t depth, whatif_impact_t* out)
    REQUIRES(whatif_lock) {
    out->deepest_depth = depth;
    out->deepest_len = 0;
    for (uint16_t at = from; at != NONE && out->deepest_len < WHATIF_CHAIN; at = heights.up(at))
        out->deepest_chain[out->deepest_len++] = branch.events[at].orig_id;
}

whatif_verdict_t judge(uint32_t eliminated) {
    constexpr uint32_t LOW_MOST = 5;
    constexpr uint32_t MEDIUM_MOST = 20;
    if (eliminated == 0)
        return WHATIF_NO_IMPACT;
    if (eliminated <= LOW_MOST)
        return WHATIF_LOW_IMPACT;
    return eliminated <= MEDIUM_MOST ? WHATIF_MEDIUM_IMPACT : WHATIF_HIGH_IMPACT;
}

}  // namespace

const whatif_links_t& whatif_link(const whatif_branch_t& branch) {
    for (uint32_t i = 0; i < branch.count; i++)
        work.places[i] = {branch.events[i].orig_id, static_cast<uint16_t>(i)};
    std::sort(work.places + 0, work.places + branch.count,
              [](const place_t& a, const place_t& b) { return a.id < b.id; });
    for (uint32_t i = 0; i < branch.count; i++) {
        const whatif_shadow_t& shadow = branch.events[i];
        for (uint32_t k = 0; k < CAUSAL_PARENTS_MAX; k++) {
            const uint32_t id = k < shadow.num_parents ? shadow.parents[k] : 0;
            work.links.parents[i][k] = find_place(work.places, branch.count, id);
        }
    }
    return work.links;
}

uint32_t whatif_propagate(whatif_branch_t& branch) {
    for (uint32_t i = 0; i < branch.count; i++) {
        if (branch.events[i].status == WHATIF_AFFECTED)
            branch.events[i].status = WHATIF_ORIGINAL;
    }
    const whatif_links_t& links = whatif_link(branch);
    uint32_t affected = 0;
    // Each pass but the last marks a shadow for good.
    for (bool changed = true; changed;) {
        changed = false;
        for (uint32_t i = 0; i < branch.count; i++) {
            whatif_shadow_t& shadow = branch.events[i];
            if (shadow.status != WHATIF_ORIGINAL || !follows_gone(branch, links.parents[i]))
                continue;
            shadow.status = WHATIF_AFFECTED;
            changed = true;
            ++affected;
        }
    }
    return affected;
}

void whatif_sum_up(const whatif_branch_t& branch, uint32_t eliminated, whatif_impact_t* out) {
    memset(out, 0, sizeof *out);
    out->eliminated = eliminated;
    out->verdict = judge(eliminated);
    heights.reset(branch, whatif_link(branch));
    for (uint16_t i = 0; i < branch.count; i++) {
        const whatif_shadow_t& shadow = branch.events[i];
        if (shadow.status != WHATIF_AFFECTED)
            continue;
        count_subsystem(out, shadow.subsystem);
        note_task(out, shadow.desc);
        const uint32_t depth = heights.measure(i);
        if (depth > out->deepest_depth)
            keep_chain(branch, i, depth, out);
    }
}
