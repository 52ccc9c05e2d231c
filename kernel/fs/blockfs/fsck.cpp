// The consistency check, and the repair of the bitmap, which is the same walk without its lines.
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

constexpr uint32_t LINES_MAX = 1000;  // a hostile volume has millions of faults

struct check_t {
    bool quiet;
    uint8_t* seen;  ///< bitmap of what was referenced; null: no memory for it
    uint32_t errors = 0;
    uint32_t wrong_references = 0;  ///< blocks that are shared, nowhere, or cannot be read
    bool surplus = false;           ///< a file has more blocks than its size needs
    uint32_t used = 0;              ///< inodes
    uint32_t referenced = 0;        ///< blocks, each time they are
    uint32_t inode = 0;             ///< the one at hand
    uint32_t data_blocks = 0;       ///< its own
};

void fault(check_t* check, const char* fmt, ...) VORN_PRINTF(2, 3);

void fault(check_t* check, const char* fmt, ...) {
    ++check->errors;
    if (check->quiet || check->errors > LINES_MAX)
        return;
    char line[192];
    va_list args;
    va_start(args, fmt);
    kvsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    kprint_text(line);
    if (check->errors == LINES_MAX)
        kprintf("[fsck] further errors are counted only\n");
}

/// Where a block is named from: "indirect", "direct[3]", "double[0][7]".
struct label_t {
    const char* table;
    uint32_t indices = 0;
    uint32_t first = 0, second = 0;
};

constexpr uint32_t LABEL_SIZE = 40;

void print_label(const label_t& label, char text[LABEL_SIZE]) {
    int length = ksnprintf(text, LABEL_SIZE, "%s", label.table);
    if (label.indices > 0)
        length += ksnprintf(text + length, LABEL_SIZE - static_cast<uint32_t>(length), "[%u]",
                            label.first);
    if (label.indices > 1)
        ksnprintf(text + length, LABEL_SIZE - static_cast<uint32_t>(length), "[%u]", label.second);
}

/// Counts a reference; false when the block lies outside the data area.
bool note_locked(check_t* check, uint32_t block, const label_t& label) REQUIRES(vofs_lock) {
    ++check->referenced;
    if (!vofs_in_data_area_locked(block)) {
        char name[LABEL_SIZE];
        print_label(label, name);
        fault(check, "[fsck] ERROR: inode %u %s block %u out of range\n", check->inode, name,
              block);
        ++check->wrong_references;
        return false;
    }
    if (check->seen == nullptr)
        return true;
    const uint32_t bit = block - vofs.sb.data_start;
    const uint8_t mask = static_cast<uint8_t>(1u << bit % 8);
    if ((check->seen[bit / 8] & mask) != 0) {
        fault(check, "[fsck] ERROR: block %u referenced more than once\n", block);
        ++check->wrong_references;
    }
    check->seen[bit / 8] |= mask;
    return true;
}

/// Reads a pointer block in the data area; a failure is a fault of this text.
bool load_locked(check_t* check, uint32_t sector, vofs_pointers* pointers, const char* what)
    REQUIRES(vofs_lock) {
    if (cache_read_locked(sector, pointers, 1) == 0)
        return true;
    fault(check, "[fsck] ERROR: cannot read inode %u %s %u\n", check->inode, what, sector);
    ++check->wrong_references;
    return false;
}

void check_indirect_locked(check_t* check, uint32_t sector) REQUIRES(vofs_lock) {
    if (sector == 0 || !note_locked(check, sector, {"indirect"}) ||
        !load_locked(check, sector, &vofs_buffers.indirect, "indirect block"))
        return;
    for (uint32_t i = 0; i < VOFS_POINTERS; ++i) {
        if (vofs_buffers.indirect.at[i] == 0)
            continue;
        ++check->data_blocks;
        note_locked(check, vofs_buffers.indirect.at[i], {"indirect", 1, i});
    }
}

void check_leaf_locked(check_t* check, uint32_t leaf) REQUIRES(vofs_lock) {
    const uint32_t sector = vofs_buffers.doubled.at[leaf];
    if (sector == 0 || !note_locked(check, sector, {"double", 1, leaf}) ||
        !load_locked(check, sector, &vofs_buffers.leaf, "double leaf"))
        return;
    for (uint32_t i = 0; i < VOFS_POINTERS; ++i) {
        if (vofs_buffers.leaf.at[i] == 0)
            continue;
        ++check->data_blocks;
        note_locked(check, vofs_buffers.leaf.at[i], {"double", 2, leaf, i});
    }
}

