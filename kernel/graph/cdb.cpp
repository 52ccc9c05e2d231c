#include "kernel/graph/cdb.h"

#include "kernel/core/kprintf.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/graph/ring_read.h"

namespace {

constexpr int ANY_TYPE = -1;
constexpr int LISTED_MAX = 16;

struct debugger_t {
    uint32_t cursor;  ///< 0: none
    int type_filter = ANY_TYPE;
    char text_filter[32];
    bool armed;
};

mutex_t cdb_lock;
constinit debugger_t cdb GUARDED_BY(cdb_lock) = {};

void print_event(const causal_event_t& ev) {
    kprintf("#%u [%s] %s: %s (tick %u)\n", ev.id, causal_type_name(ev.type), ev.subsystem, ev.desc,
            ev.time.wall_ticks);
}

bool has_cursor() REQUIRES(cdb_lock) {
    if (cdb.cursor == 0)
        kprintf("cdb: no current event (run first)\n");
    return cdb.cursor != 0;
}

/// Moves the cursor and shows where it is.
void move_to(uint32_t id, const char* how) REQUIRES(cdb_lock) {
    causal_event_t ev;
    cdb.cursor = id;
    kprintf("%s #%u\n", how, id);
    if (causal_copy(id, &ev))
        print_event(ev);
}

// --- Breakpoints ---

void print_types() {
    kprintf("cdb: valid types:");
    for (uint32_t type = 0; type < CAUSAL_TYPE_COUNT; ++type)
        kprintf(" %s", causal_type_name(type));
    kprintf("\n");
}

void break_on_type(const char* name) REQUIRES(cdb_lock) {
    const int type = causal_type_from_name(name);
    if (type < 0) {
        kprintf("cdb: unknown type %s\n", name);
        print_types();
        return;
    }
    cdb.type_filter = type;
    cdb.armed = true;
    kprintf("cdb: breakpoint set (type=%s)\n", name);
}

void break_on_text(const char* text) REQUIRES(cdb_lock) {
    string_copy(cdb.text_filter, text, sizeof cdb.text_filter);
    cdb.armed = true;
    kprintf("cdb: breakpoint set (text=%s)\n", cdb.text_filter);
}

void set_breakpoint(int argc, char** argv) REQUIRES(cdb_lock) {
    const char* what = argc > 2 ? argv[2] : "";
    if (strcmp(what, "clear") == 0) {
        cdb.type_filter = ANY_TYPE;
        cdb.text_filter[0] = '\0';
        kprintf("cdb: breakpoint cleared\n");
    } else if (argc > 3 && strcmp(what, "type") == 0) {
        break_on_type(argv[3]);
    } else if (argc > 3 && strcmp(what, "text") == 0) {
        break_on_text(argv[3]);
    } else {
        kprintf("usage: cdb break type <name> | text <substr> | clear\n");
    }
}

bool matches(const causal_event_t& ev) REQUIRES(cdb_lock) {
    if (cdb.type_filter != ANY_TYPE && ev.type != static_cast<uint32_t>(cdb.type_filter))
        return false;
    return cdb.text_filter[0] == '\0' || strstr(ev.desc, cdb.text_filter) != nullptr ||
           strstr(ev.subsystem, cdb.text_filter) != nullptr;
}

/// Searches the ring from `start` on.
void run_from(uint32_t start, const char* none) REQUIRES(cdb_lock) {
    cdb.armed = true;
    const uint32_t oldest = causal_oldest_event_id();
    const uint32_t newest = causal_total_events();
    for (uint32_t id = start > oldest ? start : oldest; id != 0 && id <= newest; ++id) {
        bool matched = false;
        const bool found =
            causal_read_ring(id, [&matched](const causal_event_t& ev)
                                     NO_THREAD_SAFETY_ANALYSIS { matched = matches(ev); });
        if (!found || !matched)
            continue;
        move_to(id, "Breakpoint hit at event");
        return;
    }
    kprintf("%s\n", none);
}

// --- Looking around ---

void print_current() REQUIRES(cdb_lock) {
    causal_event_t ev;
    if (!has_cursor())
        return;
    if (!causal_copy(cdb.cursor, &ev)) {
        kprintf("cdb: event #%u no longer in ring\n", cdb.cursor);
        return;
    }
    print_event(ev);
    kprintf("  causes: %u  effects: %u  lamport: %llu\n", static_cast<uint32_t>(ev.num_parents),
            static_cast<uint32_t>(ev.child_count), ev.time.lamport);
    kprintf("  parents:");
    for (uint32_t i = 0; i < ev.num_parents && i < CAUSAL_PARENTS_MAX; ++i)
        kprintf(" #%u", ev.parents[i]);
    kprintf(ev.num_parents == 0 ? " (none)\n" : "\n");
}

void print_causes() REQUIRES(cdb_lock) {
    uint32_t ids[LISTED_MAX];
    if (!has_cursor())
        return;
    kprintf("cause chain for #%u:\n", cdb.cursor);
    const int count = causal_ancestor_ids(cdb.cursor, ids, LISTED_MAX);
    causal_event_t ev;
    for (int i = 0; i < count; ++i) {
        if (!causal_copy(ids[i], &ev))
            continue;
        kprintf("  #%d  ", i);
        print_event(ev);
    }
    if (count == 0)
        kprintf("  (no causes -- root event)\n");
}

void step() REQUIRES(cdb_lock) {
    uint32_t ids[LISTED_MAX];
    if (!has_cursor())
        return;
    if (causal_children_ids(cdb.cursor, ids, LISTED_MAX) > 0)
        move_to(ids[0], "stepped to effect");
    else
        kprintf("cdb: no downstream effect from #%u\n", cdb.cursor);
}

void go_up() REQUIRES(cdb_lock) {
    uint32_t parents[CAUSAL_PARENTS_MAX];
    if (!has_cursor())
        return;
    if (causal_parents_of(cdb.cursor, parents) > 0)
        move_to(parents[0], "moved up to cause");
    else
        kprintf("cdb: no cause (root event)\n");
}

void print_status() REQUIRES(cdb_lock) {
    kprintf("breakpoint: type=%s text=%s\n",
            cdb.type_filter == ANY_TYPE ? "any"
                                        : causal_type_name(static_cast<uint32_t>(cdb.type_filter)),
            cdb.text_filter[0] != '\0' ? cdb.text_filter : "any");
    if (cdb.cursor != 0)
        kprintf("cursor: #%u\n", cdb.cursor);
    else
        kprintf("cursor: (none)\n");
}

void reset() REQUIRES(cdb_lock) {
    cdb = {};
    kprintf("cdb: reset\n");
}

void print_help() {
    kprintf("usage: cdb <command>\n");
    kprintf("  help                 show this help\n");
    kprintf("  break type <name>    break on causal type\n");
    kprintf("  break text <substr>  break on desc/subsystem text\n");
    kprintf("  break clear          clear breakpoint\n");
    kprintf("  run                  run to first matching event\n");
    kprintf("  continue|c           run to next matching event\n");
    kprintf("  print|p              inspect current event\n");
    kprintf("  bt|backtrace         show cause chain\n");
    kprintf("  step|s               step to first downstream effect\n");
    kprintf("  up                   move to first cause\n");
    kprintf("  status               show cursor and breakpoint\n");
    kprintf("  reset                clear cdb state\n");
}

}  // namespace

void cmd_cdb(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : "help";
    const auto is = [word](const char* name, const char* other) {
        return strcmp(word, name) == 0 || strcmp(word, other) == 0;
    };
    const mutex_guard guard(cdb_lock);
    if (is("break", "break"))
        set_breakpoint(argc, argv);
    else if (is("run", "run"))
        run_from(0, "cdb: no event matches breakpoint");
    else if (is("continue", "c"))
        run_from(cdb.cursor == 0 ? 0 : cdb.cursor + 1, "cdb: no more matches");
    else if (is("print", "p"))
        print_current();
    else if (is("bt", "backtrace"))
        print_causes();
    else if (is("step", "s"))
        step();
    else if (is("up", "up"))
        go_up();
    else if (is("status", "status"))
        print_status();
    else if (is("reset", "reset"))
        reset();
    else
        print_help();
}
