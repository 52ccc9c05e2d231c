// What the heap needs of the frame allocator to be placed at start-up.
#pragma once

#include "kernel/core/memory.h"

/// The page boundary behind the frame bitmap: where the heap starts.
phys_addr_t pmm_bitmap_end(void);

/// End of the unbroken run of usable memory behind the kernel image, as far as the kernel reaches.
phys_addr_t pmm_usable_end(void);

/// Marks the frames of [start, end) in use (page boundaries). A search that would have started
/// inside starts behind them.
void pmm_reserve_range(phys_addr_t start, phys_addr_t end);

/// Says that memory is too small, with the bytes that there are for the heap, and halts for good.
[[noreturn]] void memory_stop_too_small(uint32_t have_bytes);