void check_double_locked(check_t* check, uint32_t sector) REQUIRES(vofs_lock) {
    if (sector == 0 || !note_locked(check, sector, {"double-indirect"}) ||
        !load_locked(check, sector, &vofs_buffers.doubled, "double-indirect block"))
        return;
    for (uint32_t leaf = 0; leaf < VOFS_POINTERS; ++leaf)
        check_leaf_locked(check, leaf);
}

void check_blocks_locked(check_t* check, const vofs_inode& inode) REQUIRES(vofs_lock) {
    check->data_blocks = 0;
    for (uint32_t i = 0; i < VOFS_DIRECT; ++i) {
        if (inode.blocks[i] == 0)
            continue;
        ++check->data_blocks;
        note_locked(check, inode.blocks[i], {"direct", 1, i});
    }
    check_indirect_locked(check, inode.indirect_block);
    check_double_locked(check, inode.double_indirect_block);
}

/// Later entries of the same directory with the same name.
void check_duplicates_locked(check_t* check, uint32_t n) REQUIRES(vofs_lock) {
    const vofs_entry_t& entry = vofs.index[n];
    for (uint32_t other = entry.next; other != VOFS_NO_INODE; other = vofs.index[other].next) {
        const vofs_entry_t& later = vofs.index[other];
        if (later.hash != entry.hash || later.parent != entry.parent ||
            strncmp(later.name, entry.name, VOFS_NAME_SIZE) != 0)
            continue;
        fault(check, "[fsck] ERROR: duplicate name '%s' in parent %u (inodes %u,%u)\n", entry.name,
              entry.parent, n, other);
        if (check->errors > LINES_MAX)
            return;
    }
}

void check_entry_locked(check_t* check, const vofs_inode& inode) REQUIRES(vofs_lock) {
    const uint32_t n = check->inode;
    if (inode.type != VOFS_FILE && inode.type != VOFS_DIRECTORY)
        fault(check, "[fsck] ERROR: inode %u bad type %u\n", n, inode.type);
    const bool terminated = vofs_name_length(inode.name) < VOFS_NAME_SIZE;
    if (!terminated)
        fault(check, "[fsck] ERROR: inode %u name not NUL-terminated\n", n);
    const uint32_t parent = inode.parent_inode;
    if (n != 0 && parent >= vofs.sb.inode_count)
        fault(check, "[fsck] ERROR: inode %u parent %u out of range\n", n, parent);
    else if (n != 0 && (!vofs.index[parent].known || vofs.index[parent].type != VOFS_DIRECTORY))
        fault(check, "[fsck] ERROR: inode %u parent %u is not a directory\n", n, parent);
    if (terminated && vofs.index[n].known)
        check_duplicates_locked(check, n);
}

void check_file_size_locked(check_t* check, const vofs_inode& inode) REQUIRES(vofs_lock) {
    const uint32_t n = check->inode;
    const uint32_t needed = vofs_blocks_for(inode.size);
    if (inode.size > VOFS_FILE_MAX)
        fault(check, "[fsck] ERROR: inode %u size %u exceeds max %u\n", n, inode.size,
              VOFS_FILE_MAX);
    check->surplus = check->surplus || check->data_blocks > needed;
    if (check->data_blocks != needed)
        fault(check, "[fsck] ERROR: inode %u size needs %u data blocks, has %u\n", n, needed,
              check->data_blocks);
    if (inode.indirect_block != 0 && needed <= VOFS_DIRECT)
        fault(check, "[fsck] ERROR: inode %u has unnecessary indirect block\n", n);
    if (inode.double_indirect_block != 0 && needed <= VOFS_DOUBLE_START)
        fault(check, "[fsck] ERROR: inode %u has unnecessary double-indirect block\n", n);
}

