// The volume and what it says of entries: usage, check, cache, attributes.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"

namespace {

void print_stat(const char* command, const char* name) {
    disk_entry_t entry;
    if (!disk_find(command, name, &entry))
        return;
    kprintf("%s\n", entry.path);
    kprintf("  Type:      %s\n", disk_is_directory(entry) ? "directory" : "file");
    kprintf("  Size:      %u bytes\n", entry.stat.size);
    kprintf("  Blocks:    %u\n", entry.stat.blocks);
    kprintf("  Inode:     %u\n", entry.stat.inode);
    kprintf("  Flags:     %s\n",
            (entry.stat.flags & BLOCKFS_READ_ONLY) != 0 ? "read-only" : "none");
    kprintf("  Created:   tick %u\n", entry.stat.ctime_ticks);
    kprintf("  Modified:  tick %u\n", entry.stat.mtime_ticks);
}

void set_flags(int argc, char** argv, uint32_t flags) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 2)
        kprintf("Usage: %s name...\n", argv[0]);
    for (int i = 1; i < argc; ++i) {
        disk_entry_t entry;
        if (disk_find(argv[0], argv[i], &entry) && blockfs_set_flags(entry.path, flags) != 0)
            disk_complain(argv[0], argv[i], "the disk fails");
    }
}

void print_usage_line(const char* what, uint32_t total, uint32_t used, uint32_t unused) {
    constexpr uint64_t PERCENT = 100;
    const uint64_t percent = total == 0 ? 0 : (used * PERCENT + total - 1) / total;
    kprintf("%-7s %10u %10u %10u %3llu%%\n", what, total, used, unused, percent);
}

}  // namespace

void cmd_diskstat(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 2)
        kprintf("Usage: diskstat name...\n");
    for (int i = 1; i < argc; ++i)
        print_stat(argv[0], argv[i]);
}

void cmd_diskro(int argc, char** argv) { set_flags(argc, argv, BLOCKFS_READ_ONLY); }

void cmd_diskrw(int argc, char** argv) { set_flags(argc, argv, 0); }

void cmd_diskdf(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc > 1) {
        kprintf("Usage: diskdf\n");
        return;
    }
    uint32_t blocks[3];
    uint32_t inodes[3];
    if (blockfs_df(&blocks[0], &blocks[1], &blocks[2], &inodes[0], &inodes[1], &inodes[2]) != 0) {
        kprintf("diskdf: the disk fails\n");
        return;
    }
    kprintf("             TOTAL       USED       FREE  USE\n");
    print_usage_line("Blocks", blocks[0], blocks[1], blocks[2]);
    print_usage_line("Inodes", inodes[0], inodes[1], inodes[2]);
    kprintf("A block has %u bytes: %u KB free\n", BLOCKFS_BLOCK_BYTES, blocks[2] / 2);
}

void cmd_diskcache(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc > 2 || (argc == 2 && strcmp(argv[1], "clear") != 0)) {
        kprintf("Usage: diskcache [clear]\n");
        return;
    }
    if (argc == 2) {
        blockfs_cache_clear();
        kprintf("Disk cache cleared\n");
        return;
    }
    blockfs_cache_stats_t stats;
    blockfs_cache_stats(&stats);
    kprintf("Disk cache:\n");
    kprintf("  Hits:           %u\n", stats.hits);
    kprintf("  Misses:         %u\n", stats.misses);
    kprintf("  Writes:         %u\n", stats.writes);
    kprintf("  Invalidations:  %u\n", stats.invalidations);
}

void cmd_fsck(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc > 2 || (argc == 2 && strcmp(argv[1], "repair") != 0)) {
        kprintf("Usage: fsck [repair]\n");
        return;
    }
    if (argc == 2 && blockfs_fsck_repair() != 0) {
        kprintf("fsck: the bitmap cannot be repaired: see the errors of `fsck`\n");
        return;
    }
    if (blockfs_fsck() == 0)
        kprintf("fsck: the volume is sound\n");
    else
        kprintf("fsck: the volume has faults; `fsck repair` rebuilds the bitmap only\n");
}
