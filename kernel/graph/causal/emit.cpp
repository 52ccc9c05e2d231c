// Emission. Every path of the system passes here, so each step is kept to a few instructions: texts
// travel in words, and a slot is cleared only where its last event left something. That rests on
// two invariants of ring slots: payload bytes behind payload_len are zero, and payload_hash is
// never set.
#include "arch/x86/cpu.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/running.h"
#include "kernel/core/string.h"
#include "kernel/core/string/words.h"
#include "kernel/graph/causal/store.h"
#include "kernel/graph/causal_schema.h"

namespace {

constexpr uint32_t FORMATTED_SIZE = 64;
constexpr uint32_t SCHEMA_HEADER_SIZE = 4;  // id (2), version (1), one byte of content

/// Keeps the compiler from finding the slot again and again, five instructions each time.
[[gnu::always_inline]] inline causal_event_t& found(causal_event_t& slot) {
    causal_event_t* at = &slot;
    asm("" : "+r"(at));
    return *at;
}

/// What the callers of the three emit calls gave.
struct draft_t {
    causal_type_t type;
    const char* subsystem;
    const char* desc;
    const uint32_t* parent_ids;
    int num_parents;
    const void* payload;
    uint32_t payload_len;
    const uint32_t* origin;
};

constexpr uint32_t PAGE = 4096;

/// Puts word `i` of a text, without what is behind its terminator: the text's length when it ends
/// there, else -1.
[[gnu::always_inline]] inline int32_t put_word(text_word_t* out, uint32_t i, uint32_t word) {
    if (((word - WORD_LOW_BITS) & WORD_HIGH_BITS) != 0) {
        // A zero byte, or one above 0x80. Bit 7 of each zero byte, exact up to the lowest:
        const uint32_t zeros = (word - WORD_LOW_BITS) & ~word & WORD_HIGH_BITS;
        if (zeros != 0) {
            out[i].bits = word & ((zeros ^ (zeros - 1)) >> 8);
            return static_cast<int32_t>(4 * i + static_cast<uint32_t>(__builtin_ctz(zeros)) / 8);
        }
    }
    out[i].bits = word;
    return -1;
}

/// put_text for a text that may end with its page: by words up to the last whole one in it.
template <uint32_t size>
[[gnu::noinline]] __attribute__((no_sanitize_address)) uint32_t put_near_end(char (&field)[size],
                                                                             const char* src) {
    auto* out = reinterpret_cast<text_word_t*>(field);
    const auto* in = reinterpret_cast<const text_word_t*>(src);
    const uint32_t words = (PAGE - reinterpret_cast<uintptr_t>(src) % PAGE) / 4;
    for (uint32_t i = 0; i < words; i++) {
        const int32_t length = put_word(out, i, in[i].bits);
        if (length >= 0)
            return static_cast<uint32_t>(length);
    }
    uint32_t n = 4 * words;
    for (; n < size - 1 && src[n] != '\0'; n++)
        field[n] = src[n];
    return n;
}

/// Copies `src` into a field of `size` bytes, cut to size - 1 characters and zero-filled; returns
/// the length. Goes by words and so may read behind the terminator, but never into another page.
template <uint32_t size>
__attribute__((no_sanitize_address)) uint32_t put_text(char (&field)[size], const char* src) {
    static_assert(size % 4 == 0);
    auto* out = reinterpret_cast<text_word_t*>(field);
    const auto* in = reinterpret_cast<const text_word_t*>(src);
#pragma GCC unroll 20
    for (uint32_t i = 0; i < size / 4; i++)
        out[i].bits = 0;
    if (reinterpret_cast<uintptr_t>(src) % PAGE > PAGE - size)
        return put_near_end(field, src);
#pragma GCC unroll 20
    for (uint32_t i = 0; i < size / 4; i++) {
        const int32_t length = put_word(out, i, in[i].bits);
        if (length >= 0)
            return static_cast<uint32_t>(length);
    }
    field[size - 1] = '\0';
    return size - 1;
}

/// A cause that is not in the ring: mostly it is older, but it may claim to be younger. Out of the
/// way of the others.
[[gnu::noinline, gnu::cold]] void note_absent(uint32_t parent) {
    const uint32_t id = causal_store.next_id - 1;
    if (parent >= id)
        causal_store.stray = id;
}

/// Tells a cause in the ring of the event that names it.
[[gnu::always_inline]] inline void add_effect(causal_event_t& cause, uint32_t naming) {
    causal_effects_t& effects = causal_effects[causal_place(cause.id)];
    uint16_t& link = cause.child_count == 0 ? effects.first : causal_next_naming[effects.last];
    link = effects.last = static_cast<uint16_t>(naming);
    cause.child_count++;
}

/// Names the parents of event `id` and tells those that are still in the ring.
void put_parents(causal_event_t& ev, uint32_t id, const draft_t& draft, const uint32_t* current) {
    const uint32_t* ids = draft.parent_ids;
    uint32_t count = 0;
    if (ids != nullptr && draft.num_parents > 0) {
        count = static_cast<uint32_t>(draft.num_parents);
        count = count < CAUSAL_PARENTS_MAX ? count : CAUSAL_PARENTS_MAX;
    } else if (current != nullptr && *current != 0) {
        ids = current;
        count = 1;
    }
#pragma GCC unroll 4
    for (uint32_t& parent : ev.parents)
        parent = 0;
    for (uint32_t i = 0; i < count; i++) {
        ev.parents[i] = ids[i];
        if (causal_event_t* parent = causal_in_ring(ids[i]))
            add_effect(found(*parent), causal_place(id) * CAUSAL_PARENTS_MAX + i);
        else
            note_absent(ids[i]);
    }
    ev.num_parents = static_cast<uint8_t>(count);
}

/// A payload that names a schema of the table overrides the inferred one.
void put_schema_of_payload(causal_event_t& ev) {
    const auto id = static_cast<uint16_t>(ev.payload[0] | ev.payload[1] << 8);
    const uint8_t version = ev.payload[2];
    const causal_schema_def_t* schema = causal_schema_get(id);
    if (schema == nullptr || version == 0 || version != schema->version)
        return;
    ev.schema_id = id;
    ev.schema_version = version;
}

void put_payload(causal_event_t& ev, const draft_t& draft) {
    const uint32_t given = draft.payload != nullptr ? draft.payload_len : 0;
    const uint32_t len = given < CAUSAL_PAYLOAD_MAX ? given : CAUSAL_PAYLOAD_MAX;
    const uint32_t old_len = ev.payload_len;
    ev.payload_len = len;
    if (old_len > len)
        memset(ev.payload + len, 0, old_len - len);
    if (len == 0)
        return;
    memcpy(ev.payload, draft.payload, len);
    if (len >= SCHEMA_HEADER_SIZE)
        put_schema_of_payload(ev);
}

uint32_t record(const draft_t& draft) {
    irq_guard guard;
    const uint32_t id = causal_store.next_id;
    if (id == 0 || (cpu_id_query != nullptr && cpu_id_query() != 0))
        return 0;
    causal_store.next_id = id + 1;
    running_t& runner = running_by_cpu[0];
    causal_event_t& ev = found(causal_slot(id));
    ev.id = 0;
    ev.node_hash = *draft.origin;
    ev.time.lamport = ++causal_store.lamport_clock;
    ev.time.wall_ticks = system_ticks;
    ev.time.tsc_lo = static_cast<uint32_t>(cpu_rdtsc());
    ev.type = draft.type;
    put_text(ev.subsystem, draft.subsystem != nullptr ? draft.subsystem : "");
    const uint32_t desc_len = put_text(ev.desc, draft.desc != nullptr ? draft.desc : "");
    const causal_schema_def_t& schema =
        causal_schema_infer(ev.type, ev.subsystem, ev.desc, desc_len);
    ev.schema_id = schema.id;
    ev.schema_version = schema.version;
    ev.child_count = 0;
    put_parents(ev, id, draft, runner.causal_ctx);
    put_payload(ev, draft);
    if (causal_store.event_count < CAUSAL_RING_SLOTS)
        causal_store.event_count++;
    ev.id = id;
    if (runner.causal_ctx != nullptr)
        *runner.causal_ctx = id;
    runner.recorded = true;
    if (id >= causal_store.spill_mark)
        causal_tell_spill();
    return id;
}

}  // namespace

