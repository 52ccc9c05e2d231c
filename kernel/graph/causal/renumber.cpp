// What ties the store to its archive: the mark at which the archive is told that events wait, and
// the move of this boot's numbering behind everything archived.
#include <algorithm>
#include <iterator>

#include "kernel/core/assert.h"
#include "kernel/core/guards.h"
#include "kernel/graph/causal/store.h"

namespace {

void shift_id(uint32_t* id, uint32_t delta) {
    if (*id != 0)
        *id += delta;
}

/// Follows the events, which stand `turned` slots further.
void shift_effects(uint32_t turned) {
    const auto namings = static_cast<uint16_t>(turned * CAUSAL_PARENTS_MAX);
    for (causal_effects_t& effects : causal_effects) {
        effects.first = static_cast<uint16_t>(effects.first + namings);
        effects.last = static_cast<uint16_t>(effects.last + namings);
    }
    for (uint16_t& next : causal_next_naming)
        next = static_cast<uint16_t>(next + namings);
    std::rotate(std::begin(causal_effects), std::end(causal_effects) - turned,
                std::end(causal_effects));
    std::rotate(std::begin(causal_next_naming), std::end(causal_next_naming) - namings,
                std::end(causal_next_naming));
}

void shift_events(uint32_t delta) {
    for (causal_event_t& ev : causal_ring) {
        if (ev.id == 0)
            continue;
        ev.id += delta;
        for (uint32_t i = 0; i < causal_parent_count(ev); i++)
            shift_id(&ev.parents[i], delta);
    }
    const uint32_t turned = delta % CAUSAL_RING_SLOTS;
    std::rotate(std::begin(causal_ring), std::end(causal_ring) - turned, std::end(causal_ring));
    shift_effects(turned);
}

}  // namespace

void causal_on_renumber(causal_shift_fn shift) {
    const irq_guard guard;
    for (causal_shift_fn& keeper : causal_store.keepers) {
        if (keeper == shift)
            return;
        if (keeper != nullptr)
            continue;
        keeper = shift;
        return;
    }
    KASSERT(false);
}

bool causal_renumber(uint32_t base) {
    const irq_guard guard;
    if (base == 0)
        return true;
    if (causal_store.next_id == 0 || base > UINT32_MAX - causal_store.next_id)
        return false;
    shift_events(base);
    causal_store.next_id += base;
    causal_store.base += base;
    causal_store.last_rate_count += base;
    shift_id(&causal_store.saved_context, base);
    shift_id(&causal_store.stray, base);
    for (const causal_shift_fn keeper : causal_store.keepers) {
        if (keeper != nullptr)
            keeper(base);
    }
    return true;
}

uint32_t causal_numbering_base() { return causal_store.base; }

void causal_set_spill_hook(void (*hook)()) {
    const irq_guard guard;
    causal_store.spill_hook = hook;
}

void causal_set_spill_mark(uint32_t id) {
    const irq_guard guard;
    causal_store.spill_mark = id;
}

void causal_tell_spill() {
    causal_store.spill_mark = CAUSAL_NO_MARK;
    if (causal_store.spill_hook != nullptr)
        causal_store.spill_hook();
}
