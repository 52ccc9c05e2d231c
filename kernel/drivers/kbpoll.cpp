#include "kernel/drivers/kbpoll.h"

#include "kernel/core/guards.h"
#include "kernel/core/task.h"
#include "kernel/drivers/keyboard.h"
#include "kernel/drivers/keyboard_ports.h"

namespace {

constexpr int NO_KEY = -1;
constexpr int WAIT_POLLS = 50000;  // a few milliseconds
constexpr int EMPTY_POLLS = 1000;  // before others get the processor for a tick
constexpr uint8_t ESC = 27;

struct kbpoll_t {
    bool kbp_shift_held;
    bool kbp_ctrl_held;
};

kbpoll_t state;

/// The next serial byte, if it comes soon; else -1.
int serial_wait_brief() {
    for (int i = 0; i < WAIT_POLLS; ++i) {
        if (serial_has_byte())
            return inb(SERIAL_DATA);
    }
    return NO_KEY;
}

int escape_key() {
    if (serial_wait_brief() != '[')
        return KBPOLL_ESCAPE;
    switch (serial_wait_brief()) {
        case 'A':
            return KEY_UP;
        case 'B':
            return KEY_DOWN;
        case 'C':
            return KEY_RIGHT;
        case 'D':
            return KEY_LEFT;
        case '3':
            serial_wait_brief();  // the "~"
            return KEY_DELETE;
        default:
            return KBPOLL_ESCAPE;
    }
}

int serial_key(uint8_t byte) {
    if (byte >= ' ' && byte < 127)
        return byte;
    switch (byte) {
        case 7:
            return KBPOLL_CTRL_G;
        case 8:
            return KBPOLL_CTRL_H;
        case 9:
        case 10:
            return byte;
        case 13:
            return '\n';
        case 17:
            return KBPOLL_CTRL_Q;
        case 19:
            return KBPOLL_CTRL_S;
        case 25:
            return KBPOLL_CTRL_Y;
        case 26:
            return KBPOLL_CTRL_Z;
        case ESC:
            return escape_key();
        case 127:
            return '\b';
        default:
            return NO_KEY;
    }
}

int extended_key(uint8_t make) {
    switch (const uint8_t key = keymap_extended(make)) {
        case KEY_UP:
        case KEY_DOWN:
        case KEY_LEFT:
        case KEY_RIGHT:
        case KEY_DELETE:
            return key;
        default:
            return NO_KEY;
    }
}

int ctrl_key(uint8_t make) {
    switch (make) {
        case 0x10:
            return KBPOLL_CTRL_Q;
        case 0x15:
            return KBPOLL_CTRL_Y;
        case 0x1F:
            return KBPOLL_CTRL_S;
        case 0x22:
            return KBPOLL_CTRL_G;
        case 0x23:
            return KBPOLL_CTRL_H;
        case 0x2C:
            return KBPOLL_CTRL_Z;
        default:
            return NO_KEY;
    }
}

/// Follows Shift and Ctrl; false for any other scancode.
bool take_modifier(uint8_t scancode) {
    const bool held = (scancode & SCANCODE_RELEASE) == 0;
    switch (scancode & ~SCANCODE_RELEASE) {
        case SCANCODE_LEFT_SHIFT:
        case SCANCODE_RIGHT_SHIFT:
            state.kbp_shift_held = held;
            return true;
        case SCANCODE_CTRL:
            state.kbp_ctrl_held = held;
            return true;
        default:
            return false;
    }
}

int plain_key(uint8_t scancode) {
    if (take_modifier(scancode) || (scancode & SCANCODE_RELEASE) != 0)
        return NO_KEY;
    if (state.kbp_ctrl_held)
        return ctrl_key(scancode);
    if (scancode == SCANCODE_ESCAPE)
        return KBPOLL_ESCAPE;
    const char c = state.kbp_shift_held ? scancode_shift[scancode] : scancode_normal[scancode];
    return c != '\0' ? c : NO_KEY;
}

/// A scancode with its prefix, taken from the controller as one.
struct scancode_t {
    bool extended;
    int code;  ///< -1: none
};

scancode_t read_scancode() {
    irq_guard guard;
    if (!kbc_has_byte())
        return {false, NO_KEY};
    const uint8_t first = inb(KBC_DATA);
    keyboard_watch(first);
    if (first != SCANCODE_EXTENDED)
        return {false, first};
    for (int i = 0; i < WAIT_POLLS; ++i) {
        if (!kbc_has_byte())
            continue;
        const uint8_t code = inb(KBC_DATA);
        keyboard_watch(code);
        return {true, code};
    }
    return {true, NO_KEY};
}

}  // namespace

void kbpoll_begin(void) {
    state = {};
    keyboard_leave_to_poll(true);
    outb(SERIAL_INTERRUPTS, 0);
}

void kbpoll_end(void) {
    keyboard_leave_to_poll(false);
    outb(SERIAL_INTERRUPTS, SERIAL_RECEIVE_INTERRUPT);
}

int kbpoll_poll(void) {
    if (serial_has_byte()) {
        const int key = serial_key(inb(SERIAL_DATA));
        if (key != NO_KEY)
            return key;
    }
    const scancode_t scancode = read_scancode();
    if (scancode.code == NO_KEY)
        return NO_KEY;
    const auto code = static_cast<uint8_t>(scancode.code);
    return scancode.extended ? extended_key(code) : plain_key(code);
}

int kbpoll_getchar(void) {
    for (int empty = 1;; ++empty) {
        const int key = kbpoll_poll();
        if (key != NO_KEY)
            return key;
        if (empty % EMPTY_POLLS == 0)
            task_sleep(1);
    }
}
