// Where memory is: frames, their layout, heap and its allocations.
#include "kernel/core/memory.h"
#include "arch/x86/image.h"
#include "kernel/apps/cmd_system.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t KB = 1024;
constexpr uint32_t FRAME_KB = PAGE_SIZE / KB;
constexpr uint32_t FIRST_MEGABYTE = 1u << 20;
constexpr uint32_t BAR_CELLS = 64;

/// Frames [start, end) with one use.
struct region_t {
    uint32_t start, end;
    char mark;  ///< in the bar
    const char* use;
};

constexpr uint32_t frame_of(uintptr_t addr) { return static_cast<uint32_t>(addr / PAGE_SIZE); }

void print_region(const region_t& region) {
    if (region.start >= region.end)
        return;
    kprintf("  0x%08x - 0x%08x  %8u KB  %c  %s\n", region.start * PAGE_SIZE,
            (region.end - 1) * PAGE_SIZE + (PAGE_SIZE - 1), (region.end - region.start) * FRAME_KB,
            region.mark, region.use);
}

/// All of memory in one line; a cell shows the use of its first frame.
template <size_t N>
void print_bar(const region_t (&regions)[N], uint32_t frames) {
    char bar[BAR_CELLS + 1] = {};
    for (uint32_t cell = 0; cell < BAR_CELLS; ++cell) {
        const uint32_t frame = static_cast<uint32_t>(uint64_t{frames} * cell / BAR_CELLS);
        bar[cell] = '.';
        for (const region_t& region : regions) {
            if (frame >= region.start && frame < region.end)
                bar[cell] = region.mark;
        }
    }
    kprintf("  [%s]\n", bar);
}

void print_usage() {
    uint32_t heap_total = 0;
    uint32_t heap_used = 0;
    heap_get_stats(&heap_total, &heap_used);
    const uint32_t frames = pmm_total_frames();
    const uint32_t used = pmm_used_frames();
    kprintf("  Frames: %u KB used, %u KB free\n", used * FRAME_KB, (frames - used) * FRAME_KB);
    kprintf("  Heap:   %u KB used, %u KB free\n", heap_used / KB, (heap_total - heap_used) / KB);
}

alloc_record_t record_at(const alloc_record_t* ring, uint32_t index) {
    irq_guard guard;
    return ring[index];
}

}  // namespace

void cmd_free(int, char**) {
    const uint32_t total = pmm_total_frames();
    const uint32_t used = pmm_used_frames();
    const uint32_t left = total - used;
    kprintf("Physical memory:\n");
    kprintf("  Total:  %u KB (%u frames)\n", total * FRAME_KB, total);
    kprintf("  Used:   %u KB (%u frames)\n", used * FRAME_KB, used);
    kprintf("  Free:   %u KB (%u frames)\n", left * FRAME_KB, left);
}

void cmd_memmap(int, char**) {
    uint32_t heap_start = 0;
    uint32_t heap_end = 0;
    heap_get_range(&heap_start, &heap_end);
    const uint32_t frames = pmm_total_frames();
    const region_t regions[] = {
        {0, frame_of(FIRST_MEGABYTE), 'L', "first megabyte"},
        {frame_of(image_start()), frame_of(image_end()), 'K', "kernel image"},
        {frame_of(image_end()), frame_of(heap_start), 'B', "frame bitmap"},
        {frame_of(heap_start), frame_of(heap_end), 'H', "kernel heap"},
        {frame_of(heap_end), frames, '.', "frames for pages"},
    };
    kprintf("Memory map (%u KB):\n", frames * FRAME_KB);
    for (const region_t& region : regions)
        print_region(region);
    print_bar(regions, frames);
    print_usage();
}

void cmd_heap(int argc, char** argv) {
    if (argc == 1)
        heap_diagnostics();
    else if (argc == 2 && strcmp(argv[1], "selftest") == 0)
        heap_aligned_selftest();
    else
        kprintf("Usage: heap [selftest]\n");
}

void cmd_memleak(int, char**) {
    uint32_t size = 0;
    const alloc_record_t* ring = memleak_get_ring(&size);
    uint32_t live = 0;
    uint32_t bytes = 0;
    kprintf("Unfreed among the last %u allocations:\n", size);
    kprintf("  ADDRESS           SIZE        TICK  TASK\n");
    for (uint32_t i = 0; i < size; ++i) {
        const alloc_record_t record = record_at(ring, i);
        if (record.addr == 0 || record.freed != 0)
            continue;
        kprintf("  0x%08x  %10u  %10u  %4u\n", record.addr, record.size, record.tick,
                record.task_id);
        ++live;
        bytes += record.size;
    }
    kprintf("  %u allocations, %u bytes\n", live, bytes);
}
