// cp and mv, within either filesystem and between them.
#include <algorithm>

#include "kernel/apps/cmd_files.h"
#include "kernel/apps/cmd_files/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int DEPTH_MAX = 16;  // of a directory that cp -r copies
/// Each piece is an event, and on the disk a request for the data and a few for what points to
/// them.
constexpr uint32_t COPY_BYTES = 65536;

/// A copy under way. The paths are extended and cut back on the way through a tree.
struct copy_t {
    const char* command;
    char from[PATH_BYTES];
    char to[PATH_BYTES];
    bool relative;   ///< the destination was typed without a "/" before it: RAM
    bool recursive;  ///< directories too

    vorn_fs_route_t route() const { return relative ? VORN_ROUTE_RAM : vorn_route_for_write(to); }
};

int copy_contents(const overlay_file_t& from, const overlay_file_t& to) {
    const auto piece = heap_ptr<uint8_t>::make(COPY_BYTES);
    if (!piece)
        return OVERLAY_NO_MEMORY;
    for (uint32_t at = 0;;) {
        const int count = overlay_read(&from, piece.get(), at, COPY_BYTES);
        if (count <= 0)
            return count;
        const auto length = static_cast<uint32_t>(count);
        if (const int error = overlay_append(&to, piece.get(), length); error != 0)
            return error;
        at += length;
    }
}

bool copy_file(const copy_t& copy) {
    overlay_file_t from;
    overlay_file_t to;
    if (const int error = overlay_open(copy.from, &from); error != 0)
        return file_error(copy.command, copy.from, error);
    int error = overlay_create(copy.to, copy.route(), from.size, &to);
    if (error == 0)
        error = copy_contents(from, to);
    if (error != 0)
        return file_error(copy.command, copy.to, error);
    overlay_close(&to);
    return true;
}

bool copy_any(copy_t* copy, int depth);

/// Copies what is in the directory `from`; the paths are as before afterwards.
bool copy_entries(copy_t* copy, int depth) {
    heap_ptr<char> names;
    if (const int count = overlay_list(copy->from, &names); count < 0)
        return file_error(copy->command, copy->from, count);
    const size_t from_length = strlen(copy->from);
    const size_t to_length = strlen(copy->to);
    bool good = true;
    for (char* name = names.get(); *name != '\0';) {
        char* end = strchr(name, '\n');
        *end = '\0';
        const bool fits = path_append(copy->from, name, sizeof copy->from) &&
                          path_append(copy->to, name, sizeof copy->to);
        good &= fits ? copy_any(copy, depth) : file_error(copy->command, name, OVERLAY_TOO_LONG);
        copy->from[from_length] = '\0';
        copy->to[to_length] = '\0';
        name = end + 1;
    }
    return good;
}

/// Copies a file or a directory. Calls itself at most DEPTH_MAX deep.
bool copy_any(copy_t* copy, int depth) {
    if (!overlay_is_directory(copy->from))
        return copy_file(*copy);
    if (!copy->recursive)
        return file_error(copy->command, copy->from, OVERLAY_IS_DIRECTORY);
    if (depth == DEPTH_MAX) {
        kprintf("%s: %s: more than %d directories deep\n", copy->command, copy->from, DEPTH_MAX);
        return false;
    }
    if (!overlay_is_directory(copy->to)) {
        if (const int error = overlay_mkdir(copy->to, copy->route()); error != 0)
            return file_error(copy->command, copy->to, error);
    }
    return copy_entries(copy, depth + 1);
}

/// Whether both paths are one, which a line then says.
bool is_same(const copy_t& copy) {
    overlay_stat_t entry;
    if (strcmp(copy.from, copy.to) != 0)
        return false;
    const bool exists = overlay_stat(copy.from, &entry) == 0;
    (void)file_error(copy.command, copy.from, exists ? OVERLAY_SAME : OVERLAY_NOT_FOUND);
    return true;
}

bool cp_one(copy_t* copy) {
    if (is_same(*copy))
        return false;
    if (path_is_below(copy->to, copy->from) && overlay_is_directory(copy->from))
        return file_error(copy->command, copy->from, OVERLAY_INSIDE);
    return copy_any(copy, 0);
}

bool mv_one(copy_t* copy) {
    if (is_same(*copy))
        return false;
    int error = overlay_rename(copy->from, copy->to, copy->route());
    if (error == 0)
        return true;
    // A file can be copied into the other filesystem, or over one that is there.
    const bool movable = error == OVERLAY_EXISTS || error == OVERLAY_ACROSS;
    if (!movable || overlay_is_directory(copy->from)) {
        const bool about_target = error != OVERLAY_NOT_FOUND && error != OVERLAY_INSIDE &&
                                  error != OVERLAY_IS_ROOT && error != OVERLAY_FIXED;
        return file_error(copy->command, about_target ? copy->to : copy->from, error);
    }
    if (!copy_file(*copy))
        return false;
    error = overlay_remove(copy->from);
    return error == 0 || file_error(copy->command, copy->from, error);
}

/// Copies or moves the names [first, argc - 1) to the last one.
void to_last(int argc, char** argv, int first, copy_t* copy, bool (*one)(copy_t*)) {
    file_name_t target;
    if (!file_name(copy->command, argv[argc - 1], &target))
        return;
    const bool into = overlay_is_directory(target.path);
    if (!into && argc - first > 2) {
        (void)file_error(copy->command, target.typed, OVERLAY_NOT_DIRECTORY);
        return;
    }
    copy->relative = target.typed[0] != '/';
    for (int i = first; i < argc - 1; ++i) {
        file_name_t source;
        if (!file_name(copy->command, argv[i], &source))
            continue;
        string_copy(copy->from, source.path, sizeof copy->from);
        string_copy(copy->to, target.path, sizeof copy->to);
        if (into && !path_append(copy->to, path_name(source.path), sizeof copy->to))
            (void)file_error(copy->command, source.typed, OVERLAY_TOO_LONG);
        else
            (void)one(copy);
    }
}

}  // namespace

void cmd_cp(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "r", 2, "cp [-r] <from...> <to>", &options))
        return;
    copy_t copy = {
        .command = "cp", .from = {}, .to = {}, .relative = false, .recursive = options.has('r')};
    to_last(argc, argv, options.first, &copy, cp_one);
}

void cmd_mv(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "", 2, "mv <from...> <to>", &options))
        return;
    copy_t copy = {.command = "mv", .from = {}, .to = {}, .relative = false, .recursive = false};
    to_last(argc, argv, options.first, &copy, mv_one);
}
