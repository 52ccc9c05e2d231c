#include "kernel/drivers/serial_keys.h"

#include "kernel/drivers/keymap.h"

namespace {

constexpr uint8_t NUL = 0;
constexpr uint8_t BACKSPACE = 8;
constexpr uint8_t LINE_FEED = 10;
constexpr uint8_t CARRIAGE_RETURN = 13;
constexpr uint8_t ESC = 27;
constexpr uint8_t DEL = 127;

uint8_t plain_key(uint8_t byte) {
    switch (byte) {
        case CARRIAGE_RETURN:
            return LINE_FEED;
        case DEL:
            return BACKSPACE;
        default:
            return byte;  // NUL says "none" by itself
    }
}

uint8_t final_key(uint8_t byte) {
    switch (byte) {
        case 'A':
            return KEY_UP;
        case 'B':
            return KEY_DOWN;
        case 'C':
            return KEY_RIGHT;
        case 'D':
            return KEY_LEFT;
        case 'H':
            return KEY_HOME;
        case 'F':
            return KEY_END;
        case '3':
            return KEY_DELETE;
        default:
            return NUL;
    }
}

}  // namespace

uint8_t serial_keys_step(serial_keys_t* state, uint8_t byte) {
    const serial_keys_t before = *state;
    *state = serial_keys_t::idle;
    if (before == serial_keys_t::bracket) {
        if (byte == '3')
            *state = serial_keys_t::tilde;
        return final_key(byte);
    }
    if (before == serial_keys_t::escape) {
        if (byte != '[')
            return plain_key(byte);
        *state = serial_keys_t::bracket;
        return NUL;
    }
    if (before == serial_keys_t::tilde && byte == '~')
        return NUL;
    if (byte != ESC)
        return plain_key(byte);
    *state = serial_keys_t::escape;
    return NUL;
}
