// The bytes of timelines: the envelope in an event's payload, and the saved files. Pure: no I/O, no
// state. docs/formats/timeline.md has the tables.
//
// Integers are little-endian. Whatever came from a disk may lie: nothing here trusts a length, a
// count or a terminator of it.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "kernel/graph/causal.h"
#include "kernel/graph/timeline.h"

// --- The envelope: schema header (4), timeline number (4), sub-type (4), length (2), data --------

constexpr uint32_t TL_PAYLOAD_SCHEMA_OFFSET = 0;
constexpr uint32_t TL_PAYLOAD_SCHEMA_SIZE = 4;
constexpr uint32_t TL_PAYLOAD_BODY_OFFSET = 4;
constexpr uint32_t TL_PAYLOAD_BODY_MIN = 10;
constexpr uint32_t TL_PAYLOAD_MIN = TL_PAYLOAD_BODY_OFFSET + TL_PAYLOAD_BODY_MIN;
static_assert(TL_PAYLOAD_MIN + TIMELINE_DATA_MAX == CAUSAL_PAYLOAD_MAX);

struct timeline_envelope_t {
    uint32_t tl_id;
    uint32_t sub_type;
    std::span<const uint8_t> data;
};

/// Writes the envelope, with at most TIMELINE_DATA_MAX bytes of data, into `out` of
/// CAUSAL_PAYLOAD_MAX bytes; its length.
uint32_t timeline_encode_envelope(const timeline_envelope_t& envelope, uint8_t* out);

/// Reads an envelope, the older one without the schema header as well. `data` points into
/// `payload`. False when it is cut short or its length is more than there is.
[[nodiscard]] bool timeline_decode_envelope(std::span<const uint8_t> payload,
                                            timeline_envelope_t* out);

/// Makes `payload` of `len` bytes, in a buffer of CAUSAL_PAYLOAD_MAX, name the timeline `tl_id`;
/// one that is no envelope becomes one of sub-type 0 without data. Its length.
uint32_t timeline_readdress(uint8_t* payload, uint32_t len, uint32_t tl_id);

// --- Saved timelines -----------------------------------------------------------------------------

constexpr uint32_t TIMELINE_PERSIST_MAGIC = 0x544C5032;  ///< "2PLT"
constexpr uint32_t TIMELINE_PERSIST_VERSION = 2;
constexpr uint32_t TIMELINE_CHUNK_EVENTS = 10;
constexpr uint32_t TIMELINE_RECORD_SIZE = sizeof(causal_event_t);
constexpr uint32_t TIMELINE_CHUNK_BYTES = TIMELINE_CHUNK_EVENTS * TIMELINE_RECORD_SIZE;
constexpr uint32_t TIMELINE_OLD_BYTES = 6144;  ///< of a version 1 file, that are read

/// A timeline's record as it is saved.
struct [[gnu::packed]] timeline_saved_t {
    char name[TIMELINE_NAME_SIZE];
    char app[TIMELINE_APP_SIZE];
    uint8_t active;
    uint8_t padding[3];
    uint32_t head_id;
    uint32_t cursor_id;
    uint32_t event_count;
    uint32_t create_tick;
};
static_assert(sizeof(timeline_saved_t) == 68 && offsetof(timeline_saved_t, head_id) == 52);

struct [[gnu::packed]] timeline_persist_header_t {
    uint32_t magic;
    uint32_t version;
    uint32_t event_count;  ///< events saved
    uint32_t chunk_count;  ///< files of up to TIMELINE_CHUNK_EVENTS records
    timeline_saved_t timeline;
};
static_assert(sizeof(timeline_persist_header_t) == 84);
static_assert(offsetof(timeline_persist_header_t, timeline) == 16);

// A record is an event as it is in memory; causal.h asserts the other offsets.
static_assert(TIMELINE_RECORD_SIZE == 608 && offsetof(causal_event_t, payload_hash) == 548);
static_assert(offsetof(causal_event_t, type) == 24 && offsetof(causal_event_t, subsystem) == 28);
static_assert(offsetof(causal_event_t, payload_hash_valid) == 580);
static_assert(offsetof(causal_event_t, schema_id) == 582);
static_assert(offsetof(causal_event_t, num_parents) == 604);
static_assert(offsetof(causal_event_t, child_count) == 606);

/// The number of chunks for `events` events.
constexpr uint32_t timeline_chunks(uint32_t events) {
    return events / TIMELINE_CHUNK_EVENTS + (events % TIMELINE_CHUNK_EVENTS != 0 ? 1 : 0);
}

/// The header of a timeline of which `events` events are saved.
[[nodiscard]] timeline_persist_header_t timeline_make_header(const timeline_t& tl, uint32_t events);

/// What a header file is.
enum class timeline_form_t : uint8_t {
    current,
    older,    ///< version 1: the record first, events behind it
    damaged,  ///< neither
};

/// Recognises a header file from its first bytes, 84 or as many as there are. One that begins as
/// the current form is of that form or damaged; a ring's worth of events is the most there can be.
[[nodiscard]] timeline_form_t timeline_recognise(std::span<const uint8_t> file);

/// What is taken over of a saved event.
struct timeline_record_t {
    char desc[CAUSAL_DESC_SIZE];
    uint8_t payload[CAUSAL_PAYLOAD_MAX];
    uint32_t payload_len;
};

/// Reads a saved event of TIMELINE_RECORD_SIZE bytes: the text is ended and shows no control
/// characters, the length is cut to what there can be.
void timeline_decode_record(const uint8_t* stored, timeline_record_t* out);
