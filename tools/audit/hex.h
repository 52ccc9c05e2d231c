// Keys and roots as hexadecimal text.
#pragma once

#include <stdint.h>

#include <array>
#include <cctype>
#include <string>

/// Lower-case digits.
inline std::string to_hex(const std::array<uint8_t, 32>& bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

/// Reads exactly 64 digits of either case; false otherwise.
inline bool parse_hex32(const std::string& text, std::array<uint8_t, 32>* out) {
    if (text.size() != 2 * out->size())
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const int digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0 ? text[i] - '0'
                          : std::isxdigit(static_cast<unsigned char>(text[i])) != 0
                              ? (text[i] | 0x20) - 'a' + 10
                              : -1;
        if (digit < 0)
            return false;
        (*out)[i / 2] = static_cast<uint8_t>((*out)[i / 2] << 4 | digit);
    }
    return true;
}
