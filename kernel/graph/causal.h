// The causal event store: every significant action of the system as a fixed-size record that names
// its causes. The newest CAUSAL_RING_SLOTS events live in a static ring; what left the ring is
// fetched back through the archive hooks into a small cache.
//
// Event `id` lives in slot (id - 1) mod CAUSAL_RING_SLOTS; identifiers count up from 1 and are
// never reused, 0 is "no event". When all 2^32 - 1 are used up, nothing more is recorded.
//
// Only processor 0 records. Emission masks interrupts around the slot fill, so tasks and interrupt
// handlers of that processor may emit at any time; it neither allocates nor waits. Readers take no
// lock: a pointer into the ring or the cache is good until its slot is reused, which may happen at
// any preemption. Who prints or keeps an event takes identifiers and causal_copy().
//
// A slot's `id` is its seal: 0 while the slot is filled, set last, never the same twice. So what
// was read from a slot is one event's if the slot held the same `id` before and after.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "kernel/core/compiler.h"
#include "kernel/core/record.h"

constexpr uint32_t CAUSAL_RING_SLOTS = 16384;
constexpr uint32_t CAUSAL_HYDRATED_SLOTS = 512;
constexpr uint32_t CAUSAL_SUBSYSTEM_SIZE = 16;  ///< with the terminator
constexpr uint32_t CAUSAL_DESC_SIZE = 80;       ///< with the terminator
constexpr uint32_t CAUSAL_PAYLOAD_MAX = 420;
constexpr uint32_t CAUSAL_PARENTS_MAX = 4;
constexpr uint32_t CAUSAL_HASH_SIZE = 32;
constexpr uint32_t CAUSAL_HASH_VERSION = 4;  ///< of causal_event_hash

/// When an event was made.
struct causal_time_t {
    uint64_t lamport;
    uint32_t wall_ticks;  ///< 100 a second
    uint32_t tsc_lo;      ///< low half of the time-stamp counter; never stored elsewhere
};

/// An event. The two texts are terminated and zero up to their ends.
struct causal_event_t {
    uint32_t id;
    uint32_t node_hash;  ///< of the node that produced it
    causal_time_t time;
    causal_type_t type;
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    uint8_t payload[CAUSAL_PAYLOAD_MAX];
    uint32_t payload_len;                    ///< bytes of `payload` in use
    uint8_t payload_hash[CAUSAL_HASH_SIZE];  ///< BLAKE2s-256, only if payload_hash_valid
    bool payload_hash_valid;                 ///< set only on events out of the archive
    uint16_t schema_id;
    uint8_t schema_version;                ///< 0: not assigned
    uint32_t parents[CAUSAL_PARENTS_MAX];  ///< the first num_parents count, the rest are 0
    uint8_t num_parents;                   ///< 0: an orphan
    uint16_t child_count;                  ///< later events that named it while in the ring
};
static_assert(sizeof(causal_time_t) == 16);
static_assert(sizeof(causal_event_t) == 608);
static_assert(offsetof(causal_event_t, desc) == 44);
static_assert(offsetof(causal_event_t, payload) == 124);
static_assert(offsetof(causal_event_t, payload_len) == 544);
static_assert(offsetof(causal_event_t, parents) == 588);

/// The graph in figures; total and rate over the ring, the rest over its newest 100 events.
struct causal_health_t {
    uint32_t total_events;
    uint32_t orphan_count;
    uint32_t max_depth;      ///< steps along first parents, at most 32
    uint32_t avg_depth_x10;  ///< ten times the average
    uint32_t events_per_sec;
    uint32_t multi_parent_count;  ///< events with more than one parent
};

/// Where events go that leave the ring. Either member may be null.
struct causal_archive_hooks_t {
    /// Fills `out` from id to parents with payload_hash_valid set where the record has a payload
    /// (schema_version 0: the schema is inferred); false when the archive has no such event.
    bool (*fetch)(uint32_t id, causal_event_t* out);
    /// Stores up to `max` identifiers of archived events that name `id` as a parent; their count.
    int (*children)(uint32_t id, uint32_t* ids, int max);
};

/// Looks an integer up in the key-value store; false when absent.
using causal_kv_fn = bool (*)(const char* key, int* value);

/// Adds `delta` to every event identifier that a module keeps, except 0.
using causal_shift_fn = void (*)(uint32_t delta);

