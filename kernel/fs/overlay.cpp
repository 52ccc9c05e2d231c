#include "kernel/fs/overlay.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "kernel/core/string.h"

namespace {

constexpr size_t LIST_BYTES = 2 * FS_LIST_BYTES;  // of both, with a volume of 256 inodes
constexpr size_t LIST_BYTES_MAX = 8u << 20;

constexpr const char* ERRORS[] = {
    "no such file or directory",
    "is a directory",
    "not a directory",
    "file exists",
    "directory not empty",
    "no disk",
    "the disk fails or has too little room",
    "no space left on the disk",
    "out of memory",
    "the RAM filesystem has no entries left until the next start",
    "name too long",
    "changed by another task meanwhile",
    "disk read error",
    "source and destination are the same",
    "cannot be put into itself",
    "cannot move a directory to the other filesystem (cp -r copies it)",
    "its directory is on the disk; an absolute path writes there",
    "is the root of the tree",
    "it or its directory is read-only",
    "cannot be moved: it or its directory is read-only",
    "something in it is read-only, or the disk fails",
};

bool is_directory(const overlay_stat_t& entry) { return entry.st.type == SYS_STAT_DIRECTORY; }

/// The longest part of `path` above it that must be a directory already is one, or the error.
int check_parents(const char* path) {
    char above[PATH_BYTES];
    string_copy(above, path, sizeof above);
    for (char* slash = strchr(above + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        overlay_stat_t entry;
        if (overlay_stat(above, &entry) != 0)
            return 0;
        if (!is_directory(entry))
            return OVERLAY_NOT_DIRECTORY;
        *slash = '/';
    }
    return 0;
}

bool names_fit(const char* path) {
    while (*path != '\0') {
        const char* name = path + 1;
        path = strchr(name, '/');
        if (path == nullptr)
            return strlen(name) < FS_NAME_SIZE;
        if (static_cast<size_t>(path - name) >= FS_NAME_SIZE)
            return false;
    }
    return true;
}

/// What every write to `path` asks first: 0 when it is a file or nothing.
int check_target(const char* path, vorn_fs_route_t route) {
    if (!names_fit(path))
        return OVERLAY_TOO_LONG;
    if (overlay_is_directory(path))
        return OVERLAY_IS_DIRECTORY;
    if (const int error = check_parents(path); error != 0)
        return error;
    char parent[PATH_BYTES];
    path_parent(path, parent);
    if (route == VORN_ROUTE_BLOCK || fs_resolve(parent) != nullptr)
        return 0;
    return overlay_is_directory(parent) ? OVERLAY_NOT_IN_RAM : OVERLAY_NOT_FOUND;
}

bool is_read_only(const char* path) {
    struct sys_stat st;
    return blockfs_stat(path, &st) == 0 && (st.flags & BLOCKFS_READ_ONLY) != 0;
}

bool is_fixed(const char* path) {
    char parent[PATH_BYTES];
    path_parent(path, parent);
    return is_read_only(path) || is_read_only(parent);
}

/// Why VoFS refused a change at `path`, as far as it tells.
int refusal(const char* path) {
    uint32_t blocks = 1;
    uint32_t inodes = 1;
    if (is_fixed(path))
        return OVERLAY_READ_ONLY;
    const bool known = blockfs_df(nullptr, nullptr, &blocks, nullptr, nullptr, &inodes) == 0;
    return known && (blocks == 0 || inodes == 0) ? OVERLAY_NO_SPACE : OVERLAY_REFUSED;
}

/// Makes the directories on VoFS that `path` needs.
int make_disk_parents(const char* path) {
    if (!blockfs_mounted())
        return OVERLAY_NO_DISK;
    char parent[PATH_BYTES];
    path_parent(path, parent);
    return blockfs_mkdir_p(parent) == 0 ? 0 : refusal(parent);
}

/// A RAM file would hide what was written to VoFS.
void remove_ram_twin(const char* path) {
    const fs_node_t* node = fs_resolve(path);
    if (node != nullptr && node->type == FS_FILE)
        (void)fs_remove(path);
}

fs_node_t* ram_file(const char* path) {
    fs_node_t* node = fs_resolve(path);
    return node != nullptr ? node : fs_create_file(path);
}

int create_on_disk(const char* path, overlay_file_t* out) {
    if (const int error = make_disk_parents(path); error != 0)
        return error;
    out->inode = blockfs_resolve(path);
    if (out->inode < 0) {
        out->inode = blockfs_create(path, BLOCKFS_FILE);
        return out->inode < 0 ? refusal(path) : 0;
    }
    return blockfs_write_file(out->inode, "", 0) == 0 ? 0 : refusal(path);
}

int create_in_ram(const char* path, uint32_t size, overlay_file_t* out) {
    out->node = ram_file(path);
    if (out->node == nullptr)
        return OVERLAY_NO_NODES;
    const bool done = fs_reserve(out->node, size) == 0 && fs_write(out->node, "", 0) == 0;
    return done ? 0 : OVERLAY_NO_MEMORY;
}

/// Drops from the listing at `names` the lines that `seen` holds, and empty ones, which a line feed
/// in a name makes; returns how many stay.
int drop_seen(char* names, std::string_view seen) {
    int count = 0;
    char* end = names;
    for (const char* at = names; *at != '\0';) {
        const char* next = strchr(at, '\n') + 1;
        const std::string_view line(at, static_cast<size_t>(next - at));
        bool found = line.size() == 1;
        for (std::string_view rest = seen; !rest.empty() && !found;) {
            const auto stop = std::find(rest.begin(), rest.end(), '\n') + 1;
            found = line == std::string_view(rest.begin(), stop);
            rest = std::string_view(stop, rest.end());
        }
        if (!found) {
            memmove(end, at, line.size());
            end += line.size();
            ++count;
        }
        at = next;
    }
    *end = '\0';
    return count;
}

/// Lists both filesystems' entries; -1 when `size` bytes may not hold them all: a name that did not
/// fit is missing only where little room is left.
int list_into(const char* path, char* buf, size_t size) {
    buf[0] = '\0';
    const int in_ram = std::max(fs_list_names(path, buf, size), 0);
    const size_t length = strlen(buf);
    char* disk_names = buf + length;
    if (blockfs_list(path, disk_names, static_cast<int>(size - length)) < 0)
        *disk_names = '\0';
    if (strlen(buf) + BLOCKFS_NAME_MAX + 3 > size)
        return -1;
    return in_ram + drop_seen(disk_names, {buf, length});
}

/// Extends `path` to something below it that has nothing below itself, or leaves it.
int descend_in_ram(char* path) {
    char names[FS_NAME_SIZE + 3];  // room for the first name, however long
    while (fs_list_names(path, names, sizeof names) > 0) {
        *strchr(names, '\n') = '\0';
        if (!path_append(path, names, PATH_BYTES))
            return OVERLAY_TOO_LONG;
    }
    return 0;
}

int remove_ram_tree(const char* top) {
    char path[PATH_BYTES];
    for (int i = 0; i < FS_NODES_MAX; ++i) {
        string_copy(path, top, sizeof path);
        if (const int error = descend_in_ram(path); error != 0)
            return error;
        if (fs_remove(path) != 0)
            return OVERLAY_CHANGED;
        if (strcmp(path, top) == 0)
            return 0;
    }
    return OVERLAY_CHANGED;
}

int rename_on_disk(const char* from, const char* to) {
    if (const int error = make_disk_parents(to); error != 0)
        return error;
    if (blockfs_rename(from, to) == 0)
        return 0;
    return is_fixed(from) ? OVERLAY_FIXED : refusal(to);
}

/// Removes the file `to`, whose place `from` takes. What would keep `from` from moving is looked
/// for first, so that `to` is not lost for nothing.
int make_place(const char* from, const char* to, bool on_disk) {
    if (!on_disk)
        return fs_remove(to) == 0 ? 0 : OVERLAY_CHANGED;
    if (is_fixed(from))
        return OVERLAY_FIXED;
    return blockfs_remove(to) == 0 ? 0 : refusal(to);
}

}  // namespace

const char* overlay_error_text(int error) {
    const auto index = static_cast<size_t>(-(error + 1));
    return index < std::size(ERRORS) ? ERRORS[index] : strerror(error);
}

int overlay_stat(const char* path, overlay_stat_t* out) {
    out->on_disk = false;
    if (fs_stat(path, &out->st) == 0)
        return 0;
    out->on_disk = true;
    return blockfs_stat(path, &out->st) == 0 ? 0 : OVERLAY_NOT_FOUND;
}

bool overlay_is_directory(const char* path) {
    overlay_stat_t entry;
    return overlay_stat(path, &entry) == 0 && is_directory(entry);
}

int overlay_list(const char* path, heap_ptr<char>* text) {
    overlay_stat_t entry;
    if (overlay_stat(path, &entry) != 0)
        return OVERLAY_NOT_FOUND;
    if (!is_directory(entry))
        return OVERLAY_NOT_DIRECTORY;
    for (size_t size = LIST_BYTES; size <= LIST_BYTES_MAX; size *= 2) {
        *text = heap_ptr<char>::make(size);
        if (!*text)
            return OVERLAY_NO_MEMORY;
        const int count = list_into(path, text->get(), size);
        if (count >= 0)
            return count;
    }
    return OVERLAY_NO_MEMORY;
}

int overlay_open(const char* path, overlay_file_t* out) {
    overlay_stat_t entry;
    if (overlay_stat(path, &entry) != 0)
        return OVERLAY_NOT_FOUND;
    if (is_directory(entry))
        return OVERLAY_IS_DIRECTORY;
    *out = {};
    out->inode = static_cast<int>(entry.st.inode);
    out->size = entry.st.size;
    string_copy(out->path, path, sizeof out->path);
    if (entry.on_disk)
        return 0;
    out->node = fs_resolve(path);
    return out->node != nullptr ? 0 : OVERLAY_NOT_FOUND;
}

int overlay_read(const overlay_file_t* file, void* buf, uint32_t offset, uint32_t len) {
    if (file->node != nullptr) {
        const int count = fs_read(file->node, buf, len, offset);
        return count < 0 ? OVERLAY_CHANGED : count;
    }
    // A removed file's inode number may be another's by now.
    if (blockfs_resolve(file->path) != file->inode)
        return OVERLAY_CHANGED;
    const int count = blockfs_read_file(file->inode, buf, offset, len);
    return count < 0 ? OVERLAY_READ_ERROR : count;
}

int overlay_write(const char* path, vorn_fs_route_t route, const void* data, uint32_t len) {
    if (const int error = check_target(path, route); error != 0)
        return error;
    if (route == VORN_ROUTE_RAM) {
        fs_node_t* node = ram_file(path);
        if (node == nullptr)
            return OVERLAY_NO_NODES;
        return fs_write(node, data, len) == 0 ? 0 : OVERLAY_NO_MEMORY;
    }
    if (const int error = make_disk_parents(path); error != 0)
        return error;
    if (blockfs_replace_file(path, data, len) != 0)
        return refusal(path);
    remove_ram_twin(path);
    return 0;
}

int overlay_create(const char* path, vorn_fs_route_t route, uint32_t size, overlay_file_t* out) {
    if (const int error = check_target(path, route); error != 0)
        return error;
    *out = {};
    out->size = size;
    string_copy(out->path, path, sizeof out->path);
    return route == VORN_ROUTE_RAM ? create_in_ram(path, size, out) : create_on_disk(path, out);
}

int overlay_append(const overlay_file_t* file, const void* data, uint32_t len) {
    if (file->node != nullptr)
        return fs_append(file->node, data, len) == 0 ? 0 : OVERLAY_CHANGED;
    if (blockfs_resolve(file->path) != file->inode)
        return OVERLAY_CHANGED;
    const int count = blockfs_append_file(file->inode, data, len);
    if (count < 0)
        return refusal(file->path);
    return static_cast<uint32_t>(count) == len ? 0 : OVERLAY_NO_SPACE;
}

void overlay_close(const overlay_file_t* file) {
    if (file->node == nullptr)
        remove_ram_twin(file->path);
}

int overlay_mkdir(const char* path, vorn_fs_route_t route) {
    overlay_stat_t entry;
    if (overlay_stat(path, &entry) == 0)
        return OVERLAY_EXISTS;
    if (const int error = check_target(path, route); error != 0)
        return error;
    if (route == VORN_ROUTE_RAM)
        return fs_create_dir(path) != nullptr ? 0 : OVERLAY_NO_NODES;
    if (!blockfs_mounted())
        return OVERLAY_NO_DISK;
    char parent[PATH_BYTES];
    path_parent(path, parent);
    if (!overlay_is_directory(parent))
        return OVERLAY_NOT_FOUND;
    if (const int error = make_disk_parents(path); error != 0)
        return error;
    return blockfs_create(path, BLOCKFS_DIRECTORY) < 0 ? refusal(path) : 0;
}

int overlay_touch(const char* path, vorn_fs_route_t route) {
    overlay_stat_t entry;
    if (overlay_stat(path, &entry) == 0) {
        const bool done = !entry.on_disk || blockfs_touch(path) == 0;
        return done ? 0 : refusal(path);
    }
    if (const int error = check_target(path, route); error != 0)
        return error;
    if (route == VORN_ROUTE_RAM)
        return fs_create_file(path) != nullptr ? 0 : OVERLAY_NO_NODES;
    if (const int error = make_disk_parents(path); error != 0)
        return error;
    return blockfs_create(path, BLOCKFS_FILE) < 0 ? refusal(path) : 0;
}

int overlay_remove(const char* path) {
    overlay_stat_t entry;
    if (strcmp(path, "/") == 0)
        return OVERLAY_IS_ROOT;
    if (overlay_stat(path, &entry) != 0)
        return OVERLAY_NOT_FOUND;
    if (!entry.on_disk)
        return fs_remove(path) == 0 ? 0 : OVERLAY_NOT_EMPTY;
    if (blockfs_remove(path) == 0)
        return 0;
    char name[FS_NAME_SIZE + 3];
    return blockfs_list(path, name, sizeof name) > 0 ? OVERLAY_NOT_EMPTY : refusal(path);
}

int overlay_remove_tree(const char* path) {
    overlay_stat_t entry;
    if (strcmp(path, "/") == 0)
        return OVERLAY_IS_ROOT;
    if (overlay_stat(path, &entry) != 0)
        return OVERLAY_NOT_FOUND;
    if (!entry.on_disk)
        return remove_ram_tree(path);
    if (blockfs_remove_recursive(path) == 0)
        return 0;
    return is_directory(entry) && !is_fixed(path) ? OVERLAY_HOLDS_FIXED : refusal(path);
}

int overlay_rename(const char* from, const char* to, vorn_fs_route_t route) {
    overlay_stat_t entry;
    if (overlay_stat(from, &entry) != 0)
        return OVERLAY_NOT_FOUND;
    if (strcmp(from, "/") == 0)
        return OVERLAY_IS_ROOT;
    if (path_is_below(to, from))
        return OVERLAY_INSIDE;
    if (entry.on_disk != (route == VORN_ROUTE_BLOCK))
        return OVERLAY_ACROSS;
    overlay_stat_t target;
    const bool exists = overlay_stat(to, &target) == 0;
    if (exists && (is_directory(entry) || is_directory(target) || target.on_disk != entry.on_disk))
        return OVERLAY_EXISTS;
    if (const int error = check_target(to, route); error != 0)
        return error;
    if (exists) {
        if (const int error = make_place(from, to, entry.on_disk); error != 0)
            return error;
    }
    if (entry.on_disk)
        return rename_on_disk(from, to);
    return fs_rename(from, to) == 0 ? 0 : OVERLAY_CHANGED;
}
