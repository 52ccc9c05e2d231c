#include "kernel/fs/ramfs.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "kernel/core/heap_ptr.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

namespace {

struct ramfs_t {
    fs_node_t nodes[FS_NODES_MAX];
    size_t node_count;  ///< slots handed out so far
};

mutex_t lock;
ramfs_t fs GUARDED_BY(lock);

constexpr const char* INITIAL_DIRECTORIES[] = {"/bin", "/etc", "/tmp", "/home"};

struct initial_file_t {
    const char* path;
    const char* text;
};
constexpr initial_file_t INITIAL_FILES[] = {
    {"/home/demo.sl",
     "# Vorn demo script\n"
     "echo Hello from vorsh!\n"
     "set count 0\n"
     "while $count < 5\n"
     "  echo Count: $count\n"
     "  expr count $count + 1\n"
     "end\n"
     "echo Done counting.\n"
     "if $count == 5\n"
     "  echo Loop completed correctly.\n"
     "else\n"
     "  echo Something went wrong.\n"
     "end\n"},
    {"/etc/motd", "Try: programs, dmesg 5, events, status, showcase"},
    {"/etc/profile",
     "# Vorn login profile\n"
     "alias ll=ls\n"
     "alias la=ls\n"
     "alias cls=clear\n"
     "alias top=dashboard\n"
     "alias ?=help\n"
     "alias screenshare=fbstream\n"},
};

fs_node_t* root() NO_THREAD_SAFETY_ANALYSIS { return &fs.nodes[0]; }

/// Whether `node` still stands in the tree: a removed one has no parent.
bool is_live(const fs_node_t* node) {
    return node != nullptr && (node->parent != nullptr || node == root());
}

bool is_live_file(const fs_node_t* node) { return is_live(node) && node->type == FS_FILE; }

fs_node_t* find_child(const fs_node_t* dir, std::string_view name) {
    if (dir->type != FS_DIRECTORY)
        return nullptr;
    for (fs_node_t* child = dir->children; child != nullptr; child = child->next) {
        if (name == child->name)
            return child;
    }
    return nullptr;
}

fs_node_t* resolve_locked(std::string_view path) REQUIRES(lock) {
    if (path.empty())
        return nullptr;
    if (path.front() == '/')
        path.remove_prefix(1);
    fs_node_t* node = root();
    while (!path.empty() && node != nullptr) {
        const auto length =
            static_cast<size_t>(std::find(path.begin(), path.end(), '/') - path.begin());
        node = find_child(node, {path.data(), length});
        path.remove_prefix(std::min(length + 1, path.size()));
    }
    return node;
}

fs_node_t* resolve_locked(const char* path) REQUIRES(lock) {
    return path == nullptr ? nullptr : resolve_locked(std::string_view(path));
}

/// Where a new entry belongs.
struct place_t {
    fs_node_t* parent;  ///< null: there can be no such entry
    std::string_view name;
};

place_t find_place_locked(const char* path) REQUIRES(lock) {
    constexpr place_t NOWHERE = {nullptr, {}};
    if (path == nullptr)
        return NOWHERE;
    const char* slash = strrchr(path, '/');
    const std::string_view name = slash == nullptr ? path : slash + 1;
    const std::string_view parent_path =
        slash == nullptr || slash == path
            ? std::string_view("/")
            : std::string_view(path, static_cast<size_t>(slash - path));
    if (name.empty() || name.size() >= FS_NAME_SIZE || parent_path.size() > FS_PARENT_PATH_MAX)
        return NOWHERE;
    fs_node_t* parent = resolve_locked(parent_path);
    if (parent == nullptr || parent->type != FS_DIRECTORY || find_child(parent, name) != nullptr)
        return NOWHERE;
    return {parent, name};
}

/// Makes `node` its parent's newest entry. Who walks the list by hand sees it whole or not at all.
void link_locked(fs_node_t* node, const place_t& place) REQUIRES(lock) {
    memset(node->name, 0, sizeof node->name);
    memcpy(node->name, place.name.data(), place.name.size());
    node->parent = place.parent;
    node->next = place.parent->children;
    __atomic_store_n(&place.parent->children, node, __ATOMIC_RELEASE);
}

void unlink_locked(fs_node_t* node) REQUIRES(lock) {
    fs_node_t** link = &node->parent->children;
    while (*link != node)
        link = &(*link)->next;
    *link = node->next;
}

fs_node_t* create(const char* path, fs_type_t type) {
    mutex_guard guard(lock);
    const place_t place = find_place_locked(path);
    if (place.parent == nullptr || fs.node_count == FS_NODES_MAX)
        return nullptr;
    fs_node_t* node = &fs.nodes[fs.node_count++];
    *node = {};
    node->type = type;
    link_locked(node, place);
    causal_event_fmt(CAUSAL_FS, "fs", type == FS_DIRECTORY ? "mkdir %s" : "create %s", path);
    return node;
}

/// Gives a file a buffer for `size` bytes with its contents in it; the old one, if there is another
/// now, goes to `old`, for the new data may lie in it.
bool grow_locked(fs_node_t* node, size_t size, heap_ptr<uint8_t>* old) REQUIRES(lock) {
    if (node->capacity >= size)
        return true;
    if (size > HEAP_BYTES)
        return false;
    const size_t capacity = (size + FS_DATA_STEP - 1) / FS_DATA_STEP * FS_DATA_STEP;
    auto fresh = heap_ptr<uint8_t>::make(capacity);
    if (!fresh)
        return false;
    if (node->size > 0)
        memcpy(fresh.get(), node->data, node->size);
    old->reset(node->data);
    node->data = fresh.release();
    node->capacity = capacity;
    return true;
}

/// Puts `data` behind the first `keep` bytes.
int store_locked(fs_node_t* node, const void* data, size_t size, size_t keep) REQUIRES(lock) {
    heap_ptr<uint8_t> old;
    if (size > HEAP_BYTES || !grow_locked(node, keep + size, &old))
        return -1;
    if (size > 0)
        memmove(node->data + keep, data, size);
    node->size = keep + size;
    return 0;
}

void make_initial_contents() {
    for (const char* path : INITIAL_DIRECTORIES)
        fs_create_dir(path);
    for (const initial_file_t& file : INITIAL_FILES)
        fs_write(fs_create_file(file.path), file.text, strlen(file.text));
}

}  // namespace

