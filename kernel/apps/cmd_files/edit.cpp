// edit: the editor on its terminal. On the local machine it polls both keyboards (kbpoll.h) and
// draws on the screen and the serial line alike; in a remote session it takes the session's keys.
// What the terminal shows is kept, so that only what changed is sent.
#include <algorithm>

#include "kernel/apps/cmd_files.h"
#include "kernel/apps/cmd_files/common.h"
#include "kernel/apps/cmd_files/editor.h"
#include "kernel/apps/shell.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/kbpoll.h"

namespace {

// The window of the local machine: 24 rows, which every terminal on the serial line has, and no
// character in the last column, where the screen would begin a new line.
constexpr int LOCAL_ROWS = 24;
constexpr int LOCAL_COLUMNS = 79;
constexpr int ROWS_MIN = 4;
constexpr int ROWS_MAX = 64;
constexpr int COLUMNS_MIN = 20;
constexpr int COLUMNS_MAX = 160;
constexpr size_t MESSAGE_BYTES = 96;
constexpr uint32_t LATE_TICKS = 10;

/// An editor at work.
struct edit_t {
    editor_t editor;
    file_name_t name;
    int rows, columns;  ///< of the terminal; the last row is the status line
    bool remote;
    bool leaving;  ///< was asked whether to leave unsaved
    bool done;
    char message[MESSAGE_BYTES];        ///< in the status line until the next key
    char shown[ROWS_MAX][COLUMNS_MAX];  ///< what the terminal shows
    char row[COLUMNS_MAX + 1];
};

/// The polling keyboard serves one program at a time.
bool local_editor_runs;

/// What a session's byte would be on the polling keyboard.
int session_key(uint8_t byte) {
    switch (byte) {
        case '\r':
            return '\n';
        case 127:
            return '\b';
        case 17:
            return KBPOLL_CTRL_Q;
        case 19:
            return KBPOLL_CTRL_S;
        case 25:
            return KBPOLL_CTRL_Y;
        default:
            return byte;
    }
}

/// A key within the next ticks, or -1.
int poll_soon() {
    const uint32_t start = system_ticks;
    while (system_ticks - start < LATE_TICKS) {
        const int key = kbpoll_poll();
        if (key >= 0)
            return key;
        task_sleep(1);
    }
    return -1;
}

/// What follows an escape that stood alone for the poll: on a busy machine the rest of a cursor
/// key's sequence comes late.
int late_sequence() {
    int key = poll_soon();
    if (key == '[')
        key = poll_soon();
    switch (key) {
        case 'A':
            return KEY_UP;
        case 'B':
            return KEY_DOWN;
        case 'C':
            return KEY_RIGHT;
        case 'D':
            return KEY_LEFT;
        case '3':
            (void)poll_soon();  // the "~"
            return KEY_DELETE;
        default:
            return key < 0 ? KBPOLL_ESCAPE : key;
    }
}

int read_key(const edit_t& edit) {
    if (edit.remote)
        return session_key(shell_getchar());
    const int key = kbpoll_getchar();
    return key == KBPOLL_ESCAPE ? late_sequence() : key;
}

void move_cursor(int row, int column) {
    console_set_cursor(row, column);
    char sequence[24];
    ksnprintf(sequence, sizeof sequence, "\033[%d;%dH", row + 1, column + 1);
    console_write_serial(sequence);
}

void clear_screen() {
    console_clear();
    console_write_serial("\033[2J\033[H");
}

/// Brings row `row` of the terminal to `edit->row`.
void draw_row(edit_t* edit, int row) {
    char* shown = edit->shown[row];
    int first = 0;
    int last = edit->columns;
    while (first < last && shown[first] == edit->row[first])
        ++first;
    while (last > first && shown[last - 1] == edit->row[last - 1])
        --last;
    if (first == last)
        return;
    move_cursor(row, first);
    const auto length = static_cast<size_t>(last - first);
    memcpy(shown + first, edit->row + first, length);
    console_write_len(reinterpret_cast<const uint8_t*>(shown + first), length);
}

void draw_status(edit_t* edit) {
    int row = 0;
    int column = 0;
    editor_cursor(&edit->editor, &row, &column);
    const auto width = static_cast<size_t>(edit->columns);
    char text[COLUMNS_MAX + 1];
    if (edit->message[0] != '\0')
        string_copy(text, edit->message, width + 1);
    else
        ksnprintf(text, width + 1, "%s%s  %u:%d  ^S save  ^Q quit  ^Y delete line",
                  edit->name.typed, edit->editor.modified ? " *" : "", editor_line(&edit->editor),
                  column + edit->editor.left + 1);
    memset(edit->row, ' ', width);
    memcpy(edit->row, text, strlen(text));
    draw_row(edit, edit->rows - 1);
}

void draw(edit_t* edit) {
    for (int row = 0; row < edit->editor.rows; ++row) {
        editor_row(&edit->editor, row, edit->row);
        draw_row(edit, row);
    }
    draw_status(edit);
    int row = 0;
    int column = 0;
    editor_cursor(&edit->editor, &row, &column);
    move_cursor(row, column);
}

void save(edit_t* edit) {
    editor_t& editor = edit->editor;
    const vorn_fs_route_t route = edit->name.route();
    const int error = overlay_write(edit->name.path, route, editor.text, editor.length);
    if (error != 0) {
        ksnprintf(edit->message, sizeof edit->message, "NOT saved: %s", overlay_error_text(error));
        return;
    }
    editor.modified = false;
    ksnprintf(edit->message, sizeof edit->message, "%u bytes saved (%s)", editor.length,
              route == VORN_ROUTE_RAM ? "RAM" : "disk");
}

void take_key(edit_t* edit, int key) {
    edit->message[0] = '\0';
    const bool asked = edit->leaving;
    edit->leaving = false;
    switch (editor_key(&edit->editor, key)) {
        case editor_wish_t::none:
            return;
        case editor_wish_t::full:
            string_copy(edit->message, "The text is full", sizeof edit->message);
            return;
        case editor_wish_t::save:
            save(edit);
            return;
        case editor_wish_t::quit:
            edit->done = !edit->editor.modified || asked;
            edit->leaving = true;
            string_copy(edit->message, "Not saved: ^Q again leaves, ^S saves",
                        sizeof edit->message);
    }
}

/// Reads the file, if there is one; false after the error's line.
bool load(edit_t* edit) {
    overlay_file_t file;
    editor_t& editor = edit->editor;
    const int error = overlay_open(edit->name.path, &file);
    if (error == OVERLAY_NOT_FOUND)
        return true;
    if (error != 0)
        return file_error("edit", edit->name.typed, error);
    if (file.size > EDITOR_TEXT_MAX) {
        kprintf("edit: %s: larger than %u bytes\n", edit->name.typed, EDITOR_TEXT_MAX);
        return false;
    }
    return file_read_from("edit", file, 0, [&editor](std::span<const uint8_t> piece) {
        const size_t count = std::min<size_t>(piece.size(), EDITOR_TEXT_MAX - editor.length);
        memcpy(editor.text + editor.length, piece.data(), count);
        editor.length += static_cast<uint32_t>(count);
        return true;
    });
}

void measure(edit_t* edit) {
    task_t* task = task_current();
    edit->remote = task != nullptr && task->io_read != nullptr;
    edit->rows = LOCAL_ROWS;
    edit->columns = LOCAL_COLUMNS;
    if (edit->remote && task_get_term_size(task, &edit->rows, &edit->columns)) {
        edit->rows = std::clamp(edit->rows, ROWS_MIN, ROWS_MAX);
        edit->columns = std::clamp(edit->columns - 1, COLUMNS_MIN, COLUMNS_MAX);
    }
}

void run(edit_t* edit) {
    clear_screen();
    memset(edit->shown, ' ', sizeof edit->shown);
    while (!edit->done) {
        draw(edit);
        take_key(edit, read_key(*edit));
    }
    clear_screen();
}

void run_local(edit_t* edit) {
    if (__atomic_exchange_n(&local_editor_runs, true, __ATOMIC_ACQUIRE)) {
        kprintf("edit: an editor is open already\n");
        return;
    }
    kbpoll_begin();
    run(edit);
    kbpoll_end();
    __atomic_store_n(&local_editor_runs, false, __ATOMIC_RELEASE);
}

}  // namespace

void cmd_edit(int argc, char** argv) {
    if (argc != 2) {
        kprintf("Usage: edit <file>\n");
        return;
    }
    if (!shell_is_attended()) {
        kprintf("edit: needs a terminal\n");
        return;
    }
    const auto edit = heap_ptr<edit_t>::make();
    if (!edit) {
        kprintf("edit: %s\n", overlay_error_text(OVERLAY_NO_MEMORY));
        return;
    }
    measure(edit.get());
    edit->leaving = edit->done = false;
    edit->message[0] = '\0';
    editor_start(&edit->editor, edit->rows - 1, edit->columns);
    if (!file_name("edit", argv[1], &edit->name) || !load(edit.get()))
        return;
    if (edit->remote)
        run(edit.get());
    else
        run_local(edit.get());
}
