// Text by words of four bytes, little end first: for the paths that cannot afford a step a byte.
#pragma once

#include <stdint.h>

/// A word of text at any address.
struct [[gnu::packed, gnu::may_alias]] text_word_t {
    uint32_t bits;
};

/// The lowest and the highest bit of each byte of a word.
constexpr uint32_t WORD_LOW_BITS = 0x01010101;
constexpr uint32_t WORD_HIGH_BITS = 0x80808080;

/// The word that has `c` in each byte.
constexpr uint32_t word_of(uint8_t c) { return c * WORD_LOW_BITS; }
