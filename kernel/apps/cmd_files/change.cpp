// What changes single entries: mkdir, touch, write, rm.
#include "kernel/apps/cmd_files.h"
#include "kernel/apps/cmd_files/common.h"
#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

/// Makes every missing directory along the path.
int make_directories(const file_name_t& name) {
    char path[PATH_BYTES];
    string_copy(path, name.path, sizeof path);
    for (char* slash = path; slash != nullptr;) {
        slash = strchr(slash + 1, '/');
        if (slash != nullptr)
            *slash = '\0';
        if (!overlay_is_directory(path)) {
            if (const int error = overlay_mkdir(path, name.route()); error != 0)
                return error;
        }
        if (slash != nullptr)
            *slash = '/';
    }
    return 0;
}

}  // namespace

void cmd_mkdir(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "p", 1, "mkdir [-p] <directory...>", &options))
        return;
    for (int i = options.first; i < argc; ++i) {
        file_name_t name;
        if (!file_name("mkdir", argv[i], &name))
            continue;
        const int error =
            options.has('p') ? make_directories(name) : overlay_mkdir(name.path, name.route());
        if (error != 0)
            (void)file_error("mkdir", argv[i], error);
    }
}

void cmd_touch(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "", 1, "touch <file...>", &options))
        return;
    for (int i = options.first; i < argc; ++i) {
        file_name_t name;
        if (!file_name("touch", argv[i], &name))
            continue;
        if (const int error = overlay_touch(name.path, name.route()); error != 0)
            (void)file_error("touch", argv[i], error);
    }
}

void cmd_write(int argc, char** argv) {
    if (argc < 3) {
        kprintf("Usage: write <file> <text...>\n");
        return;
    }
    file_name_t name;
    if (!file_name("write", argv[1], &name))
        return;
    char text[SHELL_LINE_BYTES];
    const int length = shell_concat_args(text, sizeof text, argc, argv, 2);
    const vorn_fs_route_t route = name.route();
    const int error = overlay_write(name.path, route, text, static_cast<uint32_t>(length));
    if (error != 0) {
        (void)file_error("write", argv[1], error);
        return;
    }
    kprintf("%d bytes written to %s (%s)\n", length, name.path,
            route == VORN_ROUTE_RAM ? "RAM" : "disk");
    if (argc == SHELL_ARGS_MAX)
        kprintf("write: words beyond the %dth need quotes\n", SHELL_ARGS_MAX - 2);
}

void cmd_rm(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "rf", 1, "rm [-r] [-f] <name...>", &options))
        return;
    for (int i = options.first; i < argc; ++i) {
        file_name_t name;
        if (!file_name("rm", argv[i], &name))
            continue;
        const int error =
            options.has('r') ? overlay_remove_tree(name.path) : overlay_remove(name.path);
        if (error != 0 && !(error == OVERLAY_NOT_FOUND && options.has('f')))
            (void)file_error("rm", argv[i], error);
    }
}
