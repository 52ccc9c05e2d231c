// A line or short text under construction: it goes out in one piece, so that no other task's text
// cuts into it. What does not fit is cut.
#pragma once

#include <stdarg.h>
#include <stdint.h>

#include "kernel/core/compiler.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

/// Holds up to `size` - 1 characters; what kprintf takes in one call at most.
template <uint32_t size>
class text_line_t {
    static_assert(size >= 1 && size <= KPRINTF_BYTES);

public:
    void add(const char* fmt, ...) VORN_PRINTF(2, 3) {
        va_list args;
        va_start(args, fmt);
        len_ += static_cast<uint32_t>(kvsnprintf(text_ + len_, size - len_, fmt, args));
        va_end(args);
    }
    const char* text() const { return text_; }
    bool empty() const { return len_ == 0; }
    /// Prints it as it stands, without a further newline.
    void print() const { kprint_text(text_); }

private:
    char text_[size] = {};
    uint32_t len_ = 0;
};
