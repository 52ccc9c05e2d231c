// What is said of entries and of the volume, and the small changes: times and flags.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"
#include "kernel/graph/causal.h"

namespace {

/// The blocks that a file has: those that its inode and its indirect block name, and those that its
/// size says for the rest.
uint32_t blocks_of_locked(const vofs_inode& inode) REQUIRES(vofs_lock) {
    uint32_t count = 0;
    for (const uint32_t sector : inode.blocks)
        count += sector != 0 ? 1 : 0;
    if (inode.indirect_block != 0) {
        ++count;
        if (vofs_in_data_area_locked(inode.indirect_block) &&
            cache_read_locked(inode.indirect_block, &vofs_buffers.indirect, 1) == 0)
            for (const uint32_t sector : vofs_buffers.indirect.at)
                count += sector != 0 ? 1 : 0;
    }
    const uint32_t blocks = vofs_blocks_for(inode.size);
    if (inode.double_indirect_block != 0 && blocks > VOFS_DOUBLE_START)
        count += vofs_places_for(blocks < VOFS_BLOCKS_MAX ? blocks : VOFS_BLOCKS_MAX) -
                 vofs_places_for(VOFS_DOUBLE_START);
    return count;
}

void put(uint32_t* to, uint32_t value) {
    if (to != nullptr)
        *to = value;
}

/// Writes the changed inode with the present time.
int store_changed_locked(uint32_t n, vofs_inode* inode) REQUIRES(vofs_lock) {
    inode->mtime_ticks = vofs_now();
    return inode_write_locked(n, *inode) == vofs_stored::yes ? 0 : -1;
}

int list_locked(uint32_t directory, char* buf, uint32_t room) REQUIRES(vofs_lock) {
    uint32_t pos = 0;
    int count = 0;
    for (uint32_t n = 0;;) {
        n = index_next_entry_locked(directory, n);
        if (n == VOFS_NO_INODE)
            break;
        const uint32_t length = vofs_name_length(vofs.index[n].name);
        if (pos + length + 2 >= room)
            continue;
        memcpy(buf + pos, vofs.index[n].name, length);
        pos += length;
        buf[pos++] = '\n';
        ++count;
    }
    if (pos < room)
        buf[pos] = '\0';
    return count;
}

/// 0, or 1 when the file was created.
int touch_locked(const char* path) REQUIRES(vofs_lock) {
    const uint32_t n = path_resolve_locked(path);
    if (n == VOFS_NO_INODE)
        return create_locked(path, BLOCKFS_FILE) >= 0 ? 1 : -1;
    vofs_inode inode;
    if (!entry_writable_locked(n) || inode_read_locked(n, &inode) != 0)
        return -1;
    if (store_changed_locked(n, &inode) != 0)
        return -1;
    causal_event_fmt(CAUSAL_FS, "vofs", "touch %s pid=%d", path, task_getpid());
    return 0;
}

}  // namespace

int blockfs_resolve(const char* path) {
    const mutex_guard guard(vofs_lock);
    const uint32_t n = path_resolve_locked(path);
    return n == VOFS_NO_INODE ? -1 : static_cast<int>(n);
}

int blockfs_list(const char* path, char* buf, int bufsize) {
    const mutex_guard guard(vofs_lock);
    const uint32_t n = path_resolve_locked(path);
    if (n == VOFS_NO_INODE || vofs.index[n].type != VOFS_DIRECTORY)
        return -1;
    if (vofs.unknown != 0)
        index_complete_locked();
    return list_locked(n, buf, buf != nullptr && bufsize > 0 ? static_cast<uint32_t>(bufsize) : 0);
}

int blockfs_stat(const char* path, struct sys_stat* st) {
    const mutex_guard guard(vofs_lock);
    const uint32_t n = path_resolve_locked(path);
    vofs_inode inode;
    if (n == VOFS_NO_INODE || st == nullptr || inode_read_locked(n, &inode) != 0)
        return -1;
    *st = {inode.size,        inode.type,        n,          blocks_of_locked(inode),
           inode.ctime_ticks, inode.mtime_ticks, inode.flags};
    return 0;
}

int blockfs_touch(const char* path) {
    int touched = -1;
    {
        const mutex_guard guard(vofs_lock);
        touched = touch_locked(path);
    }
    if (touched > 0)
        vofs_tell(BLOCKFS_OP_CREATE, path, nullptr, 0);
    return touched < 0 ? -1 : 0;
}

int blockfs_set_flags(const char* path, uint32_t flags) {
    const mutex_guard guard(vofs_lock);
    const uint32_t n = path_resolve_locked(path);
    vofs_inode inode;
    if (n == VOFS_NO_INODE || inode_read_locked(n, &inode) != 0)
        return -1;
    inode.flags = flags & VOFS_READ_ONLY;
    return store_changed_locked(n, &inode);
}

int blockfs_df(uint32_t* total_blocks, uint32_t* used_blocks, uint32_t* free_blocks,
               uint32_t* total_inodes, uint32_t* used_inodes, uint32_t* free_inodes) {
    const mutex_guard guard(vofs_lock);
    if (!vofs.mounted || !index_complete_locked())
        return -1;
    uint32_t inodes = 0;
    for (uint32_t n = 0; n < vofs.sb.inode_count; ++n)
        inodes += vofs.index[n].type != VOFS_FREE ? 1 : 0;
    const uint32_t blocks = vofs.sb.total_sectors - vofs.sb.data_start;
    const uint32_t used = bitmap_count_locked(vofs.bitmap);
    put(total_blocks, blocks);
    put(used_blocks, used);
    put(free_blocks, blocks - used);
    put(total_inodes, vofs.sb.inode_count);
    put(used_inodes, inodes);
    put(free_inodes, vofs.sb.inode_count - inodes);
    return 0;
}
