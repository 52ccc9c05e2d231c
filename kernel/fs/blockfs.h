// VoFS, the persistent filesystem on the block device: a table of inodes, one a sector, a bitmap
// of the data area, and files of up to 16524 sectors. docs/formats/vofs.md has the bytes.
//
// Paths are absolute: they begin with "/", have at most 255 characters, and are "/" or components
// of 1 to 63 characters separated by single "/"; "." and ".." are no components. An inode number
// stays a file's own until the file is removed. Data are copied or handed to the device during the
// call; the caller's buffers may lie anywhere and have any length.
//
// One sleeping lock serialises every call, so several tasks may use the volume at once; each call
// is one step to the others, except blockfs_mkdir_p, which is one for each directory. Task context
// only; the lock stands below the journal's and above the block device's. Unmounted, every call
// gives -1. Unless a function says otherwise: an int result is -1 on failure, and nothing is
// printed but "[vofs]" and "[fsck]" lines about a device that fails.
//
// What survives a power cut at any sector write: the volume mounts; entries that were not being
// changed are untouched; a file being written holds a prefix of its old or new contents, or none;
// one being replaced (blockfs_replace_file) holds all of the old or all of the new.
//
// Events are CAUSAL_FS "vofs" and end in "pid=%d", the calling task's.
#pragma once

#include <stdint.h>

#include "kernel/core/sys_stat.h"

constexpr int BLOCKFS_FILE = 1;       ///< type of a file
constexpr int BLOCKFS_DIRECTORY = 2;  ///< type of a directory
constexpr uint32_t BLOCKFS_BLOCK_BYTES = 512;
constexpr uint32_t BLOCKFS_FILE_BYTES_MAX = 8460288;
constexpr uint32_t BLOCKFS_PATH_MAX = 255;          ///< characters, without the terminator
constexpr uint32_t BLOCKFS_NAME_MAX = 63;           ///< characters of a component
constexpr uint32_t BLOCKFS_READ_ONLY = 1;           ///< the one flag
constexpr const char* BLOCKFS_RECORDS = "/causal";  ///< folder of the system's own records

/// What happened to a path.
enum blockfs_op_t : int {
    BLOCKFS_OP_CREATE = 1,
    BLOCKFS_OP_WRITE = 2,   ///< `data` is the new contents
    BLOCKFS_OP_DELETE = 3,  ///< the entry with all below it
    BLOCKFS_OP_MKDIR = 4,
    BLOCKFS_OP_APPEND = 5,  ///< `data` is what was appended
};

/// Is told of every change that succeeded, by the task that made it, after the lock was released.
/// The arguments are good during the call. `data` is null and `len` 0 where there are none.
using blockfs_change_fn = void (*)(int op, const char* path, const void* data, uint32_t len);

/// What the sector cache did since it was last cleared.
struct blockfs_cache_stats_t {
    uint32_t hits;           ///< sectors found in it
    uint32_t misses;         ///< sectors read one at a time from the device
    uint32_t writes;         ///< write requests, of one sector or more
    uint32_t invalidations;  ///< sectors dropped because a longer write covered them
};

// --- Start ---------------------------------------------------------------------------------------

/// Mounts the volume on the block device; formats it first when it carries no superblock. 0, or -1
/// after a line that says why (silent without a device or memory). Mounting finishes what a power
/// cut left half done: a format, an append, the bitmap. Forgets a volume mounted before without
/// freeing its memory. Start-up, once.
/// Records "format %u sectors pid=%d" or "mount %u sectors, %d files pid=%d".
[[nodiscard]] int blockfs_init();

/// Whether a volume is mounted. Any context.
bool blockfs_mounted();

/// Frees what the mounted volume holds in memory and leaves it unmounted; nothing is written, for
/// nothing is ever outstanding. For host tools and tests: the machine itself never unmounts.
void blockfs_forget();

/// Installs what is told of changes (null: nobody), in the task that made them, without VoFS's
/// lock. Touching and changing flags are not told. A rename is told as the creation of the new path
/// and the deletion of the old one. A write or append whose path has 128 characters or more is not
/// told; of a path deeper than 8 levels only the 8 lowest are. Nothing in BLOCKFS_RECORDS is told:
/// it belongs to this machine alone, and its writers hold locks that the hook may need, for it may
/// look events up.
void blockfs_set_change_hook(blockfs_change_fn hook);

// --- Paths ---------------------------------------------------------------------------------------

/// The inode number of `path`, 0 for "/"; -1 when there is no such entry.
[[nodiscard]] int blockfs_resolve(const char* path);

/// Creates an empty file or directory (BLOCKFS_FILE, BLOCKFS_DIRECTORY) in a directory that exists
/// and is not read-only; its inode number. -1 when the path exists or all inodes are used.
/// Records "create %s pid=%d".
int blockfs_create(const char* path, int type);

