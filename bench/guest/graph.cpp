// The tools that ask the graph, on a full ring, beside what anybody would write first. One section
// a tool.
#include "bench/guest/measure.h"
#include "kernel/apps/cmd_graph.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/graph/blame.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/cbisect.h"
#include "kernel/graph/cprof.h"
#include "kernel/graph/epattern.h"
#include "kernel/graph/eset.h"
#include "kernel/graph/replay.h"
#include "kernel/graph/search.h"
#include "kernel/graph/whatif.h"

namespace {

constexpr uint32_t TASKS = 12;
constexpr uint32_t SHADOWS = 256;
constexpr uint32_t TICKS_APART = 32;
constexpr uint32_t ROOT_BEHIND = 200;  // the oldest events leave while there is measuring

/// A ring of tasks that do things of their own and wake each other, all from one root.
void fill_ring() {
    static uint32_t current[TASKS];
    uint32_t seed = 7;
    const uint32_t root = causal_emit(CAUSAL_SCHED, "bench", "root of the ring", nullptr, 0);
    for (uint32_t& id : current)
        id = root;
    for (uint32_t i = 0; i < CAUSAL_RING_SLOTS + ROOT_BEHIND; ++i) {
        const uint32_t task = krng(&seed) % TASKS;
        const uint32_t other = krng(&seed) % TASKS;
        const uint32_t parents[] = {current[task], current[other]};
        char desc[CAUSAL_DESC_SIZE];
        if (i % 5 == 0)
            ksnprintf(desc, sizeof desc, "unblock pid=%u reason=input", task);
        else if (i % 997 == 0)
            ksnprintf(desc, sizeof desc, "page fault at 0x%x", i);
        else
            ksnprintf(desc, sizeof desc, "write file%u len=%u pid=%u", i % 300, 64 * task, task);
        system_ticks = i * TICKS_APART;
        current[task] = causal_emit(i % 5 == 0 ? CAUSAL_SCHED : CAUSAL_FS, "bench", desc, parents,
                                    i % 5 == 0 ? 2 : 1);
    }
}

/// The children of an event by a look at every slot.
uint32_t scan_children(uint32_t id, uint32_t* out, uint32_t max) {
    uint32_t count = 0;
    for (uint32_t at = causal_oldest_event_id(); at <= causal_total_events() && count < max; ++at) {
        const causal_event_t* ev = causal_get_ring(at);
        bool found = false;
        for (uint32_t i = 0; i < ev->num_parents; ++i)
            found = found || ev->parents[i] == id;
        if (found)
            out[count++] = at;
    }
    return count;
}

struct naive_branch_t {
    uint32_t ids[SHADOWS];
    bool gone[SHADOWS];
    uint32_t count;
    bool holds(uint32_t id) const { return std::find(ids, ids + count, id) != ids + count; }
};

naive_branch_t naive;

void naive_collect(uint32_t id) {
    uint32_t children[WHATIF_CHILDREN];
    const uint32_t found = scan_children(id, children, WHATIF_CHILDREN);
    for (uint32_t i = 0; i < found && naive.count < SHADOWS; ++i) {
        if (naive.holds(children[i]))
            continue;
        naive.ids[naive.count++] = children[i];
        naive_collect(children[i]);
    }
}

/// The events without `root`, as far as the branch goes.
void naive_whatif(uint32_t root) {
    naive = {};
    naive.ids[naive.count++] = root;
    naive.gone[0] = true;
    naive_collect(root);
    for (bool changed = true; changed;) {
        changed = false;
        for (uint32_t i = 0; i < naive.count; ++i) {
            const causal_event_t* ev = causal_get_ring(naive.ids[i]);
            for (uint32_t k = 0; k < ev->num_parents && !naive.gone[i]; ++k) {
                const uint32_t* at = std::find(naive.ids, naive.ids + naive.count, ev->parents[k]);
                naive.gone[i] = at != naive.ids + naive.count && naive.gone[at - naive.ids];
                changed = changed || naive.gone[i];
            }
        }
    }
}

void measure_whatif() {
    const uint32_t root = causal_oldest_event_id() + ROOT_BEHIND / 2;
    measure("whatif-root", 1, [&] { whatif_quick(root); });
    measure("whatif-root-naive", 1, [&] { naive_whatif(root); });
}

void measure_blame() {
    static blame_suspect_t suspects[BLAME_SUSPECTS];
    measure("blame-newest", 1, [] {
        if (blame_analyze(causal_total_events(), suspects, BLAME_SUSPECTS) < 1)
            kprintf("bench failed blame\n");
    });
}

/// The index by a look at every term for every word.
csearch_term_t naive_terms[CSEARCH_TERMS];
int naive_term_count;

void naive_index_word(const char* word, uint32_t id) {
    int at = 0;
    while (at < naive_term_count && strcmp(naive_terms[at].term, word) != 0)
        ++at;
    if (at == CSEARCH_TERMS)
        return;
    csearch_term_t& term = naive_terms[at];
    if (at == naive_term_count) {
        ++naive_term_count;
        string_copy(term.term, word, sizeof term.term);
        term.count = 0;
    }
    if (term.count < CSEARCH_EVENTS)
        term.event_ids[term.count++] = id;
}

void naive_index_event(const causal_event_t& ev) {
    char word[CSEARCH_TERM_SIZE];
    size_t length = 0;
    for (const char* at = ev.desc;; ++at) {
        const bool in_word = (*at >= 'a' && *at <= 'z') || (*at >= '0' && *at <= '9');
        if (in_word && length < sizeof word - 1)
            word[length++] = *at;
        if (!in_word && length > 0) {
            word[length] = '\0';
            naive_index_word(word, ev.id);
            length = 0;
        }
        if (*at == '\0')
            return;
    }
}

void naive_rebuild() {
    naive_term_count = 0;
    for (uint32_t id = causal_oldest_event_id(); id <= causal_total_events(); ++id)
        naive_index_event(*causal_get_ring(id));
}

/// The first events that say one word or the other.
uint32_t naive_query(const char* word, const char* other, uint32_t* ids) {
    uint32_t count = 0;
    for (uint32_t id = causal_oldest_event_id(); id <= causal_total_events(); ++id) {
        const char* desc = causal_get_ring(id)->desc;
        if (strstr(desc, word) == nullptr && strstr(desc, other) == nullptr)
            continue;
        ids[count++] = id;
        if (count == CSEARCH_EVENTS)
            break;
    }
    return count;
}

void measure_search() {
    static uint32_t ids[CSEARCH_EVENTS];
    measure("search-rebuild", 1, [] { csearch_rebuild(); });
    measure("search-rebuild-naive", 1, [] { naive_rebuild(); });
    measure("search-query", 1, [] {
        if (csearch_query("write OR unblock", ids, CSEARCH_EVENTS) != CSEARCH_EVENTS)
            kprintf("bench failed search\n");
    });
    measure("search-query-naive", 1, [] { naive_query("write", "unblock", ids); });
}

/// Every attempt goes to the end of the window and fails.
void measure_pattern() {
    epattern_t pattern;
    if (epattern_compile("sched+ -> fs+ -> net", &pattern) != 0)
        kprintf("bench failed pattern\n");
    measure("pattern-match-none", 1, [&] { epattern_match(&pattern, nullptr, 32); });
}

/// A shell command, whose words are at most four.
void run_command(void (*command)(int, char**), const char* name, const char* first,
                 const char* second = nullptr) {
    char words[3][CAUSAL_DESC_SIZE];
    char* argv[] = {words[0], words[1], words[2]};
    int argc = 0;
    for (const char* word : {name, first, second}) {
        if (word != nullptr)
            string_copy(words[argc++], word, sizeof words[0]);
    }
    command(argc, argv);
}

constexpr uint32_t PATH_EVENTS = 512;  // how far a path is searched

/// The causes of the newest event, nearest first, each once.
void naive_path(uint32_t to) {
    static uint32_t found[PATH_EVENTS];
    uint32_t count = 1;
    causal_event_t ev;
    found[0] = causal_total_events();
    for (uint32_t head = 0; head < count && count < PATH_EVENTS; ++head) {
        if (found[head] == to || !causal_copy(found[head], &ev))
            continue;
        for (uint32_t i = 0; i < ev.num_parents && count < PATH_EVENTS; ++i) {
            if (std::find(found, found + count, ev.parents[i]) == found + count)
                found[count++] = ev.parents[i];
        }
    }
}

void measure_path() {
    char from[12], to[12];
    const uint32_t oldest = causal_oldest_event_id() + ROOT_BEHIND / 2;
    ksnprintf(from, sizeof from, "%u", oldest);
    ksnprintf(to, sizeof to, "%u", causal_total_events());
    measure("cpath-across", 1, [&] { run_command(cmd_cpath, "cpath", from, to); });
    measure("cpath-across-naive", 1, [&] { naive_path(oldest); });
}

/// Events up to a tick by kind, and the tasks and messages that their texts speak of.
uint32_t naive_replay(uint32_t tick) {
    uint32_t kinds[CAUSAL_TYPE_COUNT] = {};
    uint32_t tasks = 0;
    causal_event_t ev;
    for (uint32_t id = causal_oldest_event_id(); id <= causal_total_events(); ++id) {
        if (!causal_copy(id, &ev) || ev.time.wall_ticks > tick)
            continue;
        ++kinds[ev.type];
        if (ev.type != CAUSAL_SCHED)
            continue;
        for (const char* word : {"pri=", "create", "spawn", "exit", "dead", "reap"})
            tasks += strstr(ev.desc, word) != nullptr ? 1 : 0;
    }
    return kinds[CAUSAL_FS] + tasks;
}

/// The first tick by which `wanted` file operations had happened.
void naive_bisect(uint32_t wanted) {
    uint32_t low = 0;
    for (uint32_t high = system_ticks; low < high;) {
        const uint32_t middle = low + (high - low) / 2;
        if (naive_replay(middle) >= wanted)
            high = middle;
        else
            low = middle + 1;
    }
}

void measure_replay() {
    constexpr uint32_t FILE_OPERATIONS = 6000;
    static replay_snapshot_t snap;
    measure("replay-at", 1, [] { check("replay", replay_at(system_ticks, &snap)); });
    measure("replay-at-naive", 1, [] { naive_replay(system_ticks); });
    measure("cbisect", 1, [] { run_command(cmd_cbisect, "cbisect", "fs", "6000"); });
    measure("cbisect-naive", 1, [] { naive_bisect(FILE_OPERATIONS); });
}

/// Edges of the newest events by the kinds that they join, and how long they took.
void naive_profile(uint32_t window) {
    static uint32_t edges[CAUSAL_TYPE_COUNT][CAUSAL_TYPE_COUNT];
    static uint64_t spans[CAUSAL_TYPE_COUNT][CAUSAL_TYPE_COUNT];
    causal_event_t effect, cause;
    for (uint32_t id = causal_total_events() - window + 1; id <= causal_total_events(); ++id) {
        if (!causal_copy(id, &effect))
            continue;
        for (uint32_t i = 0; i < effect.num_parents; ++i) {
            if (!causal_copy(effect.parents[i], &cause))
                continue;
            ++edges[cause.type][effect.type];
            spans[cause.type][effect.type] += effect.time.wall_ticks - cause.time.wall_ticks;
        }
    }
}

void measure_profile() {
    measure("cprof-8192", 1, [] { run_command(cmd_cprof, "cprof", "8192"); });
    measure("cprof-8192-naive", 1, [] { naive_profile(8192); });
}

/// The events of a subsystem, as many as a set holds.
void naive_set(const char* subsystem) {
    static eset_t set;
    causal_event_t ev;
    set.count = 0;
    for (uint32_t id = causal_oldest_event_id(); id <= causal_total_events(); ++id) {
        if (causal_copy(id, &ev) && strcmp(ev.subsystem, subsystem) == 0 && set.count < ESET_MAX)
            set.ids[set.count++] = id;
    }
}

/// Of a subsystem that nobody is in: the walk goes to the end.
void measure_set() {
    static eset_t set;
    measure("eset-by-subsystem", 1, [] { eset_by_subsystem("nobody", &set); });
    measure("eset-by-subsystem-naive", 1, [] { naive_set("nobody"); });
}

constexpr uint32_t LOOKUPS = 100;

/// Effects mostly follow soon; those of an event that something comes back to lie far apart.
void measure_children() {
    static uint32_t found[CSEARCH_EVENTS];
    const uint32_t near = causal_oldest_event_id() + ROOT_BEHIND;
    measure("children-near", LOOKUPS, [&] {
        for (uint32_t id = near; id < near + LOOKUPS; ++id)
            causal_children_ids(id, found, CSEARCH_EVENTS);
    });
    causal_emit(CAUSAL_FS, "bench", "late effect", &near, 1);
    measure("children-far", 1, [&] { causal_children_ids(near, found, CSEARCH_EVENTS); });
    measure("children-far-naive", 1, [&] { scan_children(near, found, CSEARCH_EVENTS); });
}

}  // namespace

void measure_graph() {
    fill_ring();
    measure_whatif();
    measure_blame();
    measure_search();
    measure_pattern();
    measure_path();
    measure_replay();
    measure_profile();
    measure_set();
    measure_children();
}
