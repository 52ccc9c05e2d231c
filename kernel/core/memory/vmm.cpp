// Paging: the kernel's directory with the identity map, and the user directories that share it.
//
// A directory entry of the kernel's is the same in every user directory; what differs belongs to
// the user. All tables lie below IDENTITY_MAP_BYTES, so their addresses are pointers.
#include <stdint.h>

#include "arch/x86/cpu.h"
#include "kernel/core/guards.h"
#include "kernel/core/memory.h"
#include "kernel/core/running.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t ENTRIES = 1024;
constexpr uint32_t TABLES = IDENTITY_MAP_BYTES / (ENTRIES * PAGE_SIZE);
constexpr uint32_t USER_DIRS_MAX = 64;
constexpr uint32_t FRAME_MASK = ~(PAGE_SIZE - 1);
constexpr uint32_t KERNEL_FLAGS = PAGE_PRESENT | PAGE_WRITABLE;
constexpr uint32_t CR0_WP = 1u << 16;
constexpr uint32_t CR0_PG = 1u << 31;

spinlock_t lock;  // page tables and the list of user directories
alignas(PAGE_SIZE) uint32_t kernel_page_dir[ENTRIES];
alignas(PAGE_SIZE) uint32_t kernel_page_tables[TABLES][ENTRIES];
uint32_t* user_page_dirs[USER_DIRS_MAX];

uint32_t address_of(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

uint32_t* frame_pointer(uint32_t entry) {
    return reinterpret_cast<uint32_t*>(static_cast<uintptr_t>(entry & FRAME_MASK));
}

constexpr uint32_t dir_index(virt_addr_t virt) { return virt >> 22; }
constexpr uint32_t table_index(virt_addr_t virt) { return (virt >> 12) & (ENTRIES - 1); }

/// A zeroed frame for a table or directory, or 0.
phys_addr_t new_table() {
    const phys_addr_t frame = pmm_alloc_frame();
    if (frame != 0)
        memset(frame_pointer(frame), 0, PAGE_SIZE);
    return frame;
}

void vmm_propagate_kernel_pde(uint32_t index) REQUIRES(lock) {
    for (uint32_t* dir : user_page_dirs)
        if (dir != nullptr)
            dir[index] = kernel_page_dir[index];
}

/// Whether the directory and table entries of `virt` both carry all of `bits`.
bool page_has(const uint32_t* dir, virt_addr_t virt, uint32_t bits) {
    const uint32_t entry = dir[dir_index(virt)];
    if ((entry & bits) != bits)
        return false;
    return (frame_pointer(entry)[table_index(virt)] & bits) == bits;
}

void register_dir(uint32_t* dir) REQUIRES(lock) {
    for (uint32_t*& slot : user_page_dirs) {
        if (slot != nullptr)
            continue;
        slot = dir;
        return;
    }
}

}  // namespace

void vmm_init(void) {
    memset(kernel_page_dir, 0, sizeof kernel_page_dir);
    memset(user_page_dirs, 0, sizeof user_page_dirs);
    for (uint32_t t = 0; t < TABLES; ++t) {
        for (uint32_t e = 0; e < ENTRIES; ++e)
            kernel_page_tables[t][e] = (t * ENTRIES + e) * PAGE_SIZE | KERNEL_FLAGS;
        kernel_page_dir[t] = address_of(kernel_page_tables[t]) | KERNEL_FLAGS;
    }
    cpu_write_cr3(address_of(kernel_page_dir));
    cpu_write_cr0(cpu_read_cr0() | CR0_PG);
}

void vmm_protect_readonly(uintptr_t start, uintptr_t end) {
    const uint32_t first = static_cast<uint32_t>((start + PAGE_SIZE - 1) / PAGE_SIZE);
    for (uint32_t page = first; page < end / PAGE_SIZE && page < TABLES * ENTRIES; ++page)
        kernel_page_tables[page / ENTRIES][page % ENTRIES] &= ~PAGE_WRITABLE;
    cpu_write_cr3(address_of(kernel_page_dir));  // drops what is cached as writable
    cpu_write_cr0(cpu_read_cr0() | CR0_WP);
}

uint32_t* vmm_get_kernel_dir(void) { return kernel_page_dir; }

void vmm_map_page(uint32_t* page_dir, virt_addr_t virt, phys_addr_t phys, uint32_t flags) {
    uint32_t& entry = page_dir[dir_index(virt)];
    phys_addr_t spare = (entry & PAGE_PRESENT) == 0 ? new_table() : 0;
    {
        const spin_guard guard(lock);
        if ((entry & PAGE_PRESENT) == 0 && spare != 0) {
            entry = spare | KERNEL_FLAGS | (flags & PAGE_USER);
            spare = 0;
        }
        if ((entry & PAGE_PRESENT) != 0) {
            frame_pointer(entry)[table_index(virt)] = phys | flags | PAGE_PRESENT;
            if (page_dir == kernel_page_dir)
                vmm_propagate_kernel_pde(dir_index(virt));
            else
                cpu_invlpg(virt);
        }
    }
    if (spare != 0)  // an interrupt handler brought the table first
        pmm_free_frame(spare);
}

uint32_t* vmm_create_user_dir(void) {
    const phys_addr_t frame = pmm_alloc_frame();
    if (frame == 0)
        return nullptr;
    uint32_t* dir = frame_pointer(frame);
    const spin_guard guard(lock);
    memcpy(dir, kernel_page_dir, PAGE_SIZE);
    register_dir(dir);
    return dir;
}

void vmm_switch_dir(uint32_t* page_dir) { cpu_write_cr3(address_of(page_dir)); }

bool vmm_user_range_ok(uintptr_t addr, size_t len, bool write) {
    const uint32_t* dir = running().page_dir;
    if (dir == nullptr)
        return false;
    if (len == 0)
        return true;
    const uintptr_t last = addr + (len - 1);
    if (last < addr)
        return false;
    const uint32_t bits = PAGE_PRESENT | PAGE_USER | (write ? PAGE_WRITABLE : 0);
    for (uintptr_t page = addr / PAGE_SIZE; page <= last / PAGE_SIZE; ++page)
        if (!page_has(dir, static_cast<virt_addr_t>(page * PAGE_SIZE), bits))
            return false;
    return true;
}

void vmm_destroy_user_dir(uint32_t* page_dir) {
    if (page_dir == nullptr || page_dir == kernel_page_dir)
        return;
    {
        const spin_guard guard(lock);
        for (uint32_t*& slot : user_page_dirs)
            if (slot == page_dir)
                slot = nullptr;
    }
    // Only the table's address tells whose it is: the processor sets the accessed bit in whichever
    // copy of an entry it walked.
    for (uint32_t i = 0; i < ENTRIES; ++i) {
        const uint32_t table = page_dir[i] & FRAME_MASK;
        if (table != 0 && table != (kernel_page_dir[i] & FRAME_MASK))
            pmm_free_frame(table);
    }
    pmm_free_frame(address_of(page_dir));
}

bool vmm_is_mapped(uintptr_t virt) {
    return page_has(kernel_page_dir, static_cast<virt_addr_t>(virt), PAGE_PRESENT);
}
