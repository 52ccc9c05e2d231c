// A set of event identifiers of fixed capacity, for walks that must meet each event once: constant
// time a question, no allocation. Too big for a task's stack above some fifty entries: static under
// a lock, or on the heap.
#pragma once

#include <stdint.h>

/// Holds at most `capacity` identifiers other than 0.
template <uint32_t capacity>
class id_set_t {
public:
    /// Adds `id`; false when it is 0, held already, or there is no room.
    bool add(uint32_t id) {
        if (id == 0 || count_ == capacity)
            return false;
        uint32_t& slot = slots_[find(id)];
        if (slot == id)
            return false;
        slot = id;
        ++count_;
        return true;
    }
    bool holds(uint32_t id) const { return id != 0 && slots_[find(id)] == id; }
    uint32_t count() const { return count_; }
    bool full() const { return count_ == capacity; }
    void clear() {
        for (uint32_t& slot : slots_)
            slot = 0;
        count_ = 0;
    }

private:
    /// At least a third of the slots stays free, so that every probe ends soon.
    static constexpr uint32_t slot_count() {
        uint32_t slots = 1;
        while (slots < capacity + capacity / 2 + 1)
            slots *= 2;
        return slots;
    }
    static constexpr uint32_t MASK = slot_count() - 1;

    /// The slot that holds `id`, or the free one where it belongs.
    uint32_t find(uint32_t id) const {
        constexpr uint32_t GOLDEN = 0x9E3779B1;  // spreads consecutive identifiers
        uint32_t at = (id * GOLDEN >> 7) & MASK;
        while (slots_[at] != 0 && slots_[at] != id)
            at = (at + 1) & MASK;
        return at;
    }

    uint32_t slots_[slot_count()] = {};
    uint32_t count_ = 0;
};
