// The causal journal: events on their way out of the ring, kept in tamper-evident segment files on
// VoFS. docs/formats/journal.md has the bytes, kernel/graph/cjournal/format.h their codec.
//
//   ring -> spill -> segment of up to 512 records, with a hash sidecar and an epoch root
//                    chained by checksums, signed on demand, found through an index of 32 entries
//
// The "cjournal" task looks at the ring each second, and when emission says that many events wait:
// once more than 12288 are unspilled it writes the oldest until 6144 are left. What the ring lost
// before it was spilled is named by an event ("lost %u..%u").
//
// A segment exists only with its companions, whatever a power cut interrupts: they are written
// first, the segment file last, each in one step. Start-up completes or removes what is left over.
// Identifiers never repeat on one volume: cjournal_continue_numbering() puts this boot's events
// behind everything archived.
//
// Task context only. One sleeping mutex guards the journal; it stands above VoFS's and the block
// device's. It is not held while events are looked up through the store (causal_get and its kin
// come back here). Without a volume the journal is disabled: every call then does nothing and gives
// 0, or -1 where it says so. Events are CAUSAL_IO "cjournal".
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/graph/cjournal/format.h"

constexpr uint32_t CJOURNAL_SPILL_THRESHOLD = 12288;  ///< unspilled events; more start a spill
constexpr uint32_t CJOURNAL_SPILL_TARGET = 6144;      ///< unspilled events that it leaves
constexpr uint32_t CJOURNAL_CHECK_TICKS = 100;
constexpr int CJOURNAL_QUERY_MAX = 128;  ///< results of most queries

/// An index entry in memory.
struct cjournal_entry_t {
    uint32_t first_id, last_id;
    uint32_t first_tick, last_tick;
    uint64_t first_lamport, last_lamport;
    uint32_t event_count;
    uint32_t type_bitmap, subsystem_bitmap, schema_bitmap;
    uint32_t parent_edge_count, parent_min_id, parent_max_id;
    uint32_t flags;              ///< of the segment's footer
    uint32_t hash_version;       ///< the sidecar's; 0: none; CJOURNAL_BAD_VERSION: invalid
    uint32_t hash_first_prefix;  ///< first four bytes of the first stored hash
    uint32_t root_hash_version;  ///< the root's; 0: none; CJOURNAL_BAD_VERSION: invalid
    uint32_t root_prefix;        ///< first four bytes of the root
    uint32_t segment_num;
    bool hash_first_valid;
    bool root_valid;
    bool active;
};

struct cjournal_state_t {
    uint32_t segments_written;  ///< highest segment number handed out
    uint32_t events_spilled;    ///< events of the indexed segments
    uint32_t last_spilled_id;   ///< newest event written by the regular spill
    uint32_t last_check_tick;
    bool initialized;
    bool disk_available;
    cjournal_entry_t index[CJOURNAL_SEGMENTS_MAX];
    int32_t index_count;
};

// --- Start and end -------------------------------------------------------------------------------

/// Raises the store's numbering above every event that segments and snapshot hold, and carries what
/// was recorded in this boot along, after clearing away what a power cut left of a segment. Works
/// with a lost or wrong index. Without a volume or archived events nothing changes. Prints one
/// WARNING line when the numbers are used up. Start-up, interrupts masked, before anything is
/// restored or spilled; once.
void cjournal_continue_numbering();

/// Resets everything; loads or rebuilds the index, creates the task "cjournal" (priority 6),
/// installs the store's archive and spill hooks. Prints "[cjournal] initialized — %d segments, %u
/// events on disk", or that it is disabled without a volume. Start-up.
/// Records "journal init: empty" or "journal init: recovered segments from disk".
void cjournal_init();

/// Writes all unspilled events; their number. For an orderly shutdown, before the volume is left.
int cjournal_shutdown();

// --- Writing -------------------------------------------------------------------------------------

/// The periodic check: spills when it is time. cjournal_task_fn repeats it for ever, and the check
/// of the snapshot (causal_persist.h) with it.
void cjournal_tick();
void cjournal_task_fn();

/// Writes up to `count` unspilled events, oldest first; how many were written. A failing disk or
/// memory ends it early; the rest is tried again with the next spill.
int cjournal_spill(int count);

/// Makes sure that event `event_id` is on disk: 0 when it was, 1 when it was written now (alone,
/// in a segment of its own), -1 when it is neither there nor in the ring, or on failure.
int cjournal_spill_through(uint32_t event_id);

