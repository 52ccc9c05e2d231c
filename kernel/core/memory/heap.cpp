// The kernel heap: first fit in address order over blocks that split and merge, with guard words
// around the caller's bytes.
//
// Each operation is one section under heap_lock whose length does not depend on the number of
// blocks. A header that no longer agrees with the index is never followed: it is rebuilt from the
// index, which costs one walk over its marks, and reported.
#include "arch/x86/cpu.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory/alloc_ring.h"
#include "kernel/core/memory/heap_index.h"
#include "kernel/core/memory/heap_internal.h"
#include "kernel/core/memory/pmm_internal.h"
#include "kernel/core/record.h"
#include "kernel/core/running.h"

namespace {

constexpr uint32_t PRE_GUARD = 0xFEEDFACE;
constexpr uint32_t POST_GUARD = 0xCAFEBABE;
constexpr uint32_t ALIGNED_MAGIC = 0xA11E0CAD;
constexpr uint32_t SPLIT_REST = 32;  // a block is split when more than this would be left over
constexpr uint32_t MIN_ALIGNMENT = 4;
constexpr uint32_t TO_POINTER = HEAP_HEADER + HEAP_GUARD;  // from a header to what kmalloc returns

/// Directly in front of a pointer from kmalloc_aligned.
struct aligned_alloc_header_t {
    uint32_t magic;
    uint32_t base;  // what kmalloc returned
};
static_assert(sizeof(aligned_alloc_header_t) == 8);

/// Headers that were found overwritten in one operation; the first is named, all are counted.
struct damage_t {
    uint32_t first = 0;
    uint32_t count = 0;

    void note(const heap_block_t* block) {
        if (count++ == 0)
            first = heap_address(block);
    }
};

enum class free_result : uint8_t { freed, unknown, twice };

/// What kfree found, told after the lock is released.
struct free_report_t {
    free_result result = free_result::unknown;
    bool pre_guard_bad = false;
    bool post_guard_bad = false;
    uint32_t size = 0;
    uint32_t user_size = 0;
    damage_t damage;
};

// The callers' bytes have no alignment to speak of.
uint32_t load32(uint32_t addr) {
    uint32_t value;
    __builtin_memcpy(&value, reinterpret_cast<const void*>(static_cast<uintptr_t>(addr)), 4);
    return value;
}

void store32(uint32_t addr, uint32_t value) {
    __builtin_memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(addr)), &value, 4);
}

uint32_t data_of(const heap_block_t* block) { return heap_address(block) + HEAP_HEADER; }

void* pointer_to(uint32_t addr) { return reinterpret_cast<void*>(static_cast<uintptr_t>(addr)); }

/// Rebuilds the header of `block` from the index when it does not agree with it.
void ensure_sound(heap_block_t* block, damage_t& damage) REQUIRES(heap_lock) {
    if (heap_block_sound(block))
        return;
    damage.note(block);
    const heap_cell_t cell = heap_cell_of(block);
    const heap_cell_t next = heap_index_next(cell);
    const uint32_t end = next == NO_CELL ? heap_state.end : heap_address(heap_block_at(next));
    block->size = end - data_of(block);
    block->free = heap_index_free(cell) ? 1 : 0;
    block->prev = heap_index_prev(cell) & NO_CELL;
    block->next = next == NO_CELL ? nullptr : heap_block_at(next);
}

/// The block before `block`; null for the first.
heap_block_t* previous_block(heap_block_t* block, damage_t& damage) REQUIRES(heap_lock) {
    const heap_cell_t cell = heap_cell_of(block);
    if (cell == 0) {
        if (block->prev != NO_CELL)
            damage.note(block);
        block->prev = NO_CELL;
        return nullptr;
    }
    const bool agrees = block->prev < cell && heap_index_has(block->prev) &&
                        heap_block_at(block->prev)->next == block;
    if (!agrees) {
        const heap_cell_t prev = heap_index_prev(cell);
        if (block->prev != prev)
            damage.note(block);
        block->prev = prev & NO_CELL;
    }
    return heap_block_at(block->prev);
}

