// The frame allocator: one bit a 4 KiB frame, 1 = in use, in a bitmap behind the kernel image.
//
//   0        1 MiB                 image_end()          bitmap_end()
//   | in use | kernel image        | frame bitmap       | heap, then free frames ...
//
// Everything is in use until the loader's boot information says otherwise. Only frames below
// IDENTITY_MAP_BYTES are handed out: the kernel clears page tables and fills user pages through
// their physical addresses.
#include <algorithm>
#include <bit>
#include <span>

#include "arch/x86/cpu.h"
#include "arch/x86/image.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory/pmm_internal.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t WORD_BITS = 32;
constexpr uint32_t LOW_FRAMES = 256;  // the first megabyte
constexpr uint32_t REACHED_FRAMES = IDENTITY_MAP_BYTES / PAGE_SIZE;
constexpr uint32_t FRAMES_MAX = 1u << 20;  // 4 GiB
constexpr uint64_t ADDRESS_LIMIT = 0xFFFFFFFF;
constexpr uint32_t NO_FRAME = 0;  // the failure value, so frame 0 stays in use

// Bounds on what a memory map may hold: more is taken for damage and left in use.
constexpr uint32_t MAP_ENTRIES_MAX = 1024;
constexpr uint32_t MAP_RANGES_MAX = 64;

struct frame_range_t {
    uint32_t first, end;
};

struct range_list_t {
    frame_range_t items[MAP_RANGES_MAX];
    uint32_t count;

    std::span<const frame_range_t> all() const { return {items, count}; }
};

struct pmm_state_t {
    uint32_t* bitmap;
    uint32_t total;
    uint32_t used;
    uint32_t next_free;
    uint32_t reached;    // frames below this one may be handed out
    uint32_t available;  // free frames among them
    phys_addr_t bitmap_end;
    phys_addr_t usable_end;
};

spinlock_t lock;
pmm_state_t state;

uint32_t page_round_up(uint32_t addr) { return (addr + PAGE_SIZE - 1) & ~(PAGE_SIZE - 1); }

bool frame_used(uint32_t frame) {
    return (state.bitmap[frame / WORD_BITS] >> (frame % WORD_BITS) & 1) != 0;
}

void take_frame_locked(uint32_t frame) REQUIRES(lock) {
    state.bitmap[frame / WORD_BITS] |= 1u << (frame % WORD_BITS);
    ++state.used;
    if (frame < state.reached)
        --state.available;
}

void release_frame_locked(uint32_t frame) REQUIRES(lock) {
    state.bitmap[frame / WORD_BITS] &= ~(1u << (frame % WORD_BITS));
    --state.used;
    if (frame < state.reached)
        ++state.available;
}

/// The first free frame in [from, end), or NO_FRAME.
uint32_t find_free_locked(uint32_t from, uint32_t end) REQUIRES(lock) {
    for (uint32_t frame = from; frame < end;) {
        const uint32_t used = state.bitmap[frame / WORD_BITS] >> (frame % WORD_BITS);
        const uint32_t here = WORD_BITS - frame % WORD_BITS;  // bits of this word from `frame` on
        const auto skip = static_cast<uint32_t>(std::countr_one(used));
        if (skip < here)
            return frame + skip < end ? frame + skip : NO_FRAME;
        frame += here;
    }
    return NO_FRAME;
}

/// The usable frames of one map entry; an empty range when it has none.
frame_range_t entry_frames(const multiboot_mmap_entry_t& entry) {
    const uint64_t base = entry.base;
    const uint64_t length = entry.length;
    if (entry.type != MULTIBOOT_MEMORY_AVAILABLE || base >= ADDRESS_LIMIT)
        return {0, 0};
    const uint64_t end = length > ADDRESS_LIMIT - base ? ADDRESS_LIMIT : base + length;
    return {static_cast<uint32_t>((base + PAGE_SIZE - 1) / PAGE_SIZE),
            static_cast<uint32_t>(end / PAGE_SIZE)};
}

/// Collects the usable ranges of the memory map. They are copied out first, because the loader may
/// have put the map where the bitmap goes.
void read_memory_map(const multiboot_info_t& mbi, range_list_t& list) {
    constexpr uint32_t SIZE_FIELD = sizeof(multiboot_mmap_entry_t::size);
    uint64_t at = mbi.mmap_addr;
    const uint64_t end = std::min(at + mbi.mmap_length, ADDRESS_LIMIT);
    for (uint32_t n = 0; n < MAP_ENTRIES_MAX; ++n) {
        if (at + sizeof(multiboot_mmap_entry_t) > end || list.count == MAP_RANGES_MAX)
            return;
        const auto* entry =
            reinterpret_cast<const multiboot_mmap_entry_t*>(static_cast<uintptr_t>(at));
        const uint32_t size = entry->size;
        if (size < sizeof(multiboot_mmap_entry_t) - SIZE_FIELD)
            return;
        const frame_range_t range = entry_frames(*entry);
        if (range.first < range.end)
            list.items[list.count++] = range;
        at += static_cast<uint64_t>(size) + SIZE_FIELD;
    }
}

