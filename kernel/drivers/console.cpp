#include "kernel/drivers/console.h"

#include <stdarg.h>

#include <algorithm>

#include "arch/x86/cpu.h"
#include "arch/x86/hal.h"
#include "arch/x86/ports.h"
#include "arch/x86/vga.h"
#include "kernel/core/assert.h"
#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int TAB_STOP = 8;
constexpr int LAST_ROW = VGA_ROWS - 1;
constexpr size_t SEQUENCE_BYTES = 32;
constexpr size_t NOTICE_BYTES = 64;

// The cursor's registers of the VGA controller: an index port, then a data port.
constexpr uint16_t CRTC_INDEX = 0x3D4;
constexpr uint16_t CRTC_DATA = 0x3D5;
constexpr uint8_t CURSOR_LOW = 0x0F;
constexpr uint8_t CURSOR_HIGH = 0x0E;

// ANSI numbers of the VGA colours, whose red and blue bits are swapped; bit 3 means bright.
constexpr uint8_t VGA_TO_ANSI[16] = {0, 4, 2, 6, 1, 5, 3, 7, 0, 4, 2, 6, 1, 5, 3, 7};
constexpr int ANSI_FOREGROUND = 30;
constexpr int ANSI_BACKGROUND = 40;
constexpr int ANSI_BRIGHT = 60;

/// The console alone writes the text screen, so `cells` always holds what the screen's memory does:
/// device memory is slow, and slower to read than to write.
struct screen_t {
    int x;  ///< the cursor's column and row; anything, after console_set_cursor
    int y;
    uint8_t color;                  ///< background in the high nibble, foreground in the low one
    uint32_t cells[VGA_CELLS / 2];  ///< two cells a word
};

struct capture_t {
    char* buf;  ///< null: no capture
    int pos;
    int max;  ///< bytes of text that fit
    bool truncated;
};

screen_t screen GUARDED_BY(irq_mask);
capture_t capture GUARDED_BY(irq_mask);

constexpr int CURSOR_UNKNOWN = -1;
/// The high byte that the cursor's register holds; unknown until it is written.
int cursor_high GUARDED_BY(irq_mask) = CURSOR_UNKNOWN;
console_session_hook_fn session_hook;

/// A word of two blanks in the present colour.
uint32_t blanks_locked() REQUIRES(irq_mask) {
    const uint32_t blank = static_cast<uint32_t>(screen.color) << 8 | ' ';
    return blank << 16 | blank;
}

void put_cell_locked(char c) REQUIRES(irq_mask) {
    if (screen.x < 0 || screen.x >= VGA_COLUMNS || screen.y < 0 || screen.y >= VGA_ROWS)
        return;
    const int at = screen.y * VGA_COLUMNS + screen.x;
    const auto cell = static_cast<uint16_t>(screen.color << 8 | static_cast<uint8_t>(c));
    __builtin_memcpy(reinterpret_cast<uint8_t*>(screen.cells) + 2 * at, &cell, sizeof cell);
    vga_text()[at] = cell;
}

void new_line_locked() REQUIRES(irq_mask) {
    screen.x = 0;
    if (screen.y <= LAST_ROW)
        ++screen.y;
}

/// Moves every row up by one and blanks the last one; writes only the cells that change.
void scroll_locked() REQUIRES(irq_mask) {
    constexpr size_t WORDS = VGA_CELLS / 2;
    constexpr size_t ROW = VGA_COLUMNS / 2;
    const uint32_t blanks = blanks_locked();
    for (size_t i = 0; i < WORDS; ++i) {
        const uint32_t next = i + ROW < WORDS ? screen.cells[i + ROW] : blanks;
        if (screen.cells[i] == next)
            continue;
        screen.cells[i] = next;
        cpu_copy_words(vga_text() + 2 * i, &screen.cells[i], 1);
    }
    screen.y = LAST_ROW;
}

/// The high byte, which seldom changes, goes first: the index port then rests on the low byte, and
/// most characters cost one port write.
void move_hardware_cursor_locked() REQUIRES(irq_mask) {
    const uint32_t position =
        static_cast<uint32_t>(screen.y) * VGA_COLUMNS + static_cast<uint32_t>(screen.x);
    const int high = static_cast<uint8_t>(position >> 8);
    if (high != cursor_high) {
        cursor_high = high;
        outb(CRTC_INDEX, CURSOR_HIGH);
        outb(CRTC_DATA, static_cast<uint8_t>(high));
        outb(CRTC_INDEX, CURSOR_LOW);
    }
    outb(CRTC_DATA, static_cast<uint8_t>(position));
}

void show_on_screen(char c) {
    irq_guard guard;
    switch (c) {
        case '\b':
            if (screen.x >= 1) {
                --screen.x;
                put_cell_locked(' ');
            }
            break;
        case '\t':
            if (screen.x >= VGA_COLUMNS - TAB_STOP)
                new_line_locked();
            else
                screen.x = (screen.x + TAB_STOP) & ~(TAB_STOP - 1);
            break;
        case '\n':
            new_line_locked();
            break;
        case '\r':
            screen.x = 0;
            break;
        default:
            put_cell_locked(c);
            if (screen.x >= VGA_COLUMNS - 1)
                new_line_locked();
            else
                ++screen.x;
    }
    if (screen.y > LAST_ROW)
        scroll_locked();
}

