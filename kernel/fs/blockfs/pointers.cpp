// Pointer blocks that are on disk already: giving back what they list, loading those at a file's
// end, and undoing what a broken-off append added to them.
#include "kernel/core/kprintf.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

int load_locked(uint32_t sector, vofs_pointers* pointers) REQUIRES(vofs_lock) {
    return vofs_in_data_area_locked(sector) ? cache_read_locked(sector, pointers, 1) : -1;
}

void release_all_locked(const vofs_pointers& pointers) REQUIRES(vofs_lock) {
    for (const uint32_t sector : pointers.at)
        bitmap_release_locked(sector);
}

/// Releases what a block lists, and the block; `what` names it when it cannot be read.
void release_listed_locked(uint32_t sector, vofs_pointers* pointers, const char* what)
    REQUIRES(vofs_lock) {
    if (load_locked(sector, pointers) == 0)
        release_all_locked(*pointers);
    else
        kprintf("[vofs] warning: cannot read %s %u while freeing\n", what, sector);
    bitmap_release_locked(sector);
}

void release_double_locked(uint32_t root) REQUIRES(vofs_lock) {
    if (load_locked(root, &vofs_buffers.doubled) == 0) {
        for (const uint32_t leaf : vofs_buffers.doubled.at)
            if (leaf != 0)
                release_listed_locked(leaf, &vofs_buffers.leaf, "double-indirect leaf");
    } else {
        kprintf("[vofs] warning: cannot read double-indirect root %u while freeing\n", root);
    }
    bitmap_release_locked(root);
}

/// Clears what stands behind the first `kept` pointers and writes the block. An append fills the
/// next ones without a gap, with blocks that are marked. After a write that failed only the device
/// knows what it holds.
int cut_block_locked(uint32_t sector, vofs_pointers* pointers, uint32_t kept) REQUIRES(vofs_lock) {
    if (!vofs_in_data_area_locked(sector) || cache_reread_locked(sector, pointers) != 0)
        return -1;
    uint32_t end = 0;
    while (end < VOFS_POINTERS && vofs_in_data_area_locked(pointers->at[end]) &&
           bitmap_marked_locked(pointers->at[end]))
        ++end;
    for (uint32_t i = end; i < VOFS_POINTERS; ++i)
        if (pointers->at[i] != 0)
            return -1;
    if (end <= kept)
        return end == kept ? 0 : -1;
    for (uint32_t i = kept; i < end; ++i)
        pointers->at[i] = 0;
    return cache_write_locked(sector, pointers, 1);
}

}  // namespace

void release_blocks_locked(const vofs_inode& inode) {
    for (const uint32_t sector : inode.blocks)
        bitmap_release_locked(sector);
    if (inode.indirect_block != 0)
        release_listed_locked(inode.indirect_block, &vofs_buffers.indirect, "indirect block");
    if (inode.double_indirect_block != 0)
        release_double_locked(inode.double_indirect_block);
}

int pointers_load_locked(const vofs_inode& inode, uint32_t blocks) {
    if (blocks > VOFS_DIRECT && blocks < VOFS_DOUBLE_START)
        return load_locked(inode.indirect_block, &vofs_buffers.indirect);
    const uint32_t leaves = vofs_leaves_for(blocks);
    if (leaves == 0)
        return 0;
    if (load_locked(inode.double_indirect_block, &vofs_buffers.doubled) != 0)
        return -1;
    return load_locked(vofs_buffers.doubled.at[leaves - 1], &vofs_buffers.leaf);
}

int pointers_cut_locked(const vofs_inode& inode, uint32_t blocks) {
    if (blocks > VOFS_DIRECT && blocks < VOFS_DOUBLE_START)
        return cut_block_locked(inode.indirect_block, &vofs_buffers.indirect, blocks - VOFS_DIRECT);
    const uint32_t leaves = vofs_leaves_for(blocks);
    if (leaves == 0)
        return 0;
    if (cut_block_locked(inode.double_indirect_block, &vofs_buffers.doubled, leaves) != 0)
        return -1;
    const uint32_t kept = blocks - VOFS_DOUBLE_START - (leaves - 1) * VOFS_POINTERS;
    if (kept == VOFS_POINTERS)
        return 0;
    return cut_block_locked(vofs_buffers.doubled.at[leaves - 1], &vofs_buffers.leaf, kept);
}
