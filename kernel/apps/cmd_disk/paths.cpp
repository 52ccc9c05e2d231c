// Names and paths: the working directory, and what a name means.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs.h"

namespace {

/// Whether no component of a joined path is longer than the volume allows.
bool components_fit(const char* path) {
    uint32_t length = 0;
    for (; *path != '\0'; ++path) {
        length = *path == '/' ? 0 : length + 1;
        if (length > BLOCKFS_NAME_MAX)
            return false;
    }
    return true;
}

void copy_cwd(char out[SHELL_PATH_BYTES]) {
    const irq_guard guard;
    string_copy(out, disk_cwd, SHELL_PATH_BYTES);
}

}  // namespace

int disk_make_path(const char* name, char* out, size_t size) {
    char cwd[SHELL_PATH_BYTES];
    copy_cwd(cwd);
    return disk_path_join(cwd, name, out, size);
}

bool disk_ready(const char* command) {
    if (blockfs_mounted())
        return true;
    kprintf("%s: %s\n", command, blk_present() ? "the disk holds no volume" : "no disk");
    return false;
}

void disk_complain(const char* command, const char* name, const char* what) {
    kprintf("%s: %s: %s\n", command, name, what);
}

bool disk_name(const char* command, const char* name, char path[SHELL_PATH_BYTES]) {
    // It would be the working directory: too easily what a script's variable lacks.
    if (name[0] == '\0') {
        disk_complain(command, "\"\"", "no such file or directory");
        return false;
    }
    const bool fits = disk_make_path(name, path, SHELL_PATH_BYTES) == 0 && components_fit(path);
    if (!fits)
        disk_complain(command, name, "name too long");
    return fits;
}

bool disk_look(const char* path, disk_entry_t* entry) {
    if (path != entry->path)
        string_copy(entry->path, path, sizeof entry->path);
    entry->stat = {};
    return blockfs_stat(path, &entry->stat) == 0;
}

bool disk_find(const char* command, const char* name, disk_entry_t* entry) {
    if (!disk_name(command, name, entry->path))
        return false;
    if (disk_look(entry->path, entry))
        return true;
    disk_complain(command, name, "no such file or directory");
    return false;
}

bool disk_find_file(const char* command, const char* name, disk_entry_t* entry) {
    if (!disk_find(command, name, entry))
        return false;
    if (!disk_is_directory(*entry))
        return true;
    disk_complain(command, name, "is a directory");
    return false;
}

const char* disk_base_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

const char* disk_why(const char* path) {
    disk_entry_t entry;
    if (disk_look(path, &entry) && (entry.stat.flags & BLOCKFS_READ_ONLY) != 0)
        return "read-only";
    if (disk_path_join(path, "..", entry.path, sizeof entry.path) != 0)
        return "name too long";
    if (!disk_look(entry.path, &entry))
        return "no such directory";
    if (!disk_is_directory(entry))
        return "a file stands where a directory should be";
    if ((entry.stat.flags & BLOCKFS_READ_ONLY) != 0)
        return "its directory is read-only";
    uint32_t free_blocks = 0;
    uint32_t free_inodes = 0;
    if (blockfs_df(nullptr, nullptr, &free_blocks, nullptr, nullptr, &free_inodes) != 0)
        return "the disk fails";
    if (blockfs_resolve(path) < 0 && free_inodes == 0)
        return "no inode is free";
    return free_blocks == 0 ? "the disk is full" : "the disk is full or fails";
}

bool disk_options(int argc, char** argv, const char* allowed, uint32_t* set, int* first) {
    *set = 0;
    *first = 1;
    for (; *first < argc && argv[*first][0] == '-' && argv[*first][1] != '\0'; ++*first) {
        if (strcmp(argv[*first], "--") == 0) {
            ++*first;
            return true;
        }
        for (const char* letter = argv[*first] + 1; *letter != '\0'; ++letter) {
            const char* at = strchr(allowed, *letter);
            if (at == nullptr)
                return false;
            *set |= 1u << (at - allowed);
        }
    }
    return true;
}

bool disk_parse_size(const char* text, uint32_t* bytes) {
    constexpr uint32_t KILO = 1024;
    char digits[16];
    const size_t length = strlen(text);
    if (length == 0 || length >= sizeof digits)
        return false;
    string_copy(digits, text, sizeof digits);
    uint32_t unit = 1;
    if (digits[length - 1] == 'K' || digits[length - 1] == 'k')
        unit = KILO;
    else if (digits[length - 1] == 'M' || digits[length - 1] == 'm')
        unit = KILO * KILO;
    if (unit != 1)
        digits[length - 1] = '\0';
    uint32_t value = 0;
    if (safe_parse_uint(digits, &value) != 0 || value > 0xFFFFFFFF / unit)
        return false;
    *bytes = value * unit;
    return true;
}

void cmd_diskcd(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc > 2) {
        kprintf("Usage: diskcd [name]\n");
        return;
    }
    disk_entry_t entry;
    if (!disk_find(argv[0], argc == 2 ? argv[1] : "/", &entry))
        return;
    if (!disk_is_directory(entry)) {
        disk_complain(argv[0], argv[1], "not a directory");
        return;
    }
    const irq_guard guard;
    string_copy(disk_cwd, entry.path, sizeof disk_cwd);
}

void cmd_diskpwd(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc > 1) {
        kprintf("Usage: diskpwd\n");
        return;
    }
    char cwd[SHELL_PATH_BYTES];
    copy_cwd(cwd);
    kprintf("%s\n", cwd);
}
