// The heap's own knowledge of its blocks, outside the callers' reach: where headers stand, which
// blocks are free, and how large the largest free block of each stretch of the heap is. It makes
// first fit, the check of a freed pointer and the search for a neighbour independent of the number
// of blocks. All functions run under heap_lock.
#pragma once

#include "kernel/core/memory/heap_internal.h"

/// Forgets all blocks.
void heap_index_reset() REQUIRES(heap_lock);

/// Notes a header at `cell` and whether its block is free. The stretch must be refreshed.
void heap_index_put(heap_cell_t cell, bool free) REQUIRES(heap_lock);

/// Forgets the header at `cell`, whose block was absorbed. The stretch must be refreshed.
void heap_index_remove(heap_cell_t cell) REQUIRES(heap_lock);

/// Reads the sizes of the free blocks in the stretch of `cell` anew.
void heap_index_refresh(heap_cell_t cell) REQUIRES(heap_lock);

/// Whether a header stands at `cell` (any number), and whether its block is free.
bool heap_index_has(heap_cell_t cell) REQUIRES(heap_lock);
bool heap_index_free(heap_cell_t cell) REQUIRES(heap_lock);

/// The nearest header behind the one at `cell`, or before `cell`; NO_CELL when there is none.
heap_cell_t heap_index_next(heap_cell_t cell) REQUIRES(heap_lock);
heap_cell_t heap_index_prev(heap_cell_t cell) REQUIRES(heap_lock);

/// The lowest stretch that holds a free block of at least `size` bytes; false: there is none.
bool heap_index_find(uint32_t size, uint32_t* stretch) REQUIRES(heap_lock);

/// The first free block of `stretch` that says it has at least `size` bytes, or whose header is not
/// sound; null: none.
heap_block_t* heap_index_scan(uint32_t stretch, uint32_t size) REQUIRES(heap_lock);

/// Calls `visit` for each free block of `stretch`, then refreshes the stretch.
void heap_index_visit_free(uint32_t stretch, void (*visit)(heap_block_t*, void*), void* ctx)
    REQUIRES(heap_lock);
