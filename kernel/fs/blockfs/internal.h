// What the files of VoFS share. Private to kernel/fs/blockfs/.
//
//   tree, contents, volume    blockfs_*: take the lock, check, call what ends in _locked, tell the
//                             change hook when the lock is released
//   mount, fsck               format, mount, check, repair
//   layout, pointers, read    a file's blocks: taking and writing, giving back, reading
//   inode, path               the inode table and its index in memory; paths
//   bitmap                    which blocks are free: memory leads, sectors follow
//   cache                     every sector passes here
//
// What makes a power cut harmless is one order: the bitmap's bits are on disk before a block is
// written, blocks and new pointer blocks before the inode that reaches them, and an inode that no
// longer reaches a block before the block's bit is cleared. So the disk may mark too much, never
// too little. An append adds to pointer blocks in place; until its inode is written they hold
// pointers behind the file's end, which the next mount takes out (mend_locked).
#pragma once

#include "kernel/core/interrupt.h"
#include "kernel/core/mutex.h"
#include "kernel/core/task.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs.h"
#include "kernel/fs/blockfs/format.h"

constexpr uint32_t VOFS_RUN_SECTORS = 512;  ///< of a request by way of our own memory: 256 KB
constexpr uint32_t VOFS_NO_INODE = 0xFFFFFFFF;
constexpr uint32_t VOFS_BUCKETS = 256;

/// What is known of an inode without reading it.
struct vofs_entry_t {
    bool known;  ///< false: it could not be read
    uint32_t type;
    uint32_t parent;
    uint32_t flags;
    uint32_t hash;              ///< of parent and name
    uint32_t next;              ///< in its bucket, by rising number; used inodes only
    char name[VOFS_NAME_SIZE];  ///< as on disk: terminated or not
};

/// What is mounted.
struct vofs_volume_t {
    bool mounted;
    vofs_super sb;
    uint8_t* bitmap;      ///< heap; bitmap_sectors sectors
    vofs_entry_t* index;  ///< heap; inode_count entries
    uint32_t unknown;     ///< entries that are not known
    uint32_t buckets[VOFS_BUCKETS];
};

/// Sector buffers that the device can reach. One operation uses them at a time.
struct vofs_buffers_t {
    uint8_t run[VOFS_RUN_SECTORS * VOFS_SECTOR];
    uint8_t sector[VOFS_SECTOR];
    vofs_pointers indirect, doubled, leaf;
};

inline mutex_t vofs_lock;  ///< the one lock of the filesystem
extern vofs_volume_t vofs GUARDED_BY(vofs_lock);
extern vofs_buffers_t vofs_buffers GUARDED_BY(vofs_lock);

/// The time that goes into an inode.
inline uint32_t vofs_now() {
    const uint32_t ticks = system_ticks;
    return ticks != 0 ? ticks : 1;
}

inline bool vofs_in_data_area_locked(uint32_t sector) REQUIRES(vofs_lock) {
    return sector >= vofs.sb.data_start && sector < vofs.sb.total_sectors;
}

// --- cache: 0 or -1 ------------------------------------------------------------------------------

/// Reads `count` sectors; one goes through the cache, several pass it by.
[[nodiscard]] int cache_read_locked(uint32_t sector, void* buf, uint32_t count) REQUIRES(vofs_lock);

/// Writes `count` sectors through the cache; several in one request.
[[nodiscard]] int cache_write_locked(uint32_t sector, const void* buf, uint32_t count)
    REQUIRES(vofs_lock);

/// cache_write_locked of several sectors, one by one where the request as a whole fails: the number
/// of sectors written before the first that cannot be.
[[nodiscard]] uint32_t cache_write_run_locked(uint32_t sector, const uint8_t* buf, uint32_t count)
    REQUIRES(vofs_lock);

/// The same with sectors from several places in memory, all of which the device must reach.
[[nodiscard]] uint32_t cache_write_pieces_locked(uint32_t sector,
                                                 std::span<const blk_piece_t> pieces)
    REQUIRES(vofs_lock);

/// The device takes physical addresses: whether it finds `bytes` from `buf` on there.
[[nodiscard]] bool cache_reaches_locked(const void* buf, uint32_t bytes) REQUIRES(vofs_lock);

/// The cache knows that the device's sector holds just this.
[[nodiscard]] bool cache_matches_locked(uint32_t sector, const void* data) REQUIRES(vofs_lock);

/// Reads a sector from the device, whatever the cache holds of it.
[[nodiscard]] int cache_reread_locked(uint32_t sector, void* buf) REQUIRES(vofs_lock);

/// Another number after each attempt to write: what was read before may be out of date.
[[nodiscard]] uint32_t cache_generation_locked() REQUIRES(vofs_lock);

