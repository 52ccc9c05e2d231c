// Timelines: named histories inside the causal graph. A timeline's events are CAUSAL_USER events of
// its application (the subsystem), each the parent of the next, with an envelope in the payload
// that names the timeline. The newest event is the head; the cursor can be moved back and forth in
// time, and an application replays the chain up to the cursor, or to a tick, to see its state as it
// was then.
//
//   create <-- data <-- mark <-- data (1000 bytes: none here) <-- (cont) <-- (cont) <-- (cont)
//                        cursor                                                          head
//
// The chain is what replay, cursor moves and saving work on: the events from the timeline's first
// to its head that are still in the ring, without the continuations, found by walking the parents
// back from the head. So events of a timeline that had the same number before are not in it.
//
// Slots and caches change with interrupts masked, on processor 0 only, as the events do; a call on
// another processor changes nothing. Saving, loading and exporting go one at a time, under a
// sleeping mutex above VoFS's. docs/formats/timeline.md has the bytes of envelope and files.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr int TIMELINE_SLOTS = 64;
constexpr uint32_t TIMELINE_NAME_SIZE = 32;  ///< with the terminator
constexpr uint32_t TIMELINE_APP_SIZE = 16;   ///< with the terminator
constexpr uint32_t TIMELINE_CACHE_EVENTS = 64;
constexpr uint32_t TIMELINE_DATA_MAX = 406;  ///< bytes of data in one event

/// Sub-types; applications define others.
enum timeline_sub_type_t : uint32_t {
    TIMELINE_CREATE = 1,
    TIMELINE_DATA = 2,
    TIMELINE_CHECKPOINT = 3,
    TIMELINE_MARK = 4,
    TIMELINE_DELETE = 5,
};

struct timeline_t {
    char name[TIMELINE_NAME_SIZE];
    char app[TIMELINE_APP_SIZE];  ///< the subsystem of its events
    bool active;
    uint32_t head_id;      ///< newest event; 0: none
    uint32_t cursor_id;    ///< the event that the cursor is on; 0: none
    uint32_t event_count;  ///< emissions; continuations do not count
    uint32_t create_tick;
};
static_assert(sizeof(timeline_t) == 68 && offsetof(timeline_t, head_id) == 52);

/// A recent event of a timeline.
struct timeline_cached_event_t {
    bool valid;
    uint32_t id;
    uint32_t tick;
    uint32_t sub_type;
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
};

/// Is called with each event of a replay, which is good during the call.
using timeline_replay_fn = void (*)(const causal_event_t* event, void* ctx);

// --- Slots: any context unless stated ------------------------------------------------------------

/// Clears all slots and caches; makes "/timeline" if a volume is mounted. Prints a "[boot]" line.
/// Start-up, once, after causal_init.
void timeline_init();

/// Keeps the timelines of processes: the end of a task whose timeline "proc/PID" exists is an event
/// of it ("exit status=%d"), and reaping the task destroys it. Start-up, after task_init.
void timeline_watch_tasks();

/// A new timeline of the application `app` with the event "timeline created". Names and
/// applications are cut to 31 and 15 characters. Its number, 0..63; -1 for a null argument, a name
/// in use, or when all slots are.
int timeline_create(const char* name, const char* app);

/// Emits "timeline deleted" and frees the slot. Unknown numbers are ignored.
void timeline_destroy(int tl_id);

/// The record, which changes under the reader; null for a number without a timeline.
const timeline_t* timeline_get(int tl_id);

/// The number of the timeline `name`, or -1.
int timeline_find(const char* name);

/// Active timelines.
int timeline_count();

/// Copies the newest events of a timeline, at most `max` of at most TIMELINE_CACHE_EVENTS, oldest
/// first, continuations left out; their number, 0 for a bad number.
int timeline_recent(int tl_id, timeline_cached_event_t* out, int max);

// --- Emission: any context -----------------------------------------------------------------------