void repair_visited(heap_block_t* block, void* damage) NO_THREAD_SAFETY_ANALYSIS {
    ensure_sound(block, *static_cast<damage_t*>(damage));
}

/// The free block of the lowest address with at least `need` bytes, sound; null: none.
heap_block_t* first_fit(uint32_t need, damage_t& damage) REQUIRES(heap_lock) {
    uint32_t stretch = 0;
    while (heap_index_find(need, &stretch)) {
        heap_block_t* block = heap_index_scan(stretch, need);
        if (block != nullptr && heap_block_sound(block))
            return block;
        heap_index_visit(stretch, repair_visited, &damage);
    }
    heap_block_t* tail = heap_index_tail();
    if (tail == nullptr)
        return nullptr;
    ensure_sound(tail, damage);
    return tail->size >= need ? tail : nullptr;
}

/// Cuts what `block` has beyond `need` bytes off as a free block of its own, and returns that.
heap_block_t* split(heap_block_t* block, uint32_t need) REQUIRES(heap_lock) {
    auto* rest = static_cast<heap_block_t*>(pointer_to(data_of(block) + need));
    const heap_cell_t cell = heap_cell_of(rest);
    rest->size = block->size - need - HEAP_HEADER;
    rest->user_size = 0;
    rest->free = 1;
    rest->prev = heap_cell_of(block) & NO_CELL;
    rest->next = block->next;
    if (rest->next != nullptr)
        rest->next->prev = cell & NO_CELL;
    block->size = need;
    block->next = rest;
    heap_index_mark(cell, true);
    return rest;
}

/// Turns the free `block` into a used one of `need` bytes, or of what it has when that is little
/// more.
void occupy(heap_block_t* block, uint32_t need) REQUIRES(heap_lock) {
    const heap_cell_t cell = heap_cell_of(block);
    const uint32_t size = block->size;
    heap_block_t* rest = size > need + SPLIT_REST ? split(block, need) : nullptr;
    block->free = 0;
    heap_index_mark(cell, false);
    if (block == heap_index_tail()) {
        heap_index_set_tail(rest);
        return;
    }
    heap_index_leave(cell, size);
    if (rest != nullptr)
        heap_index_enter(rest);
}

/// Makes `right`, the successor of `left`, part of it. Both are sound.
void absorb(heap_block_t* left, const heap_block_t* right) REQUIRES(heap_lock) {
    left->size += right->size + HEAP_HEADER;
    left->next = right->next;
    if (left->next != nullptr)
        left->next->prev = heap_cell_of(left) & NO_CELL;
    heap_index_unmark(heap_cell_of(right));
}

/// Marks `block` free and merges it with its free neighbours; no others can be free side by side.
void release(heap_block_t* block, damage_t& damage) REQUIRES(heap_lock) {
    uint32_t next_size = 0;
    uint32_t prev_size = 0;
    block->free = 1;
    heap_index_mark(heap_cell_of(block), true);
    heap_block_t* next = block->next;
    if (next != nullptr && heap_index_free(heap_cell_of(next))) {
        ensure_sound(next, damage);
        next_size = next->size;
        absorb(block, next);
    }
    heap_block_t* prev = previous_block(block, damage);
    if (prev != nullptr && heap_index_free(heap_cell_of(prev))) {
        ensure_sound(prev, damage);
        prev_size = prev->size;
        absorb(prev, block);
        block = prev;
    }
    heap_index_enter(block);
    if (block->next == nullptr) {
        if (prev_size != 0)
            heap_index_leave(heap_cell_of(block), prev_size);
    } else if (next_size != 0) {
        heap_index_leave(heap_cell_of(next), next_size);
    }
}

/// Allocates `size` bytes, at most HEAP_BYTES. Returns the caller's address, or 0.
uint32_t take(uint32_t size, damage_t& damage) REQUIRES(heap_lock) {
    const uint32_t need = (size + 2 * HEAP_GUARD + HEAP_GRAIN - 1) & ~(HEAP_GRAIN - 1);
    heap_block_t* block = first_fit(need, damage);
    if (block == nullptr)
        return 0;
    occupy(block, need);
    block->user_size = size;
    const uint32_t data = data_of(block);
    store32(data, PRE_GUARD);
    store32(data + HEAP_GUARD + size, POST_GUARD);
    ++heap_state.total_allocs;
    alloc_ring_add(data + HEAP_GUARD, size);
    return data + HEAP_GUARD;
}