void fs_init(void) {
    lock = {};
    {
        mutex_guard guard(lock);
        memset(&fs, 0, sizeof fs);
        string_copy(root()->name, "/", sizeof root()->name);
        root()->type = FS_DIRECTORY;
        fs.node_count = 1;
    }
    make_initial_contents();
}

fs_node_t* fs_root(void) { return root(); }

fs_node_t* fs_resolve(const char* path) {
    mutex_guard guard(lock);
    return resolve_locked(path);
}

fs_node_t* fs_create_file(const char* path) { return create(path, FS_FILE); }

fs_node_t* fs_create_dir(const char* path) { return create(path, FS_DIRECTORY); }

int fs_write(fs_node_t* node, const void* data, size_t size) {
    mutex_guard guard(lock);
    if (!is_live_file(node) || store_locked(node, data, size, 0) != 0)
        return -1;
    causal_event_fmt(CAUSAL_FS, "fs", "write %s (%u bytes)", node->name,
                     static_cast<uint32_t>(size));
    return 0;
}

int fs_append(fs_node_t* node, const void* data, size_t size) {
    mutex_guard guard(lock);
    if (!is_live_file(node) || store_locked(node, data, size, node->size) != 0)
        return -1;
    causal_event_fmt(CAUSAL_FS, "fs", "append %s (%u bytes)", node->name,
                     static_cast<uint32_t>(size));
    return 0;
}

int fs_reserve(fs_node_t* node, size_t size) {
    mutex_guard guard(lock);
    heap_ptr<uint8_t> old;
    return is_live_file(node) && grow_locked(node, size, &old) ? 0 : -1;
}

int32_t fs_read(fs_node_t* node, void* buf, size_t size, size_t offset) {
    mutex_guard guard(lock);
    if (!is_live_file(node))
        return -1;
    if (offset >= node->size)
        return 0;
    const size_t count = std::min(size, node->size - offset);
    memcpy(buf, node->data + offset, count);
    return static_cast<int32_t>(count);
}

int fs_remove(const char* path) {
    mutex_guard guard(lock);
    fs_node_t* node = resolve_locked(path);
    if (node == nullptr || node == root() || node->children != nullptr)
        return -1;
    unlink_locked(node);
    causal_event_fmt(CAUSAL_FS, "fs", "delete %s", path);
    kfree(node->data);
    *node = {};
    return 0;
}

int fs_rename(const char* old_path, const char* new_path) {
    mutex_guard guard(lock);
    fs_node_t* node = resolve_locked(old_path);
    const place_t place = find_place_locked(new_path);
    if (node == nullptr || node == root() || place.parent == nullptr)
        return -1;
    for (const fs_node_t* above = place.parent; above != nullptr; above = above->parent) {
        if (above == node)
            return -1;
    }
    unlink_locked(node);
    link_locked(node, place);
    causal_event_fmt(CAUSAL_FS, "fs", "rename %s -> %s", old_path, new_path);
    return 0;
}

int fs_stat(const char* path, struct sys_stat* st) {
    mutex_guard guard(lock);
    const fs_node_t* node = resolve_locked(path);
    if (node == nullptr)
        return -1;
    *st = {};
    st->size = static_cast<uint32_t>(node->size);
    st->type = node->type == FS_DIRECTORY ? SYS_STAT_DIRECTORY : SYS_STAT_FILE;
    st->inode = static_cast<uint32_t>(node - root());
    return 0;
}

int fs_list_names(const char* path, char* buf, size_t size) {
    constexpr size_t NEWLINE_AND_END = 2;
    mutex_guard guard(lock);
    const fs_node_t* dir = resolve_locked(path);
    if (dir == nullptr || dir->type != FS_DIRECTORY)
        return -1;
    int count = 0;
    size_t at = 0;
    for (const fs_node_t* child = dir->children; child != nullptr; child = child->next) {
        const size_t length = strlen(child->name);
        if (at + length + NEWLINE_AND_END >= size)
            continue;
        memcpy(buf + at, child->name, length);
        at += length;
        buf[at++] = '\n';
        ++count;
    }
    if (at < size)
        buf[at] = '\0';
    return count;
}
