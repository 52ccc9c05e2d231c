// `effects`, `blast`, `trace`, `autopsy`: from one event down to its effects and up to its causes.
// Every walk is bounded, so that no graph makes a command run on.
#include "kernel/apps/cmd_graph/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int FIRST_CHILDREN = 32;  // of the event itself
constexpr int LATER_CHILDREN = 16;  // of each event further down
constexpr int EXPAND_DEPTH = 3;     // the deepest level whose children are followed
constexpr int BLAST_QUEUE = 120;
constexpr int TRACE_LEVELS = 16;
constexpr int TRACE_FRONTIER = 4;
constexpr int AUTOPSY_ANCESTORS = 16;
constexpr int AUTOPSY_CONE = 127;
constexpr int AUTOPSY_SUBSYSTEMS = 32;

/// The entries of `blast`, in the order they were found; an event may stand here more than once.
struct blast_queue_t {
    graph_entry_t entries[BLAST_QUEUE];
    int count = 0;

    void add_children_of(uint32_t id, int max, int depth) {
        if (count == BLAST_QUEUE)
            return;
        uint32_t ids[FIRST_CHILDREN];
        const int found = causal_children_ids(id, ids, max);
        for (int i = 0; i < found && count < BLAST_QUEUE; i++)
            entries[count++] = {ids[i], depth};
    }
};

/// What `autopsy` has found: the cone of effects, each event once, and the subsystems involved.
struct autopsy_t {
    graph_entry_t cone[AUTOPSY_CONE];
    int cone_count = 0;
    bool truncated = false;
    char subsystems[AUTOPSY_SUBSYSTEMS][CAUSAL_SUBSYSTEM_SIZE];
    int subsystem_count = 0;
};

bool in_cone(const autopsy_t& a, uint32_t id) {
    for (int i = 0; i < a.cone_count; i++) {
        if (a.cone[i].id == id)
            return true;
    }
    return false;
}

void add_to_cone(autopsy_t& a, uint32_t id, int max, int depth) {
    uint32_t ids[FIRST_CHILDREN];
    const int found = causal_children_ids(id, ids, max);
    if (found == max)
        a.truncated = true;
    for (int i = 0; i < found; i++) {
        if (in_cone(a, ids[i]))
            continue;
        if (a.cone_count == AUTOPSY_CONE) {
            a.truncated = true;
            return;
        }
        a.cone[a.cone_count++] = {ids[i], depth};
    }
}

void autopsy_note_subsystem(autopsy_t& a, const char* name) {
    if (name[0] == '\0' || a.subsystem_count == AUTOPSY_SUBSYSTEMS)
        return;
    for (int i = 0; i < a.subsystem_count; i++) {
        if (strcmp(a.subsystems[i], name) == 0)
            return;
    }
    char* kept = a.subsystems[a.subsystem_count++];
    strncpy(kept, name, CAUSAL_SUBSYSTEM_SIZE - 1);
    kept[CAUSAL_SUBSYSTEM_SIZE - 1] = '\0';
}

/// Prints the causes, farthest first; returns how many there are.
int print_causes(autopsy_t& a, uint32_t id) {
    kprintf("Cause chain (what led here):\n");
    uint32_t ids[AUTOPSY_ANCESTORS];
    const int count = causal_ancestor_ids(id, ids, AUTOPSY_ANCESTORS);
    if (count == 0)
        kprintf("  (no upstream causes)\n");
    if (count == AUTOPSY_ANCESTORS)
        a.truncated = true;
    causal_event_t ev;
    for (int i = count - 1; i >= 0; i--) {
        if (!causal_copy(ids[i], &ev))
            continue;
        autopsy_note_subsystem(a, ev.subsystem);
        causal_print_event(&ev, 1);
    }
    return count;
}

/// Prints the cone of effects; returns how many lines that took.
int print_effects(autopsy_t& a, uint32_t id) {
    kprintf("Effect cone (what this caused):\n");
    add_to_cone(a, id, FIRST_CHILDREN, 1);
    int printed = 0;
    causal_event_t ev;
    for (int head = 0; head < a.cone_count; head++) {
        const graph_entry_t entry = a.cone[head];
        if (!causal_copy(entry.id, &ev))
            continue;
        autopsy_note_subsystem(a, ev.subsystem);
        causal_print_event(&ev, entry.depth);
        printed++;
        if (entry.depth <= EXPAND_DEPTH)
            add_to_cone(a, entry.id, LATER_CHILDREN, entry.depth + 1);
    }
    if (printed == 0)
        kprintf("  (no downstream effects)\n");
    return printed;
}

