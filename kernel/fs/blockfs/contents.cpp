// What a file holds: read, write, append, truncate, replace.
#include "kernel/core/heap_ptr.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"
#include "kernel/graph/causal.h"

namespace {

uint32_t smaller(uint32_t a, uint32_t b) { return a < b ? a : b; }

/// Reads a mounted volume's inode `n` if it is a file.
bool file_locked(int n, vofs_inode* inode) REQUIRES(vofs_lock) {
    if (!vofs.mounted || n < 0 || static_cast<uint32_t>(n) >= vofs.sb.inode_count)
        return false;
    return inode_read_locked(static_cast<uint32_t>(n), inode) == 0 && inode->type == VOFS_FILE;
}

bool writable_file_locked(int n, vofs_inode* inode) REQUIRES(vofs_lock) {
    return file_locked(n, inode) && (inode->flags & VOFS_READ_ONLY) == 0;
}

void record_write(const vofs_inode& inode, uint32_t len) {
    char name[VOFS_NAME_SIZE];
    memcpy(name, inode.name, sizeof name);
    name[sizeof name - 1] = '\0';
    causal_event_fmt(CAUSAL_FS, "vofs", "write %s (%u bytes) pid=%d", name, len, task_getpid());
}

void drop_contents(vofs_inode* inode) {
    inode->size = 0;
    memset(inode->blocks, 0, sizeof inode->blocks);
    inode->indirect_block = 0;
    inode->double_indirect_block = 0;
}

bool holds_nothing(const vofs_inode& inode) {
    vofs_inode empty = inode;
    drop_contents(&empty);
    return memcmp(&empty, &inode, sizeof empty) == 0;
}

/// Lets the inode on disk hold nothing, then gives back what it held.
bool empty_file_locked(uint32_t n, vofs_inode* inode) REQUIRES(vofs_lock) {
    if (holds_nothing(*inode))
        return true;
    const vofs_inode before = *inode;
    drop_contents(inode);
    if (inode_write_locked(n, *inode) != vofs_stored::yes)
        return false;
    release_blocks_locked(before);
    return true;
}

/// Writes the inode that reaches the layout's blocks. Where it is certain that the device has the
/// old one, they are given back.
bool change_over_locked(uint32_t n, const vofs_inode& inode, vofs_layout_t* layout)
    REQUIRES(vofs_lock) {
    const vofs_stored stored = inode_write_locked(n, inode);
    if (stored == vofs_stored::no)
        layout_drop_locked(layout);
    return stored == vofs_stored::yes;
}

int write_locked(int n, const void* data, uint32_t len) REQUIRES(vofs_lock) {
    vofs_inode inode;
    if ((data == nullptr && len != 0) || !writable_file_locked(n, &inode))
        return -1;
    record_write(inode, len);
    if (!empty_file_locked(static_cast<uint32_t>(n), &inode))
        return -1;
    len = smaller(len, VOFS_FILE_MAX);
    vofs_layout_t layout = {0, vofs_blocks_for(len), static_cast<const uint8_t*>(data), len};
    layout_take_locked(&layout);
    layout_write_locked(&layout);
    layout_enter_locked(layout, &inode);
    inode.size = smaller(len, layout.blocks * VOFS_SECTOR);
    inode.mtime_ticks = vofs_now();
    const bool stored = change_over_locked(static_cast<uint32_t>(n), inode, &layout);
    bitmap_flush_locked();
    return stored ? static_cast<int>(inode.size) : -1;
}

/// Fills up the file's last block, if it has room; the bytes stored there, -1 on failure.
int fill_last_block_locked(const vofs_inode& inode, const uint8_t* data, uint32_t len)
    REQUIRES(vofs_lock) {
    const uint32_t used = inode.size % VOFS_SECTOR;
    if (used == 0)
        return 0;
    const uint32_t sector = block_sector_locked(inode, inode.size / VOFS_SECTOR);
    uint8_t* block = vofs_buffers.run;
    if (sector == 0 || cache_read_locked(sector, block, 1) != 0)
        return -1;
    const uint32_t bytes = smaller(len, VOFS_SECTOR - used);
    memcpy(block + used, data, bytes);
    memset(block + used + bytes, 0, VOFS_SECTOR - used - bytes);
    return cache_write_locked(sector, block, 1) == 0 ? static_cast<int>(bytes) : -1;
}

/// Lets the file reach the layout's blocks: its pointer blocks first, then the inode. -1 when one
/// of them cannot be written; the blocks are given back if nothing reaches them then.
int extend_file_locked(uint32_t n, vofs_inode* inode, vofs_layout_t* layout, uint32_t appended)
    REQUIRES(vofs_lock) {
    const vofs_inode before = *inode;
    vofs_stored stored = vofs_stored::no;
    if (layout_extend_locked(*layout, before) == 0) {
        layout_enter_locked(*layout, inode);
        inode->size += appended;
        inode->mtime_ticks = vofs_now();
        stored = inode_write_locked(n, *inode);
    }
    if (stored == vofs_stored::no && pointers_cut_locked(before, layout->first) == 0)
        layout_drop_locked(layout);
    return stored == vofs_stored::yes ? 0 : -1;
}

int append_locked(int n, const uint8_t* data, uint32_t len) REQUIRES(vofs_lock) {
    vofs_inode inode;
    if ((data == nullptr && len != 0) || !writable_file_locked(n, &inode))
        return -1;
    if (inode.size >= VOFS_FILE_MAX || len == 0)
        return 0;
    len = smaller(len, VOFS_FILE_MAX - inode.size);
    const int filled = fill_last_block_locked(inode, data, len);
    const uint32_t first = vofs_blocks_for(inode.size);
    if (filled < 0 || (filled == 0 && pointers_load_locked(inode, first) != 0))
        return 0;
    const uint32_t head = static_cast<uint32_t>(filled);
    const uint32_t rest = len - head;
    vofs_layout_t layout = {first, first + vofs_blocks_for(rest), data + head, rest};
    if (filled > 0 && rest > 0 && pointers_load_locked(inode, first) != 0)
        layout.blocks = first;
    layout_take_locked(&layout);
    layout_write_locked(&layout);
    const uint32_t appended = head + smaller(rest, (layout.blocks - first) * VOFS_SECTOR);
    const int failed =
        appended == 0 ? 0 : extend_file_locked(static_cast<uint32_t>(n), &inode, &layout, appended);
    bitmap_flush_locked();
    return failed != 0 ? failed : static_cast<int>(appended);
}

/// What a replacement works on: an inode that exists, or a new one.
struct replacement_t {
    uint32_t n;
    bool is_new;
    vofs_inode inode;  ///< as it will be; contents still to be entered
};

bool find_replacement_locked(const char* path, replacement_t* it) REQUIRES(vofs_lock) {
    it->n = path_resolve_locked(path);
    it->is_new = it->n == VOFS_NO_INODE;
    if (!it->is_new)
        return writable_file_locked(static_cast<int>(it->n), &it->inode);
    vofs_target_t target;
    if (!path_target_locked(path, &target))
        return false;
    it->n = index_free_inode_locked();
    inode_make(VOFS_FILE, target.parent, target.name, &it->inode);
    return it->n != VOFS_NO_INODE;
}

/// Writes the contents beside the old ones and changes over.
bool replace_contents_locked(replacement_t* it, const uint8_t* data, uint32_t len)
    REQUIRES(vofs_lock) {
    const vofs_inode before = it->inode;
    const uint32_t blocks = vofs_blocks_for(len);
    vofs_layout_t layout = {0, blocks, data, len};
    layout_take_locked(&layout);
    if (layout.blocks == blocks)
        layout_write_locked(&layout);
    if (layout.blocks < blocks) {
        layout_drop_locked(&layout);
        return false;
    }
    drop_contents(&it->inode);
    layout_enter_locked(layout, &it->inode);
    it->inode.size = len;
    it->inode.mtime_ticks = vofs_now();
    if (!change_over_locked(it->n, it->inode, &layout))
        return false;
    release_blocks_locked(before);
    return true;
}

int replace_locked(const char* path, const uint8_t* data, uint32_t len, replacement_t* it)
    REQUIRES(vofs_lock) {
    if (len > VOFS_FILE_MAX || (data == nullptr && len != 0) || !find_replacement_locked(path, it))
        return -1;
    const bool replaced = replace_contents_locked(it, data, len);
    bitmap_flush_locked();
    if (!replaced)
        return -1;
    if (it->is_new) {
        inode_touch_locked(it->inode.parent_inode);
        causal_event_fmt(CAUSAL_FS, "vofs", "create %s pid=%d", path, task_getpid());
    }
    record_write(it->inode, len);
    return 0;
}

/// Reads what a truncated file keeps, and zeros up to its new size. False when that fails.
bool read_for_truncation_locked(const vofs_inode& inode, uint32_t new_size, heap_ptr<uint8_t>* data)
    REQUIRES(vofs_lock) {
    *data = heap_ptr<uint8_t>::make(new_size);
    if (!*data)
        return false;
    const uint32_t kept = smaller(inode.size, new_size);
    if (kept != 0 && read_locked(inode, data->get(), 0, kept) != static_cast<int>(kept))
        return false;
    memset(data->get() + kept, 0, new_size - kept);
    return true;
}

int truncate_locked(int n, uint32_t new_size, heap_ptr<uint8_t>* data) REQUIRES(vofs_lock) {
    vofs_inode inode;
    if (!writable_file_locked(n, &inode))
        return -1;
    if (inode.size == new_size)
        return 0;
    if (!read_for_truncation_locked(inode, new_size, data))
        return -1;
    return write_locked(n, data->get(), new_size);
}

}  // namespace

