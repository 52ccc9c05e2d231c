// `why`: from an event back to its root cause, one cause a step.
#include "kernel/apps/cmd_graph/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/provenance.h"

namespace {

constexpr int HOPS_MAX = 16;
constexpr int ORIGIN_SCAN = 4;  // parents that the origin view looks at

/// Follows the preferred parents of `id`; calls visit(event, hop) for each and says how it ended.
template <typename visit_fn>
void walk_back(uint32_t id, int max_scan, visit_fn visit) {
    causal_event_t ev;
    for (int hop = 0; hop < HOPS_MAX; hop++) {
        if (id == 0 || !causal_copy(id, &ev)) {
            if (hop == 0)
                kprintf("  Event %u not found\n", id);
            else
                kprintf("  (root cause)\n");
            return;
        }
        visit(ev, hop);
        id = prov_preferred_parent(ev, max_scan);
    }
    kprintf(id == 0 ? "  (root cause)\n" : "  ... (max depth reached)\n");
}

void show_chain(uint32_t id) {
    constexpr int ALL_PARENTS = 0;
    kprintf("Causal chain for event %u:\n", id);
    char subsystem[CAUSAL_SUBSYSTEM_SIZE] = "";
    walk_back(id, ALL_PARENTS, [&subsystem](const causal_event_t& ev, int hop) {
        const bool same = hop == 0 || strcmp(ev.subsystem, subsystem) == 0;
        kprintf("%s%s[%u] T+%u %s: %s\n", graph_indent(hop), same ? "├─ " : "╰→ ", ev.id,
                ev.time.wall_ticks, ev.subsystem, ev.desc);
        memcpy(subsystem, ev.subsystem, sizeof subsystem);
    });
}

void show_origins(uint32_t id) {
    kprintf("Causal chain for event %u (with origin nodes):\n", id);
    kprintf("  local node: %08x\n", causal_get_node_hash());
    bool crossed = false;
    walk_back(id, ORIGIN_SCAN, [&crossed](const causal_event_t& ev, int) {
        kprintf("  [%u] T+%u %s: %s   ", ev.id, ev.time.wall_ticks, ev.subsystem, ev.desc);
        if (!prov_is_remote(ev)) {
            kprintf("origin=local\n");
            return;
        }
        kprintf("origin=node:%08x\n", ev.node_hash);
        kprintf("      ^-- remote boundary (event imported from another node)\n");
        crossed = true;
    });
    if (!crossed)
        kprintf("  all displayed hops originated on the local node\n");
    kprintf(
        "note: federation imports events individually, so remote ancestors beyond an imported "
        "event may not be present locally.\n");
}

/// The newest message that came from another node and was received here, to any actor or to one.
void show_remote_parent(const char* actor_name) {
    actor_remote_parent_proof_t p;
    if (actor_remote_parent_latest(actor_name, &p) != 0) {
        kprintf("why remote_parent: no remote parent chain recorded\n");
        return;
    }
    kprintf("Remote parent chain of actor '%s' (T+%u):\n", p.actor_name, p.tick);
    kprintf("  node %08x event %u lamport %llu %s: %s\n", p.sender_node, p.remote_causal_id,
            p.remote_lamport, p.remote_subsystem, p.remote_desc);
    kprintf("  ╰→ [%u] %s\n", p.anchor_event, p.anchor_desc);
    kprintf("    ╰→ [%u] %s\n", p.send_event, p.send_desc);
    kprintf("      ├─ [%u] %s\n", p.recv_event, p.recv_desc);
    char hex[2 * CAUSAL_HASH_SIZE + 1];
    causal_hash_hex(p.remote_event_hash, hex);
    kprintf("  remote event hash (version %u): %s\n", p.remote_event_hash_version, hex);
    kprintf("  receipt: %08x\n", p.receipt_hash);
}

}  // namespace

void cmd_why(int argc, char** argv) {
    uint32_t id = 0;
    if (argc < 2) {
        kprintf("Usage: why <event_id>\n");
    } else if (strcmp(argv[1], "remote_parent") == 0) {
        show_remote_parent(argc > 2 ? argv[2] : nullptr);
    } else if (strcmp(argv[1], "-r") != 0) {
        if (safe_parse_uint(argv[1], &id) != 0 || id == 0)
            kprintf("why: invalid event id '%s'\n", argv[1]);
        else
            show_chain(id);
    } else if (argc < 3) {
        kprintf("usage: why -r <event-id|last>\n");
    } else if (!graph_parse_event(argv[2], &id) || id == 0) {
        kprintf("why -r: invalid event id '%s'\n", argv[2]);
    } else {
        show_origins(id);
    }
}
