// The tree of entries: create, remove, rename. An entry is one inode, so each of these changes one
// sector; what follows it (the directory's time, the bitmap) may be lost without harm.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"
#include "kernel/graph/causal.h"

namespace {

void record_path(const char* what, const char* path) {
    causal_event_fmt(CAUSAL_FS, "vofs", "%s %s pid=%d", what, path, task_getpid());
}

bool is_directory_locked(uint32_t n) REQUIRES(vofs_lock) {
    return vofs.index[n].type == VOFS_DIRECTORY;
}

bool has_entries_locked(uint32_t n) REQUIRES(vofs_lock) {
    return is_directory_locked(n) && index_next_entry_locked(n, 0) != VOFS_NO_INODE;
}

/// The entry of `path` other than the root, if its directory may be changed.
uint32_t movable_locked(const char* path) REQUIRES(vofs_lock) {
    const uint32_t n = path_resolve_locked(path);
    if (n == VOFS_NO_INODE || n == 0 || !entry_writable_locked(n))
        return VOFS_NO_INODE;
    return entry_writable_locked(vofs.index[n].parent) ? n : VOFS_NO_INODE;
}

/// The same, if all is known that may lie in it: an inode that cannot be read may lie anywhere.
uint32_t removable_locked(const char* path) REQUIRES(vofs_lock) {
    const uint32_t n = movable_locked(path);
    const bool known = n == VOFS_NO_INODE || !is_directory_locked(n) || index_complete_locked();
    return known ? n : VOFS_NO_INODE;
}

/// Frees inode `n`, then what it reached; the bitmap is still to be flushed.
int erase_locked(uint32_t n) REQUIRES(vofs_lock) {
    vofs_inode inode;
    if (inode_read_locked(n, &inode) != 0)
        return -1;
    const vofs_inode free = {};
    if (inode_write_locked(n, free) != vofs_stored::yes)
        return -1;
    release_blocks_locked(inode);
    return 0;
}

int remove_locked(const char* path) REQUIRES(vofs_lock) {
    if (!vofs.mounted || !vofs_path_valid(path))
        return -1;
    record_path("delete", path);
    const uint32_t n = removable_locked(path);
    if (n == VOFS_NO_INODE || has_entries_locked(n))
        return -1;
    const uint32_t parent = vofs.index[n].parent;
    if (erase_locked(n) != 0)
        return -1;
    bitmap_flush_locked();
    inode_touch_locked(parent);
    return 0;
}

bool read_only_below_locked(uint32_t top) REQUIRES(vofs_lock) {
    for (uint32_t n = 1; n < vofs.sb.inode_count; ++n) {
        const vofs_entry_t& entry = vofs.index[n];
        if (entry.known && entry.type != VOFS_FREE && !entry_writable_locked(n) &&
            entry_below_locked(n, top))
            return true;
    }
    return false;
}

/// Removes `top` and all below it, deepest first.
int erase_tree_locked(uint32_t top) REQUIRES(vofs_lock) {
    uint32_t n = top;
    for (uint32_t steps = 0; steps < 2 * vofs.sb.inode_count; ++steps) {
        if (has_entries_locked(n)) {
            n = index_next_entry_locked(n, 0);
            continue;
        }
        const uint32_t parent = vofs.index[n].parent;
        if (erase_locked(n) != 0)
            return -1;
        if (n == top)
            return 0;
        n = parent;
    }
    return -1;
}

int remove_recursive_locked(const char* path) REQUIRES(vofs_lock) {
    const uint32_t n = removable_locked(path);
    if (n == VOFS_NO_INODE || read_only_below_locked(n))
        return -1;
    record_path("delete-tree", path);
    const uint32_t parent = vofs.index[n].parent;
    const int failed = erase_tree_locked(n);
    bitmap_flush_locked();
    if (failed != 0)
        return failed;
    inode_touch_locked(parent);
    return 0;
}

/// The type of what was renamed, or -1.
int rename_locked(const char* old_path, const char* new_path) REQUIRES(vofs_lock) {
    const uint32_t n = movable_locked(old_path);
    vofs_target_t target;
    if (n == VOFS_NO_INODE || !path_target_locked(new_path, &target))
        return -1;
    if (path_resolve_locked(new_path) != VOFS_NO_INODE || entry_below_locked(target.parent, n))
        return -1;
    vofs_inode inode;
    if (inode_read_locked(n, &inode) != 0)
        return -1;
    causal_event_fmt(CAUSAL_FS, "vofs", "rename %s -> %s pid=%d", old_path, new_path,
                     task_getpid());
    const uint32_t old_parent = inode.parent_inode;
    inode.parent_inode = target.parent;
    strncpy(inode.name, target.name, VOFS_NAME_SIZE);
    inode.mtime_ticks = vofs_now();
    if (inode_write_locked(n, inode) != vofs_stored::yes)
        return -1;
    inode_touch_locked(old_parent);
    if (target.parent != old_parent)
        inode_touch_locked(target.parent);
    return static_cast<int>(inode.type);
}

int op_of_creation(int type) {
    return type == BLOCKFS_DIRECTORY ? BLOCKFS_OP_MKDIR : BLOCKFS_OP_CREATE;
}

/// Creates the directory if it is missing: 1 if so, 0 if it is there, -1 on failure.
int mkdir_missing(const char* path) {
    const mutex_guard guard(vofs_lock);
    const uint32_t n = path_resolve_locked(path);
    if (n != VOFS_NO_INODE)
        return is_directory_locked(n) ? 0 : -1;
    return create_locked(path, BLOCKFS_DIRECTORY) >= 0 ? 1 : -1;
}

}  // namespace

