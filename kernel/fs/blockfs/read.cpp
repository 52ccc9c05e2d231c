// Reading a file: neighbouring blocks in one request, straight into the caller's buffer. Where the
// next leaf stands right behind a run, as it does in a file written at once, it comes along, into a
// place that the next run overwrites.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

/// The leaf read last, kept while nothing is written: a file read in pieces needs it again.
struct kept_leaf_t {
    uint32_t sector;  ///< 0: none
    uint32_t generation;
    vofs_pointers pointers;
};

kept_leaf_t kept GUARDED_BY(vofs_lock);
uint8_t partial[VOFS_SECTOR] GUARDED_BY(vofs_lock);

/// The pointer table that a block stands in; null: there is none, so the file ends here.
struct table_t {
    const uint32_t* pointers;
    uint32_t size;
    uint32_t index;  ///< the block's
};

struct reader_t {
    const vofs_inode& inode;
    bool has_indirect = false, has_double = false;
};

bool has_leaf_locked(uint32_t sector) REQUIRES(vofs_lock) {
    return kept.sector == sector && kept.generation == cache_generation_locked();
}

void keep_leaf_locked(uint32_t sector, const void* data) REQUIRES(vofs_lock) {
    kept.sector = sector;
    kept.generation = cache_generation_locked();
    memcpy(&kept.pointers, data, sizeof kept.pointers);
}

/// Reads a pointer block once; 0 or -1.
int load_locked(uint32_t sector, vofs_pointers* pointers, bool* loaded) REQUIRES(vofs_lock) {
    if (*loaded)
        return 0;
    if (!vofs_in_data_area_locked(sector) || cache_read_locked(sector, pointers, 1) != 0)
        return -1;
    *loaded = true;
    return 0;
}

int load_leaf_locked(uint32_t sector) REQUIRES(vofs_lock) {
    if (has_leaf_locked(sector))
        return 0;
    if (!vofs_in_data_area_locked(sector) || cache_read_locked(sector, partial, 1) != 0)
        return -1;
    keep_leaf_locked(sector, partial);
    return 0;
}

int double_table_locked(reader_t* reader, uint32_t block, table_t* table) REQUIRES(vofs_lock) {
    const uint32_t root = reader->inode.double_indirect_block;
    if (root == 0)
        return 0;
    if (load_locked(root, &vofs_buffers.doubled, &reader->has_double) != 0)
        return -1;
    const uint32_t leaf = vofs_buffers.doubled.at[(block - VOFS_DOUBLE_START) / VOFS_POINTERS];
    if (leaf == 0)
        return 0;
    if (load_leaf_locked(leaf) != 0)
        return -1;
    *table = {kept.pointers.at, VOFS_POINTERS, (block - VOFS_DOUBLE_START) % VOFS_POINTERS};
    return 0;
}

/// Finds the table of `block`; -1 when it cannot be read.
int table_locked(reader_t* reader, uint32_t block, table_t* table) REQUIRES(vofs_lock) {
    *table = {};
    if (block < VOFS_DIRECT) {
        *table = {reader->inode.blocks, VOFS_DIRECT, block};
        return 0;
    }
    if (block >= VOFS_BLOCKS_MAX)
        return 0;
    if (block >= VOFS_DOUBLE_START)
        return double_table_locked(reader, block, table);
    const uint32_t sector = reader->inode.indirect_block;
    if (sector == 0)
        return 0;
    *table = {vofs_buffers.indirect.at, VOFS_POINTERS, block - VOFS_DIRECT};
    return load_locked(sector, &vofs_buffers.indirect, &reader->has_indirect);
}

/// How many of at most `wanted` blocks, from the table's index on, are neighbours on the disk.
uint32_t run_locked(const table_t& table, uint32_t wanted) REQUIRES(vofs_lock) {
    const uint32_t first = table.pointers[table.index];
    uint32_t count = 1;
    while (count < wanted && table.index + count < table.size &&
           table.pointers[table.index + count] == first + count &&
           vofs_in_data_area_locked(first + count))
        ++count;
    return count;
}

/// The leaf that block `next` begins stands at `sector`.
bool leaf_follows_locked(const reader_t& reader, uint32_t next, uint32_t sector)
    REQUIRES(vofs_lock) {
    const uint32_t behind = next - VOFS_DOUBLE_START;
    if (!reader.has_double || next >= VOFS_BLOCKS_MAX || behind % VOFS_POINTERS != 0)
        return false;
    return vofs_buffers.doubled.at[behind / VOFS_POINTERS] == sector &&
           vofs_in_data_area_locked(sector);
}

/// Reads whole blocks of one run to `buf`; `room` blocks fit there. The blocks read, 0 on failure.
uint32_t read_run_locked(const reader_t& reader, uint32_t block, const table_t& table, uint8_t* buf,
                         uint32_t room) REQUIRES(vofs_lock) {
    const uint32_t sector = table.pointers[table.index];
    const uint32_t count = run_locked(table, room);
    const bool with_leaf =
        room > count && leaf_follows_locked(reader, block + count, sector + count);
    if (cache_read_locked(sector, buf, count + (with_leaf ? 1 : 0)) != 0)
        return 0;
    if (with_leaf)
        keep_leaf_locked(sector + count, buf + count * VOFS_SECTOR);
    return count;
}

/// Copies what one block has of a request; 0 on failure.
uint32_t read_part_locked(uint32_t sector, uint8_t* buf, uint32_t within, uint32_t len)
    REQUIRES(vofs_lock) {
    const uint32_t left = VOFS_SECTOR - within;
    const uint32_t bytes = len < left ? len : left;
    if (cache_read_locked(sector, partial, 1) != 0)
        return 0;
    memcpy(buf, partial + within, bytes);
    return bytes;
}

}  // namespace

uint32_t block_sector_locked(const vofs_inode& inode, uint32_t block) {
    reader_t reader{inode};
    table_t table;
    if (table_locked(&reader, block, &table) != 0 || table.pointers == nullptr)
        return 0;
    const uint32_t sector = table.pointers[table.index];
    return vofs_in_data_area_locked(sector) ? sector : 0;
}

int read_locked(const vofs_inode& inode, uint8_t* buf, uint32_t offset, uint32_t len) {
    reader_t reader{inode};
    uint32_t copied = 0;
    uint32_t singly_until = 0;  // a run that failed is read again block by block
    while (copied < len) {
        const uint32_t at = offset + copied;
        const uint32_t block = at / VOFS_SECTOR;
        table_t table;
        const int failed = table_locked(&reader, block, &table);
        if (failed == 0 && (table.pointers == nullptr || table.pointers[table.index] == 0))
            break;
        if (failed != 0 || !vofs_in_data_area_locked(table.pointers[table.index]))
            return copied != 0 ? static_cast<int>(copied) : -1;
        const uint32_t whole = (len - copied) / VOFS_SECTOR;
        uint32_t bytes = 0;
        if (at % VOFS_SECTOR != 0 || whole < 2 || block < singly_until) {
            bytes = read_part_locked(table.pointers[table.index], buf + copied, at % VOFS_SECTOR,
                                     len - copied);
            if (bytes == 0)
                return copied != 0 ? static_cast<int>(copied) : -1;
        } else {
            bytes = VOFS_SECTOR * read_run_locked(reader, block, table, buf + copied, whole);
            singly_until = bytes == 0 ? block + VOFS_POINTERS : singly_until;
        }
        copied += bytes;
    }
    return static_cast<int>(copied);
}
