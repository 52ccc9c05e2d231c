// The joining of paths.
#include "kernel/apps/cmd_disk.h"
#include "kernel/core/string.h"

namespace {

/// An absolute path in the making, without the root's "/" while it is empty.
struct joined_t {
    char* out;
    size_t size;
    size_t length;
};

/// Appends a component; false when there is no room for it and the terminator.
bool push(joined_t* path, const char* name, size_t length) {
    if (path->length + 1 + length >= path->size)
        return false;
    path->out[path->length++] = '/';
    memcpy(path->out + path->length, name, length);
    path->length += length;
    return true;
}

void pop(joined_t* path) {
    while (path->length > 0 && path->out[--path->length] != '/')
        continue;
}

bool append(joined_t* path, const char* text) {
    for (;;) {
        while (*text == '/')
            ++text;
        size_t length = 0;
        while (text[length] != '\0' && text[length] != '/')
            ++length;
        if (length == 0)
            return true;
        if (length == 2 && text[0] == '.' && text[1] == '.')
            pop(path);
        else if (!(length == 1 && text[0] == '.') && !push(path, text, length))
            return false;
        text += length;
    }
}

}  // namespace

int disk_path_join(const char* cwd, const char* name, char* out, size_t size) {
    joined_t path{out, size, 0};
    if (size < 2 || (name[0] != '/' && !append(&path, cwd)) || !append(&path, name))
        return -1;
    if (path.length == 0)
        out[path.length++] = '/';
    out[path.length] = '\0';
    return 0;
}