/// Rebuilds the index from the segment files and saves it: the number of entries, -1 without disk.
int cjournal_rebuild_index();

/// Imports the older snapshot file as segments and renames it. The number of events imported, also
/// when they had been before; 0 without a file, -1 on failure (nothing is left behind), -2 when
/// only the renaming failed.
int cjournal_import_legacy();

/// The state, which changes under the reader.
const cjournal_state_t* cjournal_state();

/// Events of the indexed segments.
uint32_t cjournal_total_persisted();

// --- Signing -------------------------------------------------------------------------------------

/// The node's Ed25519 public key; loads or creates the key first. 0, or -1 for a null buffer or
/// when the key cannot be kept.
[[nodiscard]] int cjournal_node_pubkey(uint8_t out[32]);

/// Signs a segment's root and stores the signature; says so or why not in one line. 0 or -1.
int cjournal_sign_segment(uint32_t segment);

/// Signs every segment without a signature and prints one line of figures; 0 or -1.
int cjournal_sign_all();

// --- Archived events -----------------------------------------------------------------------------

/// Event `id` from the ring, else from disk; 0, or -1.
[[nodiscard]] int cjournal_query_by_id(uint32_t id, cjournal_event_t* out);

/// Event `id` from disk: live segments first, then imported ones. 0, or -1.
[[nodiscard]] int cjournal_query_by_id_disk(uint32_t id, cjournal_event_t* out);

/// The records of one segment, at most 512; their number.
int cjournal_query_segment(uint32_t segment, cjournal_event_t* out, int max);

/// The number of records that the index knows for a segment; 0 when it is not there.
uint32_t cjournal_segment_event_count(uint32_t segment);

/// The first indexed segment whose identifier range holds the event: 0, or -1.
[[nodiscard]] int cjournal_segment_for_event(uint32_t event_id, uint32_t* segment_out);

/// The indexed segment with the lowest identifiers from `from` on; 0 with its number and what it
/// covers of them, or -1 when there is none.
[[nodiscard]] int cjournal_next_segment(uint32_t from, uint32_t* segment, uint32_t* first,
                                        uint32_t* last);

/// "first" and "last" as identifiers of archived events, a decimal number as itself; else 0.
uint32_t cjournal_resolve_archived_event_arg(const char* arg);

// Queries store at most `max` records and return their number; all but the first two cap `max` at
// CJOURNAL_QUERY_MAX. Segments that cannot be read contribute nothing. Those marked "newest" give
// the newest matches, oldest first.

/// Ticks in [start_tick, end_tick], in record order.
int cjournal_query_range(uint32_t start_tick, uint32_t end_tick, cjournal_event_t* out, int max);

/// Lamport times in [start, end], in record order.
int cjournal_query_lamport(uint64_t start, uint64_t end, cjournal_event_t* out, int max);

/// One type; newest.
int cjournal_query_type(uint32_t type, cjournal_event_t* out, int max);

/// One schema; newest.
int cjournal_query_schema(uint32_t schema_id, cjournal_event_t* out, int max);

/// Exactly this subsystem; newest.
int cjournal_query_subsystem(const char* name, cjournal_event_t* out, int max);

/// Records that name `id` as a parent, in record order.
int cjournal_query_children(uint32_t id, cjournal_event_t* out, int max);

/// Descendants of `id` level by level, each once; `max_depth` is clamped to 1..16.
int cjournal_query_descendants(uint32_t id, int max_depth, cjournal_event_t* out, int max);

/// The newest records, oldest first.
int cjournal_query_recent(cjournal_event_t* out, int max);

/// Description, subsystem or type name contains `needle` (null or empty: all); newest.
int cjournal_query_text(const char* needle, cjournal_event_t* out, int max);

/// Conditions of cjournal_query_filter.
constexpr uint32_t CJOURNAL_FILTER_TYPE = 1;
constexpr uint32_t CJOURNAL_FILTER_SCHEMA = 2;
constexpr uint32_t CJOURNAL_FILTER_SUBSYSTEM = 4;
constexpr uint32_t CJOURNAL_FILTER_TICKS = 8;
constexpr uint32_t CJOURNAL_FILTER_TEXT = 16;

/// All conditions in `flags` together; newest. Arguments of conditions not asked for are ignored.
int cjournal_query_filter(uint32_t flags, uint32_t type, uint32_t schema_id, const char* subsystem,
                          const char* needle, uint32_t start_tick, uint32_t end_tick,
                          cjournal_event_t* out, int max);

