// The console: the single sink of characters. A character goes to exactly one of three places: the
// capture buffer while a capture is on, else the session of the running task (a remote shell), else
// the local machine, which is the first serial line and the 80x25 VGA text screen together.
//
// The choice is made anew for each character, and cursor, screen and capture change under an
// irq_guard that spans one character, so that the state stays whole wherever the tick preempts a
// task; texts of several tasks may mix. The wait for the serial transmitter has interrupts as the
// caller has them. Text written here does not reach the kernel log; what kprintf prints does.
#pragma once

#include <stddef.h>
#include <stdint.h>

/// VGA colours, for foreground and background.
enum console_color_t : uint8_t {
    CONSOLE_BLACK,
    CONSOLE_BLUE,
    CONSOLE_GREEN,
    CONSOLE_CYAN,
    CONSOLE_RED,
    CONSOLE_MAGENTA,
    CONSOLE_BROWN,
    CONSOLE_GREY,
    CONSOLE_DARK_GREY,
    CONSOLE_BRIGHT_BLUE,
    CONSOLE_BRIGHT_GREEN,
    CONSOLE_BRIGHT_CYAN,
    CONSOLE_BRIGHT_RED,
    CONSOLE_BRIGHT_MAGENTA,
    CONSOLE_YELLOW,
    CONSOLE_WHITE,
};

/// Where a remote task's output goes: `write` takes bytes, their number and `ctx`.
struct console_session_t {
    int (*write)(const uint8_t* bytes, uint32_t len, void* ctx);
    void* ctx;
};

/// Fills `*out` and returns true when the running task's output goes to a session. Any context.
using console_session_hook_fn = bool (*)(console_session_t* out);

/// Sets grey on black, programs COM1 without its receive interrupt, clears the screen, forgets
/// capture and session hook, and becomes kprintf's console. Start-up, before anything prints.
void console_init(void);

/// Installs the question which session the running task writes to (null: none ever does).
void console_set_session_hook(console_session_hook_fn hook);

/// Ends any capture without its text and sends all output to the local machine for good: what a
/// machine that is about to stop calls first. Any context.
void console_force_local(void);

/// Blanks the screen in the present colour and homes the cursor; a session also gets "\e[2J\e[H".
void console_clear(void);

/// Sets the colour of what follows (0..15 each); a session also gets the ANSI colours.
void console_set_color(uint8_t fg, uint8_t bg);

/// Moves the cursor to `row` and `col`, counted from 0; a session also gets the ANSI move. There is
/// no range check: what is written outside the screen is not shown until the next scroll or wrap.
void console_set_cursor(int row, int col);

/// Writes one character. On the local machine backspace, tab (stops of 8 columns), line feed and
/// carriage return move the cursor, any other byte is shown as its code-page glyph; the serial line
/// gets every byte raw, and a carriage return before each line feed. Any context, unless the
/// running task's session waits.
void console_putchar(char c);

/// console_putchar for each byte before the terminator.
void console_write(const char* text);

/// console_putchar for exactly `len` bytes, zero bytes included.
void console_write_len(const uint8_t* bytes, size_t len);

/// Sends all output into `buf` of `max` bytes from now on, at most max - 1 of them text (a `max`
/// below 1 counts as 1: `buf` holds the terminator at least). There is one capture, for all tasks:
/// a second start replaces the first.
void console_start_capture(char* buf, int max);

/// Ends the capture, terminates its text and returns the text's length; 0 without a capture. A text
/// that was cut ends with "\n[...output truncated at %d bytes...]\n" over its last bytes.
int console_stop_capture(void);

/// Whether a capture is on: what is written is not seen, so nobody can answer it. Any context.
bool console_is_captured(void);

/// Writes to the serial line alone, raw: control sequences for the terminal there, which the screen
/// does not know. Nothing happens while a capture is on or for a task with a session.
void console_write_serial(const char* text);
