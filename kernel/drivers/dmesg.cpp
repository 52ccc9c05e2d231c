#include "kernel/drivers/dmesg.h"

#include <algorithm>

#include "kernel/core/guards.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

struct state_t {
    char ring[DMESG_BYTES];
    uint32_t head;  ///< next position to write
    uint32_t used;  ///< valid bytes before it
};

state_t state GUARDED_BY(irq_mask);

/// Appends one piece of at most DMESG_BYTES, around the ring's end if need be.
void append_locked(const char* s, uint32_t len) REQUIRES(irq_mask) {
    const uint32_t before_end = std::min(len, DMESG_BYTES - state.head);
    memcpy(state.ring + state.head, s, before_end);
    memcpy(state.ring, s + before_end, len - before_end);
    state.head = (state.head + len) % DMESG_BYTES;
    state.used = std::min(state.used + len, DMESG_BYTES);
}

}  // namespace

void dmesg_init(void) {
    {
        irq_guard guard;
        state = {};
    }
    kprintf_set_log(dmesg_append);
}

void dmesg_append(const char* s, int len) {
    // One text of kprintf stays in one piece; a longer one gives interrupts way in between.
    constexpr uint32_t PIECE = KPRINTF_BYTES;
    uint32_t left = len > 0 ? static_cast<uint32_t>(len) : 0;
    while (left > 0) {
        const uint32_t piece = std::min(left, PIECE);
        {
            irq_guard guard;
            append_locked(s, piece);
        }
        s += piece;
        left -= piece;
    }
}

int dmesg_read(char* out, int max) {
    irq_guard guard;
    if (max <= 0 || state.used == 0)
        return 0;
    const uint32_t count = std::min(state.used, static_cast<uint32_t>(max) - 1);
    const uint32_t start = (state.head - count) % DMESG_BYTES;
    const uint32_t before_end = std::min(count, DMESG_BYTES - start);
    memcpy(out, state.ring + start, before_end);
    memcpy(out + before_end, state.ring, count - before_end);
    out[count] = '\0';
    return static_cast<int>(count);
}
