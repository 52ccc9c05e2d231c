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

/// Whether a description speaks of something that went wrong, in letters of either case.
inline bool causal_is_fault(const char* desc) {
    constexpr const char* WORDS[] = {"fault", "crash", "panic"};
    constexpr char CASE_BIT = 0x20;
    for (; *desc != '\0'; ++desc) {
        const char first = static_cast<char>(*desc | CASE_BIT);
        if (first != 'f' && first != 'c' && first != 'p')
            continue;
        for (const char* word : WORDS) {
            const char* at = desc;
            while (*word != '\0' && (*at | CASE_BIT) == *word) {
                ++at;
                ++word;
            }
            if (*word == '\0')
                return true;
        }
    }
    return false;
}
