// What shows the tree and moves in it: ls, cd, pwd.
#include <algorithm>

#include "kernel/apps/cmd_files.h"
#include "kernel/apps/cmd_files/common.h"
#include "kernel/apps/shell.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

/// The line of the entry at `path`, shown as `name`.
void print_entry(const char* path, const char* name, const file_options_t& options) {
    overlay_stat_t entry;
    if (overlay_stat(path, &entry) != 0)
        return;  // gone meanwhile
    const bool directory = entry.st.type == SYS_STAT_DIRECTORY;
    if (options.has('l'))
        kprintf("%s %8u  %s  ", directory ? "dir " : "file", entry.st.size,
                !entry.on_disk                              ? "ram    "
                : (entry.st.flags & BLOCKFS_READ_ONLY) != 0 ? "disk ro"
                                                            : "disk   ");
    kprintf("%s%s\n", name, directory && name[strlen(name) - 1] != '/' ? "/" : "");
}

/// A directory's names, in their order.
struct listing_t {
    heap_ptr<char> text;
    heap_ptr<const char*> names;
    int count;
};

/// Reads and sorts the names of `path`; 0 or an OVERLAY_ code.
int read_listing(const char* path, listing_t* out) {
    out->count = overlay_list(path, &out->text);
    if (out->count <= 0)
        return out->count;
    out->names = heap_ptr<const char*>::make(static_cast<size_t>(out->count));
    if (!out->names)
        return OVERLAY_NO_MEMORY;
    char* at = out->text.get();
    for (int i = 0; i < out->count; ++i) {
        out->names[static_cast<size_t>(i)] = at;
        at = strchr(at, '\n');
        *at++ = '\0';
    }
    std::sort(out->names.get(), out->names.get() + out->count,
              [](const char* a, const char* b) { return strcmp(a, b) < 0; });
    return 0;
}

void list_directory(const file_name_t& dir, const file_options_t& options) {
    listing_t listing = {};
    if (const int error = read_listing(dir.path, &listing); error != 0) {
        (void)file_error("ls", dir.typed, error);
        return;
    }
    char path[PATH_BYTES];
    for (int i = 0; i < listing.count; ++i) {
        const char* name = listing.names[static_cast<size_t>(i)];
        if (name[0] == '.' && !options.has('a'))
            continue;
        string_copy(path, dir.path, sizeof path);
        if (path_append(path, name, sizeof path))
            print_entry(path, name, options);
        else
            (void)file_error("ls", name, OVERLAY_TOO_LONG);
    }
}

void list(const char* typed, const file_options_t& options, bool titled) {
    file_name_t name;
    if (!file_name("ls", typed, &name))
        return;
    overlay_stat_t entry;
    if (const int error = overlay_stat(name.path, &entry); error != 0) {
        (void)file_error("ls", typed, error);
        return;
    }
    if (entry.st.type != SYS_STAT_DIRECTORY) {
        print_entry(name.path, typed, options);
        return;
    }
    if (titled)
        kprintf("%s:\n", typed);
    list_directory(name, options);
}

}  // namespace

void cmd_ls(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "la", 0, "ls [-l] [-a] [name...]", &options))
        return;
    if (options.first == argc)
        list(".", options, false);
    for (int i = options.first; i < argc; ++i)
        list(argv[i], options, argc - options.first > 1);
}

void cmd_cd(int argc, char** argv) {
    if (argc > 2) {
        kprintf("Usage: cd [directory]\n");
        return;
    }
    file_name_t name;
    if (!file_name("cd", argc == 2 ? argv[1] : "/", &name))
        return;
    overlay_stat_t entry;
    if (const int error = overlay_stat(name.path, &entry); error != 0)
        (void)file_error("cd", argv[1], error);
    else if (entry.st.type != SYS_STAT_DIRECTORY)
        (void)file_error("cd", argv[1], OVERLAY_NOT_DIRECTORY);
    else if (entry.on_disk)
        kprintf("cd: %s: is on the disk only (diskcd goes there)\n", argv[1]);
    else {
        irq_guard guard;
        string_copy(shell_cwd, name.path, sizeof shell_cwd);
    }
}

void cmd_pwd(int, char**) {
    char cwd[SHELL_PATH_BYTES];
    {
        irq_guard guard;
        string_copy(cwd, shell_cwd, sizeof cwd);
    }
    kprintf("%s\n", cwd);
}
