// The bytes of every journal file, and what follows from them alone: checksum, hashes, Merkle tree,
// layout recognition, canonical records. Pure: no I/O, no state; the kernel, the host tools and the
// tests share it. docs/formats/journal.md has the tables.
//
//   segment   header (44) | event_count records (175, older 172 or 136) | footer (48, older 0..44)
//   sidecar   header (24) | event_count event hashes (32)
//   root      60 bytes: header and the Merkle root of the event hashes
//   index     header (24) | entry_count entries (80)
//   snapshot  header (24) | event_count records (138): the older format, read for import
//
// All integers are little-endian, records packed, texts terminated and zero behind the terminator.
// Whatever came from a disk may lie: decode functions check it, the others say what they expect.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "kernel/graph/causal.h"

constexpr uint32_t CJOURNAL_SEGMENT_MAGIC = 0x434A4E4C;   ///< "LNJC"
constexpr uint32_t CJOURNAL_FOOTER_MAGIC = 0x54464A43;    ///< "CJFT"
constexpr uint32_t CJOURNAL_HASH_MAGIC = 0x48534A43;      ///< "CJSH"
constexpr uint32_t CJOURNAL_ROOT_MAGIC = 0x52544A43;      ///< "CJTR"
constexpr uint32_t CJOURNAL_INDEX_MAGIC = 0x584A4943;     ///< "CIJX"
constexpr uint32_t CJOURNAL_SNAPSHOT_MAGIC = 0x43505354;  ///< "TSPC"

constexpr uint32_t CJOURNAL_SEGMENT_VERSION = 1;
constexpr uint32_t CJOURNAL_FOOTER_VERSION = 5;
constexpr uint32_t CJOURNAL_ROOT_VERSION = 1;
constexpr uint32_t CJOURNAL_INDEX_VERSION = 6;
constexpr uint32_t CJOURNAL_SNAPSHOT_VERSION = 1;

constexpr uint32_t CJOURNAL_SEGMENT_EVENTS = 512;  ///< records of a segment, at most
constexpr uint32_t CJOURNAL_SEGMENTS_MAX = 32;     ///< entries of the index, at most
constexpr uint32_t CJOURNAL_SNAPSHOT_EVENTS = 512;
constexpr uint32_t CJOURNAL_FLAG_IMPORTED = 1;         ///< footer flag: out of the older snapshot
constexpr uint32_t CJOURNAL_BAD_VERSION = 0xFFFFFFFF;  ///< of a companion that is there but invalid
constexpr uint32_t CJOURNAL_PROOF_DEPTH = 10;          ///< levels of a proof, at most
constexpr uint32_t CJOURNAL_SIGNATURE_BYTES = 64;
constexpr uint32_t CJOURNAL_SEED_BYTES = 32;

constexpr const char* CJOURNAL_DIR = "/causal";
constexpr const char* CJOURNAL_INDEX_PATH = "/causal/index.jix";
constexpr const char* CJOURNAL_KEY_PATH = "/causal/node-sign.key";
constexpr const char* CJOURNAL_SNAPSHOT_PATH = "/causal/journal.bin";
constexpr const char* CJOURNAL_MIGRATED_PATH = "/causal/journal.bin.migrated";

// --- Records -------------------------------------------------------------------------------------

struct [[gnu::packed]] cjournal_header_t {
    uint32_t magic;
    uint32_t version;
    uint32_t event_count;  ///< 1 to 512
    uint32_t first_id, last_id;
    uint64_t first_lamport, last_lamport;  ///< of the first and the last record
    uint32_t first_tick, last_tick;        ///< smallest and largest of all records
};
static_assert(sizeof(cjournal_header_t) == 44 && offsetof(cjournal_header_t, first_tick) == 36);

