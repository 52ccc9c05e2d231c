#include "kernel/apps/shell/line_editor.h"

#include "kernel/core/string.h"
#include "kernel/drivers/keymap.h"

namespace {

constexpr uint8_t KEY_CTRL_L = 12;
constexpr uint8_t FIRST_PRINTABLE = 32;
constexpr uint8_t LAST_PRINTABLE = 126;

int slot_before(int slot) { return (slot + HISTORY_LINES - 1) % HISTORY_LINES; }
int slot_after(int slot) { return (slot + 1) % HISTORY_LINES; }

int oldest_slot(const line_history_t* history) {
    return (history->head - history->count + HISTORY_LINES) % HISTORY_LINES;
}

line_action_t show(line_editor_t* editor, const char* text) {
    editor->length = static_cast<int>(string_copy(editor->line, text, sizeof editor->line));
    editor->cursor = editor->length;
    return line_action_t::redraw;
}

line_action_t browse_up(line_editor_t* editor, const line_history_t* history) {
    if (history->count == 0 || editor->browsing == oldest_slot(history))
        return line_action_t::none;
    if (editor->browsing == HISTORY_NONE) {
        string_copy(editor->saved, editor->line, sizeof editor->saved);
        editor->browsing = slot_before(history->head);
    } else {
        editor->browsing = slot_before(editor->browsing);
    }
    return show(editor, history->lines[editor->browsing]);
}

line_action_t browse_down(line_editor_t* editor, const line_history_t* history) {
    if (editor->browsing == HISTORY_NONE)
        return line_action_t::none;
    if (editor->browsing == slot_before(history->head)) {
        editor->browsing = HISTORY_NONE;
        return show(editor, editor->saved);
    }
    editor->browsing = slot_after(editor->browsing);
    return show(editor, history->lines[editor->browsing]);
}

line_action_t move_to(line_editor_t* editor, int cursor) {
    if (cursor >= 0 && cursor <= editor->length)
        editor->cursor = cursor;
    return line_action_t::redraw;
}

/// Removes the character at `at`.
line_action_t remove_at(line_editor_t* editor, int at) {
    if (at < 0 || at >= editor->length)
        return line_action_t::none;
    memmove(editor->line + at, editor->line + at + 1, static_cast<size_t>(editor->length - at));
    --editor->length;
    editor->cursor = at;
    return line_action_t::redraw;
}

line_action_t insert(line_editor_t* editor, char c) {
    if (editor->length >= LINE_MAX)
        return line_action_t::none;
    char* at = editor->line + editor->cursor;
    const bool appended = editor->cursor == editor->length;
    memmove(at + 1, at, static_cast<size_t>(editor->length - editor->cursor) + 1);
    *at = c;
    ++editor->length;
    ++editor->cursor;
    return appended ? line_action_t::echo : line_action_t::redraw;
}

}  // namespace

void history_add(line_history_t* history, const char* line) {
    if (line[0] == '\0')
        return;
    if (history->count > 0 && strcmp(history->lines[slot_before(history->head)], line) == 0)
        return;
    string_copy(history->lines[history->head], line, SHELL_LINE_BYTES);
    history->head = slot_after(history->head);
    if (history->count < HISTORY_LINES)
        ++history->count;
}

void line_editor_start(line_editor_t* editor) {
    editor->line[0] = '\0';
    editor->length = 0;
    editor->cursor = 0;
    editor->browsing = HISTORY_NONE;
}

line_action_t line_editor_key(line_editor_t* editor, const line_history_t* history, uint8_t key) {
    switch (key) {
        case '\n':
        case '\r':
            return line_action_t::submit;
        case '\b':
            return remove_at(editor, editor->cursor - 1);
        case KEY_DELETE:
            return remove_at(editor, editor->cursor);
        case KEY_UP:
            return browse_up(editor, history);
        case KEY_DOWN:
            return browse_down(editor, history);
        case KEY_LEFT:
            return move_to(editor, editor->cursor - 1);
        case KEY_RIGHT:
            return move_to(editor, editor->cursor + 1);
        case KEY_HOME:
            return move_to(editor, 0);
        case KEY_END:
            return move_to(editor, editor->length);
        case KEY_CTRL_L:
            return line_action_t::clear;
        default:
            if (key < FIRST_PRINTABLE || key > LAST_PRINTABLE)
                return line_action_t::none;
            return insert(editor, static_cast<char>(key));
    }
}
