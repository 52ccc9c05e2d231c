// `cpath`: a causal path between two events, or their nearest common ancestor. Walks go breadth
// first over parents, each identifier once, WALK_MAX at most.
#include "kernel/apps/cmd_graph/work.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

mutex_t graph_work_lock;
graph_work_t graph_work;

namespace {

/// Begins a walk at `start`.
void begin_walk(uint32_t start, uint32_t* ids, uint32_t* links) REQUIRES(graph_work_lock) {
    graph_work.seen.clear();
    graph_work.seen.add(start);
    ids[0] = start;
    links[0] = 0;
}

/// Appends the parents of entry `head` that the walk has not found yet, each with `link`.
int add_parents(uint32_t* ids, uint32_t* links, int count, int max, int head, uint32_t link)
    REQUIRES(graph_work_lock) {
    uint32_t parents[CAUSAL_PARENTS_MAX];
    const int found = causal_parents_of(ids[head], parents);
    for (int i = 0; i < found && count < max; i++) {
        if (!graph_work.seen.add(parents[i]))
            continue;
        ids[count] = parents[i];
        links[count++] = link;
    }
    return count;
}

int index_of(const uint32_t* ids, int from, int count, uint32_t id) {
    for (int i = from; i < count; i++) {
        if (ids[i] == id)
            return i;
    }
    return -1;
}

void print_path(const graph_walk_t& walk, int at) {
    int hops = 0;
    causal_event_t ev;
    for (;; at = static_cast<int>(walk.links[at]), hops++) {
        if (causal_copy(walk.ids[at], &ev))
            graph_print_short(ev);
        if (at == 0)
            break;
    }
    kprintf("cpath: %d hops\n", hops);
}

void cpath_search(uint32_t ancestor, uint32_t descendant) {
    mutex_guard lock(graph_work_lock);
    graph_walk_t& walk = graph_work.a;
    begin_walk(descendant, walk.ids, walk.links);
    int count = 1;
    int reached = -1;
    for (int head = 0; head < count && reached < 0; head++) {
        const int before = count;
        count =
            add_parents(walk.ids, walk.links, count, WALK_MAX, head, static_cast<uint32_t>(head));
        reached = index_of(walk.ids, before, count, ancestor);
    }
    if (reached < 0) {
        kprintf("cpath: no causal path from #%u to #%u (searched %d events)\n", ancestor,
                descendant, count);
        return;
    }
    kprintf("Causal path #%u -> #%u:\n", ancestor, descendant);
    print_path(walk, reached);
}

/// The identifier in both walks with the smallest sum of distances, first found first.
struct meeting_t {
    int in_a = -1;
    int in_b = -1;
};

meeting_t nearest_meeting(const graph_walk_t& a, int a_count, const graph_walk_t& b, int b_count) {
    meeting_t best;
    uint32_t best_sum = 2 * WALK_MAX;
    for (int i = 0; i < a_count; i++) {
        const int j = index_of(b.ids, 0, b_count, a.ids[i]);
        if (j < 0 || a.links[i] + b.links[j] >= best_sum)
            continue;
        best = {i, j};
        best_sum = a.links[i] + b.links[j];
    }
    return best;
}

void cpath_common(uint32_t a, uint32_t b) {
    mutex_guard lock(graph_work_lock);
    graph_walk_t& from_a = graph_work.a;
    graph_walk_t& from_b = graph_work.b;
    const int a_count = collect_ancestors(a, from_a.ids, from_a.links, WALK_MAX);
    const int b_count = collect_ancestors(b, from_b.ids, from_b.links, WALK_MAX);
    const meeting_t meeting = nearest_meeting(from_a, a_count, from_b, b_count);
    if (meeting.in_a < 0) {
        kprintf("cpath: no common ancestor of #%u and #%u\n", a, b);
        return;
    }
    const uint32_t id = from_a.ids[meeting.in_a];
    kprintf("Nearest common ancestor of #%u and #%u: #%u\n", a, b, id);
    causal_event_t ev;
    if (causal_copy(id, &ev))
        graph_print_short(ev);
    kprintf("cpath: dist %u from #%u, %u from #%u\n", from_a.links[meeting.in_a], a,
            from_b.links[meeting.in_b], b);
}

void selftest() {
    const uint32_t root = causal_event_fmt(CAUSAL_USER, "cpath", "selftest root");
    const uint32_t mid =
        causal_emit_payload(CAUSAL_USER, "cpath", "selftest mid", &root, 1, nullptr, 0);
    const uint32_t leaf =
        causal_emit_payload(CAUSAL_USER, "cpath", "selftest leaf", &mid, 1, nullptr, 0);
    const uint32_t sibling =
        causal_emit_payload(CAUSAL_USER, "cpath", "selftest sibling", &root, 1, nullptr, 0);
    kprintf("cpath selftest: a=#%u b=#%u c=#%u d=#%u\n", root, mid, leaf, sibling);
    cpath_search(root, leaf);
    cpath_common(leaf, sibling);
    const bool found = causal_get(root) != nullptr && causal_get(leaf) != nullptr &&
                       causal_get(sibling) != nullptr;
    kprintf("cpath selftest: %s\n", found ? "PASS" : "FAIL");
}

bool exists(uint32_t id) {
    if (causal_get(id) != nullptr)
        return true;
    kprintf("cpath: event %u not found\n", id);
    return false;
}

/// Reads two events that exist; prints what is wrong otherwise.
bool parse_pair(char** args, uint32_t* a, uint32_t* b) {
    if (safe_parse_uint(args[0], a) != 0 || safe_parse_uint(args[1], b) != 0) {
        kprintf("cpath: invalid event id\n");
        return false;
    }
    return exists(*a) && exists(*b);
}

}  // namespace

int collect_ancestors(uint32_t start, uint32_t* ids, uint32_t* dists, int max) {
    if (max < 1)
        return 0;
    begin_walk(start, ids, dists);
    int count = 1;
    for (int head = 0; head < count && count < max; head++)
        count = add_parents(ids, dists, count, max, head, dists[head] + 1);
    return count;
}

void cmd_cpath(int argc, char** argv) {
    uint32_t a;
    uint32_t b;
    if (argc >= 2 && strcmp(argv[1], "selftest") == 0) {
        selftest();
        return;
    }
    if (argc < 3) {
        kprintf("Usage: cpath <ancestor-id> <descendant-id> | cpath common <a> <b>\n");
        return;
    }
    if (argc >= 4 && strcmp(argv[1], "common") == 0) {
        if (parse_pair(argv + 2, &a, &b))
            cpath_common(a, b);
        return;
    }
    if (!parse_pair(argv + 1, &a, &b))
        return;
    if (a == b)
        kprintf("cpath: same event #%u\n", a);
    else
        cpath_search(a, b);
}
