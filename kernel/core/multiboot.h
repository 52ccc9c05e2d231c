// The Multiboot version 1 boot information, as the loader leaves it in memory.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr uint32_t MULTIBOOT_LOADER_MAGIC = 0x2BADB002;  ///< in EAX at entry
constexpr uint32_t MULTIBOOT_INFO_MEMORY = 1u << 0;      ///< mem_lower and mem_upper are valid
constexpr uint32_t MULTIBOOT_INFO_MMAP = 1u << 6;        ///< mmap_length and mmap_addr are valid
constexpr uint32_t MULTIBOOT_MEMORY_AVAILABLE = 1;       ///< memory-map entry type: usable RAM

struct [[gnu::packed]] multiboot_info_t {
    uint32_t flags;
    uint32_t mem_lower;  ///< KiB below 640 KiB
    uint32_t mem_upper;  ///< KiB above 1 MiB
    uint32_t boot_device;
    uint32_t cmdline;
    uint32_t mods_count;
    uint32_t mods_addr;
    uint32_t syms[4];
    uint32_t mmap_length;  ///< bytes
    uint32_t mmap_addr;    ///< physical
};
static_assert(sizeof(multiboot_info_t) == 52);
static_assert(offsetof(multiboot_info_t, mmap_length) == 44);

/// One memory-map entry. `size` counts the bytes after itself.
struct [[gnu::packed]] multiboot_mmap_entry_t {
    uint32_t size;
    uint64_t base;
    uint64_t length;
    uint32_t type;
};
static_assert(sizeof(multiboot_mmap_entry_t) == 24);
