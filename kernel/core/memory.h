// Memory: 4 KiB physical frames, paging, and the 48 MB kernel heap.
//
// The kernel runs identity-mapped: the first 128 MB of physical memory are mapped one to one, so a
// physical address below IDENTITY_MAP_BYTES is also a pointer. Start-up calls pmm_init, vmm_init
// and heap_init in this order; each resets its module. State is guarded by a spinlock with
// interrupts masked around one bounded update; texts and events go out after it is released, so
// every function may be called from tasks and interrupt handlers unless it says otherwise.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/multiboot.h"

using phys_addr_t = uint32_t;
using virt_addr_t = uint32_t;

constexpr uint32_t PAGE_SIZE = 4096;
constexpr uint32_t IDENTITY_MAP_BYTES = 128u << 20;  ///< mapped one to one by vmm_init
constexpr uint32_t HEAP_BYTES = 48u << 20;

// Page flags of the x86 tables (Intel SDM volume 3, 4.3).
constexpr uint32_t PAGE_PRESENT = 0x1;
constexpr uint32_t PAGE_WRITABLE = 0x2;
constexpr uint32_t PAGE_USER = 0x4;

// --- Physical frames ---

/// Builds the frame bitmap behind the kernel image from the loader's boot information: the basic
/// memory field gives the number of frames (without it, the end of the highest available entry of
/// the memory map below 4 GiB), the map says which are usable (without one: all from 1 MiB). A map
/// that is cut short or malformed is read as far as it makes sense. Stops the machine with an
/// error line when the bitmap would not lie in usable memory. Start-up only.
void pmm_init(multiboot_info_t* mbi);

/// Takes a free frame below IDENTITY_MAP_BYTES (the kernel reaches no other); contents undefined.
/// Returns its physical address; 0 after printing "PMM: out of memory!" when none is left.
[[nodiscard]] phys_addr_t pmm_alloc_frame(void);

/// Returns the frame that contains `addr`. A free frame, or one beyond the end, is ignored.
void pmm_free_frame(phys_addr_t addr);

/// All frames of the machine, the first megabyte and holes included.
uint32_t pmm_total_frames(void);

/// Frames in use: taken ones, and those that are not usable memory.
uint32_t pmm_used_frames(void);

/// Frames that pmm_alloc_frame can still hand out: what a caller checks before it maps pages. On a
/// machine with more than 128 MB this is less than total minus used.
uint32_t pmm_available_frames(void);

// --- Paging ---

/// Fills the kernel directory (identity map of IDENTITY_MAP_BYTES: present, writable, supervisor),
/// forgets all user directories, loads CR3 and turns paging on. Start-up only.
void vmm_init(void);

/// Write-protects the identity-mapped pages that lie wholly in [start, end), also for the kernel
/// itself (CR0.WP). Start-up only, after vmm_init.
void vmm_protect_readonly(uintptr_t start, uintptr_t end);

/// The kernel's page directory, 1024 entries.
uint32_t* vmm_get_kernel_dir(void);

/// Maps the page at `virt` to the frame `phys` in `page_dir`; `flags` are PAGE_WRITABLE and
/// PAGE_USER, present is added. A missing page table takes a frame; when there is none the page
/// stays unmapped, so callers check pmm_available_frames() first. A directory entry of the kernel's
/// is copied into every user directory; there the page must be a fresh one, because its cached
/// translation is not dropped.
void vmm_map_page(uint32_t* page_dir, virt_addr_t virt, phys_addr_t phys, uint32_t flags);

/// A new page directory that shares the kernel's mappings; null when no frame is left. The first 64
/// receive later changes of the kernel's directory.
[[nodiscard]] uint32_t* vmm_create_user_dir(void);

/// Loads CR3 with `page_dir`.
void vmm_switch_dir(uint32_t* page_dir);

/// Whether the running task may access [addr, addr + len) from ring 3: every page present and
/// user, and writable when `write`. False without a task or page directory, and for a range that
/// wraps; otherwise true for len 0.
bool vmm_user_range_ok(uintptr_t addr, size_t len, bool write);

/// Frees a user directory and the page tables that are its own; the pages they map belong to the
/// task. Null and the kernel's directory are ignored. It must not be loaded in CR3.
void vmm_destroy_user_dir(uint32_t* page_dir);

/// Whether the kernel may read the byte at `virt`: its page is present in the kernel's directory.
bool vmm_is_mapped(uintptr_t virt);

// --- Kernel heap ---

/// One allocation in the ring of the most recent 128.
struct alloc_record_t {
    uint32_t addr;     ///< pointer handed out
    uint32_t size;     ///< bytes asked for
    uint32_t tick;     ///< system_ticks at allocation
    uint32_t task_id;  ///< pid of the allocating task
    uint8_t freed;     ///< 0 or 1
};

/// Creates the heap behind the frame bitmap and takes its frames. Stops the machine with an error
/// line when the heap does not fit into usable memory below IDENTITY_MAP_BYTES. Start-up only.
void heap_init(void);

/// Allocates `size` bytes (0 is allowed), aligned to 4; contents undefined. Null when no block is
/// large enough (prints "HEAP: out of memory (wanted %u bytes)") or before heap_init.
/// Records CAUSAL_MEM "alloc" above 4095 bytes.
[[nodiscard]] void* kmalloc(size_t size);

/// Allocates `size` bytes at a multiple of `alignment`, a power of two (below 4: 4). Null after a
/// line saying why for any other alignment, for sizes that overflow, and as for kmalloc.
/// Records what kmalloc records.
[[nodiscard]] void* kmalloc_aligned(size_t size, size_t alignment);

/// Frees what kmalloc or kmalloc_aligned returned; null is ignored. Any other pointer and a double
/// free are reported and change nothing; damaged guard words are reported and the block is freed.
/// Records CAUSAL_MEM "alloc" above 4095 bytes, and "mem" for an invalid pointer or damage.
void kfree(void* ptr);

/// *total = HEAP_BYTES; *used = that minus the data bytes of all free blocks. A damaged list is
/// read up to the damage, which is reported once per boot.
void heap_get_stats(uint32_t* total, uint32_t* used);

/// Prints the report of the `heap` command. Task context.
void heap_diagnostics(void);

/// Allocates, fills and frees an aligned block, prints the outcome and returns it: the pointer is
/// aligned and the heap is as before. Task context.
bool heap_aligned_selftest(void);

/// The ring of the most recent allocations, in no particular order; *out_size = 128. An entry with
/// addr 0 was never used. The entries change under the reader.
const alloc_record_t* memleak_get_ring(uint32_t* out_size);

/// The heap's address range [*start, *end); both 0 before heap_init.
void heap_get_range(uint32_t* start, uint32_t* end);
