// The line editor: a state machine that takes keys and says what to do on the terminal. It knows no
// device; the history it browses is passed in.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/apps/shell.h"

constexpr int LINE_MAX = static_cast<int>(SHELL_LINE_BYTES) - 1;
constexpr int HISTORY_LINES = 32;
constexpr int HISTORY_NONE = -1;

/// The newest lines, in a ring of slots.
struct line_history_t {
    char lines[HISTORY_LINES][SHELL_LINE_BYTES];
    int head;   ///< slot of the next entry
    int count;  ///< 0..HISTORY_LINES
};

/// Adds a line unless it is empty or equals the newest entry.
void history_add(line_history_t* history, const char* line);

/// What the caller does on the terminal.
enum class line_action_t {
    none,
    echo,    ///< show the character just appended
    redraw,  ///< draw the line anew
    clear,   ///< clear the screen, then redraw
    submit,  ///< the line is complete: echo a newline
};

/// One line being edited.
struct line_editor_t {
    char line[SHELL_LINE_BYTES];  ///< terminated at `length`
    int length;
    int cursor;                    ///< 0..length
    int browsing;                  ///< slot of the history entry shown, or HISTORY_NONE
    char saved[SHELL_LINE_BYTES];  ///< what was typed before browsing
};

/// Starts an empty line.
void line_editor_start(line_editor_t* editor);

/// Takes one key code (keymap.h).
line_action_t line_editor_key(line_editor_t* editor, const line_history_t* history, uint8_t key);

/// Whether typing has filled the line: it then ends at once.
inline bool line_editor_full(const line_editor_t* editor, line_action_t action) {
    return editor->length >= LINE_MAX &&
           (action == line_action_t::echo || action == line_action_t::redraw) &&
           editor->browsing == HISTORY_NONE;
}
