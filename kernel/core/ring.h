// A bounded ring without allocation: N slots hold N - 1 items, and a full ring drops what comes.
// One side pushes and one side pops without a guard on the same processor; several on one side, or
// clear beside them, take an irq_guard.
#pragma once

#include <stdint.h>

template <typename T, uint32_t N>
struct ring_t {
    static_assert(N >= 2 && (N & (N - 1)) == 0, "indices wrap by masking");

    T items[N];
    volatile uint32_t head;  ///< next slot to write, 0..N-1
    volatile uint32_t tail;  ///< next slot to read; equal to head: empty

    /// Appends `item`; false, with nothing changed, when the ring is full.
    bool push(const T& item) {
        const uint32_t at = head;
        const uint32_t next = (at + 1) & (N - 1);
        if (next == tail)
            return false;
        items[at] = item;
        __atomic_signal_fence(__ATOMIC_RELEASE);
        head = next;
        return true;
    }

    /// Takes the oldest item; false, with `*out` untouched, when the ring is empty.
    bool pop(T* out) {
        const uint32_t at = tail;
        if (at == head)
            return false;
        __atomic_signal_fence(__ATOMIC_ACQUIRE);
        *out = items[at];
        __atomic_signal_fence(__ATOMIC_RELEASE);
        tail = (at + 1) & (N - 1);
        return true;
    }

    bool empty() const { return head == tail; }

    /// Items that wait, 0..N-1.
    uint32_t count() const { return (head - tail) & (N - 1); }

    /// Drops all that waits.
    void clear() {
        head = 0;
        tail = 0;
    }
};