/// A glance without the guard, for the common case; put_in_capture looks again.
bool capture_is_on() NO_THREAD_SAFETY_ANALYSIS {
    return __atomic_load_n(&capture.buf, __ATOMIC_RELAXED) != nullptr;
}

bool put_in_capture(char c) {
    if (!capture_is_on())
        return false;
    irq_guard guard;
    if (capture.buf == nullptr)
        return false;
    if (capture.pos < capture.max)
        capture.buf[capture.pos++] = c;
    else
        capture.truncated = true;
    return true;
}

/// Ends the capture; its buffer is then the caller's alone.
capture_t take_capture() {
    irq_guard guard;
    const capture_t taken = capture;
    capture = {};
    return taken;
}

bool find_session(console_session_t* out) {
    const console_session_hook_fn hook = session_hook;
    return hook != nullptr && hook(out);
}

/// Formats a control sequence and sends it to the running task's session, if it has one.
void send_to_session(const char* fmt, ...) VORN_PRINTF(1, 2);

void send_to_session(const char* fmt, ...) {
    console_session_t session;
    if (!find_session(&session))
        return;
    char sequence[SEQUENCE_BYTES];
    va_list args;
    va_start(args, fmt);
    const int length = kvsnprintf(sequence, sizeof sequence, fmt, args);
    va_end(args);
    session.write(reinterpret_cast<const uint8_t*>(sequence), static_cast<uint32_t>(length),
                  session.ctx);
}

/// Writes one character; true when it went to the screen, whose hardware cursor then lags behind.
bool put_character(char c) {
    if (put_in_capture(c))
        return false;
    console_session_t session;
    if (find_session(&session)) {
        session.write(reinterpret_cast<const uint8_t*>(&c), 1, session.ctx);
        return false;
    }
    if (c == '\n')
        hal_serial_putc('\r');
    hal_serial_putc(c);
    show_on_screen(c);
    return true;
}

void move_hardware_cursor() {
    irq_guard guard;
    move_hardware_cursor_locked();
}

int ansi_color(uint8_t color, int base) {
    constexpr uint8_t BRIGHT = 8;
    return base + ((color & BRIGHT) != 0 ? ANSI_BRIGHT : 0) + VGA_TO_ANSI[color & 15];
}

}  // namespace

void console_init(void) {
    {
        irq_guard guard;
        screen.color = CONSOLE_GREY;
        capture = {};
        session_hook = nullptr;
    }
    hal_serial_setup();
    console_clear();
    kprintf_set_console(console_write);
    kassert_set_output_hook(console_force_local);
}

void console_set_session_hook(console_session_hook_fn hook) { session_hook = hook; }

void console_force_local(void) {
    (void)take_capture();
    session_hook = nullptr;
}

void console_clear(void) {
    send_to_session("\033[2J\033[H");
    irq_guard guard;
    cpu_fill_words(screen.cells, blanks_locked(), VGA_CELLS / 2);
    cpu_fill_words(vga_text(), blanks_locked(), VGA_CELLS / 2);
    screen.x = 0;
    screen.y = 0;
    cursor_high = CURSOR_UNKNOWN;
    move_hardware_cursor_locked();
}

void console_set_color(uint8_t fg, uint8_t bg) {
    {
        irq_guard guard;
        screen.color = static_cast<uint8_t>(bg << 4 | (fg & 15));
    }
    send_to_session("\033[%d;%dm", ansi_color(fg, ANSI_FOREGROUND),
                    ansi_color(bg, ANSI_BACKGROUND));
}

void console_set_cursor(int row, int col) {
    {
        irq_guard guard;
        screen.x = col;
        screen.y = row;
        move_hardware_cursor_locked();
    }
    const auto from_one = [](int n) { return static_cast<int>(static_cast<unsigned>(n) + 1); };
    send_to_session("\033[%d;%dH", from_one(row), from_one(col));
}

void console_putchar(char c) {
    if (put_character(c))
        move_hardware_cursor();
}

void console_write(const char* text) {
    bool shown = false;
    for (; *text != '\0'; ++text)
        shown |= put_character(*text);
    if (shown)
        move_hardware_cursor();
}

void console_write_len(const uint8_t* bytes, size_t len) {
    bool shown = false;
    for (size_t i = 0; i < len; ++i)
        shown |= put_character(static_cast<char>(bytes[i]));
    if (shown)
        move_hardware_cursor();
}

void console_start_capture(char* buf, int max) {
    irq_guard guard;
    capture = {buf, 0, std::max(max, 1) - 1, false};
}

int console_stop_capture(void) {
    const capture_t taken = take_capture();
    if (taken.buf == nullptr)
        return taken.pos;
    if (!taken.truncated || taken.max == 0) {
        taken.buf[taken.pos] = '\0';
        return taken.pos;
    }
    char notice[NOTICE_BYTES];
    const int length =
        ksnprintf(notice, sizeof notice, "\n[...output truncated at %d bytes...]\n", taken.max);
    const int shown = std::min(length, taken.max);
    memcpy(taken.buf + taken.max - shown, notice, static_cast<size_t>(shown));
    taken.buf[taken.max] = '\0';
    return taken.max;
}

bool console_is_captured(void) { return capture_is_on(); }

void console_write_serial(const char* text) {
    console_session_t session;
    if (capture_is_on() || find_session(&session))
        return;
    for (; *text != '\0'; ++text)
        hal_serial_putc(*text);
}
