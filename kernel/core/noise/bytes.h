// Little- and big-endian words in unaligned byte strings, rotations, and the wiping of secrets;
// shared by the primitives.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <bit>

#include "kernel/core/noise.h"

static_assert(std::endian::native == std::endian::little);

inline uint32_t load32_le(const uint8_t* from) {
    uint32_t value;
    __builtin_memcpy(&value, from, sizeof value);
    return value;
}

inline void store32_le(uint8_t* to, uint32_t value) { __builtin_memcpy(to, &value, sizeof value); }

inline uint32_t load32_be(const uint8_t* from) { return __builtin_bswap32(load32_le(from)); }

inline void store32_be(uint8_t* to, uint32_t value) { store32_le(to, __builtin_bswap32(value)); }

/// Zeroes the `BYTES` of stack below the caller's frame, where the functions it has called left
/// their spilled registers.
template <size_t BYTES>
[[gnu::noinline]] void wipe_dead_stack() {
    uint32_t dead[BYTES / sizeof(uint32_t)];
    crypto_wipe(dead, sizeof dead);
}

/// Wipes an object at the end of its scope.
template <typename T>
class wiped {
public:
    wiped() = default;
    ~wiped() { crypto_wipe(&value_, sizeof value_); }
    wiped(const wiped&) = delete;
    wiped& operator=(const wiped&) = delete;
    T& operator*() { return value_; }
    T* operator->() { return &value_; }

private:
    T value_;
};
