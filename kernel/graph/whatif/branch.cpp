// Branches: copying an event and what followed from it, and the changes that a user makes to it.
#include <algorithm>

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/id_set.h"
#include "kernel/graph/whatif/internal.h"

mutex_t whatif_lock;
bool whatif_quiet;
whatif_branch_t whatif_branches[WHATIF_BRANCHES];

namespace {

/// An event whose effects are being copied: they, and the next one to look at.
struct frame_t {
    uint32_t children[WHATIF_CHILDREN];
    int count;
    int next;
};

/// The walk that fills a branch. A frame belongs to a shadow, so there are never more.
struct walk_t {
    frame_t frames[WHATIF_SHADOWS];
    uint32_t depth;
    id_set_t<WHATIF_SHADOWS> seen;
};

walk_t walk GUARDED_BY(whatif_lock);

bool copy_event(whatif_branch_t& branch, uint32_t id) {
    causal_event_t ev;
    if (!causal_copy(id, &ev))
        return false;
    whatif_shadow_t& shadow = branch.events[branch.count++];
    shadow = {};
    shadow.orig_id = id;
    shadow.type = ev.type;
    string_copy(shadow.subsystem, ev.subsystem, sizeof shadow.subsystem);
    string_copy(shadow.desc, ev.desc, sizeof shadow.desc);
    shadow.num_parents =
        std::min<uint8_t>(ev.num_parents, static_cast<uint8_t>(CAUSAL_PARENTS_MAX));
    std::copy_n(ev.parents, shadow.num_parents, shadow.parents);
    shadow.wall_ticks = ev.time.wall_ticks;
    shadow.lamport = ev.time.lamport;
    return true;
}

/// Begins with the effects of `id`.
void enter(uint32_t id) REQUIRES(whatif_lock) {
    frame_t& frame = walk.frames[walk.depth++];
    frame.count = causal_children_ids(id, frame.children, WHATIF_CHILDREN);
    frame.next = 0;
}

/// Copies the effects of `id`, depth first, each once.
void collect_descendants(whatif_branch_t& branch, uint32_t id) REQUIRES(whatif_lock) {
    walk.depth = 0;
    enter(id);
    while (walk.depth != 0 && branch.count < WHATIF_SHADOWS) {
        frame_t& frame = walk.frames[walk.depth - 1];
        if (frame.next == frame.count) {
            --walk.depth;
            continue;
        }
        const uint32_t child = frame.children[frame.next++];
        if (walk.seen.holds(child) || !copy_event(branch, child))
            continue;
        walk.seen.add(child);
        enter(child);
    }
}

int free_slot() REQUIRES(whatif_lock) {
    for (int i = 0; i < WHATIF_BRANCHES; i++) {
        if (!whatif_branches[i].active)
            return i;
    }
    return -1;
}

}  // namespace

void whatif_init() {
    mutex_guard lock(whatif_lock);
    for (whatif_branch_t& branch : whatif_branches) {
        branch.active = false;
        branch.count = 0;
    }
    whatif_quiet = false;
}

whatif_branch_t* whatif_find(int branch) {
    if (branch >= 0 && branch < WHATIF_BRANCHES && whatif_branches[branch].active)
        return &whatif_branches[branch];
    kprintf("whatif: invalid branch %d\n", branch);
    return nullptr;
}

whatif_shadow_t* whatif_shadow_of(whatif_branch_t& branch, uint32_t event_id) {
    for (uint32_t i = 0; i < branch.count && event_id != 0; i++) {
        if (branch.events[i].orig_id == event_id)
            return &branch.events[i];
    }
    return nullptr;
}

int whatif_branch_locked(uint32_t event_id, const char* description) {
    constexpr int NO_SLOT = -1;
    if (causal_get(event_id) == nullptr) {
        kprintf("whatif: event %u not found\n", event_id);
        return -1;
    }
    const int slot = free_slot();
    if (slot == NO_SLOT) {
        kprintf("whatif: all %d branch slots full\n", WHATIF_BRANCHES);
        return -1;
    }
    whatif_branch_t& branch = whatif_branches[slot];
    branch.count = 0;
    // It may have left ring and archive since it was looked up.
    if (!copy_event(branch, event_id)) {
        kprintf("whatif: event %u not found\n", event_id);
        return -1;
    }
    branch.active = true;
    branch.fork_event = event_id;
    const bool named = description != nullptr && description[0] != '\0';
    string_copy(branch.description, named ? description : "unnamed branch",
                sizeof branch.description);
    walk.seen.clear();
    walk.seen.add(event_id);
    collect_descendants(branch, event_id);
    causal_event_fmt(CAUSAL_USER, "whatif", "branch %d from event %u (%u shadow events)", slot,
                     event_id, branch.count);
    if (!whatif_quiet)
        kprintf("whatif: branch %d created from event %u — %u events copied\n", slot, event_id,
                branch.count);
    return slot;
}

int whatif_remove_locked(int branch, uint32_t event_id) {
    whatif_branch_t* found = whatif_find(branch);
    if (found == nullptr)
        return -1;
    whatif_shadow_t* shadow = whatif_shadow_of(*found, event_id);
    if (shadow == nullptr) {
        kprintf("whatif: event %u not in branch %d\n", event_id, branch);
        return -1;
    }
    shadow->status = WHATIF_REMOVED;
    if (!whatif_quiet)
        kprintf("whatif: event %u marked removed in branch %d\n", event_id, branch);
    return 0;
}

int whatif_inject_locked(int branch, uint32_t type, const char* subsystem, const char* desc) {
    whatif_branch_t* found = whatif_find(branch);
    if (found == nullptr)
        return -1;
    if (found->count == WHATIF_SHADOWS) {
        kprintf("whatif: branch %d shadow buffer full\n", branch);
        return -1;
    }
    whatif_shadow_t& shadow = found->events[found->count++];
    shadow = {};
    shadow.type = type;
    string_copy(shadow.subsystem, subsystem, sizeof shadow.subsystem);
    string_copy(shadow.desc, desc, sizeof shadow.desc);
    shadow.parents[0] = found->fork_event;
    shadow.num_parents = 1;
    shadow.status = WHATIF_INJECTED;
    if (!whatif_quiet)
        kprintf("whatif: injected hypothetical event into branch %d\n", branch);
    return 0;
}

void whatif_destroy_locked(int branch) {
    whatif_branch_t* found = whatif_find(branch);
    if (found == nullptr)
        return;
    found->active = false;
    if (!whatif_quiet)
        kprintf("whatif: branch %d destroyed\n", branch);
}

int whatif_branch(uint32_t event_id, const char* description) {
    mutex_guard lock(whatif_lock);
    return whatif_branch_locked(event_id, description);
}

int whatif_remove(int branch, uint32_t event_id) {
    mutex_guard lock(whatif_lock);
    return whatif_remove_locked(branch, event_id);
}

int whatif_inject(int branch, uint32_t type, const char* subsystem, const char* desc) {
    mutex_guard lock(whatif_lock);
    return whatif_inject_locked(branch, type, subsystem, desc);
}

void whatif_destroy(int branch) {
    mutex_guard lock(whatif_lock);
    whatif_destroy_locked(branch);
}
