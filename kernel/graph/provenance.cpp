#include "kernel/graph/provenance.h"

#include <algorithm>

#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/ring_read.h"

namespace {

constexpr int WALK_MAX = 32;
constexpr const char* TYPE_NAMES[CAUSAL_TYPE_COUNT] = {"sched", "mem",   "fs_op", "net", "syscall",
                                                       "shell", "actor", "mesh",  "io",  "user"};

/// Whether `id` is an event of a subsystem other than `subsystem`.
bool crosses(uint32_t id, const char* subsystem) {
    causal_event_t parent;
    return causal_copy(id, &parent) && strcmp(parent.subsystem, subsystem) != 0;
}

bool is_full(const prov_chain_t& chain) { return chain.count == PROV_RESULTS_MAX; }

void add(prov_chain_t* chain, const causal_event_t& ev, int depth) {
    if (is_full(*chain))
        return;
    prov_result_t& r = chain->results[chain->count++];
    r = {ev.id, ev.time.wall_ticks, ev.node_hash, static_cast<uint8_t>(ev.type), {}, {},
         depth, prov_is_remote(ev)};
    memcpy(r.subsystem, ev.subsystem, sizeof r.subsystem);
    memcpy(r.desc, ev.desc, sizeof r.desc);
}

/// Fills the chain with the events of the ring that match, newest first.
template <typename match_fn>
void collect(prov_chain_t* chain, match_fn matches) {
    chain->count = 0;
    const uint32_t oldest = causal_oldest_event_id();
    if (oldest == 0)
        return;
    causal_event_t ev;
    for (uint32_t id = causal_total_events(); id >= oldest && !is_full(*chain); --id) {
        bool matched = false;
        const bool found =
            causal_read_ring(id, [&](const causal_event_t& at) { matched = matches(at); });
        if (found && matched && causal_copy(id, &ev))
            add(chain, ev, 0);
    }
}

/// Adds the way back from the newest match, itself first.
int walk_parents(prov_chain_t* chain) {
    constexpr int ALL_PARENTS = 0;
    uint32_t id = chain->count > 0 ? chain->results[0].event_id : 0;
    causal_event_t ev;
    for (int depth = 1; depth <= WALK_MAX && id != 0 && causal_copy(id, &ev); ++depth) {
        add(chain, ev, depth);
        id = prov_preferred_parent(ev, ALL_PARENTS);
    }
    return chain->count;
}

void set_title(prov_chain_t* chain, const char* what, const char* which) {
    ksnprintf(chain->query_desc, sizeof chain->query_desc, "%s%s", what, which);
}

bool is_from(const causal_event_t& ev, const char* subsystem) {
    return strcmp(ev.subsystem, subsystem) == 0;
}

// --- The command ---

void print_usage() {
    kprintf("Usage:\n");
    kprintf("  prov file <path>       — file provenance\n");
    kprintf("  prov actor <name>      — actor provenance\n");
    kprintf("  prov task <pid>        — task provenance\n");
    kprintf("  prov net [filter]      — network provenance\n");
    kprintf("  prov sub <subsystem>   — subsystem events\n");
    kprintf("  prov search <pattern>  — free-text search\n");
}

int query_task_word(const char* word, prov_chain_t* chain) {
    int pid;
    if (safe_atoi(word, &pid) == 0)
        return prov_query_task(pid, chain);
    kprintf("prov task: invalid pid '%s'\n", word);
    return -1;
}

struct form_t {
    const char* name;
    const char* missing;  ///< what it says without an argument; null: it needs none
    int (*query)(const char* word, prov_chain_t* chain);
};

constexpr form_t FORMS[] = {
    {"file", "path", prov_query_file},
    {"actor", "name", prov_query_actor},
    {"task", "pid", query_task_word},
    {"net", nullptr, prov_query_net},
    {"sub", "subsystem name", prov_query_subsystem},
    {"search", "pattern", prov_query_pattern},
};

void run(const form_t& form, const char* word) {
    if (word == nullptr && form.missing != nullptr) {
        kprintf("prov %s: need %s\n", form.name, form.missing);
        return;
    }
    const auto chain = heap_ptr<prov_chain_t>::make();
    if (!chain)
        kprintf("prov: no memory\n");
    else if (form.query(word, chain.get()) >= 0)
        prov_print_chain(chain.get());
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

void provenance_init() {
    causal_emit(CAUSAL_SHELL, "prov", "provenance: query engine initialized", nullptr, 0);
}

int prov_query_file(const char* path, prov_chain_t* chain) {
    set_title(chain, "provenance of file: ", path);
    collect(chain, [path](const causal_event_t& ev) {
        return (ev.type == CAUSAL_FS || ev.type == CAUSAL_SHELL || is_from(ev, "fs") ||
                is_from(ev, "blockfs")) &&
               strstr(ev.desc, path) != nullptr;
    });
    return walk_parents(chain);
}

int prov_query_actor(const char* actor_name, prov_chain_t* chain) {
    set_title(chain, "provenance of actor: ", actor_name);
    collect(chain, [actor_name](const causal_event_t& ev) {
        return ev.type == CAUSAL_ACTOR && strstr(ev.desc, actor_name) != nullptr;
    });
    return walk_parents(chain);
}

int prov_query_task(int pid, prov_chain_t* chain) {
    char text[24];
    ksnprintf(text, sizeof text, "pid=%d", pid);
    set_title(chain, "provenance of task: ", text);
    collect(chain, [&text](const causal_event_t& ev) {
        return (ev.type == CAUSAL_SCHED || ev.type == CAUSAL_SYSCALL) &&
               strstr(ev.desc, text) != nullptr;
    });
    return walk_parents(chain);
}

int prov_query_net(const char* filter, prov_chain_t* chain) {
    set_title(chain, "provenance of net: ", filter != nullptr ? filter : "*");
    collect(chain, [filter](const causal_event_t& ev) {
        return ev.type == CAUSAL_NET && (filter == nullptr || strstr(ev.desc, filter) != nullptr);
    });
    return walk_parents(chain);
}

int prov_query_subsystem(const char* subsystem, prov_chain_t* chain) {
    set_title(chain, "provenance of subsystem: ", subsystem);
    collect(chain, [subsystem](const causal_event_t& ev) { return is_from(ev, subsystem); });
    return chain->count;
}

int prov_query_pattern(const char* pattern, prov_chain_t* chain) {
    set_title(chain, "search: ", pattern);
    collect(chain,
            [pattern](const causal_event_t& ev) { return strstr(ev.desc, pattern) != nullptr; });
    return chain->count;
}

void prov_print_chain(const prov_chain_t* chain) {
    constexpr int RULE_WIDTH = 40;
    if (chain->count == 0) {
        kprintf("No events found\n");
        return;
    }
    int operations = 0;
    kprintf("═══ %s ═══\n", chain->query_desc);
    for (int i = 0; i < chain->count; ++i) {
        const prov_result_t& r = chain->results[i];
        if (r.cross_node)
            kprintf("⊕ [remote] ");
        for (int level = 0; level < r.depth; ++level)
            kprintf("  ");
        kprintf("%s[%u] T+%u  %s  %s\n", r.depth == 0 ? "  " : "← ", r.event_id, r.tick,
                r.type < CAUSAL_TYPE_COUNT ? TYPE_NAMES[r.type] : "???", r.desc);
        operations += r.depth == 0 ? 1 : 0;
    }
    for (int i = 0; i < RULE_WIDTH; ++i)
        kprintf("─");
    kprintf("\n%d operations, %d total events in chain\n", operations, chain->count);
}

void cmd_prov(int argc, char** argv) {
    if (argc < 2) {
        print_usage();
        return;
    }
    for (const form_t& form : FORMS) {
        if (strcmp(argv[1], form.name) == 0) {
            run(form, argc > 2 ? argv[2] : nullptr);
            return;
        }
    }
    kprintf("prov: unknown subcommand '%s'\n", argv[1]);
}
