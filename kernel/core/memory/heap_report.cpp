// What the heap says of itself. The list is read in short runs under the lock, so a report on a
// busy heap is a picture of several moments.
#include <algorithm>

#include "kernel/core/kprintf.h"
#include "kernel/core/memory/heap_index.h"
#include "kernel/core/memory/heap_internal.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t BLOCKS_A_RUN = 64;
constexpr uint32_t KB = 1024;

struct survey_t {
    uint32_t blocks, free_blocks;
    uint32_t used_bytes, free_bytes;
    uint32_t largest;
    bool damaged;        // the walk stopped at a header that does not agree with the index
    uint32_t bad_block;  // that header
    uint32_t bad_next;   // where it leads
};

void count_block(survey_t& survey, const heap_block_t* block) {
    ++survey.blocks;
    if (block->free == 0) {
        survey.used_bytes += block->size;
        return;
    }
    ++survey.free_blocks;
    survey.free_bytes += block->size;
    survey.largest = std::max(survey.largest, block->size);
}

/// Counts up to BLOCKS_A_RUN blocks from `cell` on; returns where to go on, or NO_CELL.
heap_cell_t survey_run(survey_t& survey, heap_cell_t cell) {
    const spin_guard guard(heap_lock);
    if (!heap_index_has(cell)) {  // absorbed between two runs, by a block that is counted already
        cell = heap_index_prev(cell);
        if (cell == NO_CELL)
            return NO_CELL;
        cell = heap_index_next(cell);
    }
    for (uint32_t n = 0; n < BLOCKS_A_RUN && cell != NO_CELL; ++n) {
        const heap_block_t* block = heap_block_at(cell);
        if (!heap_block_sound(block)) {
            survey.damaged = true;
            survey.bad_block = heap_address(block);
            survey.bad_next = heap_address(block->next);
            return NO_CELL;
        }
        count_block(survey, block);
        cell = block->next == nullptr ? NO_CELL : heap_cell_of(block->next);
    }
    return cell;
}

survey_t survey_heap() {
    survey_t survey = {};
    if (heap_state.start == 0)
        return survey;
    for (heap_cell_t cell = 0; cell != NO_CELL;)
        cell = survey_run(survey, cell);
    return survey;
}

/// Once per boot.
void tell_damage(const survey_t& survey) {
    if (!survey.damaged || heap_state.damage_told)
        return;
    heap_state.damage_told = true;
    const bool outside = survey.bad_next < heap_state.start || survey.bad_next >= heap_state.end;
    if (outside && survey.bad_next != 0)
        kprintf("[heap] corrupted block at 0x%x (outside 0x%x-0x%x)\n", survey.bad_next,
                heap_state.start, heap_state.end);
    else
        kprintf("[heap] CORRUPTION: block header overwritten at 0x%x\n", survey.bad_block);
}

}  // namespace

void heap_get_stats(uint32_t* total, uint32_t* used) {
    const survey_t survey = survey_heap();
    tell_damage(survey);
    *total = HEAP_BYTES;
    *used = HEAP_BYTES - survey.free_bytes;
}

void heap_diagnostics(void) {
    const survey_t s = survey_heap();
    const uint32_t overhead = HEAP_HEADER * s.blocks;
    const uint32_t fragmentation =
        s.free_blocks < 2 ? 0 : (s.free_blocks - 1) * 100 / s.free_blocks;
    kprintf("Heap Diagnostics:\n");
    kprintf("  Total:    %u KB (%u blocks)\n", (s.free_bytes + s.used_bytes + overhead) / KB,
            s.blocks);
    kprintf("  Used:     %u KB (%u blocks)\n", s.used_bytes / KB, s.blocks - s.free_blocks);
    kprintf("  Free:     %u KB (%u blocks)\n", s.free_bytes / KB, s.free_blocks);
    kprintf("  Largest:  %u KB\n", s.largest / KB);
    kprintf("  Overhead: %u KB\n", overhead / KB);
    kprintf("  Fragment: %u%%\n", fragmentation);
    const uint32_t allocs = heap_state.total_allocs;
    const uint32_t frees = heap_state.total_frees;
    kprintf("  Allocs:   %u total, %u frees, %u live\n", allocs, frees, allocs - frees);
}

bool heap_aligned_selftest(void) {
    constexpr uint32_t SIZE = 123;
    constexpr uint32_t ALIGNMENT = 4096;
    uint32_t total_before = 0, used_before = 0, total_after = 0, used_after = 0;
    heap_get_stats(&total_before, &used_before);
    void* block = kmalloc_aligned(SIZE, ALIGNMENT);
    if (block == nullptr) {
        kprintf("heap aligned self-test: allocation failed\n");
        return false;
    }
    memset(block, 0xA5, SIZE);
    kfree(block);
    heap_get_stats(&total_after, &used_after);
    const bool pass = total_before == total_after && used_before == used_after &&
                      heap_address(block) % ALIGNMENT == 0;
    kprintf("heap aligned self-test: %s (ptr=%p before=%u after=%u)\n", pass ? "PASS" : "FAIL",
            block, used_before, used_after);
    return pass;
}
