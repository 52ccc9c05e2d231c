// What is where: listings, the tree, its sizes, names in it.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"

namespace {

constexpr uint32_t OPTION_LONG = 1;

void print_entry(const disk_entry_t& entry, const char* name, bool details) {
    const bool directory = disk_is_directory(entry);
    if (details) {
        const bool fixed = (entry.stat.flags & BLOCKFS_READ_ONLY) != 0;
        kprintf("%c %s %8u %10u  ", directory ? 'd' : '-', fixed ? "ro" : "rw", entry.stat.size,
                entry.stat.mtime_ticks);
    }
    kprintf("%s%s\n", name, directory && strcmp(name, "/") != 0 ? "/" : "");
}

void list_directory(const char* command, const disk_entry_t& directory, bool details) {
    disk_listing_t listing;
    if (!disk_list(command, directory.path, &listing))
        return;
    disk_entry_t entry = directory;
    for (uint32_t i = 0; i < listing.count; ++i) {
        // One that is gone by now is no error.
        if (disk_look_in(strlen(directory.path), listing.names[i], &entry))
            print_entry(entry, listing.names[i], details);
    }
}

void list_one(const char* command, const char* name, bool details, bool titled) {
    disk_entry_t entry;
    if (!disk_find(command, name, &entry))
        return;
    if (!disk_is_directory(entry)) {
        print_entry(entry, name, details);
        return;
    }
    if (titled)
        kprintf("%s:\n", name);
    list_directory(command, entry, details);
}

/// What the drawing of a tree remembers.
struct tree_t {
    bool last[DISK_DEPTH_MAX + 1];  ///< of its directory, by depth
    uint32_t directories;
    uint32_t files;
};

void draw(const disk_visit_t& visit, void* context) {
    auto* tree = static_cast<tree_t*>(context);
    if (visit.leaving)
        return;
    tree->last[visit.depth] = visit.last;
    for (uint32_t depth = 1; depth < visit.depth; ++depth)
        kprintf("%s", tree->last[depth] ? "    " : "|   ");
    const bool directory = disk_is_directory(*visit.entry);
    if (visit.depth == 0) {
        kprintf("%s\n", visit.entry->path);
        return;
    }
    kprintf("%s%s%s\n", visit.last ? "`-- " : "|-- ", disk_base_name(visit.entry->path),
            directory ? "/" : "");
    ++(directory ? tree->directories : tree->files);
}

void print_usage_of(const disk_visit_t& visit, void*) {
    constexpr uint64_t BLOCK = BLOCKFS_BLOCK_BYTES;
    if (visit.leaving)
        kprintf("%10llu  %s\n", visit.blocks * BLOCK, visit.entry->path);
    else if (visit.depth == 0 && !disk_is_directory(*visit.entry))
        kprintf("%10llu  %s\n", visit.entry->stat.blocks * BLOCK, visit.entry->path);
}

bool has_wildcard(const char* text) {
    return strchr(text, '*') != nullptr || strchr(text, '?') != nullptr;
}

/// Whether `name` as a whole is what `pattern` says. One "*" is tried anew at a time, the latest.
bool matches(const char* pattern, const char* name) {
    const char* star = nullptr;
    const char* resume = nullptr;
    while (*name != '\0') {
        if (*pattern == '*') {
            star = pattern++;
            resume = name;
        } else if (*pattern != '\0' && (*pattern == '?' || *pattern == *name)) {
            ++pattern;
            ++name;
        } else if (star != nullptr) {
            pattern = star + 1;
            name = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == '*')
        ++pattern;
    return *pattern == '\0';
}

void print_if_matching(const disk_visit_t& visit, void* context) {
    const auto* text = static_cast<const char*>(context);
    const char* name = disk_base_name(visit.entry->path);
    if (visit.leaving)
        return;
    if (has_wildcard(text) ? matches(text, name) : strstr(name, text) != nullptr)
        kprintf("%s\n", visit.entry->path);
}

}  // namespace

void cmd_diskls(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    uint32_t options = 0;
    int first = 0;
    if (!disk_options(argc, argv, "l", &options, &first)) {
        kprintf("Usage: diskls [-l] [name...]\n");
        return;
    }
    const bool details = (options & OPTION_LONG) != 0;
    if (first == argc)
        list_one(argv[0], ".", details, false);
    for (int i = first; i < argc; ++i)
        list_one(argv[0], argv[i], details, argc - first > 1);
}

void cmd_disktree(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    disk_entry_t entry;
    tree_t tree = {};
    if (argc > 2)
        kprintf("Usage: disktree [name]\n");
    else if (disk_find(argv[0], argc == 2 ? argv[1] : ".", &entry)) {
        disk_walk(argv[0], entry, draw, &tree);
        kprintf("%u directories, %u files\n", tree.directories, tree.files);
    }
}

void cmd_diskdu(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    disk_entry_t entry;
    if (argc > 2)
        kprintf("Usage: diskdu [name]\n");
    else if (disk_find(argv[0], argc == 2 ? argv[1] : ".", &entry))
        disk_walk(argv[0], entry, print_usage_of, nullptr);
}

void cmd_diskfind(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    disk_entry_t entry;
    if (argc != 2 && argc != 3)
        kprintf("Usage: diskfind [name] text\n");
    else if (disk_find(argv[0], argc == 3 ? argv[1] : ".", &entry))
        disk_walk(argv[0], entry, print_if_matching, argv[argc - 1]);
}