/// Creates every missing directory along `path`; 0, also when all are there.
/// Records "create %s pid=%d" for each.
int blockfs_mkdir_p(const char* path);

/// Removes a file or an empty directory; 0. Neither it nor its directory may be read-only. No
/// directory is removed while an inode cannot be read, for that may lie in it.
/// Records "delete %s pid=%d" for a valid path, also when the removal then fails.
int blockfs_remove(const char* path);

/// Removes a file or a directory with all below it; 0. Nothing of it may be read-only, nor the
/// directory it lies in; then nothing is removed. Records "delete-tree %s pid=%d".
int blockfs_remove_recursive(const char* path);

/// Moves or renames; 0, also when both paths are equal. `new_path` must not exist, nor lie below a
/// directory `old_path`; entry and both directories must not be read-only.
/// Records "rename %s -> %s pid=%d".
int blockfs_rename(const char* old_path, const char* new_path);

/// Writes the names of a directory's entries, each with a newline, in inode order, and a
/// terminator; the count of names written. A name that would leave less than two bytes of
/// `bufsize` is left out. A size of 16641 holds every listing of a volume of 256 inodes.
int blockfs_list(const char* path, char* buf, int bufsize);

/// Fills `st`; 0. Its `blocks` counts data and pointer blocks.
int blockfs_stat(const char* path, struct sys_stat* st);

/// Sets the modification time to now, or creates an empty file; 0. Refused for read-only entries.
/// Records "touch %s pid=%d", or what blockfs_create records.
int blockfs_touch(const char* path);

/// Stores `flags` & BLOCKFS_READ_ONLY and sets the modification time; 0.
int blockfs_set_flags(const char* path, uint32_t flags);

// --- Contents ------------------------------------------------------------------------------------

/// Copies up to `len` bytes from `offset` of a file; the count, 0 at the end of the file. A device
/// that fails ends the copy early; -1 when nothing was copied, or `inode` is not a file.
int blockfs_read_file(int inode, void* buf, uint32_t offset, uint32_t len);

/// Replaces a file's contents; the bytes stored, fewer than `len` when the disk is full, the device
/// fails or `len` exceeds BLOCKFS_FILE_BYTES_MAX. The old blocks are released first. -1 for what is
/// not a writable file. Records "write %s (%u bytes) pid=%d" with the entry's own name.
int blockfs_write_file(int inode, const void* data, uint32_t len);

/// Appends to a file; the bytes appended, 0 when it is full or `len` is 0. -1 for what is not a
/// writable file, null data, or when the last step, the inode, cannot be written.
int blockfs_append_file(int inode, const void* data, uint32_t len);

/// Cuts or zero-extends a file to `new_size` bytes, at most BLOCKFS_FILE_BYTES_MAX; 0. Takes a heap
/// block of that size. Records what blockfs_write_file records.
int blockfs_truncate_file(int inode, uint32_t new_size);

/// blockfs_truncate_file by path.
int blockfs_truncate(const char* path, uint32_t new_size);

/// Makes `data` the whole contents of the file `path`, creating it when missing: all or nothing.
/// The new blocks are taken beside the old ones and one sector write, the inode's, changes over, so
/// neither a failure nor a power cut at any point leaves anything but the old state or the new one;
/// no second name is involved. 0, or -1 with the old contents in place: no room for both, `len`
/// above BLOCKFS_FILE_BYTES_MAX, a device that fails, a read-only entry, no such directory.
/// Records "create %s pid=%d" when missing, "write %s (%u bytes) pid=%d".
[[nodiscard]] int blockfs_replace_file(const char* path, const void* data, uint32_t len);

// --- The volume ----------------------------------------------------------------------------------

/// Usage of the data area in blocks and of the inode table; 0. Null pointers are left out.
int blockfs_df(uint32_t* total_blocks, uint32_t* used_blocks, uint32_t* free_blocks,
               uint32_t* total_inodes, uint32_t* used_inodes, uint32_t* free_inodes);

/// Checks the whole volume and prints an "[fsck]" line for each fault and one of figures; changes
/// nothing. 0 when it is sound. After 1000 faults the rest is counted, not printed.
int blockfs_fsck();

/// Rebuilds the bitmap from what the inodes reference and says so; 0. -1 with the bitmap untouched
/// when references contradict each other or cannot be read, or -1 when it could not be written.
int blockfs_fsck_repair();

/// Copies the counters (null: nothing).
void blockfs_cache_stats(blockfs_cache_stats_t* stats);

/// Empties the sector cache and zeroes the counters.
void blockfs_cache_clear();
