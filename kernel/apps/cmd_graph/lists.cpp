// `events`, `graph`, `orphans`, `graph-health`: what the ring holds.
#include "kernel/apps/cmd_graph/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int EVENTS_DEFAULT = 20;
constexpr int EVENTS_MAX = 64;
constexpr int GRAPH_DEFAULT = 12;
constexpr int GRAPH_MAX = 24;
constexpr int ORPHANS_SHOWN = 5;

/// Prints the events of `ids`, which are newest first, oldest first.
void print_oldest_first(const uint32_t* ids, int count) {
    causal_event_t ev;
    for (int i = count - 1; i >= 0; i--) {
        if (causal_copy(ids[i], &ev))
            causal_print_event(&ev, 0);
    }
}

void print_newest(int wanted) {
    uint32_t ids[EVENTS_MAX];
    const int count = causal_collect_recent_all(ids, wanted < EVENTS_MAX ? wanted : EVENTS_MAX);
    if (count == 0)
        kprintf("No events recorded\n");
    print_oldest_first(ids, count);
}

void print_newest_of(uint32_t type) {
    uint32_t ids[EVENTS_DEFAULT];
    const int count = causal_recent_ids(static_cast<causal_type_t>(type), ids, EVENTS_DEFAULT);
    if (count == 0)
        kprintf("No %s events\n", causal_type_names[type]);
    print_oldest_first(ids, count);
}

void print_counts_by_type() {
    uint32_t counts[CAUSAL_TYPE_COUNT] = {};
    const uint32_t oldest = causal_oldest_event_id();
    for (uint32_t id = causal_total_events(); oldest != 0 && id >= oldest; id--) {
        const causal_event_t* ev = causal_get_ring(id);
        if (ev != nullptr && ev->type < CAUSAL_TYPE_COUNT)
            counts[ev->type]++;
    }
    graph_line_t line;
    for (uint32_t type = 0; type < CAUSAL_TYPE_COUNT; type++) {
        if (counts[type] != 0)
            line.add("  %s: %u", causal_type_names[type], counts[type]);
    }
    line.print();
}

void print_with_causes(const causal_event_t& ev) {
    kprintf("[%u] %s/%s: %s\n", ev.id, graph_type_name(ev.type), ev.subsystem, ev.desc);
    if (ev.num_parents == 0)
        kprintf("  +-- root\n");
    causal_event_t parent;
    for (uint32_t i = 0; i < ev.num_parents && i < CAUSAL_PARENTS_MAX; i++) {
        if (causal_copy(ev.parents[i], &parent))
            kprintf("  +-- caused by [%u] %s: %s\n", parent.id, parent.subsystem, parent.desc);
        else
            kprintf("  +-- caused by [%u] (evicted)\n", ev.parents[i]);
    }
}

const char* rating(uint32_t connectivity) {
    if (connectivity >= 80)
        return "excellent";
    if (connectivity >= 60)
        return "good";
    return connectivity >= 40 ? "fair" : "poor";
}

}  // namespace

void cmd_events(int argc, char** argv) {
    if (argc < 2) {
        print_newest(EVENTS_DEFAULT);
        return;
    }
    for (uint32_t type = 0; type < CAUSAL_TYPE_COUNT; type++) {
        if (strcmp(argv[1], causal_type_names[type]) == 0) {
            print_newest_of(type);
            return;
        }
    }
    int count;
    if (safe_atoi(argv[1], &count) == 0 && count >= 1) {
        print_newest(count);
        return;
    }
    kprintf("events: unknown type '%s'\n", argv[1]);
    kprintf("  types: sched mem fs_op net syscall shell actor mesh user\n");
}

void cmd_graph(int argc, char** argv) {
    int wanted = GRAPH_DEFAULT;
    if (argc >= 2 && safe_atoi(argv[1], &wanted) == 0 && wanted < 1)
        wanted = GRAPH_DEFAULT;
    wanted = wanted < GRAPH_MAX ? wanted : GRAPH_MAX;
    kprintf("Causal Graph: %u events (ring: %u/%u)\n", causal_total_events(), causal_ring_used(),
            CAUSAL_RING_SLOTS);
    print_counts_by_type();
    if (causal_total_events() == 0)
        return;
    kprintf("Recent causal DAG (oldest to newest):\n");
    uint32_t ids[GRAPH_MAX];
    causal_event_t ev;
    for (int i = causal_collect_recent_all(ids, wanted) - 1; i >= 0; i--) {
        if (causal_copy(ids[i], &ev))
            print_with_causes(ev);
    }
}

void cmd_orphans(int, char**) {
    const uint32_t oldest = causal_oldest_event_id();
    const uint32_t newest = causal_total_events();
    const uint32_t span = oldest != 0 ? newest + 1 - oldest : 0;
    const uint32_t orphans = causal_count_orphans();
    kprintf("Causal orphans: %u / %u events (%u%%)\n", orphans, span,
            span != 0 ? orphans * 100 / span : 0);
    if (orphans == 0)
        return;
    kprintf("\nRecent orphans:\n");
    causal_event_t ev;
    int shown = 0;
    for (uint32_t id = newest; id >= oldest && shown < ORPHANS_SHOWN; id--) {
        if (!causal_copy(id, &ev) || ev.num_parents != 0)
            continue;
        graph_print_short(ev);
        shown++;
    }
}

void cmd_graph_health(int, char**) {
    causal_health_t h;
    causal_compute_health(&h);
    const uint32_t events = h.total_events;
    const uint32_t orphan_percent = events != 0 ? h.orphan_count * 100 / events : 0;
    const uint32_t connectivity = events != 0 ? (events - h.orphan_count) * 100 / events : 0;
    kprintf("Causal Graph Health:\n");
    kprintf("  Events:       %u in ring buffer\n", events);
    kprintf("  Rate:         %u events/sec\n", h.events_per_sec);
    kprintf("  Orphans:      %u (%u%%)\n", h.orphan_count, orphan_percent);
    kprintf("  Multi-parent: %u\n", h.multi_parent_count);
    kprintf("  Max depth:    %u\n", h.max_depth);
    kprintf("  Avg depth:    %u.%u\n", h.avg_depth_x10 / 10, h.avg_depth_x10 % 10);
    kprintf("  Connectivity: %u%% (%s)\n", connectivity, rating(connectivity));
}
