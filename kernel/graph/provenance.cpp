#include "kernel/graph/provenance.h"

#include <algorithm>

#include "kernel/core/string.h"

namespace {

/// Whether `id` is an event of a subsystem other than `subsystem`.
bool crosses(uint32_t id, const char* subsystem) {
    causal_event_t parent;
    return causal_copy(id, &parent) && strcmp(parent.subsystem, subsystem) != 0;
}

}  // namespace

uint32_t prov_preferred_parent(const causal_event_t& ev, int max_scan) {
    const int count = std::min<int>(ev.num_parents, CAUSAL_PARENTS_MAX);
    if (count == 0)
        return 0;
    const int scanned = max_scan >= 1 ? std::min(max_scan, count) : count;
    for (int i = 0; count > 1 && i < scanned; i++) {
        if (crosses(ev.parents[i], ev.subsystem))
            return ev.parents[i];
    }
    return ev.parents[0];
}

bool prov_is_remote(const causal_event_t& ev) {
    return ev.node_hash != 0 && ev.node_hash != causal_get_node_hash();
}
