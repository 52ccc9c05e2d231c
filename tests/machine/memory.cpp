#include "tests/machine/memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <stdexcept>

#include "arch/x86/cpu.h"
#include "arch/x86/image.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"

namespace {

constexpr uint32_t MB = 1u << 20;

std::string texts;

}  // namespace

boot_info::boot_info(uint32_t mem_upper_kb) {
    info.flags = MULTIBOOT_INFO_MEMORY;
    info.mem_lower = 639;
    info.mem_upper = mem_upper_kb;
}

boot_info& boot_info::map(uint64_t base, uint64_t length, uint32_t type, uint32_t size) {
    entries_.push_back({size, base, length, type});
    return *this;
}

multiboot_info_t* boot_info::get() {
    if (entries_.empty())
        return &info;
    info.flags |= MULTIBOOT_INFO_MMAP;
    info.mmap_addr = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(entries_.data()));
    info.mmap_length = static_cast<uint32_t>(entries_.size() * sizeof(multiboot_mmap_entry_t));
    return &info;
}

void machine_install_ram(uint32_t megabytes) {
    static uint32_t installed = 0;
    auto* start = reinterpret_cast<void*>(image_start());
    if (installed != 0)
        munmap(start, installed);
    installed = std::min(megabytes * MB, IDENTITY_MAP_BYTES) - static_cast<uint32_t>(MB);
    void* ram = mmap(start, installed, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (ram != start)
        throw std::runtime_error("the fake machine's RAM does not fit at 1 MiB");
}

void machine_boot_memory(uint32_t megabytes) {
    machine_reset();
    machine_install_ram(megabytes);
    machine_capture_texts();
    boot_info info(megabytes * 1024 - 1024);
    info.map(0, 0x9FC00).map(MB, (megabytes - 1) * uint64_t{MB});
    pmm_init(info.get());
    vmm_init();
    heap_init();
}

uint32_t heap_used() {
    uint32_t total, used;
    heap_get_stats(&total, &used);
    return used;
}

heap_ptr<uint8_t> take_heap_but(uint32_t room) {
    return heap_ptr<uint8_t>::make(HEAP_BYTES - heap_used() - room);
}

std::string& machine_texts() { return texts; }

void machine_capture_texts() {
    texts.clear();
    kprintf_set_log(
        [](const char* text, int length) { texts.append(text, static_cast<size_t>(length)); });
}