uint32_t total_frames(const multiboot_info_t& mbi, const range_list_t& list) {
    constexpr uint64_t LOW_KB = 1024;
    constexpr uint64_t FRAME_KB = PAGE_SIZE / 1024;
    if ((mbi.flags & MULTIBOOT_INFO_MEMORY) != 0) {
        const uint64_t frames = (mbi.mem_upper + LOW_KB) / FRAME_KB;
        return static_cast<uint32_t>(std::min<uint64_t>(frames, FRAMES_MAX));
    }
    uint32_t highest = LOW_FRAMES;
    for (const frame_range_t& range : list.all())
        highest = std::max(highest, range.end);
    return highest;
}

/// How far usable memory reaches without a gap from `frame` on; the ranges may overlap and come in
/// any order.
uint32_t unbroken_end(const range_list_t& list, uint32_t frame) {
    uint32_t end = frame;
    for (bool grown = true; grown;) {
        grown = false;
        for (const frame_range_t& range : list.all()) {
            if (range.first > end || range.end <= end)
                continue;
            end = range.end;
            grown = true;
        }
    }
    return end;
}

void place_bitmap(const range_list_t& list) {
    const auto image_frame = page_round_up(static_cast<uint32_t>(image_end()));
    const uint32_t bytes = (state.total + WORD_BITS - 1) / WORD_BITS * sizeof(uint32_t);
    const uint32_t run_end = unbroken_end(list, image_frame / PAGE_SIZE);
    state.reached = std::min(state.total, REACHED_FRAMES);
    state.usable_end = std::min(run_end, state.reached) * PAGE_SIZE;
    state.bitmap_end = page_round_up(image_frame + bytes);
    if (state.bitmap_end > state.usable_end)
        memory_stop_too_small(0);
    state.bitmap = reinterpret_cast<uint32_t*>(static_cast<uintptr_t>(image_frame));
    memset(state.bitmap, 0xFF, bytes);
    state.used = state.total;
}

void release_range_locked(frame_range_t range) REQUIRES(lock) {
    for (uint32_t frame = range.first; frame < std::min(range.end, state.total); ++frame)
        if (frame_used(frame))
            release_frame_locked(frame);
}

void take_range_locked(frame_range_t range) REQUIRES(lock) {
    for (uint32_t frame = range.first; frame < std::min(range.end, state.total); ++frame)
        if (!frame_used(frame))
            take_frame_locked(frame);
    if (state.next_free >= range.first && state.next_free < range.end)
        state.next_free = range.end < state.total ? range.end : 0;
}

}  // namespace

void pmm_init(multiboot_info_t* mbi) {
    range_list_t list;
    list.count = 0;
    state = {};
    const bool has_map = (mbi->flags & MULTIBOOT_INFO_MMAP) != 0;
    if (has_map)
        read_memory_map(*mbi, list);
    state.total = total_frames(*mbi, list);
    if (!has_map)
        list.items[list.count++] = {LOW_FRAMES, state.total};
    place_bitmap(list);

    const spin_guard guard(lock);
    for (const frame_range_t& range : list.all())
        release_range_locked(range);
    take_range_locked({0, state.bitmap_end / PAGE_SIZE});
}

phys_addr_t pmm_alloc_frame(void) {
    {
        const spin_guard guard(lock);
        uint32_t frame = NO_FRAME;
        if (state.available != 0)
            frame = find_free_locked(state.next_free, state.reached);
        if (frame == NO_FRAME && state.available != 0)
            frame = find_free_locked(0, std::min(state.next_free, state.reached));
        if (frame != NO_FRAME) {
            take_frame_locked(frame);
            state.next_free = frame + 1 < state.total ? frame + 1 : 0;
            return frame * PAGE_SIZE;
        }
    }
    kprintf("PMM: out of memory!\n");
    return 0;
}

void pmm_free_frame(phys_addr_t addr) {
    const uint32_t frame = addr / PAGE_SIZE;
    const spin_guard guard(lock);
    if (frame == NO_FRAME || frame >= state.total || !frame_used(frame))
        return;
    release_frame_locked(frame);
    state.next_free = std::min(state.next_free, frame);
}

uint32_t pmm_total_frames(void) { return state.total; }

uint32_t pmm_used_frames(void) { return state.used; }

uint32_t pmm_available_frames(void) { return state.available; }

phys_addr_t pmm_bitmap_end(void) { return state.bitmap_end; }

phys_addr_t pmm_usable_end(void) { return state.usable_end; }

void pmm_reserve_range(phys_addr_t start, phys_addr_t end) {
    const spin_guard guard(lock);
    take_range_locked({start / PAGE_SIZE, end / PAGE_SIZE});
}

void memory_stop_too_small(uint32_t have_bytes) {
    kprintf("[heap] ERROR: not enough memory for the 48 MB heap (have %u KB)\n", have_bytes / 1024);
    cpu_halt_forever();
}
