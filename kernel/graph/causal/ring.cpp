// The store itself: ring, identifiers, clock, the running task's current event, and the cache of
// events that came back from the archive.
#include "arch/x86/cpu.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/running.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal/store.h"
#include "kernel/graph/causal_schema.h"

causal_store_t causal_store;
alignas(64) causal_event_t causal_ring[CAUSAL_RING_SLOTS];
alignas(64) causal_event_t causal_hydrated[CAUSAL_HYDRATED_SLOTS];
causal_effects_t causal_effects[CAUSAL_RING_SLOTS];
uint16_t causal_next_naming[CAUSAL_NAMINGS];

namespace {

void clear_used(causal_event_t* slots, uint32_t count) {
    for (uint32_t i = 0; i < count; i++) {
        if (slots[i].id != 0)
            memset(&slots[i], 0, sizeof slots[i]);
    }
}

causal_event_t* find_hydrated(uint32_t id) {
    const uint32_t filled = causal_store.hydrated_next < CAUSAL_HYDRATED_SLOTS
                                ? causal_store.hydrated_next
                                : CAUSAL_HYDRATED_SLOTS;
    for (uint32_t i = 0; i < filled; i++) {
        if (causal_hydrated[i].id == id)
            return &causal_hydrated[i];
    }
    return nullptr;
}

/// What the archive does not keep is zero, and no text is left without an end.
void tidy_archived(causal_event_t* ev, uint32_t id) {
    ev->id = id;
    ev->time.tsc_lo = 0;
    ev->subsystem[CAUSAL_SUBSYSTEM_SIZE - 1] = '\0';
    ev->desc[CAUSAL_DESC_SIZE - 1] = '\0';
    memset(ev->payload, 0, sizeof ev->payload);
    ev->payload_hash_valid = ev->payload_len != 0;
    if (ev->schema_version == 0)
        causal_event_assign_schema(ev);
    for (uint32_t i = causal_parent_count(*ev); i < CAUSAL_PARENTS_MAX; i++)
        ev->parents[i] = 0;
}

causal_event_t* hydrate(uint32_t id) {
    if (causal_store.archive.fetch == nullptr)
        return nullptr;
    causal_event_t fetched = {};
    if (!causal_store.archive.fetch(id, &fetched))
        return nullptr;
    tidy_archived(&fetched, id);
    irq_guard guard;
    causal_event_t* slot = &causal_hydrated[causal_store.hydrated_next % CAUSAL_HYDRATED_SLOTS];
    causal_store.hydrated_next++;
    memcpy(slot, &fetched, sizeof fetched);
    return slot;
}

/// Lets `read` see event `id`; false when there is none. An event that leaves its slot meanwhile is
/// looked for once more, further down.
template <typename read_fn>
bool read_whole(uint32_t id, read_fn read) {
    for (int attempt = 0; attempt < 2; attempt++) {
        const causal_event_t* ev = causal_get(id);
        if (ev == nullptr)
            return false;
        read(*ev);
        if (causal_still(*ev, id))
            return true;
    }
    return false;
}

}  // namespace

void causal_init() {
    clear_used(causal_ring, CAUSAL_RING_SLOTS);
    clear_used(causal_hydrated, CAUSAL_HYDRATED_SLOTS);
    causal_store = causal_store_t{};
    causal_set_current(0);
    kprintf("[boot] Causal event graph initialized (%u slots)\n", CAUSAL_RING_SLOTS);
    causal_set_current(causal_event_fmt(CAUSAL_SCHED, "boot", "kernel boot started"));
    record_set_hook(causal_event_vfmt);
}

void causal_set_archive_hooks(const causal_archive_hooks_t* hooks) {
    causal_store.archive = hooks != nullptr ? *hooks : causal_archive_hooks_t{};
}

void causal_set_current(uint32_t event_id) {
    irq_guard guard;
    if (running().causal_ctx != nullptr)
        *running().causal_ctx = event_id;
}

uint32_t causal_get_current() {
    irq_guard guard;
    return running().causal_ctx != nullptr ? *running().causal_ctx : 0;
}

void causal_push_context(uint32_t event_id) {
    causal_store.saved_context = causal_get_current();
    causal_set_current(event_id);
}

void causal_pop_context() {
    causal_set_current(causal_store.saved_context);
    causal_store.saved_context = 0;
}

causal_time_t causal_now() {
    irq_guard guard;
    return {causal_store.lamport_clock, system_ticks, static_cast<uint32_t>(cpu_rdtsc())};
}

void causal_tick_lamport(uint64_t remote_lamport) {
    irq_guard guard;
    if (remote_lamport > causal_store.lamport_clock)
        causal_store.lamport_clock = remote_lamport;
    causal_store.lamport_clock++;
}

void causal_set_lamport(uint64_t val) {
    irq_guard guard;
    if (val > causal_store.lamport_clock)
        causal_store.lamport_clock = val;
}

uint64_t causal_get_lamport() {
    irq_guard guard;
    return causal_store.lamport_clock;
}

uint32_t causal_get_next_id() { return causal_store.next_id; }

void causal_set_next_id(uint32_t id) {
    irq_guard guard;
    if (causal_store.next_id != 0 && id > causal_store.next_id)
        causal_store.next_id = id;
}

void causal_set_node_hash(uint32_t hash) { causal_store.node_hash = hash; }

uint32_t causal_get_node_hash() { return causal_store.node_hash; }

causal_event_t* causal_get_ring(uint32_t id) { return causal_in_ring(id); }

causal_event_t* causal_get(uint32_t id) {
    if (id == 0)
        return nullptr;
    if (causal_event_t* ev = causal_in_ring(id))
        return ev;
    if (causal_event_t* ev = find_hydrated(id))
        return ev;
    return hydrate(id);
}

bool causal_copy(uint32_t id, causal_event_t* out) {
    return read_whole(id, [out](const causal_event_t& ev) { memcpy(out, &ev, sizeof ev); });
}

int causal_parents_of(uint32_t id, uint32_t parents[CAUSAL_PARENTS_MAX]) {
    int count = -1;
    const bool found = read_whole(id, [&count, parents](const causal_event_t& ev) {
        count = static_cast<int>(causal_parent_count(ev));
        for (int i = 0; i < count; i++)
            parents[i] = ev.parents[i];
    });
    return found ? count : -1;
}

uint32_t causal_total_events() { return causal_newest(); }

uint32_t causal_ring_used() { return causal_store.event_count; }

uint32_t causal_oldest_event_id() {
    if (causal_store.event_count == 0)
        return 0;
    return causal_newest() - causal_store.event_count + 1;
}