/// The current record; the older ones are its first bytes.
struct [[gnu::packed]] cjournal_event_t {
    uint32_t id;
    uint32_t node_hash;
    uint64_t lamport;
    uint32_t wall_ticks;
    uint8_t type;
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    uint32_t parents[CAUSAL_PARENTS_MAX];
    uint8_t num_parents;
    uint16_t child_count;
    uint32_t payload_len;
    uint8_t payload_hash[CAUSAL_HASH_SIZE];  ///< zeros when payload_len is 0
    uint16_t schema_id;
    uint8_t schema_version;
};
static_assert(sizeof(cjournal_event_t) == 175 && offsetof(cjournal_event_t, desc) == 37);
static_assert(offsetof(cjournal_event_t, parents) == 117);
static_assert(offsetof(cjournal_event_t, payload_len) == 136);
static_assert(offsetof(cjournal_event_t, schema_id) == 172);

constexpr uint32_t CJOURNAL_EVENT_SIZE = sizeof(cjournal_event_t);
constexpr uint32_t CJOURNAL_EVENT_V3_SIZE = 172;  ///< id to payload_hash
constexpr uint32_t CJOURNAL_EVENT_V1_SIZE = 136;  ///< id to child_count

/// Version 3's record.
struct [[gnu::packed]] cjournal_event_v3_t {
    uint8_t bytes[CJOURNAL_EVENT_V3_SIZE];
};
/// Version 1's record.
struct [[gnu::packed]] cjournal_event_v1_t {
    uint8_t bytes[CJOURNAL_EVENT_V1_SIZE];
};
static_assert(offsetof(cjournal_event_t, schema_id) == CJOURNAL_EVENT_V3_SIZE);
static_assert(offsetof(cjournal_event_t, payload_len) == CJOURNAL_EVENT_V1_SIZE);

/// The footer of version 1; each later one adds fields and has its own version number.
struct [[gnu::packed]] cjournal_footer_v1_t {
    uint32_t magic;
    uint32_t version;
    uint32_t segment_num;
    uint32_t event_count;
    uint32_t first_id, last_id;
};
struct [[gnu::packed]] cjournal_footer_v2_t : cjournal_footer_v1_t {
    uint32_t checksum;  ///< over the header and all records as stored
};
struct [[gnu::packed]] cjournal_footer_v3_t : cjournal_footer_v2_t {
    uint32_t header_size;  ///< 44
    uint32_t event_size;
    uint32_t footer_size;  ///< of this very footer
};
struct [[gnu::packed]] cjournal_footer_v4_t : cjournal_footer_v3_t {
    uint32_t prev_checksum;  ///< checksum of the segment before; 0 for segment 1, or when unknown
};
/// The current footer (version 5).
struct [[gnu::packed]] cjournal_footer_t : cjournal_footer_v4_t {
    uint32_t flags;  ///< CJOURNAL_FLAG_IMPORTED or 0
};
static_assert(sizeof(cjournal_footer_v1_t) == 24 && sizeof(cjournal_footer_v2_t) == 28);
static_assert(sizeof(cjournal_footer_v3_t) == 40 && sizeof(cjournal_footer_v4_t) == 44);
static_assert(sizeof(cjournal_footer_t) == 48);

constexpr uint32_t CJOURNAL_HEADER_SIZE = sizeof(cjournal_header_t);
constexpr uint32_t CJOURNAL_FOOTER_SIZE = sizeof(cjournal_footer_t);
/// Of a current segment with `count` records: 89692 for 512.
constexpr uint32_t cjournal_segment_bytes(uint32_t count) {
    return CJOURNAL_HEADER_SIZE + count * CJOURNAL_EVENT_SIZE + CJOURNAL_FOOTER_SIZE;
}
constexpr uint32_t CJOURNAL_SEGMENT_BYTES_MAX = cjournal_segment_bytes(CJOURNAL_SEGMENT_EVENTS);

struct [[gnu::packed]] cjournal_hash_header_t {
    uint32_t magic;
    uint32_t version;  ///< of the event hash: 1 to 4, written as 4
    uint32_t segment_num;
    uint32_t event_count;
    uint32_t first_id, last_id;
};
static_assert(sizeof(cjournal_hash_header_t) == 24);

