// Slots, emission and the cache of recent events. A timeline's table entry and its events change
// together, with interrupts masked, so that the chain never forks.
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/timeline/format.h"
#include "kernel/graph/timeline/internal.h"

namespace {

/// Whether `name`, cut as names are, is the name in the slot.
bool is_named(const timeline_slot_t& slot, const char* name) {
    return strncmp(slot.tl.name, name, TIMELINE_NAME_SIZE - 1) == 0;
}

int find_locked(const char* name) REQUIRES(irq_mask) {
    for (int i = 0; i < TIMELINE_SLOTS; ++i) {
        if (timeline_slots[i].tl.active && is_named(timeline_slots[i], name))
            return i;
    }
    return -1;
}

void remember(timeline_slot_t* slot, const causal_event_t& ev, uint32_t sub_type) {
    timeline_cached_event_t& entry = slot->cache[slot->cache_pos];
    entry.valid = true;
    entry.id = ev.id;
    entry.tick = ev.time.wall_ticks;
    entry.sub_type = sub_type;
    memcpy(entry.subsystem, ev.subsystem, sizeof entry.subsystem);
    memcpy(entry.desc, ev.desc, sizeof entry.desc);
    slot->cache_pos = static_cast<uint16_t>((slot->cache_pos + 1) % TIMELINE_CACHE_EVENTS);
    if (slot->cache_count < TIMELINE_CACHE_EVENTS)
        ++slot->cache_count;
}

/// Emits one event of `slot` with an envelope around `data`.
uint32_t emit_piece(int tl_id, const timeline_envelope_t& envelope, const char* desc,
                    const uint32_t* cached_as) REQUIRES(irq_mask) {
    uint8_t payload[CAUSAL_PAYLOAD_MAX];
    const uint32_t len = timeline_encode_envelope(envelope, payload);
    return timeline_append(&timeline_slots[tl_id], desc, {payload, len}, cached_as);
}

uint32_t emit_locked(int tl_id, uint32_t sub_type, std::span<const uint8_t> data, const char* desc)
    REQUIRES(irq_mask) {
    const auto number = static_cast<uint32_t>(tl_id);
    const bool fits = data.size() <= TIMELINE_DATA_MAX;
    const std::span<const uint8_t> own = fits ? data : data.first(0);
    uint32_t last = emit_piece(tl_id, {number, sub_type, own}, desc, &sub_type);
    if (last == 0)
        return 0;
    for (size_t at = own.size(); at < data.size(); at += TIMELINE_DATA_MAX) {
        const size_t left = data.size() - at;
        const size_t len = left < TIMELINE_DATA_MAX ? left : TIMELINE_DATA_MAX;
        const uint32_t id =
            emit_piece(tl_id, {number, TIMELINE_DATA, data.subspan(at, len)}, "(cont)", nullptr);
        if (id == 0)
            break;
        last = id;
    }
    ++timeline_slots[tl_id].tl.event_count;
    return last;
}

/// The table follows a change of the events' numbers.
void renumber(uint32_t delta) {
    const irq_guard guard;
    const auto shift = [delta](uint32_t* id) {
        if (*id != 0)
            *id += delta;
    };
    for (timeline_slot_t& slot : timeline_slots) {
        shift(&slot.tl.head_id);
        shift(&slot.tl.cursor_id);
        shift(&slot.first_id);
        for (timeline_cached_event_t& entry : slot.cache)
            shift(&entry.id);
    }
}

}  // namespace

void timeline_init() {
    {
        const irq_guard guard;
        memset(timeline_slots, 0, sizeof timeline_slots);
    }
    timeline_lock = {};
    causal_on_renumber(renumber);
    if (blockfs_mounted())
        blockfs_mkdir_p(TIMELINE_DIRECTORY);
    kprintf("[boot] Timeline framework initialized (%d slots)\n", TIMELINE_SLOTS);
}

int timeline_take_slot(const timeline_draft_t& draft) {
    int free_slot = -1;
    for (int i = TIMELINE_SLOTS - 1; i >= 0; --i) {
        const timeline_slot_t& slot = timeline_slots[i];
        if (!slot.tl.active && !slot.loading)
            free_slot = i;
        else if (is_named(slot, draft.name))
            return -1;
    }
    if (free_slot < 0)
        return -1;
    timeline_slot_t& slot = timeline_slots[free_slot];
    memset(&slot, 0, sizeof slot);
    string_copy(slot.tl.name, draft.name, sizeof slot.tl.name);
    string_copy(slot.tl.app, draft.app, sizeof slot.tl.app);
    slot.tl.create_tick = draft.create_tick;
    slot.loading = true;
    return free_slot;
}