int blockfs_read_file(int inode, void* buf, uint32_t offset, uint32_t len) {
    const mutex_guard guard(vofs_lock);
    vofs_inode file;
    if (!file_locked(inode, &file))
        return -1;
    if (offset >= file.size || len == 0)
        return 0;
    if (buf == nullptr)
        return -1;
    return read_locked(file, static_cast<uint8_t*>(buf), offset, smaller(len, file.size - offset));
}

int blockfs_write_file(int inode, const void* data, uint32_t len) {
    char path[VOFS_TOLD_PATH] = "";
    int stored = -1;
    {
        const mutex_guard guard(vofs_lock);
        stored = write_locked(inode, data, len);
        if (stored >= 0)
            path_rebuild_locked(static_cast<uint32_t>(inode), path);
    }
    if (stored >= 0)
        vofs_tell(BLOCKFS_OP_WRITE, path, data, static_cast<uint32_t>(stored));
    return stored;
}

int blockfs_append_file(int inode, const void* data, uint32_t len) {
    char path[VOFS_TOLD_PATH] = "";
    int appended = -1;
    {
        const mutex_guard guard(vofs_lock);
        appended = append_locked(inode, static_cast<const uint8_t*>(data), len);
        if (appended > 0)
            path_rebuild_locked(static_cast<uint32_t>(inode), path);
    }
    if (appended > 0)
        vofs_tell(BLOCKFS_OP_APPEND, path, data, static_cast<uint32_t>(appended));
    return appended;
}

