// The RAM filesystem: the volatile file tree, a fixed pool of nodes with contents in heap buffers.
// It begins with a few directories and files and is lost at shutdown.
//
//   slot 0 "/" --children--> newest entry --next--> older --next--> ... --next--> oldest
//                                 |parent = "/"
//
// Invariants: names are unique within a directory, not empty and at most 63 characters; only files
// have data. Slots are handed out in order and never again: a node's address stays good until the
// next boot, and the slot of a removed node is all zero, which every call on it refuses. So 255
// files and directories can be made between two boots, removed ones included.
//
// Paths are resolved from the root, with or without a leading "/"; one "/" may stand at the end.
// "." and ".." are ordinary names, and an empty component matches nothing.
//
// One sleeping lock serialises every call, so that tasks may use the tree at once and each call is
// one step to the others; only events and heap calls happen under it. Task context only. Who walks
// `children` and `next` by hand sees each node whole; the walk ends early where a node is removed
// under it. fs_list_names is the listing that nothing can disturb.
//
// An int result is 0 or a count on success and -1 on failure; nothing is printed. Events are
// CAUSAL_FS "fs".
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/sys_stat.h"

constexpr int FS_NODES_MAX = 256;           ///< the root included
constexpr size_t FS_NAME_SIZE = 64;         ///< of a component, with the terminator
constexpr size_t FS_PARENT_PATH_MAX = 255;  ///< characters of a new entry's directory
constexpr size_t FS_DATA_STEP = 256;        ///< contents grow in multiples of it

enum fs_type_t : uint32_t {
    FS_FILE = 0,
    FS_DIRECTORY = 1,
};

/// A file or directory. It changes under the lock only.
struct fs_node_t {
    char name[FS_NAME_SIZE];  ///< its own, not its path; "/" for the root
    fs_type_t type;
    uint8_t* data;    ///< null until first written
    size_t size;      ///< bytes of contents
    size_t capacity;  ///< bytes of `data`, a multiple of FS_DATA_STEP
    fs_node_t* parent;
    fs_node_t* children;  ///< newest first
    fs_node_t* next;
};

/// Resets the pool, forgetting what it held, and makes the initial directories and files. Start-up,
/// once, after heap_init. Records what making them records.
void fs_init(void);

/// The root.
fs_node_t* fs_root(void);

/// The node of `path`, or null.
[[nodiscard]] fs_node_t* fs_resolve(const char* path);

/// Makes an empty file in a directory that exists; null when the path exists, its directory does
/// not, its name is empty or longer than 63 characters, or all nodes are used up.
/// Records "create %s" with the path as given.
fs_node_t* fs_create_file(const char* path);

/// fs_create_file for a directory. Records "mkdir %s".
fs_node_t* fs_create_dir(const char* path);

/// Replaces a file's contents. The old ones stay when memory for the new ones is out.
/// Records "write %s (%u bytes)" with the node's name.
int fs_write(fs_node_t* node, const void* data, size_t size);

/// Appends to a file's contents, which stay when memory is out.
/// Records "append %s (%u bytes)" with the node's name.
int fs_append(fs_node_t* node, const void* data, size_t size);

/// Makes room for contents of `size` bytes in all, so that appending up to there copies nothing and
/// cannot fail. Records nothing.
[[nodiscard]] int fs_reserve(fs_node_t* node, size_t size);

/// Copies up to `size` bytes from `offset` of a file; the count, 0 at or past the end.
int32_t fs_read(fs_node_t* node, void* buf, size_t size, size_t offset);

/// Removes a file or an empty directory, not the root. Records "delete %s" with the path as given.
int fs_remove(const char* path);

/// Moves or renames an entry, not the root; `new_path` must not exist, nor lie below `old_path`.
/// Takes no new node. Records "rename %s -> %s".
int fs_rename(const char* old_path, const char* new_path);

/// Fills `st`: size, type, the slot's number as inode, the rest 0.
int fs_stat(const char* path, struct sys_stat* st);

/// Writes the names of a directory's entries, newest first, each with a newline, and a terminator;
/// the count of names written. A name that would leave less than two bytes of `size` is left out;
/// FS_LIST_BYTES hold every listing.
int fs_list_names(const char* path, char* buf, size_t size);
constexpr size_t FS_LIST_BYTES = FS_NODES_MAX * FS_NAME_SIZE + 2;
