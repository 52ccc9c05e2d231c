#include "kernel/core/record.h"

namespace {
record_hook_fn hook;
}

void record_set_hook(record_hook_fn new_hook) { hook = new_hook; }

uint32_t record_event(causal_type_t type, const char* subsystem, const char* fmt, ...) {
    if (hook == nullptr)
        return 0;
    va_list args;
    va_start(args, fmt);
    const uint32_t id = hook(static_cast<uint8_t>(type), subsystem, fmt, args);
    va_end(args);
    return id;
}
