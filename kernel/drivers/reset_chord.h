// Ctrl+Alt+Del in a stream of set 1 scancodes. Pure: state and scancode in, result out.
#pragma once

#include "kernel/drivers/keymap.h"

/// The keys held, those of the left and of the right apart; all clear at the start.
struct reset_chord_t {
    uint8_t ctrl, alt;  ///< bit 0 the left one, bit 1 the right one
    bool e0_prefix;
};

/// Takes one scancode; true when it is the press of Del (or of the keypad's) with a Ctrl and an Alt
/// held.
inline bool reset_chord_step(reset_chord_t* state, uint8_t scancode) {
    constexpr uint8_t ALT = 0x38;
    constexpr uint8_t DELETE = 0x53;
    const bool extended = state->e0_prefix;
    state->e0_prefix = scancode == SCANCODE_EXTENDED;
    if (state->e0_prefix)
        return false;
    const bool held = (scancode & SCANCODE_RELEASE) == 0;
    const uint8_t make = scancode & ~SCANCODE_RELEASE;
    const uint8_t side = extended ? 2 : 1;
    if (make == SCANCODE_CTRL)
        state->ctrl = static_cast<uint8_t>(held ? state->ctrl | side : state->ctrl & ~side);
    if (make == ALT)
        state->alt = static_cast<uint8_t>(held ? state->alt | side : state->alt & ~side);
    return make == DELETE && held && state->ctrl != 0 && state->alt != 0;
}