int blockfs_truncate_file(int inode, uint32_t new_size) {
    new_size = smaller(new_size, VOFS_FILE_MAX);
    char path[VOFS_TOLD_PATH] = "";
    heap_ptr<uint8_t> data;
    int stored = -1;
    {
        const mutex_guard guard(vofs_lock);
        stored = truncate_locked(inode, new_size, &data);
        if (stored >= 0 && data)
            path_rebuild_locked(static_cast<uint32_t>(inode), path);
    }
    if (stored < 0 || !data)
        return stored;
    vofs_tell(BLOCKFS_OP_WRITE, path, data.get(), static_cast<uint32_t>(stored));
    return static_cast<uint32_t>(stored) == new_size ? 0 : -1;
}

int blockfs_truncate(const char* path, uint32_t new_size) {
    return blockfs_truncate_file(blockfs_resolve(path), new_size);
}

int blockfs_replace_file(const char* path, const void* data, uint32_t len) {
    char told[VOFS_TOLD_PATH] = "";
    replacement_t it;
    {
        const mutex_guard guard(vofs_lock);
        if (replace_locked(path, static_cast<const uint8_t*>(data), len, &it) != 0)
            return -1;
        path_rebuild_locked(it.n, told);
    }
    if (it.is_new)
        vofs_tell(BLOCKFS_OP_CREATE, path, nullptr, 0);
    vofs_tell(BLOCKFS_OP_WRITE, told, data, len);
    return 0;
}
