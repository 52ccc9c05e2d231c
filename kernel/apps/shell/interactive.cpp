// The interactive loop, and what all shells share.
#include "kernel/apps/shell.h"
#include "kernel/apps/shell/history.h"
#include "kernel/apps/shell/line_editor.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/keyboard.h"
#include "kernel/fs/ramfs.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/timeline.h"

char shell_cwd[SHELL_PATH_BYTES] = "/";
char disk_cwd[SHELL_PATH_BYTES] = "/";
int shell_actor_id = -1;

namespace {

constexpr const char* SHELL_TIMELINE = "shell/0";
constexpr size_t PROMPT_BYTES = SHELL_PATH_BYTES + 16;

history_t history GUARDED_BY(irq_mask);

void show(const line_editor_t& editor, line_show_t what, const char* prompt) {
    switch (what) {
        case line_show_t::nothing:
            return;
        case line_show_t::last_character:
            console_putchar(editor.line[editor.length - 1]);
            return;
        case line_show_t::new_line:
            shell_puts("\n");
            return;
        case line_show_t::screen:
            console_clear();
            [[fallthrough]];
        case line_show_t::line:
            line_redraw(editor.line, editor.length, editor.cursor, prompt);
    }
}

/// The message of the day, as it stands.
void print_motd() {
    fs_node_t* motd = fs_resolve("/etc/motd");
    uint8_t piece[SHELL_LINE_BYTES];
    size_t at = 0;
    for (;;) {
        const int32_t count = fs_read(motd, piece, sizeof piece, at);
        if (count <= 0)
            return;
        console_write_len(piece, static_cast<size_t>(count));
        at += static_cast<size_t>(count);
    }
}

void make_prompt(char (&prompt)[PROMPT_BYTES]) {
    irq_guard guard;
    ksnprintf(prompt, sizeof prompt, "vorn:%s$ ", shell_cwd);
}

/// The shells' timeline, unless a user has deleted it, keeps every line that is not empty.
void note_line(const char* line) {
    constexpr uint32_t LINE_NOTED = 0x60;
    const auto len = static_cast<uint32_t>(strlen(line));
    if (len > 0)
        timeline_emit(timeline_find(SHELL_TIMELINE), LINE_NOTED, line, len + 1, "cmd");
}

void run_line(const char* line) {
    {
        irq_guard guard;
        history_add(&history, line);
    }
    char words[SHELL_LINE_BYTES];
    char* argv[SHELL_ARGS_MAX];
    string_copy(words, line, sizeof words);
    const int argc = parse_args(words, argv);
    if (argc != 0 && dispatch(argc, argv) == 0) {
        kprintf("vorn: unknown command '%s' — type 'help'\n", argv[0]);
        suggest_command(argv[0]);
    }
    note_line(line);
}

}  // namespace

void shell_init(void) {
    irq_guard guard;
    history.head = 0;
    history.count = 0;
    string_copy(shell_cwd, "/", sizeof shell_cwd);
    string_copy(disk_cwd, "/", sizeof disk_cwd);
}

uint8_t shell_getchar(void) {
    const task_t* task = task_current();
    if (task == nullptr || task->io_read == nullptr)
        return static_cast<uint8_t>(keyboard_getchar());
    uint8_t byte = 0;
    while (task->io_read(&byte, 1, task->io_ctx) <= 0)
        task_yield();
    return byte;
}

int shell_poll_key(void) {
    const task_t* task = task_current();
    if (task == nullptr || task->io_read == nullptr)
        return keyboard_has_input() ? static_cast<uint8_t>(keyboard_getchar()) : -1;
    uint8_t byte = 0;
    return task->io_read(&byte, 1, task->io_ctx) > 0 ? byte : -1;
}

void shell_read_line(const char* prompt, char* line) {
    line_editor_t editor;
    line_editor_start(&editor);
    show(editor, line_show_t::line, prompt);
    line_result_t result = {};
    while (!result.done) {
        const uint8_t key = shell_getchar();
        {
            irq_guard guard;
            result = line_editor_key(&editor, key, &history);
        }
        show(editor, result.show, prompt);
    }
    string_copy(line, editor.line, SHELL_LINE_BYTES);
}

void shell_run(void) {
    const int actor_id = actor_register("shell", task_getpid());
    if (actor_id >= 0)
        shell_actor_id = actor_id;
    if (timeline_find(SHELL_TIMELINE) < 0 && timeline_create(SHELL_TIMELINE, "shell") >= 0)
        kprintf("[shell] Timeline %s created\n", SHELL_TIMELINE);
    print_motd();
    kprintf("\n");
    char line[SHELL_LINE_BYTES];
    char prompt[PROMPT_BYTES];
    for (;;) {
        make_prompt(prompt);
        shell_read_line(prompt, line);
        run_line(line);
    }
}

void cmd_exit(int, char**) {
    const task_t* task = task_current();
    if (task == nullptr || (task->io_write == nullptr && task->io_read == nullptr)) {
        kprintf("exit: not a remote session\n");
        return;
    }
    kprintf("logout\n");
    task_exit();
}