/// Empties the cache; counters and clock begin anew.
void cache_reset_locked() REQUIRES(vofs_lock);

// --- bitmap: changes in memory, flushed before anything rests on them -------------------------

/// The bitmap in memory was replaced or read anew; nothing is waiting to be written.
void bitmap_reset_locked() REQUIRES(vofs_lock);

/// Takes the first `count` free blocks; stores their sectors, rising; how many there were.
[[nodiscard]] uint32_t bitmap_take_locked(uint32_t* sectors, uint32_t count) REQUIRES(vofs_lock);

/// Gives a block back; a sector outside the data area is ignored.
void bitmap_release_locked(uint32_t sector) REQUIRES(vofs_lock);

/// Writes what changed, neighbours together, and says which sectors failed. Those are tried again
/// at the next flush.
void bitmap_flush_locked() REQUIRES(vofs_lock);

/// Nothing of the bitmap waits to be written.
[[nodiscard]] bool bitmap_settled_locked() REQUIRES(vofs_lock);

/// The bitmap sector that holds this block's bit still waits to be written.
[[nodiscard]] bool bitmap_waits_locked(uint32_t sector) REQUIRES(vofs_lock);

/// The bitmap in memory says that this block of the data area is in use.
[[nodiscard]] bool bitmap_marked_locked(uint32_t sector) REQUIRES(vofs_lock);

/// Writes all of the bitmap, which was changed as a whole; whether that succeeded.
[[nodiscard]] bool bitmap_write_all_locked() REQUIRES(vofs_lock);

/// Bits set in `bitmap`, which covers the volume's data area.
[[nodiscard]] uint32_t bitmap_count_locked(const uint8_t* bitmap) REQUIRES(vofs_lock);

// --- inode ---------------------------------------------------------------------------------------

/// What a failed write left behind decides what may be given back.
enum class vofs_stored : uint8_t { yes, no, unknown };

/// Reads inode `n` below inode_count; 0 or -1.
[[nodiscard]] int inode_read_locked(uint32_t n, vofs_inode* inode) REQUIRES(vofs_lock);

/// Writes inode `n` and its index entry. After a failure the device is asked what it holds: the new
/// inode (yes), the old one (no), or neither can be told.
[[nodiscard]] vofs_stored inode_write_locked(uint32_t n, const vofs_inode& inode)
    REQUIRES(vofs_lock);

/// Sets the modification time of directory `n` to now; a failure is of no consequence.
void inode_touch_locked(uint32_t n) REQUIRES(vofs_lock);

/// Reads the whole table into the index; the inodes used besides the root.
uint32_t index_load_locked() REQUIRES(vofs_lock);

/// A walk through the inode table as it is on disk, many inodes a request. Nothing else may use
/// vofs_buffers.run meanwhile.
struct inode_walk_t {
    uint32_t n = 0;                     ///< the inode's number
    const vofs_inode* inode = nullptr;  ///< null: it cannot be read
    uint32_t next = 0;                  ///< the rest is the walk's own
    uint32_t first = 0, count = 0, singles_end = 0;
};

/// The next inode; false after the last.
bool inode_walk_locked(inode_walk_t* walk) REQUIRES(vofs_lock);

/// The entry of `parent` whose name is these `length` characters, or VOFS_NO_INODE.
[[nodiscard]] uint32_t index_find_locked(uint32_t parent, const char* name, uint32_t length)
    REQUIRES(vofs_lock);

/// The first used inode after `after` that lies in `parent`, or VOFS_NO_INODE. Begin with 0.
[[nodiscard]] uint32_t index_next_entry_locked(uint32_t parent, uint32_t after) REQUIRES(vofs_lock);

/// The first free inode, or VOFS_NO_INODE.
[[nodiscard]] uint32_t index_free_inode_locked() REQUIRES(vofs_lock);

/// Tries to read again what could not be read; false when something still cannot.
bool index_complete_locked() REQUIRES(vofs_lock);

// --- paths ---------------------------------------------------------------------------------------

/// The inode of a path; VOFS_NO_INODE when unmounted, invalid or not there.
[[nodiscard]] uint32_t path_resolve_locked(const char* path) REQUIRES(vofs_lock);

/// A path taken apart: the directory it lies in, and its own name.
struct vofs_target_t {
    uint32_t parent;
    const char* name;
};

/// Splits `path` (valid, not "/") and resolves its directory, which must be one, and writable.
[[nodiscard]] bool path_target_locked(const char* path, vofs_target_t* target) REQUIRES(vofs_lock);

