// Both filesystems as one tree, as the file commands show it: a path is what the RAM filesystem
// holds there, else what VoFS holds. Writes go where the caller's route says (route.h); VoFS gets
// the directories that a path needs, and after a write there a RAM file of the same path is
// removed.
//
// Paths are absolute and normal (path.h) and shorter than PATH_BYTES. Nothing is locked between the
// calls, and each call may be several steps of the filesystems below, which lock themselves: a path
// that another task changes meanwhile gives an error, never another file's contents. Task context.
// Results are 0 or a count, else an OVERLAY_ code; nothing is printed. The filesystems record the
// events.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/heap_ptr.h"
#include "kernel/core/sys_stat.h"
#include "kernel/fs/blockfs.h"
#include "kernel/fs/path.h"
#include "kernel/fs/ramfs.h"
#include "kernel/fs/route.h"

enum overlay_error_t : int {
    OVERLAY_NOT_FOUND = -1,
    OVERLAY_IS_DIRECTORY = -2,
    OVERLAY_NOT_DIRECTORY = -3,
    OVERLAY_EXISTS = -4,
    OVERLAY_NOT_EMPTY = -5,
    OVERLAY_NO_DISK = -6,   ///< no volume is mounted
    OVERLAY_REFUSED = -7,   ///< by VoFS, for a reason that it does not tell
    OVERLAY_NO_SPACE = -8,  ///< on VoFS, for all of the data or for an entry
    OVERLAY_NO_MEMORY = -9,
    OVERLAY_NO_NODES = -10,  ///< the RAM filesystem's nodes are used up
    OVERLAY_TOO_LONG = -11,  ///< a path or a component
    OVERLAY_CHANGED = -12,   ///< another task removed or replaced the file
    OVERLAY_READ_ERROR = -13,
    OVERLAY_SAME = -14,        ///< source and destination are one
    OVERLAY_INSIDE = -15,      ///< a directory into itself
    OVERLAY_ACROSS = -16,      ///< a directory cannot move to the other filesystem
    OVERLAY_NOT_IN_RAM = -17,  ///< a RAM write below a directory that only VoFS has
    OVERLAY_IS_ROOT = -18,
    OVERLAY_READ_ONLY = -19,
    OVERLAY_FIXED = -20,        ///< the source of a renaming is read-only
    OVERLAY_HOLDS_FIXED = -21,  ///< a tree to be removed
};

/// The words for an OVERLAY_ code.
const char* overlay_error_text(int error);

struct overlay_stat_t {
    bool on_disk;
    struct sys_stat st;
};

/// A file that is read or written in pieces.
struct overlay_file_t {
    fs_node_t* node;  ///< null: on VoFS
    int inode;
    uint32_t size;  ///< when it was opened
    char path[PATH_BYTES];
};

/// What `path` is.
[[nodiscard]] int overlay_stat(const char* path, overlay_stat_t* out);

/// Whether `path` is a directory.
bool overlay_is_directory(const char* path);

/// The names of a directory of either filesystem, or of both together, each once and with a
/// newline, and a terminator, in `text`. The count of names; OVERLAY_NO_MEMORY where no text holds
/// them all.
[[nodiscard]] int overlay_list(const char* path, heap_ptr<char>* text);

/// Finds a file for overlay_read.
[[nodiscard]] int overlay_open(const char* path, overlay_file_t* out);

/// Copies up to `len` bytes from `offset`; the count, 0 at the end.
[[nodiscard]] int overlay_read(const overlay_file_t* file, void* buf, uint32_t offset,
                               uint32_t len);

/// Makes `data` the whole contents of `path`, all or nothing.
[[nodiscard]] int overlay_write(const char* path, vorn_fs_route_t route, const void* data,
                                uint32_t len);

/// Makes `path` an empty file for overlay_append, which will get `size` bytes in all. Without the
/// memory for them the old contents stay.
[[nodiscard]] int overlay_create(const char* path, vorn_fs_route_t route, uint32_t size,
                                 overlay_file_t* out);

/// Appends to a file of overlay_create.
[[nodiscard]] int overlay_append(const overlay_file_t* file, const void* data, uint32_t len);

/// Ends what overlay_create began.
void overlay_close(const overlay_file_t* file);

/// Makes a directory in one that exists.
[[nodiscard]] int overlay_mkdir(const char* path, vorn_fs_route_t route);

/// Makes an empty file, or sets the modification time of one on VoFS.
[[nodiscard]] int overlay_touch(const char* path, vorn_fs_route_t route);

/// Removes a file or an empty directory; a path that both filesystems hold goes from the RAM
/// filesystem only.
[[nodiscard]] int overlay_remove(const char* path);

/// overlay_remove with all below it.
[[nodiscard]] int overlay_remove_tree(const char* path);

/// Renames within one filesystem; a file takes the place of another file there. OVERLAY_ACROSS when
/// `route` leads to the other filesystem, OVERLAY_EXISTS when anything else is at `to`.
[[nodiscard]] int overlay_rename(const char* from, const char* to, vorn_fs_route_t route);
