// What the files of the timelines share. Private to kernel/graph/timeline/.
//
//   format   the codec           slots   slots, emission, cache      chain   collecting, time
//   travel tasks    those of processes  save    saving and what is saved    load    loading export
#pragma once

#include <span>

#include "kernel/core/guards.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/mutex.h"
#include "kernel/graph/timeline.h"

/// A slot. It is free when its timeline is neither active nor being loaded.
struct timeline_slot_t {
    timeline_t tl;
    bool loading;       ///< taken by a load that is not finished
    uint32_t first_id;  ///< where the chain begins; 0: no event yet
    uint16_t cache_pos;
    uint16_t cache_count;
    timeline_cached_event_t cache[TIMELINE_CACHE_EVENTS];
};

inline timeline_slot_t timeline_slots[TIMELINE_SLOTS] GUARDED_BY(irq_mask);

/// The sleeping lock of saving, loading and exporting.
inline mutex_t timeline_lock;

/// The slot of an active timeline, or null.
inline timeline_slot_t* timeline_active(int tl_id) REQUIRES(irq_mask) {
    const bool known = tl_id >= 0 && tl_id < TIMELINE_SLOTS && timeline_slots[tl_id].tl.active;
    return known ? &timeline_slots[tl_id] : nullptr;
}

/// What is taken over from where a new timeline's slot is taken for.
struct timeline_draft_t {
    const char* name;
    const char* app;
    uint32_t create_tick;
};

/// Takes a free slot and fills it; -1 when the name is in use or none is free. It stays invisible
/// until timeline_publish, and can be given up with timeline_release.
[[nodiscard]] int timeline_take_slot(const timeline_draft_t& draft) REQUIRES(irq_mask);
void timeline_publish(int tl_id) REQUIRES(irq_mask);
void timeline_release(int tl_id) REQUIRES(irq_mask);

/// Emits one event with the payload as it is, chains it and moves head and cursor to it; a null
/// `sub_type` keeps it out of the cache. 0 when nothing was recorded.
uint32_t timeline_append(timeline_slot_t* slot, const char* desc, std::span<const uint8_t> payload,
                         const uint32_t* sub_type) REQUIRES(irq_mask);

/// A timeline's chain at a moment.
struct timeline_chain_t {
    timeline_t tl;      ///< the record then
    uint32_t first_id;  ///< tells the timeline from a later one in the same slot
    heap_ptr<uint32_t> ids;
    int count;

    /// The position of the cursor's event, -1 when it is not in the chain.
    int cursor_position() const;
};

/// Collects the chain; false for a bad number or without memory. Task context.
[[nodiscard]] bool timeline_collect(int tl_id, timeline_chain_t* out);

/// The tick of an event that is in the ring; false when it is not.
[[nodiscard]] bool timeline_tick_of(uint32_t id, uint32_t* tick);

constexpr const char* TIMELINE_DIRECTORY = "/timeline";
constexpr uint32_t TIMELINE_PATH_SIZE = 64;  ///< holds every path of a saved timeline

/// Writes the path of the header file of `name`, or of its chunk number `chunk`.
void timeline_header_path(const char* name, char (&path)[TIMELINE_PATH_SIZE]);
void timeline_chunk_path(const char* name, uint32_t chunk, char (&path)[TIMELINE_PATH_SIZE]);

/// The inode and size of a regular file; false when there is none.
[[nodiscard]] bool timeline_find_file(const char* path, int* inode, uint32_t* size);
