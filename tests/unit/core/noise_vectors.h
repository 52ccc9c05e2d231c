// What the tests of the primitives share: hexadecimal, and the inputs that noise_answers.py makes
// too. An answer "over" many outputs is the BLAKE2s-256 of all of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kernel/core/noise.h"

using bytes_t = std::vector<uint8_t>;

inline std::string hex(const uint8_t* bytes, size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < length; ++i)
        text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return text;
}

inline std::string hex(const bytes_t& bytes) { return hex(bytes.data(), bytes.size()); }

inline bytes_t unhex(const std::string& text) {
    bytes_t bytes;
    for (size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

inline bytes_t pattern(uint32_t seed, uint32_t length) {
    bytes_t bytes(length);
    for (uint32_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(seed * 31 + i * (2 * seed + 7) + (i >> 8));
    return bytes;
}

/// The answer that stands for many outputs.
inline std::string over(const bytes_t& outputs) {
    bytes_t out(BLAKE2S_BYTES);
    blake2s(out.data(), outputs.data(), static_cast<uint32_t>(outputs.size()));
    return hex(out);
}

inline void append(bytes_t& to, const bytes_t& more) {
    to.insert(to.end(), more.begin(), more.end());
}

inline bytes_t blake2s_of(const bytes_t& in) {
    bytes_t out(BLAKE2S_BYTES);
    blake2s(out.data(), in.data(), static_cast<uint32_t>(in.size()));
    return out;
}