void report_damage(const damage_t& damage) {
    if (damage.count == 0)
        return;
    kprintf("[heap] CORRUPTION: block header overwritten at %p (%u found)\n",
            pointer_to(damage.first), damage.count);
    record_event(CAUSAL_MEM, "mem", "heap corruption header at %p", pointer_to(damage.first));
}

void* allocate(size_t size, void* caller) {
    if (size >= HEAP_LARGE)
        record_event(CAUSAL_MEM, "alloc", "kmalloc %u bytes caller=%p", static_cast<uint32_t>(size),
                     caller);
    if (heap_state.start == 0)
        return nullptr;
    damage_t damage;
    uint32_t addr = 0;
    if (size <= HEAP_BYTES) {
        const spin_guard guard(heap_lock);
        addr = take(size, damage);
    }
    report_damage(damage);
    if (addr == 0)
        kprintf("HEAP: out of memory (wanted %u bytes)\n", static_cast<uint32_t>(size));
    return pointer_to(addr);
}

/// The block whose caller holds `addr`, or null.
heap_block_t* block_of(uint32_t addr) REQUIRES(heap_lock) {
    if (addr < heap_state.start + TO_POINTER || addr - HEAP_GUARD >= heap_state.end)
        return nullptr;
    const uint32_t offset = addr - TO_POINTER - heap_state.start;
    const heap_cell_t cell = offset / HEAP_GRAIN;
    if (offset % HEAP_GRAIN != 0 || !heap_index_has(cell))
        return nullptr;
    return heap_block_at(cell);
}

/// The same for a pointer from kmalloc_aligned.
heap_block_t* aligned_block_of(uint32_t addr) REQUIRES(heap_lock) {
    constexpr uint32_t HEADER = sizeof(aligned_alloc_header_t);
    if (addr < heap_state.start + HEADER || addr > heap_state.end)
        return nullptr;
    const uint32_t header = addr - HEADER;
    if (load32(header + offsetof(aligned_alloc_header_t, magic)) != ALIGNED_MAGIC)
        return nullptr;
    return block_of(load32(header + offsetof(aligned_alloc_header_t, base)));
}

/// Looks the block of `addr` up, checks and frees it.
void give_back(uint32_t addr, free_report_t& report) REQUIRES(heap_lock) {
    if (heap_state.start == 0)
        return;
    heap_block_t* block = block_of(addr);
    if (block == nullptr)
        block = aligned_block_of(addr);
    if (block == nullptr)
        return;
    if (heap_index_free(heap_cell_of(block))) {
        report.result = free_result::twice;
        return;
    }
    ensure_sound(block, report.damage);
    const uint32_t data = data_of(block);
    report.result = free_result::freed;
    report.size = block->size;
    report.user_size = block->user_size;
    report.pre_guard_bad = load32(data) != PRE_GUARD;
    // An overwritten user_size may point anywhere; the guard lies within the block or is lost.
    report.post_guard_bad = block->user_size > block->size - 2 * HEAP_GUARD ||
                            load32(data + HEAP_GUARD + block->user_size) != POST_GUARD;
    alloc_ring_mark_freed(addr, data + HEAP_GUARD);
    ++heap_state.total_frees;
    release(block, report.damage);
}

void report_freed(const void* ptr, const free_report_t& report, void* caller) {
    report_damage(report.damage);
    if (report.pre_guard_bad) {
        kprintf("[heap] CORRUPTION: pre-guard overwritten at %p (block %u bytes)\n", ptr,
                report.size);
        record_event(CAUSAL_MEM, "mem", "heap corruption pre-guard at %p", ptr);
    }
    if (report.post_guard_bad) {
        kprintf(
            "[heap] CORRUPTION: post-guard overwritten at %p (user %u bytes, caller=%p, "
            "task=%d)\n",
            ptr, report.user_size, caller, static_cast<int>(running().pid));
        record_event(CAUSAL_MEM, "mem", "heap corruption post-guard at %p size=%u", ptr,
                     report.user_size);
    }
    if (report.user_size >= HEAP_LARGE)
        record_event(CAUSAL_MEM, "alloc", "kfree %u bytes at %p", report.user_size, ptr);
}

}  // namespace

