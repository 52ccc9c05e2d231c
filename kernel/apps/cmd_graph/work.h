// The static work arrays of `cpath` and `cdot`, too big for a task's stack. Two shells may run the
// commands at once: the mutex makes one wait for the other. Private to kernel/apps/cmd_graph/.
#pragma once

#include "kernel/apps/cmd_graph/common.h"
#include "kernel/core/mutex.h"
#include "kernel/graph/id_set.h"

/// A walk's events in the order found; the list is its own queue.
struct graph_walk_t {
    uint32_t ids[WALK_MAX];
    uint32_t links[WALK_MAX];  ///< distance from the start, or index of the entry it came from
};

struct graph_work_t {
    graph_walk_t a;
    graph_walk_t b;
    id_set_t<WALK_MAX> seen;  ///< what the walk under way has found
};

extern mutex_t graph_work_lock;
extern graph_work_t graph_work GUARDED_BY(graph_work_lock);

/// `start` and its ancestors, breadth first, each once, with their distances from it; at most
/// `max`, which is at most WALK_MAX. Returns their count.
int collect_ancestors(uint32_t start, uint32_t* ids, uint32_t* dists, int max)
    REQUIRES(graph_work_lock);
