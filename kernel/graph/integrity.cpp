#include "kernel/graph/integrity.h"

#include <algorithm>

#include "kernel/core/endian.h"
#include "kernel/core/guards.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"

namespace {

struct slot_t {
    uint32_t id;  ///< 0: free
    uint8_t hash[CAUSAL_HASH_SIZE];
};

slot_t table[CAUSAL_RING_SLOTS];

slot_t& slot_of(uint32_t id) { return table[id % CAUSAL_RING_SLOTS]; }

void add_parent(blake2s_t* hash, uint32_t parent) {
    uint8_t known[CAUSAL_HASH_SIZE] = {};
    {
        const irq_guard guard;
        if (slot_of(parent).id == parent)
            memcpy(known, slot_of(parent).hash, sizeof known);
    }
    blake2s_add(hash, known, sizeof known);
}

}  // namespace

void integrity_init() { memset(table, 0, sizeof table); }

void integrity_hash(const cjournal_event_t& event, uint8_t out[CAUSAL_HASH_SIZE]) {
    uint8_t number[4];
    blake2s_t hash;
    blake2s_start(&hash);
    store_le32(number, event.type);
    blake2s_add(&hash, number, sizeof number);
    blake2s_add(&hash, event.subsystem, static_cast<uint32_t>(strlen(event.subsystem)));
    blake2s_add(&hash, event.desc, static_cast<uint32_t>(strlen(event.desc)));
    store_le32(number, event.wall_ticks);
    blake2s_add(&hash, number, sizeof number);
    const uint32_t parents = std::min<uint32_t>(event.num_parents, CAUSAL_PARENTS_MAX);
    for (uint32_t i = 0; i < parents; i++)
        add_parent(&hash, event.parents[i]);
    blake2s_end(&hash, out);
}

void integrity_take(const cjournal_event_t& event) {
    slot_t fresh = {event.id, {}};
    integrity_hash(event, fresh.hash);
    const irq_guard guard;
    slot_of(event.id) = fresh;
}
