// What a key means: the codes of the keys that have no character, the US tables of scancode set 1,
// and the translation of a scancode stream into key codes. Pure: state and scancode in, result out.
#pragma once

#include <stdint.h>

#include <array>

// Key codes beyond the characters 1..127.
constexpr uint8_t KEY_UP = 0x80;
constexpr uint8_t KEY_DOWN = 0x81;
constexpr uint8_t KEY_LEFT = 0x82;
constexpr uint8_t KEY_RIGHT = 0x83;
constexpr uint8_t KEY_HOME = 0x84;
constexpr uint8_t KEY_END = 0x85;
constexpr uint8_t KEY_DELETE = 0x86;
constexpr uint8_t KEY_PAGE_UP = 0x87;
constexpr uint8_t KEY_PAGE_DOWN = 0x88;

// Scancodes of set 1 with a meaning of their own; a release is the make code with bit 7 set.
constexpr uint8_t SCANCODE_EXTENDED = 0xE0;  ///< prefix
constexpr uint8_t SCANCODE_RELEASE = 0x80;   ///< bit
constexpr uint8_t SCANCODE_ESCAPE = 0x01;
constexpr uint8_t SCANCODE_CTRL = 0x1D;
constexpr uint8_t SCANCODE_LEFT_SHIFT = 0x2A;
constexpr uint8_t SCANCODE_RIGHT_SHIFT = 0x36;
constexpr uint8_t SCANCODE_CAPS_LOCK = 0x3A;
constexpr uint8_t SCANCODE_NUM_LOCK = 0x45;
constexpr uint8_t SCANCODE_SCROLL_LOCK = 0x46;

/// Characters by make code; 0: none.
using keymap_table_t = std::array<char, 128>;
extern const keymap_table_t scancode_normal;
extern const keymap_table_t scancode_shift;

/// The key code of the key whose make code follows SCANCODE_EXTENDED; 0: none.
uint8_t keymap_extended(uint8_t make);

/// Modifiers and prefix of one scancode stream; all clear at the start.
struct keymap_t {
    bool shift_held;
    bool ctrl_held;
    bool caps_on;
    bool e0_prefix;
};

/// What a scancode amounts to.
struct keymap_result_t {
    uint8_t code;   ///< the key code; 0: none
    bool extended;  ///< it came after the prefix
};

/// Takes one scancode. Ctrl with a letter gives its control code (1..26), unless Shift is held
/// without Caps Lock; Caps Lock turns the case of letters over.
keymap_result_t keymap_step(keymap_t* state, uint8_t scancode);