/// An event hash, or a node of the Merkle tree.
struct cjournal_hash_t {
    uint8_t bytes[CAUSAL_HASH_SIZE];
};
static_assert(sizeof(cjournal_hash_t) == 32 && alignof(cjournal_hash_t) == 1);

/// Of a sidecar with `count` hashes: 16408 for 512.
constexpr uint32_t cjournal_sidecar_bytes(uint32_t count) {
    return static_cast<uint32_t>(sizeof(cjournal_hash_header_t) + count * sizeof(cjournal_hash_t));
}

struct [[gnu::packed]] cjournal_root_header_t {
    uint32_t magic;
    uint32_t version;
    uint32_t segment_num;
    uint32_t event_count;
    uint32_t first_id, last_id;
    uint32_t hash_version;  ///< of the leaves: 1 to 4, written as 4
    cjournal_hash_t root;
};
static_assert(sizeof(cjournal_root_header_t) == 60 && offsetof(cjournal_root_header_t, root) == 28);

struct [[gnu::packed]] cjournal_index_header_t {
    uint32_t magic;
    uint32_t version;
    uint32_t entry_count;  ///< 0 to 32
    uint32_t events_spilled;
    uint32_t last_spilled_id;
    uint32_t segments_written;
};
static_assert(sizeof(cjournal_index_header_t) == 24);

/// What a set of records holds, so that a query can skip it.
struct [[gnu::packed]] cjournal_stats_t {
    uint32_t type_bitmap;       ///< bit t: some record has type t
    uint32_t subsystem_bitmap;  ///< bit cjournal_subsystem_bit: some record's subsystem
    uint32_t schema_bitmap;     ///< bit s: some record has schema s (below 32)
    uint32_t parent_edge_count;
    uint32_t parent_min_id, parent_max_id;  ///< of the non-zero parents; 0 when there are none
};
/// Of records that could not be read: matches everything.
constexpr cjournal_stats_t CJOURNAL_STATS_UNKNOWN = {0x3FF,      0xFFFFFFFF, 0xFFFFFFFF,
                                                     0xFFFFFFFF, 0,          0xFFFFFFFF};

struct [[gnu::packed]] cjournal_index_entry_t {
    uint32_t segment_num;
    uint32_t first_id, last_id;
    uint32_t first_tick, last_tick;
    uint64_t first_lamport, last_lamport;
    uint32_t event_count;
    cjournal_stats_t stats;
    uint32_t flags;              ///< of the segment's footer
    uint32_t root_hash_version;  ///< 1 to 4; 0: no root file; CJOURNAL_BAD_VERSION: invalid one
    uint32_t root_prefix;        ///< first four bytes of the root
    uint32_t root_valid;         ///< 1: the two fields before come from a valid root file
};
static_assert(sizeof(cjournal_index_entry_t) == 80);
static_assert(offsetof(cjournal_index_entry_t, event_count) == 36);
static_assert(offsetof(cjournal_index_entry_t, flags) == 64);

constexpr uint32_t cjournal_index_bytes(uint32_t entries) {
    return static_cast<uint32_t>(sizeof(cjournal_index_header_t) +
                                 entries * sizeof(cjournal_index_entry_t));
}
constexpr uint32_t CJOURNAL_INDEX_BYTES_MAX = cjournal_index_bytes(CJOURNAL_SEGMENTS_MAX);

struct [[gnu::packed]] persist_header_t {
    uint32_t magic;
    uint32_t version;
    uint32_t event_count;
    uint32_t next_id;  ///< the store's, when written
    uint64_t lamport_clock;
};
static_assert(sizeof(persist_header_t) == 24);

struct [[gnu::packed]] persist_event_t {
    uint32_t id;
    uint32_t node_hash;
    uint64_t lamport;
    uint32_t wall_ticks;
    uint32_t tsc_lo;
    uint8_t type;
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    uint32_t parents[CAUSAL_PARENTS_MAX];
    uint8_t num_parents;
};
static_assert(sizeof(persist_event_t) == 138 && offsetof(persist_event_t, parents) == 121);

// --- File names ----------------------------------------------------------------------------------

