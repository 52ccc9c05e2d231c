// What the files of the causal event store share. Private to kernel/graph/causal/.
#pragma once

#include "kernel/graph/causal.h"

constexpr uint32_t CAUSAL_NO_MARK = 0xFFFFFFFF;

/// All state beside the ring and the cache. Changed with interrupts masked on processor 0.
struct causal_store_t {
    uint32_t next_id = 1;  ///< 0: all identifiers are used up
    uint32_t event_count = 0;
    uint32_t base = 0;  ///< identifiers up to it belong to earlier boots
    uint64_t lamport_clock = 0;
    uint32_t node_hash = 0;
    uint32_t saved_context = 0;
    uint32_t stray = 0;  ///< the newest event that named a cause younger than itself
    uint32_t hydrated_next = 0;
    uint32_t health_events_per_sec = 0;
    uint32_t last_rate_count = 0;
    uint32_t last_rate_tick = 0;
    causal_archive_hooks_t archive = {};
    causal_kv_fn kv_lookup = nullptr;
    void (*spill_hook)() = nullptr;
    uint32_t spill_mark = CAUSAL_NO_MARK;
    causal_shift_fn keepers[CAUSAL_RENUMBER_MAX] = {};
};

extern causal_store_t causal_store;
extern causal_event_t causal_ring[CAUSAL_RING_SLOTS];
extern causal_event_t causal_hydrated[CAUSAL_HYDRATED_SLOTS];

/// Where the effects of a slot's event stand, `child_count` namings in the order of recording. A
/// naming is the effect's slot times CAUSAL_PARENTS_MAX plus the place of the cause in `parents`;
/// those behind `last`, and both without effects, mean nothing. A cause leaves the ring before its
/// effects do, so that the namings of an event in the ring are in it too.
struct causal_effects_t {
    uint16_t first;
    uint16_t last;
};
constexpr uint32_t CAUSAL_NAMINGS = CAUSAL_RING_SLOTS * CAUSAL_PARENTS_MAX;
static_assert(CAUSAL_NAMINGS == UINT16_MAX + 1);

extern causal_effects_t causal_effects[CAUSAL_RING_SLOTS];
extern uint16_t causal_next_naming[CAUSAL_NAMINGS];

/// The spill mark was reached: calls the hook, once. Interrupts are masked.
void causal_tell_spill();

/// The place of identifier `id` in the ring.
inline uint32_t causal_place(uint32_t id) { return (id - 1) % CAUSAL_RING_SLOTS; }

/// The slot of identifier `id`, whatever it holds.
inline causal_event_t& causal_slot(uint32_t id) { return causal_ring[causal_place(id)]; }

/// The newest identifier; 0 when nothing was recorded.
inline uint32_t causal_newest() { return causal_store.next_id - 1; }

/// causal_get_ring, inline. A slot that still holds an identifier from before a jump of the counter
/// is out of the ring all the same.
inline causal_event_t* causal_in_ring(uint32_t id) {
    causal_event_t& ev = causal_slot(id);
    const bool held = id != 0 && ev.id == id && causal_newest() - id < CAUSAL_RING_SLOTS;
    return held ? &ev : nullptr;
}

/// `ev` still holds event `id`: what was read from it before this call was read from that event.
inline bool causal_still(const causal_event_t& ev, uint32_t id) {
    asm volatile("" : : : "memory");
    return ev.id == id;
}

/// The parents that count in `ev`.
inline uint32_t causal_parent_count(const causal_event_t& ev) {
    return ev.num_parents < CAUSAL_PARENTS_MAX ? ev.num_parents : CAUSAL_PARENTS_MAX;
}

/// The identifiers in the ring, as a range to loop over; safe at the end of the number range.
struct causal_span_t {
    uint32_t oldest;
    uint32_t count;
};

inline causal_span_t causal_ring_span() {
    const uint32_t oldest = causal_oldest_event_id();
    return {oldest, oldest == 0 ? 0 : causal_newest() - oldest + 1};
}
