// Maxima: an 8-ary tree over 32768 stretches of 1536 bytes; a leaf holds the size of the largest
// free block whose header stands in the stretch, an inner node the largest of its children. The
// tail, the free block at the heap's end, is left out: nearly every allocation of a young heap cuts
// a piece from it, and it is the last candidate anyway.
#include "kernel/core/memory/heap_index.h"

#include <algorithm>
#include <bit>

#include "kernel/core/string.h"

namespace {

constexpr uint32_t FANOUT = 8;
constexpr uint32_t LEVELS = 5;
constexpr uint32_t STRETCHES = 32768;
constexpr uint32_t STRETCH_CELLS = HEAP_CELLS / STRETCHES;
constexpr uint32_t STRETCH_WORDS = STRETCH_CELLS / HEAP_MARK_BITS;
static_assert(STRETCHES == FANOUT * FANOUT * FANOUT * FANOUT * FANOUT);
static_assert(STRETCH_WORDS * STRETCHES == HEAP_MARK_WORDS);

/// Where each level starts in `maxima`, leaves first; the top level has FANOUT nodes.
constexpr uint32_t LEVEL_START[LEVELS + 1] = {0, 32768, 36864, 37376, 37440, 37448};

uint32_t* const marks = heap_marks + 1;  // of cell 0
uint32_t maxima[LEVEL_START[LEVELS]];
heap_block_t* tail;

/// Calls f(block) for the entered blocks of a stretch in address order until it returns true.
template <typename F>
void each_free(uint32_t stretch, F f) REQUIRES(heap_lock) {
    const uint32_t* end = marks + (stretch + 1) * STRETCH_WORDS;
    uint32_t word = *(end - STRETCH_WORDS);
    for (const uint32_t* at = end - STRETCH_WORDS; at != end; ++at) {
        const uint32_t above = at[1];
        // Two marks in a row: the first is the header's, the second says that it is free.
        uint32_t free = word & (word >> 1 | above << (HEAP_MARK_BITS - 1));
        for (; free != 0; free &= free - 1) {
            const auto word_cell = static_cast<heap_cell_t>(at - marks) * HEAP_MARK_BITS;
            const auto bit = static_cast<uint32_t>(std::countr_zero(free));
            heap_block_t* block = heap_block_at(word_cell + bit);
            if (block != tail && f(block))
                return;
        }
        word = above;
    }
}

/// Written out so that it compiles without branches.
uint32_t larger(uint32_t a, uint32_t b) { return a > b ? a : b; }

uint32_t largest_child(uint32_t level, uint32_t node) {
    const uint32_t* c = &maxima[LEVEL_START[level - 1] + node * FANOUT];
    return larger(larger(larger(c[0], c[1]), larger(c[2], c[3])),
                  larger(larger(c[4], c[5]), larger(c[6], c[7])));
}

/// Sets a leaf and corrects its ancestors as far as they change.
void set_maximum(uint32_t node, uint32_t value) {
    for (uint32_t level = 0; level < LEVELS; ++level) {
        uint32_t& slot = maxima[LEVEL_START[level] + node];
        const uint32_t old = slot;
        if (old == value)
            return;
        slot = value;
        if (level + 1 == LEVELS)
            return;
        node /= FANOUT;
        const uint32_t parent = maxima[LEVEL_START[level + 1] + node];
        if (value < parent && old < parent)
            return;
        if (value < parent)
            value = largest_child(level + 1, node);
    }
}

void refresh_stretch(uint32_t stretch) REQUIRES(heap_lock) {
    uint32_t largest = 0;
    each_free(stretch, [&](const heap_block_t* block) {
        largest = std::max(largest, block->size);
        return false;
    });
    set_maximum(stretch, largest);
}

}  // namespace

void heap_index_reset() {
    memset(heap_marks, 0, sizeof heap_marks);
    memset(maxima, 0, sizeof maxima);
    tail = nullptr;
}

void heap_index_enter(heap_block_t* block) {
    if (block->next == nullptr) {
        tail = block;
        return;
    }
    const uint32_t stretch = heap_cell_of(block) / STRETCH_CELLS;
    if (block->size > maxima[stretch])
        set_maximum(stretch, block->size);
}

void heap_index_leave(heap_cell_t cell, uint32_t size) {
    const uint32_t stretch = cell / STRETCH_CELLS;
    if (size >= maxima[stretch])
        refresh_stretch(stretch);
}

heap_block_t* heap_index_tail() { return tail; }

void heap_index_set_tail(heap_block_t* block) { tail = block; }

heap_cell_t heap_index_next(heap_cell_t cell) {
    const heap_cell_t from = cell + 2;
    uint32_t w = from / HEAP_MARK_BITS;
    uint32_t word = marks[w] & (~0u << (from % HEAP_MARK_BITS));
    while (word == 0) {
        if (++w >= HEAP_MARK_WORDS)
            return NO_CELL;
        word = marks[w];
    }
    return w * HEAP_MARK_BITS + static_cast<uint32_t>(std::countr_zero(word));
}

heap_cell_t heap_index_prev(heap_cell_t cell) {
    if (cell == 0)
        return NO_CELL;
    uint32_t w = (cell - 1) / HEAP_MARK_BITS;
    const uint32_t unwanted = HEAP_MARK_BITS - 1 - (cell - 1) % HEAP_MARK_BITS;
    uint32_t word = marks[w] & (~0u >> unwanted);
    while (word == 0) {
        if (w-- == 0)
            return NO_CELL;
        word = marks[w];
    }
    const heap_cell_t last = w * HEAP_MARK_BITS + static_cast<uint32_t>(std::bit_width(word)) - 1;
    return (heap_marks_around(last) & 1) != 0 ? last - 1 : last;
}

bool heap_index_find(uint32_t size, uint32_t* stretch) {
    uint32_t node = 0;
    for (uint32_t level = LEVELS; level-- > 0;) {
        const uint32_t* nodes = &maxima[LEVEL_START[level] + node * FANOUT];
        uint32_t i = 0;
        while (i < FANOUT && nodes[i] < size)
            ++i;
        if (i == FANOUT)
            return false;
        node = node * FANOUT + i;
    }
    *stretch = node;
    return true;
}

heap_block_t* heap_index_scan(uint32_t stretch, uint32_t size) {
    heap_block_t* found = nullptr;
    each_free(stretch, [&](heap_block_t* block) REQUIRES(heap_lock) {
        if (block->size >= size || !heap_block_sound(block))
            found = block;
        return found != nullptr;
    });
    return found;
}

void heap_index_visit(uint32_t stretch, void (*visit)(heap_block_t*, void*), void* ctx) {
    each_free(stretch, [&](heap_block_t* block) {
        visit(block, ctx);
        return false;
    });
    refresh_stretch(stretch);
}
