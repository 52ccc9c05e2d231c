// A walk over every event that can still be fetched, oldest first, each once: those of the
// journal's segments, read a segment at a time, then the ring. It looks only at identifiers that
// ring or index can hold, so it ends soon however many events there were before.
//
// Events recorded meanwhile are left out. One walk at a time; others wait. The waiting mutex stands
// above the journal's.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

/// What a walk shows of an event.
struct event_facts_t {
    uint32_t id;
    uint32_t type;
    uint32_t wall_ticks;
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
};

/// Receives an event; false ends the walk. May record events and call what is not a walk.
using event_visit_fn = bool (*)(const event_facts_t& event, void* context);

/// Calls visit(event, context) for each event. Task context.
void event_walk(event_visit_fn visit, void* context);

/// event_walk with a function object that takes an event and returns whether to go on.
template <typename visit_t>
void event_walk_each(visit_t visit) {
    event_walk([](const event_facts_t& event,
                  void* context) { return (*static_cast<visit_t*>(context))(event); },
               &visit);
}