/// How many records cjournal_query_filter would select without a limit.
uint32_t cjournal_count_filter(uint32_t flags, uint32_t type, uint32_t schema_id,
                               const char* subsystem, const char* needle, uint32_t start_tick,
                               uint32_t end_tick);

enum cjournal_count_mode_t : int {
    CJOURNAL_COUNT_ALL = 0,
    CJOURNAL_COUNT_RANGE = 1,
    CJOURNAL_COUNT_LRANGE = 2,
    CJOURNAL_COUNT_TYPE = 3,
    CJOURNAL_COUNT_SCHEMA = 4,
    CJOURNAL_COUNT_SUBSYSTEM = 5,
    CJOURNAL_COUNT_TEXT = 6,
};

/// Records by one condition: `start` and `end` are ticks or Lamport times, or `start` is the type
/// or schema; `text` is the subsystem or needle.
uint32_t cjournal_count_matching(cjournal_count_mode_t mode, uint64_t start, uint64_t end,
                                 const char* text);

/// Records per type, over all segments.
void cjournal_type_histogram(uint32_t counts[CAUSAL_TYPE_COUNT]);

// --- Verification --------------------------------------------------------------------------------

/// The verdict on one segment.
struct cjournal_seg_verdict_t {
    bool indexed;
    bool footer;      ///< it has one
    bool checksum;    ///< its footer carries one
    bool layout;      ///< its footer carries the sizes
    bool chain;       ///< checked against the segment before
    int hash_status;  ///< 1 sidecar verified, 0 missing, -1 bad
    uint32_t hash_version;
    int root_status;  ///< 1 root verified, 0 missing, -1 bad
    bool ok;
};

/// Which files of a segment read well.
struct cjournal_retry_probe_t {
    bool header_ok;
    bool hash_ok;
    bool root_ok;
    bool index_ok;
    bool footer_ok;
};

/// Judges one segment; prints what verify_segment prints.
void cjournal_verify_segment_verdict(uint32_t segment, cjournal_seg_verdict_t* out);

/// Reads the heads of a segment's files and the index; true when all five are well.
bool cjournal_read_retry_probe(uint32_t segment, cjournal_retry_probe_t* out);

/// Checks the whole journal and prints "[cjournal] verify:" lines; 0, or -1.
int cjournal_verify();

// --- Proofs --------------------------------------------------------------------------------------

constexpr int CJEP_ERR_SEGMENT = -1;  ///< segment header unreadable
constexpr int CJEP_ERR_EVENT = -2;    ///< event argument invalid
constexpr int CJEP_ERR_MEMORY = -3;
constexpr int CJEP_ERR_READ = -4;  ///< fewer records than the header says
constexpr int CJEP_ERR_NOT_IN_SEGMENT = -5;
constexpr int CJEP_ERR_ROOT_MISSING = -6;
constexpr int CJEP_ERR_ROOT_INVALID = -7;
constexpr int CJEP_ERR_HASH = -8;

/// What a proof says.
struct cjournal_epoch_proof_t {
    bool ok;  ///< the recomputed root is the stored one
    uint32_t segment_num;
    uint32_t event_id;
    uint32_t leaf_index;  ///< of the event's record
    uint32_t depth;       ///< levels climbed; 0 in a segment of one record
    uint32_t root_prefix;
    uint32_t hash_version;
    uint32_t leaf_hash_prefix;
};

/// Proof of an archived event ("first", "last" or a number): 0 or CJEP_ERR_*.
[[nodiscard]] int cjournal_epoch_proof(const char* event_arg, cjournal_epoch_proof_t* out);

/// Proof of a segment's first record: 0 or CJEP_ERR_*.
[[nodiscard]] int cjournal_epoch_segment_proof(uint32_t segment, cjournal_epoch_proof_t* out);

/// The same with the event given ("first", null, "last", a number) and the sibling hashes stored
/// unless `siblings` is null: 0 or CJEP_ERR_*.
[[nodiscard]] int cjournal_segment_proof(uint32_t segment, const char* event_arg,
                                         cjournal_epoch_proof_t* out,
                                         cjournal_hash_t siblings[CJOURNAL_PROOF_DEPTH]);

/// 0 with root and signature when the segment has a signature file of 64 bytes and its root is
/// verified against its records, else -1. The signature itself is the caller's to check.
[[nodiscard]] int cjournal_segment_signed(uint32_t segment, uint8_t root_out[32],
                                          uint8_t sig_out[64]);

/// The first four bytes of a record's current hash.
uint32_t cjournal_event_hash_prefix(const cjournal_event_t* record);
