#include "kernel/graph/blame.h"

#include <algorithm>

#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/graph/ring_read.h"

namespace {

/// A set of suspects, bit i for the i-th.
using suspects_t = uint32_t;
static_assert(BLAME_SUSPECTS <= 32);

/// What one event of the ring has to do with the suspects.
struct mark_t {
    suspects_t own;    ///< it is one itself
    suspects_t after;  ///< those it descends from
    suspects_t near;   ///< the same without passing a fault
    bool fault;
    bool leads;  ///< to a fault, or is one
};

/// What a suspect's effects come to.
struct tally_t {
    uint32_t faults;
    uint32_t descendants;
    uint32_t near;
    uint32_t leading;
};

struct work_t {
    mark_t marks[CAUSAL_RING_SLOTS];
    uint32_t ids[BLAME_SUSPECTS];
    tally_t tallies[BLAME_SUSPECTS];
    uint32_t oldest, newest;  ///< the part of the ring that is looked at
    uint32_t total_faults;
    uint32_t fault_id;
    int count;

    mark_t& mark(uint32_t id) { return marks[id % CAUSAL_RING_SLOTS]; }
    bool covers(uint32_t id) const { return id >= oldest && id <= newest; }
    suspects_t bit_of_archived(uint32_t id) const {
        const uint32_t* at = std::find(ids, ids + count, id);
        return at == ids + count ? 0 : suspects_t{1} << (at - ids);
    }
};

mutex_t work_lock;
work_t work_in_hand GUARDED_BY(work_lock);  // a quarter of a megabyte

/// Finds out from the causes of event `id` which suspects it descends from. Causes come first, so
/// theirs is known; one that claims to be younger than its effect is not believed.
void mark_event(work_t& work, uint32_t id) {
    mark_t mark = {};
    uint32_t parents[CAUSAL_PARENTS_MAX];
    int count = 0;
    const bool there = causal_read_ring(id, [&](const causal_event_t& ev) {
        count = std::min<int>(ev.num_parents, CAUSAL_PARENTS_MAX);
        std::copy_n(ev.parents, count, parents);
        mark.fault = id == work.fault_id || causal_is_fault(ev.desc);
    });
    if (!there)
        return;
    mark.own = work.mark(id).own;
    mark.leads = mark.fault;
    for (int i = 0; i < count; i++) {
        const uint32_t parent = parents[i];
        if (work.covers(parent) && parent < id) {
            const mark_t& cause = work.mark(parent);
            mark.after |= cause.after | cause.own;
            mark.near |= cause.fault ? cause.own : cause.near | cause.own;
        } else if (parent < work.oldest) {
            mark.after |= work.bit_of_archived(parent);
            mark.near |= work.bit_of_archived(parent);
        }
    }
    mark.after &= ~mark.own;
    mark.near &= ~mark.own;
    work.mark(id) = mark;
}

/// Tells the causes of an event that leads to a fault that they do.
void pass_back(work_t& work, uint32_t id) {
    uint32_t parents[CAUSAL_PARENTS_MAX];
    const int count = work.mark(id).leads ? causal_parents_of(id, parents) : 0;
    for (int i = 0; i < count; i++) {
        if (work.covers(parents[i]) && parents[i] < id)
            work.mark(parents[i]).leads = true;
    }
}

void tally_event(work_t& work, uint32_t id) {
    const mark_t& mark = work.mark(id);
    work.total_faults += mark.fault && mark.after != 0 ? 1 : 0;
    for (suspects_t rest = mark.after; rest != 0; rest &= rest - 1) {
        const int i = __builtin_ctz(rest);
        tally_t& tally = work.tallies[i];
        const bool near = (mark.near >> i & 1) != 0;
        ++tally.descendants;
        tally.faults += mark.fault ? 1 : 0;
        tally.near += near ? 1 : 0;
        tally.leading += near && mark.leads ? 1 : 0;
    }
}

/// The fault itself, where it has left the ring, is still what each suspect explains.
void begin(work_t& work, uint32_t fault_id) {
    std::fill_n(work.marks, CAUSAL_RING_SLOTS, mark_t{});
    work.oldest = causal_oldest_event_id();
    work.newest = causal_total_events();
    work.fault_id = fault_id;
    const uint32_t archived = fault_id < work.oldest ? 1 : 0;
    work.total_faults = archived;
    std::fill_n(work.tallies, BLAME_SUSPECTS, tally_t{archived, archived, archived, archived});
    work.count = causal_ancestor_ids(fault_id, work.ids, BLAME_SUSPECTS);
    for (int i = 0; i < work.count; i++) {
        if (work.covers(work.ids[i]))
            work.mark(work.ids[i]).own |= suspects_t{1} << i;
    }
}

/// Both passes. The ring moves on meanwhile; what was recorded since does not count.
void survey(work_t& work) {
    const uint32_t span = work.newest - work.oldest + 1;
    for (uint32_t i = 0; i < span; i++)
        mark_event(work, work.oldest + i);
    for (uint32_t i = span; i > 0; i--) {
        pass_back(work, work.oldest + i - 1);
        tally_event(work, work.oldest + i - 1);
    }
}

int score_of(const tally_t& tally, uint32_t total_faults) {
    if (tally.near == 0 || total_faults == 0)
        return 0;
    const uint64_t part = uint64_t{BLAME_SCORE_MAX} * tally.faults * tally.leading;
    return static_cast<int>(part / (uint64_t{total_faults} * tally.near));
}

bool blamed_more(const blame_suspect_t& a, const blame_suspect_t& b) {
    return a.score != b.score ? a.score > b.score : a.descendants > b.descendants;
}

/// Puts a suspect behind those that are blamed as much.
void insert(blame_suspect_t* out, int count, const blame_suspect_t& suspect) {
    int at = count;
    for (; at > 0 && blamed_more(suspect, out[at - 1]); at--)
        out[at] = out[at - 1];
    out[at] = suspect;
}

}  // namespace

void blame_init() { causal_emit(CAUSAL_USER, "blame", "blame analysis ready", nullptr, 0); }

int blame_analyze(uint32_t event_id, blame_suspect_t* out, int max) {
    if (out == nullptr || max < 1 || causal_get(event_id) == nullptr)
        return -1;
    mutex_guard lock(work_lock);
    work_t& work = work_in_hand;
    begin(work, event_id);
    survey(work);
    int stored = 0;
    for (int i = 0; i < work.count; i++) {
        const tally_t& tally = work.tallies[i];
        causal_event_t ev;
        if (work.ids[i] == event_id || !causal_copy(work.ids[i], &ev))
            continue;
        blame_suspect_t suspect = {
            work.ids[i], score_of(tally, work.total_faults), tally.faults, tally.descendants, {}};
        string_copy(suspect.desc, ev.desc, sizeof suspect.desc);
        if (stored < max)
            insert(out, stored++, suspect);
        else if (blamed_more(suspect, out[max - 1]))
            insert(out, max - 1, suspect);
    }
    return stored;
}
