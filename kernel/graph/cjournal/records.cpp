// Records from and to events, and the statistics of a set of them. What a record holds beyond its
// texts' terminators, or beyond its parents, does not reach an event.
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal_schema.h"
#include "kernel/graph/cjournal/format.h"

namespace {

constexpr uint32_t BITMAP_BITS = 32;

uint32_t parent_count(uint32_t num_parents) {
    return num_parents < CAUSAL_PARENTS_MAX ? num_parents : CAUSAL_PARENTS_MAX;
}

/// Copies a text that need not be terminated; the rest of `to` becomes zero.
template <uint32_t size>
void copy_text(char (&to)[size], const char (&from)[size]) {
    uint32_t i = 0;
    for (; i < size - 1 && from[i] != '\0'; i++)
        to[i] = from[i];
    memset(to + i, 0, size - i);
}

/// Copies the parents that count; the other slots become zero.
template <typename to_t, typename from_t>
void copy_parents(to_t* to, const from_t& from) {
    const uint32_t count = parent_count(from.num_parents);
    for (uint32_t i = 0; i < CAUSAL_PARENTS_MAX; i++)
        to->parents[i] = i < count ? from.parents[i] : 0;
    to->num_parents = from.num_parents;
}

void infer_schema(cjournal_event_t* record) {
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    copy_text(subsystem, record->subsystem);
    copy_text(desc, record->desc);
    const causal_schema_def_t& schema =
        causal_schema_infer(record->type, subsystem, desc, static_cast<uint32_t>(strlen(desc)));
    record->schema_id = schema.id;
    record->schema_version = schema.version;
}

void hash_payload(const causal_event_t& ev, uint8_t* out) {
    if (ev.payload_len == 0)
        memset(out, 0, CAUSAL_HASH_SIZE);
    else if (ev.payload_hash_valid)
        memcpy(out, ev.payload_hash, CAUSAL_HASH_SIZE);
    else
        blake2s(out, ev.payload,
                ev.payload_len < CAUSAL_PAYLOAD_MAX ? ev.payload_len : CAUSAL_PAYLOAD_MAX);
}

}  // namespace

void compact_event(const causal_event_t& ev, cjournal_event_t* out) {
    out->id = ev.id;
    out->node_hash = ev.node_hash;
    out->lamport = ev.time.lamport;
    out->wall_ticks = ev.time.wall_ticks;
    out->type = static_cast<uint8_t>(ev.type);
    copy_text(out->subsystem, ev.subsystem);
    copy_text(out->desc, ev.desc);
    copy_parents(out, ev);
    out->child_count = ev.child_count;
    out->payload_len = ev.payload_len;
    hash_payload(ev, out->payload_hash);
    out->schema_id = ev.schema_id;
    out->schema_version = ev.schema_version;
    if (ev.schema_version == 0)
        infer_schema(out);
}

void cjournal_expand_event(const cjournal_event_t& record, causal_event_t* out) {
    memset(out, 0, sizeof *out);
    out->id = record.id;
    out->node_hash = record.node_hash;
    out->time.lamport = record.lamport;
    out->time.wall_ticks = record.wall_ticks;
    out->type = static_cast<causal_type_t>(record.type);
    copy_text(out->subsystem, record.subsystem);
    copy_text(out->desc, record.desc);
    out->payload_len = record.payload_len;
    memcpy(out->payload_hash, record.payload_hash, CAUSAL_HASH_SIZE);
    out->payload_hash_valid = record.payload_len != 0;
    out->schema_id = record.schema_id;
    out->schema_version = record.schema_version;
    copy_parents(out, record);
    out->child_count = record.child_count;
}

bool cjournal_convert_record(std::span<const uint8_t> stored, cjournal_event_t* out) {
    const size_t size = stored.size();
    if (size != CJOURNAL_EVENT_SIZE && size != CJOURNAL_EVENT_V3_SIZE &&
        size != CJOURNAL_EVENT_V1_SIZE)
        return false;
    memcpy(out, stored.data(), size);
    if (size == CJOURNAL_EVENT_SIZE)
        return true;
    memset(reinterpret_cast<uint8_t*>(out) + size, 0, sizeof *out - size);
    infer_schema(out);
    return true;
}

bool cjournal_record_hash(uint32_t version, const cjournal_event_t& record, cjournal_hash_t* out) {
    causal_event_t ev;
    cjournal_expand_event(record, &ev);
    return causal_event_hash_with_payload_hash(version, &ev, record.payload_len,
                                               record.payload_hash, out->bytes);
}

void segment_events_index_stats(std::span<const cjournal_event_t> records, cjournal_stats_t* out) {
    cjournal_stats_t stats = {};
    for (const cjournal_event_t& record : records) {
        if (record.type < BITMAP_BITS)
            stats.type_bitmap |= 1u << record.type;
        stats.subsystem_bitmap |= 1u << cjournal_subsystem_bit(record.subsystem);
        if (record.schema_id < BITMAP_BITS)
            stats.schema_bitmap |= 1u << record.schema_id;
        const uint32_t count = parent_count(record.num_parents);
        for (uint32_t i = 0; i < count; i++) {
            const uint32_t parent = record.parents[i];
            if (parent == 0)
                continue;
            if (stats.parent_edge_count == 0 || parent < stats.parent_min_id)
                stats.parent_min_id = parent;
            if (parent > stats.parent_max_id)
                stats.parent_max_id = parent;
            stats.parent_edge_count++;
        }
    }
    *out = stats;
}

bool cjournal_snapshot_valid(const persist_header_t& header) {
    return header.magic == CJOURNAL_SNAPSHOT_MAGIC && header.version == CJOURNAL_SNAPSHOT_VERSION &&
           header.event_count >= 1 && header.event_count <= CJOURNAL_SNAPSHOT_EVENTS;
}

void cjournal_snapshot_record(const causal_event_t& ev, persist_event_t* out) {
    out->id = ev.id;
    out->node_hash = ev.node_hash;
    out->lamport = ev.time.lamport;
    out->wall_ticks = ev.time.wall_ticks;
    out->tsc_lo = ev.time.tsc_lo;
    out->type = static_cast<uint8_t>(ev.type);
    copy_text(out->subsystem, ev.subsystem);
    copy_text(out->desc, ev.desc);
    copy_parents(out, ev);
}

bool cjournal_convert_snapshot(const persist_event_t& stored, cjournal_event_t* out) {
    if (stored.id == 0 || stored.type >= CAUSAL_TYPE_COUNT ||
        stored.num_parents > CAUSAL_PARENTS_MAX)
        return false;
    memset(out, 0, sizeof *out);
    out->id = stored.id;
    out->node_hash = stored.node_hash;
    out->lamport = stored.lamport;
    out->wall_ticks = stored.wall_ticks;
    out->type = stored.type;
    copy_text(out->subsystem, stored.subsystem);
    copy_text(out->desc, stored.desc);
    copy_parents(out, stored);
    infer_schema(out);
    return true;
}
