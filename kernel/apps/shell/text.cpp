// What the shell does with text: arguments, paths, the terminal.
#include "kernel/apps/shell.h"
#include "kernel/core/guards.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"

namespace {

constexpr const char* WIPE = "          ";  // over what a deletion left behind

bool is_remote() {
    const task_t* task = task_current();
    return task != nullptr && task->io_write != nullptr;
}

void draw(const char* line, int length, const char* prompt) {
    const bool colored = !is_remote();
    shell_puts("\r");
    if (colored)
        console_set_color(CONSOLE_BRIGHT_GREEN, CONSOLE_BLACK);
    shell_puts(prompt);
    if (colored)
        console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
    shell_write(line, static_cast<size_t>(length));
}

}  // namespace

int parse_args(char* line, char** argv) {
    int argc = 0;
    char* at = line;
    while (argc < SHELL_ARGS_MAX) {
        while (*at == ' ')
            ++at;
        if (*at == '\0')
            break;
        const char end = *at == '"' ? '"' : ' ';
        if (end == '"')
            ++at;
        argv[argc++] = at;
        while (*at != '\0' && *at != end)
            ++at;
        if (*at == '\0')
            break;
        *at++ = '\0';
    }
    return argc;
}

void shell_make_path(const char* name, char* out, size_t size) {
    irq_guard guard;
    if (name[0] == '/')
        string_copy(out, name, size);
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

void shell_write(const char* bytes, size_t len) {
    const auto* data = reinterpret_cast<const uint8_t*>(bytes);
    const task_t* task = task_current();
    if (is_remote())
        task->io_write(data, static_cast<uint32_t>(len), task->io_ctx);
    else
        console_write_len(data, len);
}

void shell_puts(const char* text) { shell_write(text, strlen(text)); }

void line_redraw(const char* line, int length, int cursor, const char* prompt) {
    draw(line, length, prompt);
    shell_puts(WIPE);
    draw(line, cursor, prompt);
}
