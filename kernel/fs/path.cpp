#include "kernel/fs/path.h"

#include <string_view>

#include "kernel/core/string.h"

void path_normalize(char* path) {
    char* end = path;  // of what is done
    const char* at = path;
    while (*at != '\0') {
        if (*at == '/') {
            ++at;
            continue;
        }
        const char* slash = strchr(at, '/');
        const size_t length = slash == nullptr ? strlen(at) : static_cast<size_t>(slash - at);
        const std::string_view component(at, length);
        if (component == "..") {
            while (end > path && *--end != '/') {
            }
        } else if (component != ".") {
            *end++ = '/';
            memmove(end, at, length);
            end += length;
        }
        at += length;
    }
    if (end == path)
        *end++ = '/';
    *end = '\0';
}

void path_parent(const char* path, char* out) {
    string_copy(out, path, PATH_BYTES);
    char* slash = strrchr(out, '/');
    if (slash == nullptr || slash == out)
        slash = out + 1;
    *slash = '\0';
}

const char* path_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

bool path_append(char* path, const char* name, size_t size) {
    const size_t length = strlen(path);
    const bool has_slash = length > 0 && path[length - 1] == '/';
    if (length + (has_slash ? 0 : 1) + strlen(name) >= size)
        return false;
    if (!has_slash)
        strcat(path, "/");
    strcat(path, name);
    return true;
}

bool path_is_below(const char* path, const char* dir) {
    const size_t length = strlen(dir);
    if (length == 1)
        return path[1] != '\0';
    return strncmp(path, dir, length) == 0 && path[length] == '/';
}
