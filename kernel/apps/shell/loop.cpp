// The interactive loop, on the console or on a remote session.
#include "kernel/apps/shell/line_editor.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/keyboard.h"

char shell_cwd[SHELL_PATH_BYTES] = "/";
char disk_cwd[SHELL_PATH_BYTES] = "/";

namespace {

constexpr size_t PROMPT_BYTES = SHELL_PATH_BYTES + 16;

line_history_t history GUARDED_BY(irq_mask);

/// One loop's own state; too big to stand twice on a task's stack.
struct session_t {
    line_editor_t editor;
    char prompt[PROMPT_BYTES];
};

bool is_remote() {
    const task_t* task = task_current();
    return task != nullptr && (task->io_write != nullptr || task->io_read != nullptr);
}

/// The next key of the running task's terminal.
uint8_t read_key() {
    const task_t* task = task_current();
    if (task == nullptr || task->io_read == nullptr)
        return static_cast<uint8_t>(keyboard_getchar());
    uint8_t key;
    while (task->io_read(&key, 1, task->io_ctx) <= 0)
        task_yield();
    return key;
}

void local_color(console_color_t color) {
    const task_t* task = task_current();
    if (task == nullptr || task->io_write == nullptr)
        console_set_color(color, CONSOLE_BLACK);
}

void put_prompt(const char* prompt) {
    local_color(CONSOLE_BRIGHT_GREEN);
    shell_puts(prompt);
    local_color(CONSOLE_GREY);
}

void draw(const session_t* session) {
    const line_editor_t& editor = session->editor;
    line_redraw(editor.line, editor.length, editor.cursor, session->prompt);
}

/// Carries out what the editor said; whether the line is complete.
bool carry_out(session_t* session, line_action_t action) {
    const line_editor_t& editor = session->editor;
    switch (action) {
        case line_action_t::none:
            return false;
        case line_action_t::echo:
            console_putchar(editor.line[editor.length - 1]);
            break;
        case line_action_t::clear:
            console_clear();
            draw(session);
            return false;
        case line_action_t::redraw:
            draw(session);
            break;
        case line_action_t::submit:
            shell_write("\n", 1);
            return true;
    }
    return line_editor_full(&editor, action);
}

line_action_t take_key(line_editor_t* editor, uint8_t key) {
    irq_guard guard;
    return line_editor_key(editor, &history, key);
}

void remember(const char* line) {
    irq_guard guard;
    history_add(&history, line);
}

void read_line(session_t* session) {
    ksnprintf(session->prompt, sizeof session->prompt, "vorn:%s$ ", shell_cwd);
    line_editor_start(&session->editor);
    draw(session);
    while (!carry_out(session, take_key(&session->editor, read_key()))) {
    }
}

/// Splits and dispatches `line` in place; an unknown name gets `unknown` with the name.
void run_line(char* line, const char* after_unknown) {
    char* argv[SHELL_ARGS_MAX];
    const int argc = parse_args(line, argv);
    if (argc == 0 || dispatch(argc, argv) != 0)
        return;
    kprintf("vorn: unknown command '%s'%s\n", argv[0], after_unknown);
    suggest_command(argv[0]);
}

}  // namespace

void shell_init(void) {
    irq_guard guard;
    history = {};
    strcpy(shell_cwd, "/");
    strcpy(disk_cwd, "/");
}

void shell_write(const char* bytes, size_t len) {
    console_write_len(reinterpret_cast<const uint8_t*>(bytes), len);
}

void shell_puts(const char* text) { console_write(text); }

void line_redraw(const char* line, int length, int cursor, const char* prompt) {
    shell_puts("\r");
    put_prompt(prompt);
    shell_write(line, static_cast<size_t>(length));
    shell_puts("          \r");
    put_prompt(prompt);
    shell_write(line, static_cast<size_t>(cursor));
}

void shell_exec(const char* cmdline) {
    char line[SHELL_LINE_BYTES];
    string_copy(line, cmdline, sizeof line);
    kprintf("%s\n", line);
    run_line(line, "");
}

void shell_run(void) {
    session_t session = {};
    shell_puts("\n");
    for (;;) {
        read_line(&session);
        remember(session.editor.line);
        run_line(session.editor.line, " — type 'help'");
    }
}

void cmd_exit(int, char**) {
    if (!is_remote()) {
        kprintf("exit: not a remote session\n");
        return;
    }
    kprintf("logout\n");
    task_exit();
}
