// Splitting and joining of arguments, and paths.
#include "kernel/apps/shell.h"
#include "kernel/core/string.h"

namespace {

/// The end of the token that starts at `line`: the closing quote or space, or the terminator.
char* token_end(char* line, char stop) {
    while (*line != '\0' && *line != stop)
        ++line;
    return line;
}

}  // namespace

int parse_args(char* line, char** argv) {
    int argc = 0;
    while (argc < SHELL_ARGS_MAX) {
        while (*line == ' ')
            ++line;
        if (*line == '\0')
            break;
        const bool quoted = *line == '"';
        if (quoted)
            ++line;
        argv[argc++] = line;
        line = token_end(line, quoted ? '"' : ' ');
        if (*line == '\0')
            break;
        *line++ = '\0';
    }
    return argc;
}

void shell_make_path(const char* name, char* out, size_t size) {
    if (name[0] == '/')
        ksnprintf(out, size, "%s", name);
    else if (strcmp(shell_cwd, "/") == 0)
        ksnprintf(out, size, "/%s", name);
    else
        ksnprintf(out, size, "%s/%s", shell_cwd, name);
}

int shell_concat_args(char* out, size_t size, int argc, char** argv, int start) {
    size_t length = 0;
    out[0] = '\0';
    for (int i = start; i < argc; ++i) {
        if (i > start)
            length += string_copy(out + length, " ", size - length);
        length += string_copy(out + length, argv[i], size - length);
    }
    return static_cast<int>(length);
}
