// Formatted printing to the console and the kernel log. Both stand on higher floors and install
// themselves here; until then the text goes nowhere. Any context, before the heap too.
#pragma once

#include <stddef.h>

#include "kernel/core/compiler.h"

/// Bytes of one formatted text, terminator included.
constexpr size_t KPRINTF_BYTES = 512;

using kprintf_console_fn = void (*)(const char* text);
using kprintf_log_fn = void (*)(const char* text, int len);

/// Installs the receiver that shows the text on screen and serial line (null: none).
void kprintf_set_console(kprintf_console_fn console);

/// Installs the receiver that keeps the text in the kernel log (null: none).
void kprintf_set_log(kprintf_log_fn log);

/// Formats as kvsnprintf does into 512 bytes on the stack (longer output is cut at 511), shows the
/// text, then logs it. Returns its length.
int kprintf(const char* fmt, ...) VORN_PRINTF(1, 2);

/// Shows and logs a text of any length as it stands, in pieces.
void kprint_text(const char* text);
