#include "kernel/graph/event_walk.h"

#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal.h"
#include "kernel/graph/ring_read.h"

namespace {

mutex_t walk_lock;

/// The segment in hand.
struct segment_t {
    cjournal_event_t records[CJOURNAL_SEGMENT_EVENTS];
    int count;
};

segment_t segment_in_hand GUARDED_BY(walk_lock);

void copy_facts(const causal_event_t& ev, event_facts_t* out) {
    out->id = ev.id;
    out->type = ev.type;
    out->wall_ticks = ev.time.wall_ticks;
    memcpy(out->subsystem, ev.subsystem, sizeof out->subsystem);
    memcpy(out->desc, ev.desc, sizeof out->desc);
}

/// The record of event `id` in the segment in hand, mostly at its place; null when it is not there.
const cjournal_event_t* find_record(uint32_t id) REQUIRES(walk_lock) {
    const segment_t& segment = segment_in_hand;
    const uint32_t place = segment.count > 0 ? id - segment.records[0].id : 0;
    if (place < static_cast<uint32_t>(segment.count) && segment.records[place].id == id)
        return &segment.records[place];
    for (int i = 0; i < segment.count; i++) {
        if (segment.records[i].id == id)
            return &segment.records[i];
    }
    return nullptr;
}

/// What ring or segment in hand know of event `id`.
bool find_facts(uint32_t id, event_facts_t* out) REQUIRES(walk_lock) {
    if (causal_read_ring(id, [out](const causal_event_t& ev) { copy_facts(ev, out); }))
        return true;
    const cjournal_event_t* record = find_record(id);
    if (record == nullptr)
        return false;
    causal_event_t ev;
    cjournal_expand_event(*record, &ev);
    copy_facts(ev, out);
    return true;
}

/// The next identifier behind `id`, which is nowhere, that ring or segment in hand can have.
uint32_t next_known(uint32_t id) REQUIRES(walk_lock) {
    uint32_t lowest = causal_oldest_event_id();
    if (id >= lowest)
        return id + 1;
    for (int i = 0; i < segment_in_hand.count; i++) {
        const uint32_t one = segment_in_hand.records[i].id;
        lowest = one > id && one < lowest ? one : lowest;
    }
    return lowest;
}

/// A walk under way.
struct walk_t {
    event_visit_fn visit;
    void* context;
    uint32_t guesses;  ///< identifiers that may still be asked for on the chance
};

/// The identifiers first..last; false when the visitor has seen enough. One that is missing may be
/// in a segment of its own, written ahead of the others. A range that is mostly holes, which only a
/// damaged index has, is not gone through.
bool walk_range(walk_t& walk, uint32_t first, uint32_t last) REQUIRES(walk_lock) {
    event_facts_t facts;
    for (uint32_t id = first; id != 0 && id <= last;) {
        bool found = find_facts(id, &facts);
        if (!found && walk.guesses == 0) {
            id = next_known(id);
            continue;
        }
        if (!found) {
            --walk.guesses;
            found = causal_read_anywhere(
                id, [&facts](const causal_event_t& ev) { copy_facts(ev, &facts); });
        }
        if (found && !walk.visit(facts, walk.context))
            return false;
        ++id;
    }
    return true;
}

}  // namespace

void event_walk(event_visit_fn visit, void* context) {
    mutex_guard lock(walk_lock);
    const uint32_t newest = causal_total_events();
    uint32_t next = 1;
    walk_t walk = {visit, context, CJOURNAL_SEGMENT_EVENTS};
    segment_in_hand.count = 0;
    // A segment's events that are still in the ring are read there.
    while (next < causal_oldest_event_id()) {
        uint32_t number;
        uint32_t first;
        uint32_t last;
        if (cjournal_next_segment(next, &number, &first, &last) != 0 || first > newest)
            break;
        const uint32_t ring = causal_oldest_event_id();
        if (first >= ring)
            break;
        last = last < ring ? last : ring - 1;
        segment_in_hand.count = cjournal_query_segment(number, segment_in_hand.records,
                                                       static_cast<int>(CJOURNAL_SEGMENT_EVENTS));
        if (!walk_range(walk, first, last))
            return;
        next = last + 1;
    }
    segment_in_hand.count = 0;
    const uint32_t ring = causal_oldest_event_id();
    walk_range(walk, next > ring ? next : ring, newest);
}