uint32_t causal_emit(causal_type_t type, const char* subsystem, const char* desc,
                     const uint32_t* parent_ids, int num_parents) {
    return record(
        {type, subsystem, desc, parent_ids, num_parents, nullptr, 0, &causal_store.node_hash});
}

uint32_t causal_emit_payload(causal_type_t type, const char* subsystem, const char* desc,
                             const uint32_t* parent_ids, int num_parents, const void* payload,
                             uint32_t payload_len) {
    return record({type, subsystem, desc, parent_ids, num_parents, payload, payload_len,
                   &causal_store.node_hash});
}

uint32_t causal_emit_remote(causal_type_t type, const char* subsystem, const char* desc,
                            const uint32_t* parent_ids, int num_parents, const void* payload,
                            uint32_t payload_len, uint32_t origin_node) {
    return record(
        {type, subsystem, desc, parent_ids, num_parents, payload, payload_len, &origin_node});
}

uint32_t causal_event_vfmt(uint8_t type, const char* subsystem, const char* fmt, va_list args) {
    alignas(4) char text[FORMATTED_SIZE];
    text[0] = '\0';
    if (fmt != nullptr)
        kvsnprintf(text, sizeof text, fmt, args);
    return causal_emit(static_cast<causal_type_t>(type), subsystem, text, nullptr, 0);
}

uint32_t causal_event_fmt(uint8_t type, const char* subsystem, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const uint32_t id = causal_event_vfmt(type, subsystem, fmt, args);
    va_end(args);
    return id;
}