enum class cjournal_file_t : uint8_t { segment, sidecar, root, signature };

constexpr uint32_t CJOURNAL_PATH_SIZE = 32;  ///< holds every path of a segment's file

/// Writes "/causal/seg-00000001.jnl" and its kin (".hsh", ".ert", ".sig") into `path` of
/// CJOURNAL_PATH_SIZE bytes.
void cjournal_path(uint32_t segment, cjournal_file_t file, char* path);

/// A directory entry as a segment's file; false unless it is exactly the name that cjournal_path
/// makes for a segment number above 0. `name` need not be terminated.
[[nodiscard]] bool cjournal_parse_name(const char* name, uint32_t length, uint32_t* segment,
                                       cjournal_file_t* file);

// --- Checksum and subsystem bit: 32-bit FNV-1a ---------------------------------------------------

constexpr uint32_t CJOURNAL_FNV_BASIS = 0x811C9DC5;

/// Takes `bytes` into the running value `state`.
[[nodiscard]] uint32_t cjournal_fnv(std::span<const uint8_t> bytes,
                                    uint32_t state = CJOURNAL_FNV_BASIS);

/// The checksum over a segment's header and records as stored; never 0.
[[nodiscard]] uint32_t cjournal_checksum(std::span<const uint8_t> header_and_records);

/// The bit number of a subsystem field (at most 16 characters are read); 0 for null and empty.
[[nodiscard]] uint32_t cjournal_subsystem_bit(const char* subsystem);

// --- Records from and to events ------------------------------------------------------------------

/// The current record of an event (texts cut to 15 and 79 characters, payload hashed, schema
/// inferred when not assigned).
void compact_event(const causal_event_t& ev, cjournal_event_t* out);

/// The event that a record stands for; without payload bytes and tsc_lo, with payload_hash_valid
/// set when it had a payload.
void cjournal_expand_event(const cjournal_event_t& record, causal_event_t* out);

/// Copies a stored record of 175, 172 or 136 bytes into the current form; older ones get what they
/// lack (no payload, inferred schema). False for another size.
[[nodiscard]] bool cjournal_convert_record(std::span<const uint8_t> stored, cjournal_event_t* out);

/// The record's event hash of `version` 1 to 4; false and zeros for another version.
bool cjournal_record_hash(uint32_t version, const cjournal_event_t& record, cjournal_hash_t* out);

/// Statistics of a set of records.
void segment_events_index_stats(std::span<const cjournal_event_t> records, cjournal_stats_t* out);

// --- Segments ------------------------------------------------------------------------------------

/// The header of `records`, 1 to 512 of them.
[[nodiscard]] cjournal_header_t cjournal_make_header(std::span<const cjournal_event_t> records);

/// Magic and version are a segment's.
[[nodiscard]] bool cjournal_header_valid(const cjournal_header_t& header);

/// Whether a segment that ends in `last` may go on with `next`: identifiers without a gap, and no
/// step back in Lamport time. So all Lamport times lie between the first and the last record's.
[[nodiscard]] bool cjournal_may_follow(const cjournal_event_t& last, const cjournal_event_t& next);

struct cjournal_layout_t {
    uint32_t event_size;   ///< 175, 172, 136, or what a footer says
    uint32_t footer_size;  ///< 48, 44, 40, 28, 24 or 0
};

/// Recognises the layout of segment `segment` from its header, the size of its file and the file's
/// last bytes (48, or all when it is shorter); false when it has none, or more than 512 records or
/// none. A record size other than the three known ones is recognised here and refused when records
/// are converted.
[[nodiscard]] bool cjournal_recognise(const cjournal_header_t& header, uint32_t segment,
                                      uint32_t file_size, std::span<const uint8_t> tail,
                                      cjournal_layout_t* layout);

/// What is wrong with a segment's records.
enum class cjournal_fault_t : uint8_t {
    none,
    first_id,      ///< the first record is not the header's
    monotonic,     ///< identifiers do not increase
    last_id,       ///< the last record is not the header's
    parent_count,  ///< above 4
    type,          ///< above 9
    tick,          ///< outside the header's range
    lamport,       ///< outside the header's range
};
struct cjournal_record_check_t {
    cjournal_fault_t fault;
    uint32_t position;  ///< of the record at fault
};