/// Appends an event with the description `desc` (null: empty) and `len` bytes of data. More than
/// TIMELINE_DATA_MAX bytes go into continuation events ("(cont)", sub-type 2) behind an event
/// without data; all are emitted with interrupts masked, about a microsecond each. Head and cursor
/// go to the last one. Its identifier, or 0 when nothing was recorded.
uint32_t timeline_emit(int tl_id, uint32_t sub_type, const void* data, uint32_t len,
                       const char* desc);

// --- Time travel: task context -------------------------------------------------------------------
//
// An int result is 0, or -1 with the cursor left alone: a bad number, an empty chain, no memory, or
// what is stated. A cursor on a continuation counts as standing on the event it belongs to.

/// The cursor goes to the last event whose tick is at most `target_tick`; -1 when there is none.
int timeline_rewind(int tl_id, uint32_t target_tick);

/// The cursor goes to the first event behind it whose tick is at least `target_tick`, or to the
/// head; -1 when the cursor's event is not in the chain.
int timeline_forward(int tl_id, uint32_t target_tick);

/// The cursor goes `steps` events towards the first one, from the last one when its event is not in
/// the chain; it stops there.
int timeline_rewind_steps(int tl_id, uint32_t steps);

/// The cursor goes `steps` events towards the last one; it stops there.
int timeline_forward_steps(int tl_id, uint32_t steps);

/// The tick of the cursor's event, 0 when unknown.
uint32_t timeline_cursor_tick(int tl_id);

/// Calls `fn` for each event of the chain from the oldest to the cursor's; the number of calls, -1
/// for a bad number, a null `fn`, or without memory.
int timeline_replay(int tl_id, timeline_replay_fn fn, void* ctx);

/// The same for events up to `until_tick`, whatever the cursor; ends at the first later one.
int timeline_replay_until(int tl_id, uint32_t until_tick, timeline_replay_fn fn, void* ctx);

/// Reads the envelope of an event: sub-type and data, which point into the event. False, with
/// zeros, when there is no well-formed one, as in an event out of the archive, which keeps no
/// payload bytes. Any context.
bool timeline_parse_payload(const causal_event_t* ev, uint32_t* sub_type, const uint8_t** data,
                            uint16_t* data_len);

/// The event of the chain that a text names, 0 for the place before the oldest: "start", "origin"
/// or "0" that place, "head", "cursor" (the last one when the cursor's is not in the chain), "#N"
/// or "id=N" the event N, "T+N" the last event whose tick is at most N (or that place), "N" the
/// N-th. False when there is no such event.
[[nodiscard]] bool timeline_parse_endpoint(int tl_id, const char* text, uint32_t* event_id);

// --- Saving and loading: task context ------------------------------------------------------------
//
// A result of -1 may also mean that no volume is mounted.

/// Saves the chain as "/timeline/NAME.tl" and its chunks; a name with "/" gets its directories. The
/// header is written last, so that a power cut leaves the events saved before, or the new ones. 0,
/// or -1 when a write failed or the volume has too few inodes for it beside a full journal.
int timeline_persist(int tl_id);

/// Loads a saved timeline: its events are emitted anew. The number of the slot; -1 when the name is
/// in use, nothing well-formed is saved under it or no slot is free.
int timeline_restore(const char* name);

/// Whether a copy is saved under `name`: 1, with its events and chunks stored; 0 when there is
/// none; -1 for one of the older form or a damaged one.
int timeline_saved(const char* name, uint32_t* events, uint32_t* chunks);

/// Writes the last `max_events` events of the chain as a text, one line an event, to `path`: an
/// absolute one where files of that path go (route.h), a relative one below the root of the RAM
/// filesystem. The bytes written; -1 for a bad number, a null path or without memory, else the
/// OVERLAY_ code.
int timeline_export_recent(int tl_id, const char* path, int max_events);

/// timeline_export_recent of all events.
int timeline_export(int tl_id, const char* path);