void timeline_publish(int tl_id) {
    timeline_slots[tl_id].loading = false;
    timeline_slots[tl_id].tl.active = true;
}

void timeline_release(int tl_id) { memset(&timeline_slots[tl_id], 0, sizeof timeline_slots[0]); }

uint32_t timeline_append(timeline_slot_t* slot, const char* desc, std::span<const uint8_t> payload,
                         const uint32_t* sub_type) {
    const uint32_t parent = slot->tl.head_id;
    const uint32_t id =
        causal_emit_payload(CAUSAL_USER, slot->tl.app, desc, &parent, parent != 0 ? 1 : 0,
                            payload.data(), static_cast<uint32_t>(payload.size()));
    if (id == 0)
        return 0;
    if (slot->first_id == 0)
        slot->first_id = id;
    slot->tl.head_id = id;
    slot->tl.cursor_id = id;
    if (sub_type != nullptr)
        remember(slot, *causal_get_ring(id), *sub_type);
    return id;
}

int timeline_create(const char* name, const char* app) {
    if (name == nullptr || app == nullptr || cpu_id() != 0)
        return -1;
    const irq_guard guard;
    const int tl_id = timeline_take_slot({name, app, system_ticks});
    if (tl_id < 0)
        return -1;
    timeline_publish(tl_id);
    emit_locked(tl_id, TIMELINE_CREATE, {}, "timeline created");
    return tl_id;
}

void timeline_destroy(int tl_id) {
    const irq_guard guard;
    if (cpu_id() != 0 || timeline_active(tl_id) == nullptr)
        return;
    emit_locked(tl_id, TIMELINE_DELETE, {}, "timeline deleted");
    timeline_release(tl_id);
}

const timeline_t* timeline_get(int tl_id) {
    const irq_guard guard;
    const timeline_slot_t* slot = timeline_active(tl_id);
    return slot != nullptr ? &slot->tl : nullptr;
}

int timeline_find(const char* name) {
    const irq_guard guard;
    return name != nullptr ? find_locked(name) : -1;
}

int timeline_count() {
    const irq_guard guard;
    int count = 0;
    for (const timeline_slot_t& slot : timeline_slots)
        count += slot.tl.active ? 1 : 0;
    return count;
}

int timeline_recent(int tl_id, timeline_cached_event_t* out, int max) {
    const irq_guard guard;
    const timeline_slot_t* slot = timeline_active(tl_id);
    if (slot == nullptr || max <= 0)
        return 0;
    const int count = slot->cache_count < max ? slot->cache_count : max;
    for (int i = 0; i < count; ++i) {
        const uint32_t at = slot->cache_pos + TIMELINE_CACHE_EVENTS - static_cast<uint32_t>(count);
        out[i] = slot->cache[(at + static_cast<uint32_t>(i)) % TIMELINE_CACHE_EVENTS];
    }
    return count;
}

uint32_t timeline_emit(int tl_id, uint32_t sub_type, const void* data, uint32_t len,
                       const char* desc) {
    const irq_guard guard;
    if (cpu_id() != 0 || timeline_active(tl_id) == nullptr)
        return 0;
    const auto* bytes = static_cast<const uint8_t*>(data);
    return emit_locked(tl_id, sub_type, {bytes, data != nullptr ? len : 0}, desc);
}

bool timeline_parse_payload(const causal_event_t* ev, uint32_t* sub_type, const uint8_t** data,
                            uint16_t* data_len) {
    *sub_type = 0;
    *data = nullptr;
    *data_len = 0;
    if (ev == nullptr || ev->payload_hash_valid || ev->payload_len > CAUSAL_PAYLOAD_MAX)
        return false;
    timeline_envelope_t envelope;
    if (!timeline_decode_envelope({ev->payload, ev->payload_len}, &envelope))
        return false;
    *sub_type = envelope.sub_type;
    *data = envelope.data.data();
    *data_len = static_cast<uint16_t>(envelope.data.size());
    return true;
}
