// `cdot`: an event's causes or effects in the DOT language of Graphviz.
#include "kernel/apps/cmd_graph/work.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int NODES_DEFAULT = 32;
constexpr int CHILDREN_PER_NODE = 16;
constexpr size_t SUBSYSTEM_LABEL = 40;
constexpr size_t DESC_LABEL = 176;

/// `start` and its effects, breadth first, each once; returns their count.
int collect_effects(uint32_t start, uint32_t* ids, int max) {
    ids[0] = start;
    int count = 1;
    for (int head = 0; head < count && count < max; head++) {
        uint32_t children[CHILDREN_PER_NODE];
        const int found = causal_children_ids(ids[head], children, CHILDREN_PER_NODE);
        for (int i = 0; i < found && count < max; i++) {
            if (!graph_holds(ids, count, children[i]))
                ids[count++] = children[i];
        }
    }
    return count;
}

void print_node(uint32_t id) {
    causal_event_t ev;
    if (!causal_copy(id, &ev)) {
        kprintf("  \"%u\" [label=\"#%u\\n(evicted)\"];\n", id, id);
        return;
    }
    char subsystem[SUBSYSTEM_LABEL];
    char desc[DESC_LABEL];
    cdot_escape(ev.subsystem, subsystem, sizeof subsystem);
    cdot_escape(ev.desc, desc, sizeof desc);
    kprintf("  \"%u\" [label=\"#%u\\n%s\\n%s\"];\n", id, id, subsystem, desc);
}

void print_edges(const uint32_t* ids, int count, uint32_t child) {
    uint32_t parents[CAUSAL_PARENTS_MAX];
    const int found = causal_parents_of(child, parents);
    for (int i = 0; i < found; i++) {
        if (graph_holds(ids, count, parents[i]))
            kprintf("  \"%u\" -> \"%u\";\n", parents[i], child);
    }
}

void export_graph(uint32_t id, bool effects, int max) {
    mutex_guard lock(graph_work_lock);
    graph_walk_t& walk = graph_work.a;
    const int count = effects ? collect_effects(id, walk.ids, max)
                              : collect_ancestors(id, walk.ids, walk.links, max);
    kprintf("digraph causal {\n  rankdir=LR;\n");
    for (int i = 0; i < count; i++)
        print_node(walk.ids[i]);
    for (int i = 0; i < count; i++)
        print_edges(walk.ids, count, walk.ids[i]);
    kprintf("}\n");
}

void selftest() {
    const uint32_t root = causal_event_fmt(CAUSAL_USER, "cdot", "selftest root");
    causal_emit_payload(CAUSAL_USER, "cdot", "selftest child1", &root, 1, nullptr, 0);
    causal_emit_payload(CAUSAL_USER, "cdot", "selftest child2", &root, 1, nullptr, 0);
    kprintf("cdot selftest: root #%u\n", root);
    export_graph(root, true, NODES_DEFAULT);
}

/// The node limit that `arg` asks for; null asks for none.
int node_limit(const char* arg) {
    int max = NODES_DEFAULT;
    if (arg == nullptr || safe_atoi(arg, &max) != 0 || max < 1)
        return NODES_DEFAULT;
    return max < WALK_MAX ? max : WALK_MAX;
}

}  // namespace

void cdot_escape(const char* src, char* dst, size_t size) {
    size_t n = 0;
    for (; *src != '\0' && n + 2 < size; src++) {
        if (static_cast<uint8_t>(*src) < ' ')
            continue;
        if (*src == '"' || *src == '\\')
            dst[n++] = '\\';
        dst[n++] = *src;
    }
    if (size != 0)
        dst[n] = '\0';
}

void cmd_cdot(int argc, char** argv) {
    if (argc < 2) {
        kprintf("Usage: cdot <event-id|last> [effects] [max-nodes]\n");
        return;
    }
    if (strcmp(argv[1], "selftest") == 0) {
        selftest();
        return;
    }
    uint32_t id;
    if (!graph_parse_event(argv[1], &id)) {
        kprintf("cdot: invalid event id\n");
        return;
    }
    if (causal_get(id) == nullptr) {
        kprintf("cdot: event %u not found\n", id);
        return;
    }
    const bool effects = argc >= 3 && strcmp(argv[2], "effects") == 0;
    const int limit_at = effects ? 3 : 2;
    export_graph(id, effects, node_limit(argc > limit_at ? argv[limit_at] : nullptr));
}
