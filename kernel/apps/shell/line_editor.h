// The line editor: one line, a cursor in it, and the history that the up and down keys walk. Pure:
// it takes a key and says what the terminal has to show; the loop in interactive.cpp does that.
//
//              up, history not empty
//   (typing) ------------------------> (browsing slot n) --up--> older, stays at the oldest
//       ^                                   |
//       +------- down at the newest --------+--down--> newer
//
// The line that was being typed is kept while browsing and comes back below the newest entry.
#pragma once

#include "kernel/apps/shell/history.h"

constexpr int LINE_LENGTH_MAX = static_cast<int>(SHELL_LINE_BYTES) - 1;
constexpr int NOT_BROWSING = -1;

struct line_editor_t {
    char line[SHELL_LINE_BYTES];  ///< terminated
    int length;                   ///< 0..LINE_LENGTH_MAX
    int cursor;                   ///< 0..length
    int browsing;                 ///< history slot shown, or NOT_BROWSING
    char typed[SHELL_LINE_BYTES];
};

/// What the terminal has to show after a key.
enum class line_show_t : uint8_t {
    nothing,
    last_character,  ///< the line's last one was added at its end
    line,            ///< draw prompt and line anew
    screen,          ///< the same on a cleared screen
    new_line,        ///< the line was entered
};

struct line_result_t {
    line_show_t show;
    bool done;  ///< the line is complete: entered, or typed full
};

/// Starts an empty line.
void line_editor_start(line_editor_t* editor);

/// Takes one key code.
line_result_t line_editor_key(line_editor_t* editor, uint8_t key, const history_t* history);
