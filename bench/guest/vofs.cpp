// The filesystem's figures, beside those of the disk that it stands on.
#include "bench/guest/measure.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"

namespace {

constexpr uint32_t LARGE_FILE = 8u << 20;
constexpr uint32_t SMALL_FILE = 1024;
constexpr uint32_t CYCLES = 32;
constexpr int INODES = 255;

void check(const char* name, bool good) {
    if (!good)
        kprintf("bench failed %s\n", name);
}

void measure_large_file(uint8_t* data) {
    const int inode = blockfs_create("/large", BLOCKFS_FILE);
    const int size = static_cast<int>(LARGE_FILE);
    measure("vofs-write-8M", 1,
            [&] { check("vofs-write-8M", blockfs_write_file(inode, data, LARGE_FILE) == size); });
    measure("vofs-read-8M", 1,
            [&] { check("vofs-read-8M", blockfs_read_file(inode, data, 0, LARGE_FILE) == size); });
    check("remove", blockfs_remove("/large") == 0);
}

/// The time goes on as the timer would make it, so that directories change as often as they do.
void measure_small_files(const uint8_t* data, uint64_t second) {
    measure("vofs-create-1K-delete", CYCLES, [&] {
        for (uint32_t i = 0; i < CYCLES; ++i) {
            system_ticks = static_cast<uint32_t>(cpu_rdtsc() * 100 / second);
            const int inode = blockfs_create("/small", BLOCKFS_FILE);
            const int written = blockfs_write_file(inode, data, SMALL_FILE);
            check("small file", written == static_cast<int>(SMALL_FILE));
            check("small file", blockfs_remove("/small") == 0);
        }
    });
}

/// A volume of 255 files, each with an indirect block for the check to read.
void measure_mount(const uint8_t* data) {
    constexpr uint32_t SIZE = 13 * BLOCKFS_BLOCK_BYTES;
    for (int i = 0; i < INODES; ++i) {
        char path[16];
        ksprintf(path, "/file-%d", i);
        check("mount", blockfs_replace_file(path, data, SIZE) == 0);
    }
    measure("vofs-mount-255", 1, [] {
        blockfs_forget();
        check("mount", blockfs_init() == 0);
    });
}

}  // namespace

void measure_vofs(uint64_t second) {
    const auto data = heap_ptr<uint8_t>::make(LARGE_FILE);
    if (!data || blockfs_init() != 0) {
        kprintf("bench failed vofs\n");
        return;
    }
    memset(data.get(), 0x5A, LARGE_FILE);
    measure_large_file(data.get());
    measure_small_files(data.get(), second);
    measure_mount(data.get());
}
