// Marks and maxima of the heap.
//
// Marks: one bit a cell. A header's first cell is marked; its second cell is marked when the block
// is free. Behind the header at least one cell is data and clear, so a run of marks is one header:
//
//   1 0 0 0 ...  a used block        1 1 0 0 0 ...  a free block
//
// Maxima: an 8-ary tree over 32768 stretches of 1536 bytes; a leaf holds the size of the largest
// free block whose header stands in the stretch, an inner node the largest of its children.
#include "kernel/core/memory/heap_index.h"

#include <algorithm>
#include <bit>

#include "kernel/core/string.h"

namespace {

constexpr uint32_t CELLS = HEAP_BYTES / HEAP_GRAIN;
constexpr uint32_t WORD_BITS = 32;
constexpr uint32_t WORDS = CELLS / WORD_BITS;

constexpr uint32_t FANOUT = 8;
constexpr uint32_t LEVELS = 5;
constexpr uint32_t STRETCHES = 32768;
constexpr uint32_t STRETCH_CELLS = CELLS / STRETCHES;
constexpr uint32_t STRETCH_WORDS = STRETCH_CELLS / WORD_BITS;
static_assert(STRETCHES == FANOUT * FANOUT * FANOUT * FANOUT * FANOUT);
static_assert(STRETCH_WORDS * STRETCHES == WORDS);

/// Where each level starts in `maxima`, leaves first; the top level has FANOUT nodes.
constexpr uint32_t LEVEL_START[LEVELS + 1] = {0, 32768, 36864, 37376, 37440, 37448};

uint32_t marks[WORDS];
uint32_t maxima[LEVEL_START[LEVELS]];

bool marked(heap_cell_t cell) { return (marks[cell / WORD_BITS] >> (cell % WORD_BITS) & 1) != 0; }

void set_mark(heap_cell_t cell, bool on) {
    const uint32_t bit = 1u << (cell % WORD_BITS);
    uint32_t& word = marks[cell / WORD_BITS];
    word = on ? word | bit : word & ~bit;
}

/// The header bits of free blocks in one word of marks.
uint32_t free_headers(uint32_t w) {
    const uint32_t word = marks[w];
    if (word == 0)
        return 0;
    const uint32_t below = w == 0 ? 0 : marks[w - 1] >> (WORD_BITS - 1);
    const uint32_t above = w + 1 == WORDS ? 0 : marks[w + 1] << (WORD_BITS - 1);
    return word & ~(word << 1 | below) & (word >> 1 | above);
}

/// Calls f(block) for the free blocks of a stretch in address order until it returns true.
template <typename F>
void each_free(uint32_t stretch, F f) REQUIRES(heap_lock) {
    const uint32_t first = stretch * STRETCH_WORDS;
    for (uint32_t w = first; w < first + STRETCH_WORDS; ++w)
        for (uint32_t bits = free_headers(w); bits != 0; bits &= bits - 1) {
            const auto bit = static_cast<uint32_t>(std::countr_zero(bits));
            if (f(heap_block_at(w * WORD_BITS + bit)))
                return;
        }
}

uint32_t largest_child(uint32_t level, uint32_t node) {
    const uint32_t* child = &maxima[LEVEL_START[level - 1] + node * FANOUT];
    uint32_t largest = child[0];
    for (uint32_t i = 1; i < FANOUT; ++i)
        largest = std::max(largest, child[i]);
    return largest;
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
    memset(marks, 0, sizeof marks);
    memset(maxima, 0, sizeof maxima);
}

void heap_index_put(heap_cell_t cell, bool free) {
    set_mark(cell, true);
    set_mark(cell + 1, free);
}

void heap_index_remove(heap_cell_t cell) {
    set_mark(cell, false);
    set_mark(cell + 1, false);
}

void heap_index_refresh(heap_cell_t cell) { refresh_stretch(cell / STRETCH_CELLS); }

bool heap_index_has(heap_cell_t cell) {
    return cell < CELLS && marked(cell) && (cell == 0 || !marked(cell - 1));
}

bool heap_index_free(heap_cell_t cell) { return marked(cell + 1); }

heap_cell_t heap_index_next(heap_cell_t cell) {
    const heap_cell_t from = cell + 2;
    uint32_t w = from / WORD_BITS;
    if (w >= WORDS)
        return NO_CELL;
    uint32_t word = marks[w] & (~0u << (from % WORD_BITS));
    while (word == 0) {
        if (++w == WORDS)
            return NO_CELL;
        word = marks[w];
    }
    return w * WORD_BITS + static_cast<uint32_t>(std::countr_zero(word));
}

heap_cell_t heap_index_prev(heap_cell_t cell) {
    if (cell == 0)
        return NO_CELL;
    uint32_t w = (cell - 1) / WORD_BITS;
    uint32_t word = marks[w] & (~0u >> (WORD_BITS - 1 - (cell - 1) % WORD_BITS));
    while (word == 0) {
        if (w-- == 0)
            return NO_CELL;
        word = marks[w];
    }
    const heap_cell_t last = w * WORD_BITS + static_cast<uint32_t>(std::bit_width(word)) - 1;
    return last != 0 && marked(last - 1) ? last - 1 : last;
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

void heap_index_visit_free(uint32_t stretch, void (*visit)(heap_block_t*, void*), void* ctx) {
    each_free(stretch, [&](heap_block_t* block) {
        visit(block, ctx);
        return false;
    });
    refresh_stretch(stretch);
}
