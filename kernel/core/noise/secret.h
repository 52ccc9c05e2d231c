// The wiping of secrets that the primitives leave behind.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/noise.h"

/// Zeroes the `BYTES` of stack below the caller's frame, where the functions it has called left
/// their spilled registers.
template <size_t BYTES>
[[gnu::noinline]] void wipe_dead_stack() {
    uint32_t dead[BYTES / sizeof(uint32_t)];
    crypto_wipe(dead, sizeof dead);
}

/// A value that is wiped at the end of its scope; not initialised.
template <typename T>
class wiped {
public:
    wiped() {}
    ~wiped() { crypto_wipe(&value_, sizeof value_); }
    wiped(const wiped&) = delete;
    wiped& operator=(const wiped&) = delete;
    T& operator*() { return value_; }
    T* operator->() { return &value_; }

private:
    T value_;
};
