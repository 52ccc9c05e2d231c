// Finds a text in bytes that come one by one, so that a line of any length needs no memory (Knuth,
// Morris, Pratt). Pure.
#pragma once

#include <stdint.h>

#include "kernel/apps/shell.h"

/// What is looked for.
struct finder_t {
    char text[SHELL_LINE_BYTES];
    uint32_t length;                     ///< 0: found before the first byte
    bool fold;                           ///< capital letters are as good as small ones
    uint8_t fallback[SHELL_LINE_BYTES];  ///< longest proper border of the first n + 1 characters
};

/// Prepares the search for `text`, a word of a command line.
void finder_start(finder_t* finder, const char* text, bool fold);

/// The character that `c` is looked for as.
inline char finder_fold(const finder_t& finder, char c) {
    return finder.fold && c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

/// How many characters of the text the bytes so far end in, when `matched` were it before `byte`.
/// The text is found where that is its length.
[[nodiscard]] inline uint32_t finder_advance(const finder_t& finder, uint32_t matched,
                                             uint8_t byte) {
    const char c = finder_fold(finder, static_cast<char>(byte));
    while (matched > 0 && (matched == finder.length || finder.text[matched] != c))
        matched = finder.fallback[matched - 1];
    return matched < finder.length && finder.text[matched] == c ? matched + 1 : 0;
}
