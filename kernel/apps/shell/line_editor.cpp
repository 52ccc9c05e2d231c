#include "kernel/apps/shell/line_editor.h"

#include "kernel/core/string.h"
#include "kernel/drivers/keymap.h"

namespace {

constexpr uint8_t BACKSPACE = 8;
constexpr uint8_t LINE_FEED = 10;
constexpr uint8_t CTRL_L = 12;
constexpr uint8_t CARRIAGE_RETURN = 13;
constexpr uint8_t PRINTABLE_FIRST = 32;
constexpr uint8_t PRINTABLE_LAST = 126;

void set_line(line_editor_t* editor, const char* text) {
    editor->length = static_cast<int>(string_copy(editor->line, text, SHELL_LINE_BYTES));
    editor->cursor = editor->length;
}

/// Removes the character at `at`, which is in the line.
void remove_at(line_editor_t* editor, int at) {
    memmove(&editor->line[at], &editor->line[at + 1], static_cast<size_t>(editor->length - at));
    --editor->length;
    editor->cursor = at;
}

line_show_t insert(line_editor_t* editor, uint8_t key) {
    if (editor->length == LINE_LENGTH_MAX)
        return line_show_t::nothing;
    const bool at_end = editor->cursor == editor->length;
    char* place = &editor->line[editor->cursor];
    memmove(place + 1, place, static_cast<size_t>(editor->length - editor->cursor) + 1);
    *place = static_cast<char>(key);
    ++editor->length;
    ++editor->cursor;
    return at_end ? line_show_t::last_character : line_show_t::line;
}

line_show_t older(line_editor_t* editor, const history_t* history) {
    if (history->count == 0)
        return line_show_t::nothing;
    if (editor->browsing == NOT_BROWSING) {
        string_copy(editor->typed, editor->line, SHELL_LINE_BYTES);
        editor->browsing = history_newest(history);
    } else if (editor->browsing == history_oldest(history)) {
        return line_show_t::nothing;
    } else {
        editor->browsing = history_older(editor->browsing);
    }
    set_line(editor, history->lines[editor->browsing]);
    return line_show_t::line;
}

line_show_t newer(line_editor_t* editor, const history_t* history) {
    if (editor->browsing == NOT_BROWSING)
        return line_show_t::nothing;
    if (editor->browsing == history_newest(history)) {
        editor->browsing = NOT_BROWSING;
        set_line(editor, editor->typed);
        return line_show_t::line;
    }
    editor->browsing = history_newer(editor->browsing);
    set_line(editor, history->lines[editor->browsing]);
    return line_show_t::line;
}

line_show_t move_to(line_editor_t* editor, int cursor) {
    if (cursor < 0 || cursor > editor->length)
        return line_show_t::nothing;
    editor->cursor = cursor;
    return line_show_t::line;
}

line_show_t erase(line_editor_t* editor, int at) {
    if (at < 0 || at >= editor->length)
        return line_show_t::nothing;
    remove_at(editor, at);
    return line_show_t::line;
}

line_show_t edit(line_editor_t* editor, uint8_t key, const history_t* history) {
    if (key >= PRINTABLE_FIRST && key <= PRINTABLE_LAST)
        return insert(editor, key);
    switch (key) {
        case BACKSPACE:
            return erase(editor, editor->cursor - 1);
        case KEY_DELETE:
            return erase(editor, editor->cursor);
        case KEY_UP:
            return older(editor, history);
        case KEY_DOWN:
            return newer(editor, history);
        case KEY_LEFT:
            return move_to(editor, editor->cursor - 1);
        case KEY_RIGHT:
            return move_to(editor, editor->cursor + 1);
        case KEY_HOME:
            return move_to(editor, 0);
        case KEY_END:
            return move_to(editor, editor->length);
        case CTRL_L:
            return line_show_t::screen;
        default:
            return line_show_t::nothing;
    }
}

}  // namespace

void line_editor_start(line_editor_t* editor) {
    *editor = {};
    editor->browsing = NOT_BROWSING;
}

line_result_t line_editor_key(line_editor_t* editor, uint8_t key, const history_t* history) {
    if (key == LINE_FEED || key == CARRIAGE_RETURN)
        return {line_show_t::new_line, true};
    const int length = editor->length;
    const line_show_t show = edit(editor, key, history);
    const bool typed = key <= PRINTABLE_LAST && editor->length > length;
    return {show, typed && editor->length == LINE_LENGTH_MAX};
}
