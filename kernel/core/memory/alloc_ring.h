// The ring of the most recent allocations. All functions but the reader run under heap_lock.
#pragma once

#include "kernel/core/memory/heap_internal.h"

/// Forgets all records.
void alloc_ring_reset() REQUIRES(heap_lock);

/// Records an allocation of `size` bytes at `addr` by the running task, now.
void alloc_ring_add(uint32_t addr, uint32_t size) REQUIRES(heap_lock);

/// Gives the first record of `raw` that is not freed the address and size that the caller sees.
void alloc_ring_rename(uint32_t raw, uint32_t addr, uint32_t size) REQUIRES(heap_lock);

/// Marks the first record that is not freed and has either address as freed.
void alloc_ring_mark_freed(uint32_t addr, uint32_t other) REQUIRES(heap_lock);
