// Bulk copies and fills go by words through the processor's string instructions; short ones stay
// in loops, because a REP instruction costs more to start than a few moves.
#include <stdint.h>

#include "arch/x86/cpu.h"
#include "kernel/core/string.h"

namespace {

constexpr size_t WORD = sizeof(uint32_t);
constexpr size_t REP_FROM = 32;  // bytes

typedef uint32_t loose_word __attribute__((aligned(1), may_alias));

loose_word* word_at(uint8_t* at) { return reinterpret_cast<loose_word*>(at); }
const loose_word* word_at(const uint8_t* at) { return reinterpret_cast<const loose_word*>(at); }

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
    const auto byte = static_cast<uint8_t>(c);
    const uint32_t word = byte * 0x01010101u;
    if (n >= REP_FROM) {
        cpu_fill_words(to, word, n / WORD);
        to += n / WORD * WORD;
        n %= WORD;
    }
    for (; n >= WORD; n -= WORD, to += WORD)
        *word_at(to) = word;
    while (n-- > 0)
        *to++ = byte;
    return s;
}

void* memcpy(void* dest, const void* src, size_t n) {
    auto* to = static_cast<uint8_t*>(dest);
    const auto* from = static_cast<const uint8_t*>(src);
    if (n >= REP_FROM) {
        const size_t words = n / WORD;
        cpu_copy_words(to, from, words);
        to += words * WORD;
        from += words * WORD;
        n %= WORD;
    }
    for (; n >= WORD; n -= WORD, to += WORD, from += WORD)
        *word_at(to) = *word_at(from);
    while (n-- > 0)
        *to++ = *from++;
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
