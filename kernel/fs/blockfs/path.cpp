// Paths to inodes and back.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

constexpr uint32_t TOLD_LEVELS = 8;

/// Resolves the first `length` characters of a valid path.
uint32_t resolve_part_locked(const char* path, uint32_t length) REQUIRES(vofs_lock) {
    uint32_t inode = 0;
    for (uint32_t at = 1; at < length;) {
        uint32_t end = at;
        while (end < length && path[end] != '/')
            ++end;
        inode = index_find_locked(inode, path + at, end - at);
        if (inode == VOFS_NO_INODE)
            return VOFS_NO_INODE;
        at = end + 1;
    }
    return inode;
}

/// The same; what could not be found is looked for again among inodes that could not be read.
uint32_t resolve_locked(const char* path, uint32_t length) REQUIRES(vofs_lock) {
    const uint32_t inode = resolve_part_locked(path, length);
    if (inode != VOFS_NO_INODE || vofs.unknown == 0)
        return inode;
    index_complete_locked();
    return resolve_part_locked(path, length);
}

}  // namespace

uint32_t path_resolve_locked(const char* path) {
    if (!vofs.mounted || !vofs_path_valid(path))
        return VOFS_NO_INODE;
    return resolve_locked(path, static_cast<uint32_t>(strlen(path)));
}

bool path_target_locked(const char* path, vofs_target_t* target) {
    if (!vofs.mounted || !vofs_path_valid(path) || path[1] == '\0')
        return false;
    const char* slash = strrchr(path, '/');
    target->name = slash + 1;
    target->parent = resolve_locked(path, static_cast<uint32_t>(slash - path));
    return target->parent != VOFS_NO_INODE && entry_writable_locked(target->parent) &&
           vofs.index[target->parent].type == VOFS_DIRECTORY;
}

bool entry_writable_locked(uint32_t n) {
    return vofs.index[n].known && (vofs.index[n].flags & VOFS_READ_ONLY) == 0;
}

bool path_rebuild_locked(uint32_t n, char path[VOFS_TOLD_PATH]) {
    uint32_t start = VOFS_TOLD_PATH - 1;
    path[start] = '\0';
    for (uint32_t level = 0; n != 0 && level < TOLD_LEVELS; ++level) {
        const uint32_t length = vofs_name_length(vofs.index[n].name);
        if (length + 1 > start || vofs.index[n].parent >= vofs.sb.inode_count) {
            path[0] = '\0';
            return false;
        }
        start -= length;
        memcpy(path + start, vofs.index[n].name, length);
        path[--start] = '/';
        n = vofs.index[n].parent;
    }
    memmove(path, path + start, VOFS_TOLD_PATH - start);
    return true;
}

bool entry_below_locked(uint32_t n, uint32_t directory) {
    for (uint32_t steps = 0; steps < vofs.sb.inode_count; ++steps) {
        if (n == directory)
            return true;
        if (n == 0 || n >= vofs.sb.inode_count)
            return false;
        n = vofs.index[n].parent;
    }
    return false;
}
