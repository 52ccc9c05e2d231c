// The event hash: BLAKE2s-256 over a fixed string of little-endian fields. Later versions add to
// the string; tsc_lo and child_count are never in it, so a record's hash does not change as
// children arrive.
//
//   magic, version (2 on) | id, node, type, lamport, ticks, parent count, 4 parents, texts
//   | payload length and hash (3 on) | schema id and version (4)
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal/store.h"
#include "kernel/graph/causal_schema.h"

namespace {

constexpr uint32_t HASH_MAGIC = 0x48455643;  // "CVEH"
constexpr uint32_t HASH_INPUT_MAX = 192;
constexpr uint32_t VERSION_WITH_MAGIC = 2;
constexpr uint32_t VERSION_WITH_PAYLOAD = 3;
constexpr uint32_t VERSION_WITH_SCHEMA = 4;

/// The byte string under construction. The kernel is little-endian like the string.
struct input_t {
    uint8_t bytes[HASH_INPUT_MAX];
    uint32_t len = 0;

    void put(const void* from, uint32_t n) {
        memcpy(bytes + len, from, n);
        len += n;
    }
    void put32(uint32_t value) { put(&value, sizeof value); }
};

void put_record(input_t& in, const causal_event_t& ev) {
    in.put32(ev.id);
    in.put32(ev.node_hash);
    in.put32(ev.type);
    in.put(&ev.time.lamport, sizeof ev.time.lamport);
    in.put32(ev.time.wall_ticks);
    in.put32(ev.num_parents);
    const uint32_t count = causal_parent_count(ev);
    for (uint32_t i = 0; i < CAUSAL_PARENTS_MAX; i++)
        in.put32(i < count ? ev.parents[i] : 0);
    in.put(ev.subsystem, sizeof ev.subsystem);
    in.put(ev.desc, sizeof ev.desc);
}

void put_payload(input_t& in, const causal_event_t& ev, uint32_t len, const uint8_t* hash) {
    uint8_t own[CAUSAL_HASH_SIZE] = {};
    if (hash == nullptr) {
        len = ev.payload_len;
        const uint32_t held = len < CAUSAL_PAYLOAD_MAX ? len : CAUSAL_PAYLOAD_MAX;
        hash = ev.payload_hash_valid ? ev.payload_hash : own;
        if (!ev.payload_hash_valid && held != 0)
            blake2s(own, ev.payload, held);
    }
    in.put32(len);
    in.put(hash, CAUSAL_HASH_SIZE);
}

void put_schema(input_t& in, const causal_event_t& ev) {
    if (ev.schema_version != 0) {
        in.put32(ev.schema_id);
        in.put32(ev.schema_version);
        return;
    }
    const causal_schema_def_t& inferred =
        causal_schema_infer(ev.type, ev.subsystem, ev.desc, strlen(ev.desc));
    in.put32(inferred.id);
    in.put32(inferred.version);
}

}  // namespace

bool causal_event_hash_with_payload_hash(uint32_t version, const causal_event_t* ev,
                                         uint32_t payload_len, const uint8_t* payload_hash,
                                         uint8_t out[32]) {
    if (ev == nullptr || version < 1 || version > CAUSAL_HASH_VERSION) {
        memset(out, 0, CAUSAL_HASH_SIZE);
        return false;
    }
    input_t in;
    if (version >= VERSION_WITH_MAGIC) {
        in.put32(HASH_MAGIC);
        in.put32(version);
    }
    put_record(in, *ev);
    if (version >= VERSION_WITH_PAYLOAD)
        put_payload(in, *ev, payload_len, payload_hash);
    if (version >= VERSION_WITH_SCHEMA)
        put_schema(in, *ev);
    blake2s(out, in.bytes, in.len);
    return true;
}

bool causal_event_hash_version(uint32_t version, const causal_event_t* ev, uint8_t out[32]) {
    return causal_event_hash_with_payload_hash(version, ev, 0, nullptr, out);
}

bool causal_event_hash(const causal_event_t* ev, uint8_t out[32]) {
    return causal_event_hash_version(CAUSAL_HASH_VERSION, ev, out);
}

void causal_hash_hex(const uint8_t hash[32], char out[65]) {
    constexpr char DIGITS[] = "0123456789abcdef";
    for (uint32_t i = 0; i < CAUSAL_HASH_SIZE; i++) {
        out[2 * i] = DIGITS[hash[i] >> 4];
        out[2 * i + 1] = DIGITS[hash[i] & 15];
    }
    out[2 * CAUSAL_HASH_SIZE] = '\0';
}
