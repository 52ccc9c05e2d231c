// Directories: a sorted listing, and the walk through all that is below one.
#include <algorithm>
#include <new>

#include "kernel/apps/cmd_disk/common.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"

namespace {

constexpr uint32_t LIST_BYTES = 16641;  // every listing of a volume of 256 inodes
constexpr uint32_t LIST_BYTES_MAX = 4u << 20;

/// The listing as text, in a buffer that held it all; its number of names.
int list_text(const char* path, heap_ptr<char>* text) {
    for (uint32_t bytes = LIST_BYTES; bytes <= LIST_BYTES_MAX; bytes *= 2) {
        *text = heap_ptr<char>::make(bytes);
        if (!*text)
            return -1;
        const int count = blockfs_list(path, text->get(), static_cast<int>(bytes));
        // A name that did not fit may be missing only where little room is left.
        if (count < 0 || strlen(text->get()) + BLOCKFS_NAME_MAX + 3 <= bytes)
            return count;
    }
    return -1;
}

/// A name with a line feed in it is two lines, which may be empty.
bool copy_names(const char* text, disk_listing_t* listing) {
    const size_t bytes = strlen(text) + 1;
    listing->text = heap_ptr<char>::make(bytes);
    if (!listing->text)
        return false;
    memcpy(listing->text.get(), text, bytes);
    char* end = listing->text.get() + bytes - 1;
    listing->names = heap_ptr<const char*>::make(
        static_cast<size_t>(std::count(listing->text.get(), end, '\n')));
    if (!listing->names)
        return false;
    uint32_t count = 0;
    for (char* at = listing->text.get(); at != end;) {
        char* stop = std::find(at, end, '\n');
        if (stop != at)
            listing->names[count++] = at;
        *stop = '\0';
        at = stop + 1;
    }
    std::sort(listing->names.get(), listing->names.get() + count,
              [](const char* a, const char* b) { return strcmp(a, b) < 0; });
    listing->count = count;
    return true;
}

/// A directory that the walk is in.
struct level_t {
    level_t* up;
    size_t length;  ///< of its path
    disk_listing_t listing;
    uint32_t next;  ///< name
    struct sys_stat stat;
    uint32_t blocks;
    bool last;
};

struct walk_t {
    const char* command;
    disk_visit_fn visit;
    void* context;
    disk_entry_t entry;  ///< the one at hand; its path grows and shrinks
    level_t* top;
    uint32_t depth;  ///< levels
};

void visit(const walk_t& walk, uint32_t depth, bool last, bool leaving, uint32_t blocks) {
    walk.visit({&walk.entry, depth, last, leaving, blocks}, walk.context);
}

/// The path at hand is again that of the directory that the walk is in.
void cut(walk_t* walk) {
    if (walk->top != nullptr)
        walk->entry.path[walk->top->length] = '\0';
}

/// Enters the directory at hand; false after a line when there is no memory.
bool enter(walk_t* walk, bool last) {
    void* block = kmalloc(sizeof(level_t));
    if (block == nullptr) {
        disk_complain(walk->command, walk->entry.path, "no memory");
        return false;
    }
    auto* level = new (block) level_t{walk->top,        strlen(walk->entry.path), {},  0,
                                      walk->entry.stat, walk->entry.stat.blocks,  last};
    if (!disk_list(walk->command, walk->entry.path, &level->listing))
        level->listing.count = 0;
    walk->top = level;
    ++walk->depth;
    return true;
}

/// Leaves the directory that the walk is in.
void leave(walk_t* walk) {
    level_t* level = walk->top;
    walk->entry.stat = level->stat;
    walk->top = level->up;
    --walk->depth;
    if (walk->top != nullptr)
        walk->top->blocks += level->blocks;
    visit(*walk, walk->depth, level->last, true, level->blocks);
    cut(walk);
    level->~level_t();
    kfree(level);
}

/// Makes the next name of the directory the entry at hand; false when it cannot be looked at.
bool step(walk_t* walk, const char* name) {
    const size_t length = walk->top->length;
    const bool fits =
        walk->depth < DISK_DEPTH_MAX && length + 1 + strlen(name) < sizeof walk->entry.path;
    if (fits && disk_look_in(length, name, &walk->entry))
        return true;
    disk_complain(walk->command, name, fits ? "cannot be read" : "its path is too long");
    cut(walk);
    return false;
}

}  // namespace

bool disk_list(const char* command, const char* path, disk_listing_t* listing) {
    heap_ptr<char> text;
    const int count = list_text(path, &text);
    if (!text)
        disk_complain(command, path, "no memory");
    else if (count < 0)
        disk_complain(command, path, "cannot be read");
    else if (!copy_names(text.get(), listing))
        disk_complain(command, path, "no memory");
    else
        return true;
    return false;
}

bool disk_look_in(size_t length, const char* name, disk_entry_t* entry) {
    const size_t room = sizeof entry->path - length;
    const char* between = length == 1 ? "" : "/";
    if (strchr(name, '/') != nullptr || strlen(between) + strlen(name) >= room)
        return false;
    ksnprintf(entry->path + length, room, "%s%s", between, name);
    return disk_look(entry->path, entry);
}

void disk_walk(const char* command, const disk_entry_t& root, disk_visit_fn visit_fn,
               void* context) {
    walk_t walk{command, visit_fn, context, root, nullptr, 0};
    visit(walk, 0, true, false, 0);
    if (!disk_is_directory(root))
        return;
    if (!enter(&walk, true))
        return;
    while (walk.top != nullptr) {
        level_t* level = walk.top;
        if (level->next == level->listing.count) {
            leave(&walk);
            continue;
        }
        const char* name = level->listing.names[level->next++];
        const bool last = level->next == level->listing.count;
        if (!step(&walk, name))
            continue;
        visit(walk, walk.depth, last, false, 0);
        if (!disk_is_directory(walk.entry))
            level->blocks += walk.entry.stat.blocks;
        if (!disk_is_directory(walk.entry) || !enter(&walk, last))
            cut(&walk);
    }
}
