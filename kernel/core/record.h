// How the floors below the causal store record their events: through a hook that this module owns
// and the store installs at its init. Before that nothing is recorded.
#pragma once

#include <stdarg.h>
#include <stdint.h>

#include "kernel/core/compiler.h"

/// Event types, in the order of their numbers; a record on disk holds the number in one byte.
enum causal_type_t : uint32_t {
    CAUSAL_SCHED,
    CAUSAL_MEM,
    CAUSAL_FS,
    CAUSAL_NET,
    CAUSAL_SYSCALL,
    CAUSAL_SHELL,
    CAUSAL_ACTOR,
    CAUSAL_MESH,
    CAUSAL_IO,
    CAUSAL_USER,
    CAUSAL_TYPE_COUNT,
};

/// Receives an event of a lower floor; returns its identifier, or 0.
using record_hook_fn = uint32_t (*)(uint8_t type, const char* subsystem, const char* fmt,
                                    va_list args);

/// Installs the receiver (null: none).
void record_set_hook(record_hook_fn hook);

/// Records an event as causal_event_fmt does, from a module below the store. Any context.
/// Returns its identifier, or 0 when nothing was recorded.
uint32_t record_event(causal_type_t type, const char* subsystem, const char* fmt, ...)
    VORN_PRINTF(3, 4);
