// A small volume with any changes to its words: mounted, walked, written to. It never faults nor
// hangs, and what is stored in a volume that checks as sound can be read back. The file brings all
// that the filesystem needs of the system around it.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/mutex.h"
#include "kernel/core/task.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/causal.h"

volatile uint32_t system_ticks = 5;

namespace {

constexpr uint32_t SECTORS = 900;
using image_t = std::array<uint8_t, SECTORS * BLK_SECTOR_SIZE>;

image_t disk;

/// The bytes of these sectors; null where the disk has no such.
uint8_t* on_disk(uint64_t sector, uint32_t count) {
    if (count == 0 || sector >= SECTORS || count > SECTORS - sector)
        return nullptr;
    return &disk[static_cast<uint32_t>(sector) * BLK_SECTOR_SIZE];
}

}  // namespace

int blk_read(uint64_t sector, void* buf, uint32_t count) {
    const uint8_t* from = on_disk(sector, count);
    if (from == nullptr)
        return -1;
    memcpy(buf, from, count * BLK_SECTOR_SIZE);
    return 0;
}

int blk_write(uint64_t sector, const void* buf, uint32_t count) {
    uint8_t* to = on_disk(sector, count);
    if (to == nullptr)
        return -1;
    memcpy(to, buf, count * BLK_SECTOR_SIZE);
    return 0;
}

int blk_write_pieces(uint64_t sector, std::span<const blk_piece_t> pieces) {
    for (const blk_piece_t& piece : pieces) {
        if (blk_write(sector, piece.data, piece.count) != 0)
            return -1;
        sector += piece.count;
    }
    return 0;
}

uint64_t blk_capacity() { return SECTORS; }
bool blk_present() { return true; }
void* kmalloc(size_t size) { return size < HEAP_BYTES ? malloc(size) : nullptr; }
void kfree(void* ptr) { free(ptr); }
int kprintf(const char*, ...) { return 0; }
void kprint_text(const char*) {}
uint32_t causal_event_fmt(uint8_t, const char*, const char*, ...) { return 0; }
void mutex_lock(mutex_t&) {}
void mutex_unlock(mutex_t&) {}
pid_t task_getpid() { return 1; }

namespace {

/// A volume with a tree and a file that has a leaf.
const image_t& good_volume() {
    static const image_t image = [] {
        disk = {};
        std::vector<uint8_t> data(150 * 512, 0x11);
        if (blockfs_init() != 0 || blockfs_mkdir_p("/a/b") != 0 ||
            blockfs_replace_file("/a/b/big", data.data(), data.size()) != 0 ||
            blockfs_replace_file("/a/mid", data.data(), 8000) != 0)
            std::abort();
        blockfs_forget();
        return disk;
    }();
    return image;
}

void walk() {
    static std::array<char, 17000> names;
    static std::array<uint8_t, 5000> data;
    for (const char* path : {"/", "/a", "/a/b", "/a/b/big", "/a/mid", "/a/mid/big"}) {
        sys_stat st;
        blockfs_list(path, names.data(), names.size());
        if (blockfs_stat(path, &st) != 0)
            continue;
        for (const uint32_t offset : {0u, 700u, 71000u, st.size - 100})
            blockfs_read_file(static_cast<int>(st.inode), data.data(), offset, 5000);
    }
}

void change() {
    const bool sound = blockfs_fsck() == 0;
    std::vector<uint8_t> data(80000, 0x22), back(80000);
    blockfs_append_file(blockfs_resolve("/a/b/big"), data.data(), 3000);
    blockfs_truncate("/a/mid", 7000);
    blockfs_rename("/a/b", "/b");
    blockfs_remove_recursive("/b");
    if (sound && blockfs_replace_file("/new", data.data(), data.size()) == 0) {
        const int n = blockfs_resolve("/new");
        if (blockfs_read_file(n, back.data(), 0, back.size()) != 80000 || back != data)
            std::abort();
    }
    if (sound && blockfs_fsck() != 0)
        std::abort();
    blockfs_fsck_repair();
}

}  // namespace

/// Each six bytes: which of the words that matter, and its new value.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    disk = good_volume();
    for (size_t at = 0; at + 6 <= size && at < 600; at += 6) {
        // Superblock, bitmap, the first inodes; or the pointer blocks behind them.
        const uint32_t word = (input[at] + 256u * input[at + 1]) % (8 * 128);
        const uint32_t sector = word / 128 < 7 ? word / 128 : 258 + input[at + 2];
        memcpy(&disk[sector * BLK_SECTOR_SIZE + word % 128 * 4], input + at + 2, 4);
    }
    if (blockfs_init() == 0) {
        walk();
        change();
    }
    blockfs_forget();
    return 0;
}
