// Reading events where they lie, for walks over the whole ring that need a field or two of each.
#pragma once

#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

/// Lets `read` see event `id` in its slot. False when the ring has no such event, or lost it
/// meanwhile: what was read is then void. Any context.
template <typename read_fn>
[[nodiscard]] bool causal_read_ring(uint32_t id, read_fn read) {
    const causal_event_t* ev = causal_get_ring(id);
    if (ev == nullptr)
        return false;
    read(*ev);
    asm volatile("" : : : "memory");
    return ev->id == id;
}

/// Lets `read` see event `id` in its slot, else a copy out of the archive; false when there is
/// none. Task context.
template <typename read_fn>
[[nodiscard]] bool causal_read_anywhere(uint32_t id, read_fn read) {
    if (causal_read_ring(id, read))
        return true;
    causal_event_t copy;
    if (!causal_copy(id, &copy))
        return false;
    read(copy);
    return true;
}

/// Whether a description speaks of something that went wrong.
inline bool causal_is_fault(const char* desc) {
    return strstr(desc, "fault") != nullptr || strstr(desc, "crash") != nullptr ||
           strstr(desc, "panic") != nullptr;
}
