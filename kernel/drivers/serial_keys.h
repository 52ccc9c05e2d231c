// The key codes in a serial terminal's byte stream: escape sequences of the cursor keys, and the
// control bytes that terminals send for Enter and Backspace. Pure: state and byte in, code out.
#pragma once

#include <stdint.h>

/// Where the parser stands.
enum class serial_keys_t : uint8_t {
    idle,
    escape,   ///< after ESC
    bracket,  ///< after ESC [
    tilde,    ///< after ESC [ 3, whose "~" may still come
};

/// Takes one byte. Returns the key code that it completes, or 0. ESC [ and one of A B C D H F 3
/// give cursor keys, Home, End and Delete, any other such byte nothing; ESC before another byte
/// is lost. Carriage return gives line feed, DEL backspace, NUL nothing.
uint8_t serial_keys_step(serial_keys_t* state, uint8_t byte);
