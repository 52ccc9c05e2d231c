// Queries over the ring and, for children, the archive. Each walk is written once, over a result
// list that keeps either identifiers or pointers.
#include "kernel/graph/causal/store.h"

namespace {

constexpr int ARCHIVED_CHILDREN_MAX = 32;
constexpr int ANCESTOR_QUEUE = 32;

/// At most `max` results: identifiers.
struct id_list_t {
    uint32_t* out;
    int max;
    int count = 0;
    bool full() const { return count >= max; }
    void add(uint32_t id, causal_event_t*) { out[count++] = id; }
    uint32_t id_at(int i) const { return out[i]; }
};

/// At most `max` results: pointers.
struct event_list_t {
    causal_event_t** out;
    int max;
    int count = 0;
    bool full() const { return count >= max; }
    void add(uint32_t, causal_event_t* ev) { out[count++] = ev; }
    uint32_t id_at(int i) const { return out[i]->id; }
};

template <typename list_t>
bool holds(const list_t& list, uint32_t id) {
    for (int i = 0; i < list.count; i++) {
        if (list.id_at(i) == id)
            return true;
    }
    return false;
}

/// Adds event `id` if it is in the ring and `keep` takes it.
template <typename list_t, typename keep_fn>
void add_if(list_t& list, uint32_t id, keep_fn keep) {
    causal_event_t* ev = causal_in_ring(id);
    if (ev != nullptr && keep(*ev) && causal_still(*ev, id))
        list.add(id, ev);
}

template <typename list_t>
int recent(causal_type_t type, list_t list) {
    const causal_span_t span = causal_ring_span();
    for (uint32_t i = span.count; i > 0 && !list.full(); i--)
        add_if(list, span.oldest + i - 1,
               [type](const causal_event_t& ev) { return ev.type == type; });
    return list.count;
}

bool names(const causal_event_t& ev, uint32_t id) {
    const uint32_t count = causal_parent_count(ev);
    for (uint32_t i = 0; i < count; i++) {
        if (ev.parents[i] == id)
            return true;
    }
    return false;
}

template <typename list_t>
void add_archived_children(uint32_t event_id, list_t& list) {
    if (list.full() || causal_store.archive.children == nullptr)
        return;
    uint32_t archived[ARCHIVED_CHILDREN_MAX];
    const int room = list.max - list.count;
    const int wanted = room < ARCHIVED_CHILDREN_MAX ? room : ARCHIVED_CHILDREN_MAX;
    const int got = causal_store.archive.children(event_id, archived, wanted);
    for (int i = 0; i < got && i < wanted; i++) {
        if (holds(list, archived[i]))
            continue;
        if (causal_event_t* ev = causal_get(archived[i]))
            list.add(archived[i], ev);
    }
}

/// Follows the namings of `event_id`. False when it is not in the ring, or left it meanwhile, or an
/// older event may name it, which no chain has.
template <typename list_t>
bool follow_namings(uint32_t event_id, list_t& list) {
    const causal_event_t* cause = causal_in_ring(event_id);
    const uint32_t oldest = causal_oldest_event_id();
    if (cause == nullptr || (causal_store.stray != 0 && causal_store.stray >= oldest))
        return false;
    const uint32_t count = cause->child_count;
    uint32_t naming = causal_effects[causal_place(event_id)].first;
    uint32_t before = 0;
    for (uint32_t i = 0; i < count && !list.full(); i++) {
        causal_event_t* ev = &causal_ring[naming / CAUSAL_PARENTS_MAX];
        const uint32_t id = ev->id;
        naming = causal_next_naming[naming];
        if (!causal_still(*cause, event_id))
            return false;
        if (id <= before)
            continue;
        list.add(id, ev);
        before = id;
    }
    return causal_still(*cause, event_id);
}

template <typename list_t>
int children(uint32_t event_id, list_t list) {
    if (follow_namings(event_id, list))
        return list.count;
    list.count = 0;
    const causal_span_t span = causal_ring_span();
    for (uint32_t i = 0; i < span.count && !list.full(); i++)
        add_if(list, span.oldest + i,
               [event_id](const causal_event_t& ev) { return names(ev, event_id); });
    add_archived_children(event_id, list);
    return list.count;
}

/// The identifiers still to visit. It never wraps, which bounds the walk.
struct ancestor_queue_t {
    uint32_t ids[ANCESTOR_QUEUE];
    int tail = 0;

    void add_parents_of(uint32_t id) {
        uint32_t parents[CAUSAL_PARENTS_MAX];
        const int count = causal_parents_of(id, parents);
        for (int i = 0; i < count && tail < ANCESTOR_QUEUE; i++)
            ids[tail++] = parents[i];
    }
};

template <typename list_t>
int ancestors(uint32_t event_id, list_t list) {
    ancestor_queue_t queue;
    queue.add_parents_of(event_id);
    for (int head = 0; head < queue.tail && !list.full(); head++) {
        const uint32_t id = queue.ids[head];
        causal_event_t* ev = causal_get(id);
        if (ev == nullptr || holds(list, id))
            continue;
        list.add(id, ev);
        queue.add_parents_of(id);
    }
    return list.count;
}

}  // namespace

int causal_query_recent(causal_type_t type, causal_event_t** out, int max) {
    return recent(type, event_list_t{out, max});
}

int causal_recent_ids(causal_type_t type, uint32_t* ids, int max) {
    return recent(type, id_list_t{ids, max});
}

int causal_query_range(uint32_t start_tick, uint32_t end_tick, causal_event_t** out, int max) {
    const causal_span_t span = causal_ring_span();
    event_list_t list{out, max};
    for (uint32_t i = 0; i < span.count && !list.full(); i++)
        add_if(list, span.oldest + i, [start_tick, end_tick](const causal_event_t& ev) {
            return start_tick <= ev.time.wall_ticks && ev.time.wall_ticks <= end_tick;
        });
    return list.count;
}

int causal_query_children(uint32_t event_id, causal_event_t** out, int max) {
    return children(event_id, event_list_t{out, max});
}

int causal_children_ids(uint32_t event_id, uint32_t* ids, int max) {
    return children(event_id, id_list_t{ids, max});
}

int causal_query_ancestors(uint32_t event_id, causal_event_t** out, int max) {
    return ancestors(event_id, event_list_t{out, max});
}

int causal_ancestor_ids(uint32_t event_id, uint32_t* ids, int max) {
    return ancestors(event_id, id_list_t{ids, max});
}
