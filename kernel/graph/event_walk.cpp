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

/// What is known of event `id` from ring, segment in hand or wherever else it is.
bool find_facts(uint32_t id, event_facts_t* out) REQUIRES(walk_lock) {
    const auto copy = [out](const causal_event_t& ev) { copy_facts(ev, out); };
    if (causal_read_ring(id, copy))
        return true;
    const cjournal_event_t* record = find_record(id);
    if (record == nullptr)
        return causal_read_anywhere(id, copy);
    causal_event_t ev;
    cjournal_expand_event(*record, &ev);
    copy(ev);
    return true;
}

/// The identifiers first..last; false when `visit` has seen enough.
bool walk_range(uint32_t first, uint32_t last, event_visit_fn visit, void* context)
    REQUIRES(walk_lock) {
    event_facts_t facts;
    for (uint32_t left = last - first + 1, id = first; left != 0; --left, ++id) {
        if (find_facts(id, &facts) && !visit(facts, context))
            return false;
    }
    return true;
}

}  // namespace

void event_walk(event_visit_fn visit, void* context) {
    mutex_guard lock(walk_lock);
    const uint32_t newest = causal_total_events();
    uint32_t next = 1;
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
        if (!walk_range(first, last, visit, context))
            return;
        next = last + 1;
    }
    const uint32_t ring = causal_oldest_event_id();
    next = next > ring ? next : ring;
    if (next != 0 && next <= newest)
        walk_range(next, newest, visit, context);
}
