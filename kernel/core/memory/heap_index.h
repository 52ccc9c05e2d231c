// The heap's own knowledge of its blocks, outside the callers' reach: where headers stand, which
// blocks are free, and how large the largest free block of each stretch of the heap is. With it
// first fit, the check of a freed pointer and the merging of neighbours take a bounded time,
// however many blocks there are.
#pragma once

#include "kernel/core/memory/heap_internal.h"

// Marks: one bit a cell. A header's first cell is marked; its second cell is marked when the block
// is free. Behind the header at least one cell is data and clear, so a run of marks is one header:
//
//   1 0 0 0 ...  a used block        1 1 0 0 0 ...  a free block
//
// A clear word stands before the first cell and one behind the last, so that every cell has
// neighbours.
constexpr uint32_t HEAP_CELLS = HEAP_BYTES / HEAP_GRAIN;
constexpr uint32_t HEAP_MARK_BITS = 32;  ///< in a word
constexpr uint32_t HEAP_MARK_WORDS = HEAP_CELLS / HEAP_MARK_BITS;
inline uint32_t heap_marks[1 + HEAP_MARK_WORDS + 1];

/// The byte of the marks that holds `bit`, counted from the clear word; a 32-bit access there
/// reaches the bits that follow, too.
inline uint8_t* heap_mark_byte(uint32_t bit) {
    return reinterpret_cast<uint8_t*>(heap_marks) + bit / 8;
}

/// The marks of the cell before `cell` (bit 0), of `cell` (bit 1) and of the one behind (bit 2).
inline uint32_t heap_marks_around(heap_cell_t cell) {
    const uint32_t bit = HEAP_MARK_BITS + cell - 1;
    uint32_t bits;
    __builtin_memcpy(&bits, heap_mark_byte(bit), sizeof bits);
    return bits >> (bit % 8) & 7;
}

/// Sets the marks of `cell` (bit 0 of `marks`) and of the one behind (bit 1).
inline void heap_set_marks(heap_cell_t cell, uint32_t marks) {
    const uint32_t bit = HEAP_MARK_BITS + cell;
    uint32_t bits;
    __builtin_memcpy(&bits, heap_mark_byte(bit), sizeof bits);
    bits = (bits & ~(3u << (bit % 8))) | marks << (bit % 8);
    __builtin_memcpy(heap_mark_byte(bit), &bits, sizeof bits);
}

/// Forgets all blocks.
void heap_index_reset() REQUIRES(heap_lock);

/// Marks a header at `cell` and whether its block is free.
inline void heap_index_mark(heap_cell_t cell, bool free) REQUIRES(heap_lock) {
    heap_set_marks(cell, free ? 3 : 1);
}

/// Takes the marks of the header at `cell` away: its block was absorbed.
inline void heap_index_unmark(heap_cell_t cell) REQUIRES(heap_lock) { heap_set_marks(cell, 0); }

/// Whether a header stands at `cell`, which may be any number.
inline bool heap_index_has(heap_cell_t cell) REQUIRES(heap_lock) {
    return cell < HEAP_CELLS && (heap_marks_around(cell) & 3) == 2;
}

/// Whether the block of the header at `cell` is free.
inline bool heap_index_free(heap_cell_t cell) REQUIRES(heap_lock) {
    return (heap_marks_around(cell) & 4) != 0;
}

/// Offers `block`, marked free and with a size that is new or grew, to first fit. The last block of
/// the heap is not offered but made the tail.
void heap_index_enter(heap_block_t* block) REQUIRES(heap_lock);

/// Withdraws a block of `size` bytes that was entered at `cell` and is no longer marked free or has
/// become the tail.
void heap_index_leave(heap_cell_t cell, uint32_t size) REQUIRES(heap_lock);

/// The last block of the heap while it is free, else null. First fit comes to it last.
heap_block_t* heap_index_tail() REQUIRES(heap_lock);
void heap_index_set_tail(heap_block_t* block) REQUIRES(heap_lock);

/// The nearest header behind the one at `cell`, or before `cell`; NO_CELL when there is none.
heap_cell_t heap_index_next(heap_cell_t cell) REQUIRES(heap_lock);
heap_cell_t heap_index_prev(heap_cell_t cell) REQUIRES(heap_lock);

/// The lowest stretch that holds an entered block of at least `size` bytes; false: there is none.
bool heap_index_find(uint32_t size, uint32_t* stretch) REQUIRES(heap_lock);

/// The first entered block of `stretch` that says it has at least `size` bytes, or whose header is
/// not sound; null: none.
heap_block_t* heap_index_scan(uint32_t stretch, uint32_t size) REQUIRES(heap_lock);

/// Calls `visit` for each entered block of `stretch`, which may correct the size, then reads the
/// sizes anew.
void heap_index_visit(uint32_t stretch, void (*visit)(heap_block_t*, void*), void* ctx)
    REQUIRES(heap_lock);
