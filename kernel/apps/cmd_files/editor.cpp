#include "kernel/apps/cmd_files/editor.h"

#include <algorithm>

#include "kernel/core/string.h"
#include "kernel/drivers/kbpoll.h"

namespace {

uint32_t line_start(const editor_t& editor, uint32_t at) {
    while (at > 0 && editor.text[at - 1] != '\n')
        --at;
    return at;
}

uint32_t line_end(const editor_t& editor, uint32_t at) {
    while (at < editor.length && editor.text[at] != '\n')
        ++at;
    return at;
}

/// The start of the line above the one that starts at `start`; itself in the first line.
uint32_t line_above(const editor_t& editor, uint32_t start) {
    return start == 0 ? 0 : line_start(editor, start - 1);
}

int next_column(int column, char c) {
    return c == '\t' ? (column / EDITOR_TAB_STOP + 1) * EDITOR_TAB_STOP : column + 1;
}

int column_of(const editor_t& editor, uint32_t at) {
    int column = 0;
    for (uint32_t i = line_start(editor, at); i < at; ++i)
        column = next_column(column, editor.text[i]);
    return column;
}

/// The place in the line from `start` that is nearest to `column` from the left.
uint32_t place_at(const editor_t& editor, uint32_t start, int column) {
    uint32_t at = start;
    int reached = 0;
    while (at < editor.length && editor.text[at] != '\n') {
        reached = next_column(reached, editor.text[at]);
        if (reached > column)
            break;
        ++at;
    }
    return at;
}

void move_lines(editor_t* editor, int lines) {
    uint32_t start = line_start(*editor, editor->cursor);
    for (; lines < 0; ++lines)
        start = line_above(*editor, start);
    for (; lines > 0; --lines) {
        const uint32_t end = line_end(*editor, start);
        if (end == editor->length)
            break;
        start = end + 1;
    }
    editor->cursor = place_at(*editor, start, editor->aim);
}

void remove(editor_t* editor, uint32_t from, uint32_t to) {
    if (from == to)
        return;
    memmove(editor->text + from, editor->text + to, editor->length - to);
    editor->length -= to - from;
    editor->cursor = from;
    editor->modified = true;
}

void remove_line(editor_t* editor) {
    const uint32_t end = line_end(*editor, editor->cursor);
    remove(editor, line_start(*editor, editor->cursor), std::min(end + 1, editor->length));
}

bool insert(editor_t* editor, char c) {
    if (editor->length == EDITOR_TEXT_MAX)
        return false;
    char* place = editor->text + editor->cursor;
    memmove(place + 1, place, editor->length - editor->cursor);
    *place = c;
    ++editor->length;
    ++editor->cursor;
    editor->modified = true;
    return true;
}

/// Lines from `top` down to the cursor's.
int rows_down(const editor_t& editor) {
    return static_cast<int>(
        std::count(editor.text + editor.top, editor.text + editor.cursor, '\n'));
}

void follow_cursor(editor_t* editor) {
    editor->top = line_start(*editor, std::min(editor->top, editor->cursor));
    for (int hidden = rows_down(*editor) - editor->rows + 1; hidden > 0; --hidden)
        editor->top = line_end(*editor, editor->top) + 1;
    const int column = column_of(*editor, editor->cursor);
    if (column < editor->left || column >= editor->left + editor->columns)
        editor->left = std::max(0, column - editor->columns + EDITOR_TAB_STOP);
}

/// Keys that only move the cursor; false for any other.
bool take_move(editor_t* editor, int key) {
    switch (key) {
        case KEY_UP:
            move_lines(editor, -1);
            return true;
        case KEY_DOWN:
            move_lines(editor, 1);
            return true;
        case KEY_PAGE_UP:
            move_lines(editor, -editor->rows);
            return true;
        case KEY_PAGE_DOWN:
            move_lines(editor, editor->rows);
            return true;
        case KEY_LEFT:
            editor->cursor -= editor->cursor > 0;
            break;
        case KEY_RIGHT:
            editor->cursor += editor->cursor < editor->length;
            break;
        case KEY_HOME:
            editor->cursor = line_start(*editor, editor->cursor);
            break;
        case KEY_END:
            editor->cursor = line_end(*editor, editor->cursor);
            break;
        default:
            return false;
    }
    editor->aim = column_of(*editor, editor->cursor);
    return true;
}

editor_wish_t take_change(editor_t* editor, int key) {
    switch (key) {
        case KBPOLL_CTRL_S:
            return editor_wish_t::save;
        case KBPOLL_CTRL_Q:
            return editor_wish_t::quit;
        case KBPOLL_CTRL_Y:
            remove_line(editor);
            return editor_wish_t::none;
        case '\b':
        case KBPOLL_CTRL_H:  // what some terminals send for Backspace
            remove(editor, editor->cursor - (editor->cursor > 0), editor->cursor);
            return editor_wish_t::none;
        case KEY_DELETE:
            remove(editor, editor->cursor, std::min(editor->cursor + 1, editor->length));
            return editor_wish_t::none;
        default:
            break;
    }
    if (key != '\n' && key != '\t' && (key < ' ' || key > '~'))
        return editor_wish_t::none;
    return insert(editor, static_cast<char>(key)) ? editor_wish_t::none : editor_wish_t::full;
}

}  // namespace

void editor_start(editor_t* editor, int rows, int columns) {
    memset(editor, 0, offsetof(editor_t, text));
    editor->rows = rows;
    editor->columns = columns;
}

editor_wish_t editor_key(editor_t* editor, int key) {
    editor_wish_t wish = editor_wish_t::none;
    if (!take_move(editor, key)) {
        wish = take_change(editor, key);
        editor->aim = column_of(*editor, editor->cursor);
    }
    follow_cursor(editor);
    return wish;
}

void editor_row(const editor_t* editor, int row, char* out) {
    memset(out, ' ', static_cast<size_t>(editor->columns));
    uint32_t at = editor->top;
    for (; row > 0; --row) {
        at = line_end(*editor, at);
        if (at == editor->length)
            return;
        ++at;
    }
    const int right = editor->left + editor->columns;
    for (int column = 0; at < editor->length && editor->text[at] != '\n' && column < right; ++at) {
        const char c = editor->text[at];
        if (c != '\t' && column >= editor->left)
            out[column - editor->left] = c >= ' ' && c <= '~' ? c : '?';
        column = next_column(column, c);
    }
}

void editor_cursor(const editor_t* editor, int* row, int* column) {
    *row = rows_down(*editor);
    *column = column_of(*editor, editor->cursor) - editor->left;
}

uint32_t editor_line(const editor_t* editor) {
    return static_cast<uint32_t>(std::count(editor->text, editor->text + editor->cursor, '\n')) + 1;
}
