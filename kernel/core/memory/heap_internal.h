// What the heap's files share: the block header, the state and its lock.
//
//   | header 16 | pre-guard 4 | caller's user_size bytes | post-guard 4 | slack | next header ...
//               |<------------------------- size ---------------------------->|
//
// Blocks fill the heap without gaps, in address order, and two free ones never stand side by side.
// Headers lie among the callers' bytes, so they can be overwritten; heap_index.h knows on its own
// where they are and which are free. A header is believed only while it agrees.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/guards.h"
#include "kernel/core/memory.h"

constexpr uint32_t HEAP_GRAIN = 8;  ///< every header stands at a multiple of it
constexpr uint32_t HEAP_HEADER = 16;
constexpr uint32_t HEAP_GUARD = 4;
constexpr uint32_t HEAP_LARGE = 4096;  ///< allocations from this size on are recorded

/// A position in the heap, in grains from its start; NO_CELL: none.
using heap_cell_t = uint32_t;
constexpr heap_cell_t NO_CELL = 0xFFFFFF;
static_assert(HEAP_BYTES / HEAP_GRAIN < NO_CELL);

struct heap_block_t {
    uint32_t size;       ///< bytes of data, header excluded
    uint32_t user_size;  ///< bytes the caller asked for
    uint32_t free : 8;   ///< 1: free
    uint32_t prev : 24;  ///< cell of the header before this one, or NO_CELL
    heap_block_t* next;  ///< the header behind this block's data, or null
};
static_assert(sizeof(heap_block_t) == HEAP_HEADER && offsetof(heap_block_t, next) == 12);

struct heap_state_t {
    uint32_t start, end;  ///< addresses; 0: no heap yet
    uint32_t total_allocs, total_frees;
    bool damage_told;  ///< heap_get_stats has said that the list is damaged
};

inline spinlock_t heap_lock;  ///< guards the blocks, the index, the ring and the state
inline heap_state_t heap_state;

inline heap_block_t* heap_block_at(heap_cell_t cell) {
    return reinterpret_cast<heap_block_t*>(
        static_cast<uintptr_t>(heap_state.start + cell * HEAP_GRAIN));
}

inline uint32_t heap_address(const void* p) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
}

inline heap_cell_t heap_cell_of(const heap_block_t* block) {
    return (heap_address(block) - heap_state.start) / HEAP_GRAIN;
}

/// Whether the header agrees with the index: state, size and successor.
bool heap_block_sound(const heap_block_t* block) REQUIRES(heap_lock);