void print_summary(const autopsy_t& a, int upstream, int downstream) {
    kprintf("Summary:\n");
    kprintf("  Touched subsystems: ");
    for (int i = 0; i < a.subsystem_count; i++)
        kprintf("%s%s", i > 0 ? ", " : "", a.subsystems[i]);
    kprintf(". Upstream %d events, downstream %d events (truncated: %s).\n", upstream, downstream,
            a.truncated ? "yes" : "no");
}

/// Takes the event that `effects` and `blast` ask for; prints what is wrong otherwise.
bool event_of_argument(int argc, char** argv, const char* command, causal_event_t* ev) {
    if (argc < 2) {
        kprintf("Usage: %s <event_id>\n", command);
        return false;
    }
    uint32_t id;
    if (safe_parse_uint(argv[1], &id) != 0) {
        kprintf("%s: invalid event id '%s'\n", command, argv[1]);
        return false;
    }
    if (!causal_copy(id, ev)) {
        kprintf("Event %u not found\n", id);
        return false;
    }
    return true;
}

}  // namespace

void cmd_effects(int argc, char** argv) {
    causal_event_t ev;
    if (!event_of_argument(argc, argv, "effects", &ev))
        return;
    kprintf("Event %u: [%s] %s\n", ev.id, ev.subsystem, ev.desc);
    kprintf("Effects (direct):\n");
    uint32_t ids[FIRST_CHILDREN];
    const int count = causal_children_ids(ev.id, ids, FIRST_CHILDREN);
    if (count == 0)
        kprintf("  (no downstream effects)\n");
    for (int i = 0; i < count; i++) {
        if (!causal_copy(ids[i], &ev))
            continue;
        graph_line_t line;
        line.add("  → [%u] T+%u %s: %s", ev.id, ev.time.wall_ticks, ev.subsystem, ev.desc);
        if (ev.child_count != 0)
            line.add(" (+%u more)", static_cast<uint32_t>(ev.child_count));
        line.print();
    }
}

void cmd_blast(int argc, char** argv) {
    causal_event_t ev;
    if (!event_of_argument(argc, argv, "blast", &ev))
        return;
    kprintf("Impact analysis for [%u] %s: %s\n\n", ev.id, ev.subsystem, ev.desc);
    blast_queue_t queue;
    queue.add_children_of(ev.id, FIRST_CHILDREN, 1);
    int affected = 0;
    for (int head = 0; head < queue.count; head++) {
        const graph_entry_t entry = queue.entries[head];
        if (!causal_copy(entry.id, &ev))
            continue;
        kprintf("%s→ [%u] T+%u %s: %s\n", graph_indent(entry.depth), ev.id, ev.time.wall_ticks,
                ev.subsystem, ev.desc);
        affected++;
        if (entry.depth <= EXPAND_DEPTH)
            queue.add_children_of(entry.id, LATER_CHILDREN, entry.depth + 1);
    }
    kprintf("\n%d downstream events affected%s\n", affected,
            queue.count == BLAST_QUEUE ? " (truncated)" : "");
}

void cmd_trace(int argc, char** argv) {
    if (argc < 2) {
        kprintf("Usage: trace <event_id>\n");
        return;
    }
    uint32_t id;
    if (safe_parse_uint(argv[1], &id) != 0 || id == 0) {
        kprintf("trace: invalid event id '%s'\n", argv[1]);
        return;
    }
    causal_event_t ev;
    if (!causal_copy(id, &ev)) {
        kprintf("trace: event %u not found\n", id);
        return;
    }
    uint32_t frontier[TRACE_FRONTIER] = {id};
    int count = 1;
    for (int level = 0; level <= TRACE_LEVELS && count > 0; level++) {
        uint32_t next[TRACE_FRONTIER] = {};
        int next_count = 0;
        for (int i = 0; i < count; i++) {
            if (!causal_copy(frontier[i], &ev))
                continue;
            causal_print_event(&ev, level);
            for (uint32_t p = 0; p < ev.num_parents && next_count < TRACE_FRONTIER; p++)
                next[next_count++] = ev.parents[p];
        }
        memcpy(frontier, next, sizeof frontier);
        count = next_count;
    }
}

void cmd_autopsy(int argc, char** argv) {
    if (argc < 2) {
        kprintf("Usage: autopsy <event-id|last>\n");
        return;
    }
    uint32_t id;
    if (!graph_parse_event(argv[1], &id) || id == 0) {
        kprintf("autopsy: invalid event id '%s'\n", argv[1]);
        return;
    }
    causal_event_t ev;
    if (!causal_copy(id, &ev)) {
        kprintf("autopsy: event %u not found\n", id);
        return;
    }
    autopsy_t found;
    autopsy_note_subsystem(found, ev.subsystem);
    kprintf("Autopsy for #%u [%s]: %s\n", ev.id, ev.subsystem, ev.desc);
    const int upstream = print_causes(found, id);
    const int downstream = print_effects(found, id);
    print_summary(found, upstream, downstream);
}
