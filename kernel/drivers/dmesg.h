// The kernel log: the most recent 4096 bytes that kprintf printed, in a ring without lines. The
// ring changes under an irq_guard, a bounded piece at a time. Any context.
#pragma once

#include <stdint.h>

/// Bytes the log keeps.
constexpr uint32_t DMESG_BYTES = 4096;

/// Empties the log and becomes kprintf's log. Start-up.
void dmesg_init(void);

/// Appends `len` bytes (none if len <= 0) over the oldest ones.
void dmesg_append(const char* s, int len);

/// Copies the most recent bytes, at most max - 1, oldest first, into `out` and terminates them.
/// Returns their number; 0, with `out` untouched, when the log is empty or max <= 0.
int dmesg_read(char* out, int max);
