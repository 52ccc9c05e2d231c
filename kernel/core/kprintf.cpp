#include "kernel/core/kprintf.h"

#include <stdarg.h>

#include "kernel/core/string.h"

namespace {

kprintf_console_fn show;
kprintf_log_fn keep;

void print(const char* text, int length) {
    if (show != nullptr)
        show(text);
    if (keep != nullptr)
        keep(text, length);
}

}  // namespace

void kprintf_set_console(kprintf_console_fn console) { show = console; }

void kprintf_set_log(kprintf_log_fn log) { keep = log; }

int kprintf(const char* fmt, ...) {
    char text[KPRINTF_BYTES];
    va_list args;
    va_start(args, fmt);
    const int length = kvsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    print(text, length);
    return length;
}

void kprint_text(const char* text) {
    char piece[KPRINTF_BYTES];
    while (*text != '\0') {
        const size_t length = string_copy(piece, text, sizeof piece);
        print(piece, static_cast<int>(length));
        text += length;
    }
}