void check_inode_locked(check_t* check, const vofs_inode& inode) REQUIRES(vofs_lock) {
    ++check->used;
    check_entry_locked(check, inode);
    check_blocks_locked(check, inode);
    const bool has_blocks =
        check->data_blocks != 0 || inode.indirect_block != 0 || inode.double_indirect_block != 0;
    if (inode.type == VOFS_DIRECTORY && (inode.size != 0 || has_blocks))
        fault(check, "[fsck] ERROR: directory inode %u has file data\n", check->inode);
    if ((inode.flags & ~VOFS_READ_ONLY) != 0)
        fault(check, "[fsck] ERROR: inode %u unknown flags 0x%x\n", check->inode, inode.flags);
    if (inode.type == VOFS_FILE)
        check_file_size_locked(check, inode);
}

void check_super_locked(check_t* check) REQUIRES(vofs_lock) {
    vofs_super sb;
    if (cache_read_locked(0, &sb, 1) != 0)
        sb = vofs.sb;
    if (sb.magic != VOFS_MAGIC)
        fault(check, "[fsck] ERROR: bad superblock magic 0x%x\n", sb.magic);
    if (sb.version != VOFS_VERSION)
        fault(check, "[fsck] ERROR: bad superblock version %u\n", sb.version);
    if (sb.data_start >= sb.total_sectors)
        fault(check, "[fsck] ERROR: data_start %u >= total_sectors %u\n", sb.data_start,
              sb.total_sectors);
}

void check_volume_locked(check_t* check) REQUIRES(vofs_lock) {
    check_super_locked(check);
    for (inode_walk_t walk; inode_walk_locked(&walk);) {
        check->inode = walk.n;
        if (walk.inode == nullptr) {
            fault(check, "[fsck] ERROR: cannot read inode %u\n", walk.n);
            ++check->wrong_references;
        } else if (walk.inode->type != VOFS_FREE) {
            check_inode_locked(check, *walk.inode);
        }
    }
}

uint32_t bitmap_bytes_locked() REQUIRES(vofs_lock) { return vofs.sb.bitmap_sectors * VOFS_SECTOR; }

heap_ptr<uint8_t> make_seen_locked() REQUIRES(vofs_lock) {
    heap_ptr<uint8_t> seen = heap_ptr<uint8_t>::make(bitmap_bytes_locked());
    if (seen)
        memset(seen.get(), 0, bitmap_bytes_locked());
    return seen;
}

}  // namespace

vofs_report_t fsck_locked(bool quiet) {
    const heap_ptr<uint8_t> seen = make_seen_locked();
    check_t check{.quiet = quiet, .seen = seen.get()};
    check_volume_locked(&check);
    vofs_report_t report = {};
    report.used = check.used;
    report.referenced = check.referenced;
    report.marked = bitmap_count_locked(vofs.bitmap);
    report.count_differs = report.marked != report.referenced;
    if (report.count_differs)
        fault(&check, "[fsck] WARNING: bitmap has %u blocks, inodes reference %u\n", report.marked,
              report.referenced);
    report.errors = check.errors;
    report.bitmap_differs = seen && memcmp(seen.get(), vofs.bitmap, bitmap_bytes_locked()) != 0;
    report.references_sure = seen && check.wrong_references == 0;
    report.surplus = check.surplus;
    if (!quiet)
        fsck_print_figures(report);
    return report;
}

void fsck_print_figures(const vofs_report_t& report) {
    kprintf("[fsck] %d inodes, %u blocks used, %u blocks in bitmap\n",
            static_cast<int>(report.used), report.referenced, report.marked);
}

int fsck_repair_locked() {
    const heap_ptr<uint8_t> seen = make_seen_locked();
    if (!seen)
        return -1;
    check_t check{.quiet = true, .seen = seen.get()};
    check_volume_locked(&check);
    if (check.wrong_references != 0)
        return -1;
    memcpy(vofs.bitmap, seen.get(), bitmap_bytes_locked());
    const bool written = bitmap_write_all_locked();
    kprintf("[fsck] repaired bitmap from inode references (%u blocks)\n", check.referenced);
    return written ? 0 : -1;
}

int blockfs_fsck() {
    const mutex_guard guard(vofs_lock);
    if (!vofs.mounted) {
        kprintf("[fsck] filesystem not mounted\n");
        return -1;
    }
    return fsck_locked(false).errors == 0 ? 0 : -1;
}

int blockfs_fsck_repair() {
    const mutex_guard guard(vofs_lock);
    return vofs.mounted ? fsck_repair_locked() : -1;
}
