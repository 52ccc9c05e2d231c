// The editor without its terminal: a text, a cursor in it, the part that the screen shows. Pure: a
// key goes in, what the screen has to show comes out row by row; edit.cpp does the rest.
//
//            left
//             |<----- columns ----->|
//      top -> +---------------------+  row 0
//             |    cursor           |
//             +---------------------+  row rows - 1
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr uint32_t EDITOR_TEXT_MAX = 65536;
constexpr int EDITOR_TAB_STOP = 8;

struct editor_t {
    int rows, columns;  ///< of the window, at least 1 and EDITOR_TAB_STOP + 1
    uint32_t length;    ///< bytes of `text`
    uint32_t cursor;    ///< 0..length
    uint32_t top;       ///< start of the line in row 0
    int left;           ///< column of the text that stands in column 0
    int aim;            ///< the column that up and down keep to
    bool modified;
    char text[EDITOR_TEXT_MAX];
};

/// What a key asks of the caller.
enum class editor_wish_t : uint8_t {
    none,  ///< at most to show what changed
    save,
    quit,
    full,  ///< to say that the text cannot grow
};

/// An empty text in a window of this size.
void editor_start(editor_t* editor, int rows, int columns);

/// Takes a key of kbpoll.h or keymap.h; unknown ones are ignored.
editor_wish_t editor_key(editor_t* editor, int key);

/// Writes what stands in `row`, filled up with blanks to `columns` characters, without a
/// terminator. Tabs become blanks, other characters that have no shape "?".
void editor_row(const editor_t* editor, int row, char* out);

/// Where the cursor stands in the window.
void editor_cursor(const editor_t* editor, int* row, int* column);

/// The cursor's line, from 1.
uint32_t editor_line(const editor_t* editor);
