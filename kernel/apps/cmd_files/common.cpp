#include "kernel/apps/cmd_files/common.h"

#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/drivers/console.h"

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

/// The letters of one argument "-..."; `next` is the argument behind it, or null. Returns how many
/// arguments were used, 0 when something is wrong.
int take_option(const char* text, const char* next, const char* letters, file_options_t* out) {
    const char* numbered = strchr(letters, ':');
    if (numbered != nullptr && is_digit(*text)) {
        out->flags |= 1u << (numbered[-1] - 'a');
        return safe_parse_uint(text, &out->number) == 0 ? 1 : 0;
    }
    for (; *text != '\0'; ++text) {
        const char* found = *text == ':' ? nullptr : strchr(letters, *text);
        if (found == nullptr)
            return 0;
        out->flags |= 1u << (*text - 'a');
        if (found[1] != ':')
            continue;
        const bool apart = text[1] == '\0';
        const char* number = apart ? next : text + 1;
        if (number == nullptr || safe_parse_uint(number, &out->number) != 0)
            return 0;
        return apart ? 2 : 1;
    }
    return 1;
}

}  // namespace

bool file_options(int argc, char** argv, const char* letters, int names, const char* usage,
                  file_options_t* out) {
    *out = {0, 0, 1};
    bool good = true;
    while (good && out->first < argc && argv[out->first][0] == '-' && argv[out->first][1] != '\0') {
        const char* text = argv[out->first] + 1;
        if (strcmp(text, "-") == 0) {
            ++out->first;
            break;
        }
        const char* next = out->first + 1 < argc ? argv[out->first + 1] : nullptr;
        const int used = take_option(text, next, letters, out);
        good = used > 0;
        out->first += used;
    }
    good = good && argc - out->first >= names;
    if (!good)
        kprintf("Usage: %s\n", usage);
    return good;
}

vorn_fs_route_t file_name_t::route() const {
    return typed[0] == '/' ? vorn_route_for_write(path) : VORN_ROUTE_RAM;
}

bool file_error(const char* command, const char* name, int error) {
    kprintf("%s: %s: %s\n", command, name, overlay_error_text(error));
    return false;
}

bool file_name(const char* command, const char* typed, file_name_t* out) {
    out->typed = typed;
    if (typed[0] == '\0')
        return file_error(command, "\"\"", OVERLAY_NOT_FOUND);
    shell_make_path(typed, out->path, sizeof out->path);
    // A text that fills the buffer may have been cut.
    if (strlen(out->path) == sizeof out->path - 1)
        return file_error(command, typed, OVERLAY_TOO_LONG);
    path_normalize(out->path);
    return true;
}

bool file_open(const char* command, const char* typed, overlay_file_t* out) {
    file_name_t name;
    if (!file_name(command, typed, &name))
        return false;
    const int error = overlay_open(name.path, out);
    return error == 0 || file_error(command, typed, error);
}

void file_show(std::span<const uint8_t> bytes) { console_write_len(bytes.data(), bytes.size()); }
