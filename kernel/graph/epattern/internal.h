// What the files of the event patterns share. Private to kernel/graph/epattern/.
#pragma once

#include "kernel/core/mutex.h"
#include "kernel/graph/epattern.h"

/// Guards the window and the watchers.
extern mutex_t epattern_lock;

/// Where the window's events may come from.
enum class epattern_source_t : uint8_t {
    anywhere,        ///< ring or archive
    ring_of_others,  ///< the ring, but for what this module recorded
};

/// Takes the EPATTERN_WINDOW identifiers up to `last` into the window.
void epattern_load(uint32_t last, epattern_source_t source) REQUIRES(epattern_lock);

/// Calls visit(match) for each match in the window, by their first events, until it returns false.
template <typename visit_fn>
void epattern_each(const epattern_t& p, visit_fn visit) REQUIRES(epattern_lock);

/// The match that starts at place `start` of the window; false when there is none.
[[nodiscard]] bool epattern_match_at(const epattern_t& p, uint32_t start, epattern_match_t* out)
    REQUIRES(epattern_lock);

template <typename visit_fn>
void epattern_each(const epattern_t& p, visit_fn visit) {
    epattern_match_t match;
    for (uint32_t start = 0; start < EPATTERN_WINDOW; start++) {
        if (epattern_match_at(p, start, &match) && !visit(match))
            return;
    }
}