// --- Start ---------------------------------------------------------------------------------------

/// Empties the store, prints its "[boot]" line, records event 1 ("kernel boot started") and takes
/// the events of the floors below (record.h). Task context, once.
void causal_init();

/// Installs the archive (null: none). Not to be called while another task queries.
void causal_set_archive_hooks(const causal_archive_hooks_t* hooks);

/// Installs what answers causal_read_kv_int (null: nothing).
void causal_set_kv_hook(causal_kv_fn lookup);

/// Installs what is told that many events wait for the archive (null: nobody). Called once for each
/// mark, by emission: in any context, interrupts masked, locks of others held. It may only make a
/// note.
void causal_set_spill_hook(void (*hook)());

/// The event whose recording (or that of a later one) calls the spill hook.
void causal_set_spill_mark(uint32_t id);

constexpr uint32_t CAUSAL_RENUMBER_MAX = 8;  ///< keepers of identifiers

/// Has causal_renumber call `shift`, once however often it is named here. At the modules' init.
void causal_on_renumber(causal_shift_fn shift);

/// Moves the numbering behind `base`: every event recorded so far, every parent, current event and
/// kept identifier grows by `base`. False, with nothing changed, when the numbers would run out.
/// Start-up only: interrupts masked, nothing archived or sent elsewhere yet.
[[nodiscard]] bool causal_renumber(uint32_t base);

/// The last number that earlier boots used: what the numbering was moved behind, else 0.
uint32_t causal_numbering_base();

// --- Emission: any context; returns the event's identifier, 0 when nothing was recorded
// -----------
//
// Without `parent_ids` (or with a count below 1) the running task's current event is the parent; a
// task without one makes an orphan. At most four parents are kept, 0 among them does no harm. The
// new event becomes the running task's current one. Longer texts and payloads are cut. A null text
// stands for an empty one. The schema is the one that the payload's first three bytes name (id,
// little-endian, and version, where the table has that pair), else it is inferred from the texts.

/// Records a local event.
uint32_t causal_emit(causal_type_t type, const char* subsystem, const char* desc,
                     const uint32_t* parent_ids, int num_parents);

/// Records a local event with `payload_len` bytes of payload.
uint32_t causal_emit_payload(causal_type_t type, const char* subsystem, const char* desc,
                             const uint32_t* parent_ids, int num_parents, const void* payload,
                             uint32_t payload_len);

/// Records an event of the node `origin_node`. The importer has called causal_tick_lamport first.
uint32_t causal_emit_remote(causal_type_t type, const char* subsystem, const char* desc,
                            const uint32_t* parent_ids, int num_parents, const void* payload,
                            uint32_t payload_len, uint32_t origin_node);

/// Records a local event without named parents; at most 63 characters of the text survive.
uint32_t causal_event_fmt(uint8_t type, const char* subsystem, const char* fmt, ...)
    VORN_PRINTF(3, 4);

/// causal_event_fmt with an argument list.
uint32_t causal_event_vfmt(uint8_t type, const char* subsystem, const char* fmt, va_list args)
    VORN_PRINTF(3, 0);

// --- The running task's current event ------------------------------------------------------------

/// Makes `event_id` current; without a running task nothing happens. Any context.
void causal_set_current(uint32_t event_id);

/// The current event, 0 without one or without a running task. Any context.
uint32_t causal_get_current();

/// Saves the current event in the store's one save slot and makes `event_id` current. Not nested.
void causal_push_context(uint32_t event_id);

/// Makes the saved event current and empties the save slot.
void causal_pop_context();

// --- Clock and identity --------------------------------------------------------------------------

/// The present time stamp; advances nothing. Any context.
causal_time_t causal_now();

/// The receive rule: the Lamport clock becomes the larger of the two, plus one.
void causal_tick_lamport(uint64_t remote_lamport);

/// Raises the Lamport clock to `val`; never lowers it.
void causal_set_lamport(uint64_t val);

uint64_t causal_get_lamport();

/// The identifier that the next event gets; 0 when all are used up.
uint32_t causal_get_next_id();

/// Raises the next identifier to `id`; never lowers it. For a restored counter.
void causal_set_next_id(uint32_t id);

/// The local node's hash, 0 until the mesh knows it.
void causal_set_node_hash(uint32_t hash);
uint32_t causal_get_node_hash();