void inode_make(uint32_t type, uint32_t parent, const char* name, vofs_inode* inode) {
    *inode = {};
    inode->type = type;
    inode->parent_inode = parent;
    string_copy(inode->name, name, VOFS_NAME_SIZE);
    inode->ctime_ticks = inode->mtime_ticks = vofs_now();
}

int create_locked(const char* path, int type) {
    vofs_target_t target;
    if ((type != BLOCKFS_FILE && type != BLOCKFS_DIRECTORY) || !path_target_locked(path, &target))
        return -1;
    if (path_resolve_locked(path) != VOFS_NO_INODE)
        return -1;
    const uint32_t n = index_free_inode_locked();
    if (n == VOFS_NO_INODE)
        return -1;
    vofs_inode inode;
    inode_make(static_cast<uint32_t>(type), target.parent, target.name, &inode);
    if (inode_write_locked(n, inode) != vofs_stored::yes)
        return -1;
    inode_touch_locked(target.parent);
    record_path("create", path);
    return static_cast<int>(n);
}

int blockfs_create(const char* path, int type) {
    int n = -1;
    {
        const mutex_guard guard(vofs_lock);
        n = create_locked(path, type);
    }
    if (n >= 0)
        vofs_tell(op_of_creation(type), path, nullptr, 0);
    return n;
}

int blockfs_mkdir_p(const char* path) {
    if (!blockfs_mounted() || !vofs_path_valid(path))
        return -1;
    char part[BLOCKFS_PATH_MAX + 1];
    for (uint32_t end = 1; path[end - 1] != '\0'; ++end) {
        part[end - 1] = path[end - 1];
        if (end == 1 || (path[end] != '/' && path[end] != '\0'))
            continue;
        part[end] = '\0';
        const int made = mkdir_missing(part);
        if (made < 0)
            return -1;
        if (made > 0)
            vofs_tell(BLOCKFS_OP_MKDIR, part, nullptr, 0);
    }
    return 0;
}

int blockfs_remove(const char* path) {
    {
        const mutex_guard guard(vofs_lock);
        if (remove_locked(path) != 0)
            return -1;
    }
    vofs_tell(BLOCKFS_OP_DELETE, path, nullptr, 0);
    return 0;
}

int blockfs_remove_recursive(const char* path) {
    {
        const mutex_guard guard(vofs_lock);
        if (remove_recursive_locked(path) != 0)
            return -1;
    }
    vofs_tell(BLOCKFS_OP_DELETE, path, nullptr, 0);
    return 0;
}

int blockfs_rename(const char* old_path, const char* new_path) {
    if (!blockfs_mounted() || !vofs_path_valid(old_path) || !vofs_path_valid(new_path))
        return -1;
    if (strcmp(old_path, new_path) == 0)
        return 0;
    int type = -1;
    {
        const mutex_guard guard(vofs_lock);
        type = rename_locked(old_path, new_path);
    }
    if (type < 0)
        return -1;
    vofs_tell(op_of_creation(type), new_path, nullptr, 0);
    vofs_tell(BLOCKFS_OP_DELETE, old_path, nullptr, 0);
    return 0;
}
