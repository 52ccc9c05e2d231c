// RAM of the fake machine. It lies at its physical addresses, from 1 MiB up to 128 MB, so that what
// the kernel takes for identity-mapped memory is; touching what the machine does not have faults.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "kernel/core/heap_ptr.h"
#include "kernel/core/multiboot.h"
#include "tests/machine/machine.h"

/// Boot information with a memory map, as the loader would leave it.
class boot_info {
public:
    /// `mem_upper_kb` is the KiB above 1 MiB, as in the basic memory field.
    explicit boot_info(uint32_t mem_upper_kb);
    /// Appends an entry; `size` is the entry's size field, which a broken loader may get wrong.
    boot_info& map(uint64_t base, uint64_t length, uint32_t type = MULTIBOOT_MEMORY_AVAILABLE,
                   uint32_t size = 20);
    multiboot_info_t* get();
    multiboot_info_t info = {};

private:
    std::vector<multiboot_mmap_entry_t> entries_;
};

/// Puts fresh, zeroed RAM of `megabytes` into the machine; its image ends at image_end().
void machine_install_ram(uint32_t megabytes);

/// The machine anew, with RAM, a plain memory map, and frames, paging and heap initialised on it.
/// Texts of the kernel go to machine_texts() from then on.
void machine_boot_memory(uint32_t megabytes = 128);

/// Bytes of the heap that are in use, headers included.
uint32_t heap_used();

/// Takes the heap but for `room` bytes, while the result lives; nothing was freed before.
heap_ptr<uint8_t> take_heap_but(uint32_t room);

/// What kprintf has said since machine_capture_texts() or machine_boot_memory(); the caller clears.
std::string& machine_texts();
void machine_capture_texts();