/// The entry `n` has this directory among those above it, or is it.
[[nodiscard]] bool entry_below_locked(uint32_t n, uint32_t directory) REQUIRES(vofs_lock);

/// Entry `n` is known and not read-only.
[[nodiscard]] bool entry_writable_locked(uint32_t n) REQUIRES(vofs_lock);

constexpr uint32_t VOFS_TOLD_PATH = 128;

/// Rebuilds the path of inode `n` for the change hook; false (and an empty text) if it is longer
/// than the buffer, or does not lead to the root.
bool path_rebuild_locked(uint32_t n, char path[VOFS_TOLD_PATH]) REQUIRES(vofs_lock);

/// Calls the change hook, if there is one and `path` is not empty.
void vofs_tell(int op, const char* path, const void* data, uint32_t len) EXCLUDES(vofs_lock);

// --- entries ---

/// An inode of `type` with this directory and name (cut to 63 characters), made now.
void inode_make(uint32_t type, uint32_t parent, const char* name, vofs_inode* inode);

/// blockfs_create.
[[nodiscard]] int create_locked(const char* path, int type) REQUIRES(vofs_lock);

// --- file contents -------------------------------------------------------------------------------

/// Gives back all blocks that `inode` reaches; nothing on disk may reach them any more.
void release_blocks_locked(const vofs_inode& inode) REQUIRES(vofs_lock);

/// Reads file bytes as blockfs_read_file does.
[[nodiscard]] int read_locked(const vofs_inode& inode, uint8_t* buf, uint32_t offset, uint32_t len)
    REQUIRES(vofs_lock);

/// The sector of a file's block; 0 when it has none in the data area, or none that can be found.
[[nodiscard]] uint32_t block_sector_locked(const vofs_inode& inode, uint32_t block)
    REQUIRES(vofs_lock);

/// A file's bytes on their way to new blocks.
struct vofs_layout_t {
    uint32_t first;       ///< data blocks that the file has already
    uint32_t blocks;      ///< data blocks that it has afterwards
    const uint8_t* data;  ///< contents of block `first` and on
    uint32_t len;         ///< bytes of `data`; the last block is filled up with zeros
};

/// Takes the blocks and pointer blocks from `first` to `blocks` and gets their bits onto the disk;
/// `blocks` shrinks to what there was.
void layout_take_locked(vofs_layout_t* layout) REQUIRES(vofs_lock);

/// Writes the blocks and pointer blocks taken; `blocks` shrinks to what could be written, and what
/// was taken behind it is given back.
void layout_write_locked(vofs_layout_t* layout) REQUIRES(vofs_lock);

/// Enters the blocks taken into an inode's own pointers.
void layout_enter_locked(const vofs_layout_t& layout, vofs_inode* inode) REQUIRES(vofs_lock);

/// Adds the blocks taken to the pointer blocks that the file had already, which
/// pointers_load_locked has loaded: 0, or -1 when one of them cannot be written.
[[nodiscard]] int layout_extend_locked(const vofs_layout_t& layout, const vofs_inode& inode)
    REQUIRES(vofs_lock);

/// Gives back what was taken.
void layout_drop_locked(vofs_layout_t* layout) REQUIRES(vofs_lock);

/// Loads into vofs_buffers the pointer blocks that a file's block `blocks` would be added to; 0, or
/// -1 when one is missing or cannot be read.
[[nodiscard]] int pointers_load_locked(const vofs_inode& inode, uint32_t blocks)
    REQUIRES(vofs_lock);

/// Takes out of a file's pointer blocks what an append left there that did not come to its end:
/// pointers behind the file's first `blocks` blocks. 0 when there is nothing to take out any more;
/// -1 when a pointer block cannot be read or written, or holds what no append leaves.
int pointers_cut_locked(const vofs_inode& inode, uint32_t blocks) REQUIRES(vofs_lock);

// --- check ---------------------------------------------------------------------------------------

/// What a check found.
struct vofs_report_t {
    uint32_t errors;
    uint32_t used, referenced, marked;  ///< inodes; blocks by reference; blocks in the bitmap
    bool count_differs;                 ///< one of the errors is that the last two differ
    bool bitmap_differs;                ///< the bitmap is not what the inodes reference
    bool references_sure;               ///< each block is referenced once, and all were seen
    bool surplus;                       ///< a file has more blocks than its size needs
};

/// Checks the volume; its lines are printed unless `quiet`.
vofs_report_t fsck_locked(bool quiet) REQUIRES(vofs_lock);

/// The line of figures that ends a check.
void fsck_print_figures(const vofs_report_t& report);

/// blockfs_fsck_repair of a mounted volume.
[[nodiscard]] int fsck_repair_locked() REQUIRES(vofs_lock);
