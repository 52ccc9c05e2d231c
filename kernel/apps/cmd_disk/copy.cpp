// Copying and moving.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"

namespace {

/// Where something goes.
struct target_t {
    disk_entry_t entry;
    bool exists;
};

/// The place of `from` when it goes to `to`: in it, if that is a directory. False after a line.
bool find_target(const char* command, const disk_entry_t& from, const char* to, target_t* target) {
    if (!disk_name(command, to, target->entry.path))
        return false;
    target->exists = disk_look(target->entry.path, &target->entry);
    if (!target->exists || !disk_is_directory(target->entry))
        return true;
    char path[SHELL_PATH_BYTES];
    if (disk_path_join(target->entry.path, disk_base_name(from.path), path, sizeof path) != 0) {
        disk_complain(command, to, "name too long");
        return false;
    }
    target->exists = disk_look(path, &target->entry);
    if (!target->exists || !disk_is_directory(target->entry))
        return true;
    disk_complain(command, target->entry.path, "is a directory");
    return false;
}

/// Whether both are the same entry, which a line then says.
bool is_same(const char* command, const disk_entry_t& from, const target_t& to) {
    if (!to.exists || to.entry.stat.inode != from.stat.inode)
        return false;
    kprintf("%s: %s and %s are the same\n", command, from.path, to.entry.path);
    return true;
}

void copy_contents(const char* command, const disk_entry_t& from, int inode, const char* path) {
    disk_reader_t reader;
    if (!reader.open(command, from, DISK_COPY_BYTES))
        return;
    int got = 0;
    uint32_t done = 0;
    while ((got = reader.next()) > 0) {
        const auto length = static_cast<uint32_t>(got);
        const uint32_t stored = disk_append(path, inode, reader.data(), length);
        done += stored;
        if (stored == length)
            continue;
        kprintf("%s: %s: %u of %u bytes written: %s\n", command, path, done, from.stat.size,
                disk_append_why(path, inode));
        return;
    }
}

void copy(const char* command, const char* name, const char* to) {
    disk_entry_t from;
    target_t target;
    if (!disk_find_file(command, name, &from) || !find_target(command, from, to, &target) ||
        is_same(command, from, target))
        return;
    const char* path = target.entry.path;
    const int inode = target.exists ? static_cast<int>(target.entry.stat.inode)
                                    : blockfs_create(path, BLOCKFS_FILE);
    if (inode < 0 || blockfs_write_file(inode, nullptr, 0) != 0)
        disk_complain(command, path, disk_why(path));
    else
        copy_contents(command, from, inode, path);
}

bool is_below(const char* path, const char* directory) {
    const size_t length = strlen(directory);
    return strncmp(path, directory, length) == 0 && path[length] == '/';
}

/// Makes room for a file that takes the place of another; false after a line. What would keep the
/// renaming from succeeding is looked for first, so that the other is not lost for nothing.
bool make_room(const char* command, const disk_entry_t& from, const target_t& target) {
    const char* path = target.entry.path;
    disk_entry_t parent;
    const bool parent_fixed =
        disk_path_join(from.path, "..", parent.path, sizeof parent.path) != 0 ||
        !disk_look(parent.path, &parent) || (parent.stat.flags & BLOCKFS_READ_ONLY) != 0;
    const char* what = nullptr;
    if (disk_is_directory(from))
        what = "a file is in the way";
    else if ((from.stat.flags & BLOCKFS_READ_ONLY) != 0 || parent_fixed)
        what = "what is to be moved is read-only";
    else if (blockfs_remove(path) != 0)
        what = disk_why(path);
    if (what != nullptr)
        disk_complain(command, path, what);
    return what == nullptr;
}

void move(const char* command, const char* name, const char* to) {
    disk_entry_t from;
    target_t target;
    if (!disk_find(command, name, &from) || !find_target(command, from, to, &target) ||
        is_same(command, from, target))
        return;
    const char* path = target.entry.path;
    if (strcmp(from.path, "/") == 0 || is_below(path, from.path)) {
        disk_complain(command, name, "cannot go below itself");
        return;
    }
    if (target.exists && !make_room(command, from, target))
        return;
    if (blockfs_rename(from.path, path) == 0)
        return;
    const char* why = disk_why(from.path);
    if (strcmp(why, "read-only") != 0 && strcmp(why, "its directory is read-only") != 0)
        why = disk_why(path);
    disk_complain(command, name, why);
}

/// Runs `each` for all names but the last, which is where they go.
void for_sources(int argc, char** argv,
                 void (*each)(const char* command, const char* name, const char* to)) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 3) {
        kprintf("Usage: %s from... to\n", argv[0]);
        return;
    }
    disk_entry_t to;
    if (argc > 3) {
        if (!disk_find(argv[0], argv[argc - 1], &to))
            return;
        if (!disk_is_directory(to)) {
            disk_complain(argv[0], argv[argc - 1], "not a directory");
            return;
        }
    }
    for (int i = 1; i < argc - 1; ++i)
        each(argv[0], argv[i], argv[argc - 1]);
}

}  // namespace

void cmd_diskcp(int argc, char** argv) { for_sources(argc, argv, copy); }

void cmd_diskmv(int argc, char** argv) { for_sources(argc, argv, move); }
