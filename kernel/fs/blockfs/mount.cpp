// Mounting and formatting. The superblock is the last sector that a format writes: a format cut
// short leaves a disk without a volume, and the next start formats it from the beginning.
#include <string_view>

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs/internal.h"
#include "kernel/graph/causal.h"

vofs_volume_t vofs;
vofs_buffers_t vofs_buffers;

namespace {

blockfs_change_fn change_hook;

uint32_t device_sectors() {
    const uint64_t capacity = blk_capacity();
    return capacity < 0xFFFFFFFF ? static_cast<uint32_t>(capacity) : 0xFFFFFFFF;
}

/// Writes zeros; the sector that failed, or 0.
uint32_t clear_locked(uint32_t sector, uint32_t count) REQUIRES(vofs_lock) {
    memset(vofs_buffers.run, 0, sizeof vofs_buffers.run);
    while (count > 0) {
        const uint32_t piece = count < VOFS_RUN_SECTORS ? count : VOFS_RUN_SECTORS;
        const uint32_t written = cache_write_run_locked(sector, vofs_buffers.run, piece);
        sector += written;
        count -= written;
        if (written < piece)
            return sector;
    }
    return 0;
}

int write_root_locked(const vofs_super& sb) REQUIRES(vofs_lock) {
    vofs_inode root;
    inode_make(VOFS_DIRECTORY, 0, "/", &root);
    if (cache_write_locked(sb.inode_start, &root, 1) == 0)
        return 0;
    kprintf("[vofs] format: root inode write error\n");
    return -1;
}

int write_format_locked(const vofs_super& sb) REQUIRES(vofs_lock) {
    if (const uint32_t failed = clear_locked(sb.bitmap_start, sb.bitmap_sectors)) {
        kprintf("[vofs] format: bitmap write error at sector %u\n", failed);
        return -1;
    }
    if (const uint32_t failed = clear_locked(sb.inode_start, sb.inode_count)) {
        kprintf("[vofs] format: inode write error at sector %u\n", failed);
        return -1;
    }
    if (write_root_locked(sb) != 0)
        return -1;
    if (cache_write_locked(0, &sb, 1) == 0)
        return 0;
    kprintf("[vofs] format: superblock write error\n");
    return -1;
}

/// Memory for the bitmap and the index.
bool allocate_locked() REQUIRES(vofs_lock) {
    vofs.bitmap = static_cast<uint8_t*>(kmalloc(vofs.sb.bitmap_sectors * VOFS_SECTOR));
    vofs.index = nullptr;
    if (vofs.sb.inode_count <= HEAP_BYTES / sizeof(vofs_entry_t))
        vofs.index =
            static_cast<vofs_entry_t*>(kmalloc(vofs.sb.inode_count * sizeof(vofs_entry_t)));
    return vofs.bitmap != nullptr && vofs.index != nullptr;
}

void free_locked() REQUIRES(vofs_lock) {
    kfree(vofs.bitmap);
    kfree(vofs.index);
    vofs = {};
}

int format_locked() REQUIRES(vofs_lock) {
    kprintf("[vofs] No filesystem found — formatting\n");
    uint32_t sectors = device_sectors();
    if (sectors > VOFS_SECTORS_MAX) {
        kprintf("[vofs] format: device has %llu sectors; using first %u sectors\n",
                static_cast<unsigned long long>(blk_capacity()), VOFS_SECTORS_MAX);
        sectors = VOFS_SECTORS_MAX;
    }
    if (!vofs_make_super(sectors, &vofs.sb)) {
        kprintf("[vofs] format: disk too small (%u sectors)\n", sectors);
        return -1;
    }
    if (write_format_locked(vofs.sb) != 0)
        return -1;
    kprintf("[vofs] Formatted: %u sectors, %u inodes, data@%u\n", vofs.sb.total_sectors,
            vofs.sb.inode_count, vofs.sb.data_start);
    if (!allocate_locked())
        return -1;
    memset(vofs.bitmap, 0, vofs.sb.bitmap_sectors * VOFS_SECTOR);
    index_load_locked();
    vofs.mounted = true;
    causal_event_fmt(CAUSAL_FS, "vofs", "format %u sectors pid=%d", vofs.sb.total_sectors,
                     task_getpid());
    kprintf("[vofs] Mounted: %u sectors, %u inodes\n", vofs.sb.total_sectors, vofs.sb.inode_count);
    return 0;
}

/// The folder of the system's records, or something in it.
bool of_records(const char* path) {
    constexpr size_t LENGTH = std::string_view(BLOCKFS_RECORDS).size();
    return strncmp(path, BLOCKFS_RECORDS, LENGTH) == 0 &&
           (path[LENGTH] == '/' || path[LENGTH] == '\0');
}

/// A superblock with nothing behind it, not even a root: a format that wrote the superblock first
/// was cut short.
bool lacks_root_locked(uint32_t used) REQUIRES(vofs_lock) {
    return used == 0 && vofs.unknown == 0 && vofs.index[0].type == VOFS_FREE &&
           bitmap_count_locked(vofs.bitmap) == 0;
}

/// Undoes appends that a power cut broke off between a pointer block and the inode.
void mend_locked() REQUIRES(vofs_lock) {
    for (inode_walk_t walk; inode_walk_locked(&walk);) {
        if (walk.inode == nullptr || walk.inode->type != VOFS_FILE ||
            walk.inode->size > VOFS_FILE_MAX)
            continue;
        pointers_cut_locked(*walk.inode, vofs_blocks_for(walk.inode->size));
    }
}

/// Checks the volume. Where every block is referenced once, undoes what appends left; where the
/// bitmap alone is wrong, repairs it: blocks that no inode reaches are free again, and none that
/// one reaches is given away.
void check_locked() REQUIRES(vofs_lock) {
    vofs_report_t report = fsck_locked(true);
    if (report.surplus && report.references_sure)
        mend_locked();
    if (report.errors != 0)
        report = fsck_locked(false);
    else
        fsck_print_figures(report);
    const bool nothing_else = report.errors == (report.count_differs ? 1u : 0u);
    if (report.bitmap_differs && nothing_else)
        (void)fsck_repair_locked();
}

int mount_locked() REQUIRES(vofs_lock) {
    if (!vofs_super_valid(vofs.sb, device_sectors())) {
        kprintf("[vofs] invalid superblock geometry, refusing mount\n");
        return -1;
    }
    if (!allocate_locked())
        return -1;
    if (cache_read_locked(vofs.sb.bitmap_start, vofs.bitmap, vofs.sb.bitmap_sectors) != 0) {
        kprintf("[vofs] bitmap read error\n");
        return -1;
    }
    uint32_t files = index_load_locked();
    if (lacks_root_locked(files)) {
        kprintf("[vofs] Format was cut short — finishing\n");
        if (write_root_locked(vofs.sb) != 0)
            return -1;
        files = index_load_locked();
    }
    vofs.mounted = true;
    causal_event_fmt(CAUSAL_FS, "vofs", "mount %u sectors, %d files pid=%d", vofs.sb.total_sectors,
                     static_cast<int>(files), task_getpid());
    kprintf("[vofs] Mounted: %u sectors, %u inodes\n", vofs.sb.total_sectors, vofs.sb.inode_count);
    check_locked();
    return 0;
}

int init_locked() REQUIRES(vofs_lock) {
    if (!blk_present())
        return -1;
    if (cache_read_locked(0, &vofs.sb, 1) != 0) {
        kprintf("[vofs] superblock read error\n");
        return -1;
    }
    return vofs.sb.magic == VOFS_MAGIC ? mount_locked() : format_locked();
}

}  // namespace

int blockfs_init() {
    const mutex_guard guard(vofs_lock);
    vofs = {};
    cache_reset_locked();
    bitmap_reset_locked();
    const int result = init_locked();
    if (result != 0)
        free_locked();
    return result;
}

bool blockfs_mounted() NO_THREAD_SAFETY_ANALYSIS { return vofs.mounted; }

void blockfs_forget() {
    const mutex_guard guard(vofs_lock);
    free_locked();
    cache_reset_locked();
}

void blockfs_set_change_hook(blockfs_change_fn hook) { change_hook = hook; }

void vofs_tell(int op, const char* path, const void* data, uint32_t len) {
    const blockfs_change_fn hook = change_hook;
    if (hook != nullptr && path[0] != '\0' && !of_records(path))
        hook(op, path, data, len);
}
