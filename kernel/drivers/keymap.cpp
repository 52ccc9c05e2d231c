#include "kernel/drivers/keymap.h"

#include <stddef.h>

#include <iterator>

namespace {

constexpr uint8_t CONTROL_OFFSET = 0x60;  // from a lower-case letter to its control code
constexpr uint8_t CASE_BIT = 0x20;

/// A run of keys with neighbouring make codes.
struct key_row_t {
    uint8_t first;
    const char* characters;
};

constexpr keymap_table_t table_of(const key_row_t* rows, size_t count) {
    keymap_table_t table = {};
    for (size_t i = 0; i < count; ++i) {
        for (size_t key = 0; rows[i].characters[key] != '\0'; ++key)
            table[rows[i].first + key] = rows[i].characters[key];
    }
    return table;
}

constexpr key_row_t NORMAL_ROWS[] = {
    {0x01,
     "\x1b"
     "1234567890-=\b\tqwertyuiop[]\n"},
    {0x1E, "asdfghjkl;'`"},
    {0x2B, "\\zxcvbnm,./"},
    {0x37, "*"},
    {0x39, " "},
};

constexpr key_row_t SHIFT_ROWS[] = {
    {0x01, "\x1b!@#$%^&*()_+\b\tQWERTYUIOP{}\n"},
    {0x1E, "ASDFGHJKL:\"~"},
    {0x2B, "|ZXCVBNM<>?"},
    {0x37, "*"},
    {0x39, " "},
};

constexpr bool is_letter(char c) {
    const int lower = c | CASE_BIT;
    return lower >= 'a' && lower <= 'z';
}

/// The key code of a plain make code.
uint8_t character_of(const keymap_t& state, uint8_t make) {
    const char c = state.shift_held ? scancode_shift[make] : scancode_normal[make];
    if (!is_letter(c))
        return static_cast<uint8_t>(c);
    if (state.ctrl_held && (state.caps_on || !state.shift_held))
        return static_cast<uint8_t>((c | CASE_BIT) - CONTROL_OFFSET);
    return static_cast<uint8_t>(state.caps_on ? c ^ CASE_BIT : c);
}

void release(keymap_t* state, uint8_t make) {
    if (make == SCANCODE_LEFT_SHIFT || make == SCANCODE_RIGHT_SHIFT)
        state->shift_held = false;
    if (make == SCANCODE_CTRL)
        state->ctrl_held = false;
}

}  // namespace

constinit const keymap_table_t scancode_normal = table_of(NORMAL_ROWS, std::size(NORMAL_ROWS));
constinit const keymap_table_t scancode_shift = table_of(SHIFT_ROWS, std::size(SHIFT_ROWS));

uint8_t keymap_extended(uint8_t make) {
    switch (make) {
        case 0x47:
            return KEY_HOME;
        case 0x48:
            return KEY_UP;
        case 0x49:
            return KEY_PAGE_UP;
        case 0x4B:
            return KEY_LEFT;
        case 0x4D:
            return KEY_RIGHT;
        case 0x4F:
            return KEY_END;
        case 0x50:
            return KEY_DOWN;
        case 0x51:
            return KEY_PAGE_DOWN;
        case 0x53:
            return KEY_DELETE;
        default:
            return 0;
    }
}

keymap_result_t keymap_step(keymap_t* state, uint8_t scancode) {
    if (scancode == SCANCODE_EXTENDED) {
        state->e0_prefix = true;
        return {};
    }
    const bool extended = state->e0_prefix;
    state->e0_prefix = false;
    if ((scancode & SCANCODE_RELEASE) != 0) {
        if (!extended)
            release(state, scancode & ~SCANCODE_RELEASE);
        return {};
    }
    if (extended)
        return {keymap_extended(scancode), true};
    switch (scancode) {
        case SCANCODE_CTRL:
            state->ctrl_held = true;
            return {};
        case SCANCODE_LEFT_SHIFT:
        case SCANCODE_RIGHT_SHIFT:
            state->shift_held = true;
            return {};
        case SCANCODE_CAPS_LOCK:
            state->caps_on = !state->caps_on;
            return {};
        case SCANCODE_NUM_LOCK:
        case SCANCODE_SCROLL_LOCK:
            return {};
        default:
            return {character_of(*state, scancode), false};
    }
}