// --- Lookup --------------------------------------------------------------------------------------

/// The event if it is in the ring, else null. Any context.
causal_event_t* causal_get_ring(uint32_t id);

/// The event out of ring, cache or archive, else null (id 0 as well). Task context: the archive may
/// wait for the disk.
causal_event_t* causal_get(uint32_t id);

/// Copies the event that causal_get would find into `out`, never half of it; false when there is
/// none. Task context.
[[nodiscard]] bool causal_copy(uint32_t id, causal_event_t* out);

/// Stores the parents of the event that causal_get would find; returns their count (0 to 4), or -1
/// when there is no such event. Task context.
int causal_parents_of(uint32_t id, uint32_t parents[CAUSAL_PARENTS_MAX]);

/// The number of the newest event: as many as were recorded since start-up.
uint32_t causal_total_events();

/// Occupied ring slots.
uint32_t causal_ring_used();

/// The oldest identifier in the ring, 0 when it is empty.
uint32_t causal_oldest_event_id();

// --- Queries: task context; at most `max` results, the count is returned
// --------------------------
//
// Each comes in two forms: pointers into the ring or the cache, and identifiers, which stay true
// whatever is recorded meanwhile.

/// Events of one type in the ring, newest first.
int causal_query_recent(causal_type_t type, causal_event_t** out, int max);
int causal_recent_ids(causal_type_t type, uint32_t* ids, int max);

/// Events in the ring with start_tick <= wall_ticks <= end_tick, oldest first.
int causal_query_range(uint32_t start_tick, uint32_t end_tick, causal_event_t** out, int max);

/// Events that name `event_id` as a parent: ring, oldest first, then at most 32 archived ones.
/// Takes as long as its answer for an event in the ring, a look at every event for another.
int causal_query_children(uint32_t event_id, causal_event_t** out, int max);
int causal_children_ids(uint32_t event_id, uint32_t* ids, int max);

/// Ancestors, breadth first, each once; at most 32 are visited.
int causal_query_ancestors(uint32_t event_id, causal_event_t** out, int max);
int causal_ancestor_ids(uint32_t event_id, uint32_t* ids, int max);

// --- Figures -------------------------------------------------------------------------------------

/// Ring events without parents.
uint32_t causal_count_orphans();

/// Fills `h`. Task context.
void causal_compute_health(causal_health_t* h);

/// Measures the event rate once 100 ticks have passed since the last time. Processor 0's tick.
void causal_update_rate();

/// Of the newest 64 ring events that are not older than 200 ticks, how many speak of "pid=%d" with
/// this pid and no further digit. Any context.
uint32_t causal_task_activity(int32_t pid);

/// causal_task_activity of `n` different pids, in one pass over the events.
void causal_task_activities(const int32_t* pids, uint32_t* counts, int n);

// --- Hashes: BLAKE2s-256 over a fixed little-endian byte string
// ------------------------------------

/// The hash of the current version (4). False and 32 zero bytes for a null event.
bool causal_event_hash(const causal_event_t* ev, uint8_t out[32]);

/// The hash of version 1 to 4; false and 32 zero bytes for another version or a null event.
bool causal_event_hash_version(uint32_t version, const causal_event_t* ev, uint8_t out[32]);

/// The same with the payload's length and hash given; with a null hash the event's own are used.
bool causal_event_hash_with_payload_hash(uint32_t version, const causal_event_t* ev,
                                         uint32_t payload_len, const uint8_t* payload_hash,
                                         uint8_t out[32]);

/// 64 lower-case hexadecimal digits and a terminator.
void causal_hash_hex(const uint8_t hash[32], char out[65]);

// --- Names and numbers ---------------------------------------------------------------------------

/// "sched" ... "user"; "?" for a type that does not exist.
const char* causal_type_name(uint32_t type);

/// "SCHED" ... "USER"; "???" for a type that does not exist.
const char* causal_type_label_upper(uint32_t type);

/// The type of a lower-case name; -1 for null or unknown.
int causal_type_from_name(const char* name);

/// The value of the leading decimal digits, modulo 2^32; 0 for null or when there is none.
uint32_t causal_parse_uint(const char* s);

/// The integer value of `key` in the key-value store, or `def`.
int causal_read_kv_int(const char* key, int def);