/// Checks records, one after the other, against their segment's header: the first fault.
[[nodiscard]] cjournal_record_check_t cjournal_check_records(
    const cjournal_header_t& header, std::span<const cjournal_event_t> records);

/// Checks a footer of `layout.footer_size` bytes, whatever its version, against its segment;
/// `checksum` is the one computed over header and records. True without a footer.
[[nodiscard]] bool cjournal_check_footer(const cjournal_header_t& header, uint32_t segment,
                                         const cjournal_layout_t& layout,
                                         std::span<const uint8_t> footer, uint32_t checksum);

/// The current footer of a segment.
[[nodiscard]] cjournal_footer_t cjournal_make_footer(const cjournal_header_t& header,
                                                     uint32_t segment, uint32_t checksum,
                                                     uint32_t prev_checksum, uint32_t flags);

// --- Sidecar, root and proof ---------------------------------------------------------------------

[[nodiscard]] cjournal_hash_header_t cjournal_make_hash_header(const cjournal_header_t& header,
                                                               uint32_t segment);

/// The sidecar header has the magic, a version of 1 to 4 and this segment number.
[[nodiscard]] bool cjournal_hash_header_valid(const cjournal_hash_header_t& sidecar,
                                              uint32_t segment);

/// A sidecar header or root agrees with its segment's header in count and identifiers.
template <typename companion_t>
[[nodiscard]] bool cjournal_companion_matches(const companion_t& companion,
                                              const cjournal_header_t& header) {
    return companion.event_count == header.event_count && companion.first_id == header.first_id &&
           companion.last_id == header.last_id;
}

[[nodiscard]] cjournal_root_header_t cjournal_make_root(const cjournal_header_t& header,
                                                        uint32_t segment,
                                                        const cjournal_hash_t& root);

/// The root file has magic, version, a hash version of 1 to 4 and this segment number.
[[nodiscard]] bool cjournal_root_valid(const cjournal_root_header_t& root, uint32_t segment);

/// The Merkle root of event hashes in record order, which it overwrites; zeros for none.
[[nodiscard]] cjournal_hash_t cjournal_merkle_root(std::span<cjournal_hash_t> hashes);

/// The same, and on the way the inclusion proof of hash `leaf`: one sibling a level, at most
/// CJOURNAL_PROOF_DEPTH of them; their count goes to `depth`. `leaf` is below the number of hashes,
/// of which there are at most 512.
[[nodiscard]] cjournal_hash_t cjournal_merkle_proof(
    std::span<cjournal_hash_t> hashes, uint32_t leaf,
    std::span<cjournal_hash_t, CJOURNAL_PROOF_DEPTH> siblings, uint32_t* depth);

/// The root that a proof leads to.
[[nodiscard]] cjournal_hash_t cjournal_proof_root(const cjournal_hash_t& leaf_hash, uint32_t leaf,
                                                  std::span<const cjournal_hash_t> siblings);

/// The first four bytes as a little-endian number.
[[nodiscard]] uint32_t cjournal_hash_prefix(const cjournal_hash_t& hash);

// --- Index and snapshot --------------------------------------------------------------------------

/// The index header has magic, version and at most 32 entries, and fits a file of `file_size`.
[[nodiscard]] bool cjournal_index_valid(const cjournal_index_header_t& header, uint32_t file_size);

/// The snapshot header has magic, version and 1 to 512 records.
[[nodiscard]] bool cjournal_snapshot_valid(const persist_header_t& header);

/// An event's record in a snapshot.
void cjournal_snapshot_record(const causal_event_t& ev, persist_event_t* out);

/// The current record of a snapshot's: no children, no payload, inferred schema. False for a type,
/// a parent count or an identifier that no event has.
[[nodiscard]] bool cjournal_convert_snapshot(const persist_event_t& stored, cjournal_event_t* out);