bool heap_block_sound(const heap_block_t* block) {
    const uint32_t room = heap_state.end - data_of(block);
    const uint32_t size = block->size;
    if (size > room || block->free != (heap_index_free(heap_cell_of(block)) ? 1u : 0u))
        return false;
    if (size == room)
        return block->next == nullptr;
    const uint32_t next = data_of(block) + size;
    return heap_address(block->next) == next && next % HEAP_GRAIN == 0 &&
           heap_index_has(heap_cell_of(block->next));
}

void heap_init(void) {
    const uint32_t start = pmm_bitmap_end();
    const uint32_t usable = pmm_usable_end();
    heap_state = {};
    if (usable < start || usable - start < HEAP_BYTES)
        memory_stop_too_small(usable < start ? 0 : usable - start);
    {
        const spin_guard guard(heap_lock);
        heap_state.start = start;
        heap_state.end = start + HEAP_BYTES;
        heap_index_reset();
        alloc_ring_reset();
        heap_block_t* all = heap_block_at(0);
        all->size = HEAP_BYTES - HEAP_HEADER;
        all->user_size = 0;
        all->free = 1;
        all->prev = NO_CELL;
        all->next = nullptr;
        heap_index_mark(0, true);
        heap_index_enter(all);
    }
    pmm_reserve_range(start, start + HEAP_BYTES);
}

[[gnu::noinline]] void* kmalloc(size_t size) { return allocate(size, __builtin_return_address(0)); }

[[gnu::noinline]] void* kmalloc_aligned(size_t size, size_t alignment) {
    constexpr uint32_t HEADER = sizeof(aligned_alloc_header_t);
    constexpr uint32_t SIZE_LIMIT = 0xFFFFFFF7;
    if (alignment < MIN_ALIGNMENT)
        alignment = MIN_ALIGNMENT;
    if ((alignment & (alignment - 1)) != 0) {
        kprintf("[heap] kmalloc_aligned invalid alignment %u\n", static_cast<uint32_t>(alignment));
        return nullptr;
    }
    if (size > SIZE_LIMIT - alignment) {
        kprintf("[heap] kmalloc_aligned size overflow (%u, align %u)\n",
                static_cast<uint32_t>(size), static_cast<uint32_t>(alignment));
        return nullptr;
    }
    const void* raw = allocate(size + alignment + HEADER, __builtin_return_address(0));
    if (raw == nullptr)
        return nullptr;
    const uint32_t base = heap_address(raw);
    const uint32_t addr = (base + alignment + HEADER - 1) & ~(alignment - 1);
    store32(addr - HEADER + offsetof(aligned_alloc_header_t, magic), ALIGNED_MAGIC);
    store32(addr - HEADER + offsetof(aligned_alloc_header_t, base), base);
    const spin_guard guard(heap_lock);
    alloc_ring_rename(base, addr, size);
    return pointer_to(addr);
}

[[gnu::noinline]] void kfree(void* ptr) {
    if (ptr == nullptr)
        return;
    free_report_t report;
    {
        const spin_guard guard(heap_lock);
        give_back(heap_address(ptr), report);
    }
    switch (report.result) {
        case free_result::unknown:
            kprintf("[heap] WARNING: kfree(%p) is not a live allocation base in [%p–%p]\n", ptr,
                    pointer_to(heap_state.start), pointer_to(heap_state.end));
            record_event(CAUSAL_MEM, "mem", "invalid kfree ptr=%p", ptr);
            return;
        case free_result::twice:
            kprintf("[heap] WARNING: double-free detected at %p\n", ptr);
            return;
        case free_result::freed:
            report_freed(ptr, report, __builtin_return_address(0));
            return;
    }
}

void heap_get_range(uint32_t* start, uint32_t* end) {
    *start = heap_state.start;
    *end = heap_state.end;
}
