// Bulk copies and fills go by words through the processor's string instructions; short ones use
// plain moves, because a REP instruction costs more to start than a few of them.
#include <stdint.h>

#include "arch/x86/cpu.h"
#include "kernel/core/string.h"
#include "kernel/core/string/words.h"

namespace {

constexpr size_t WORD = sizeof(uint32_t);
constexpr size_t REP_FROM = 32;  // bytes

typedef uint32_t loose_word __attribute__((aligned(1), may_alias));

loose_word* word_at(uint8_t* at) { return reinterpret_cast<loose_word*>(at); }
const loose_word* word_at(const uint8_t* at) { return reinterpret_cast<const loose_word*>(at); }

/// Copies fewer than REP_FROM bytes upwards, by the bits of `n`.
void copy_short(uint8_t* to, const uint8_t* from, size_t n) {
    if ((n & 16) != 0) {
        *word_at(to) = *word_at(from);
        *word_at(to + 4) = *word_at(from + 4);
        *word_at(to + 8) = *word_at(from + 8);
        *word_at(to + 12) = *word_at(from + 12);
        to += 16;
        from += 16;
    }
    if ((n & 8) != 0) {
        *word_at(to) = *word_at(from);
        *word_at(to + 4) = *word_at(from + 4);
        to += 8;
        from += 8;
    }
    if ((n & 4) != 0) {
        *word_at(to) = *word_at(from);
        to += 4;
        from += 4;
    }
    for (n &= 3; n > 0; --n)
        *to++ = *from++;
}

/// Fills fewer than REP_FROM bytes.
void fill_short(uint8_t* to, uint32_t word, size_t n) {
    for (; n >= WORD; n -= WORD, to += WORD)
        *word_at(to) = word;
    for (; n > 0; --n)
        *to++ = static_cast<uint8_t>(word);
}

/// Copies downwards, last byte first.
void copy_backwards(uint8_t* to, const uint8_t* from, size_t n) {
    while (n >= WORD) {
        n -= WORD;
        *word_at(to + n) = *word_at(from + n);
    }
    while (n-- > 0)
        to[n] = from[n];
}

}  // namespace

void* memset(void* s, int c, size_t n) {
    auto* to = static_cast<uint8_t*>(s);
    const uint32_t word = word_of(static_cast<uint8_t>(c));
    if (n < REP_FROM) {
        fill_short(to, word, n);
        return s;
    }
    cpu_fill_words(to, word, n / WORD);
    // The last word may overlap what is filled already.
    *word_at(to + n - WORD) = word;
    return s;
}

void* memcpy(void* dest, const void* src, size_t n) {
    auto* to = static_cast<uint8_t*>(dest);
    const auto* from = static_cast<const uint8_t*>(src);
    if (n < REP_FROM) {
        copy_short(to, from, n);
        return dest;
    }
    cpu_copy_words(to, from, n / WORD);
    for (size_t i = n & ~(WORD - 1); i < n; ++i)
        to[i] = from[i];
    return dest;
}

void* memmove(void* dest, const void* src, size_t n) {
    auto* to = static_cast<uint8_t*>(dest);
    const auto* from = static_cast<const uint8_t*>(src);
    // Copying upwards is safe unless the destination starts inside the source.
    if (to <= from || static_cast<size_t>(to - from) >= n)
        return memcpy(dest, src, n);
    copy_backwards(to, from, n);
    return dest;
}

int memcmp(const void* a, const void* b, size_t n) {
    const auto* x = static_cast<const uint8_t*>(a);
    const auto* y = static_cast<const uint8_t*>(b);
    for (; n >= WORD && *word_at(x) == *word_at(y); n -= WORD, x += WORD, y += WORD) {
    }
    for (; n > 0; --n, ++x, ++y)
        if (*x != *y)
            return *x - *y;
    return 0;
}
