#include "kernel/graph/eset.h"

#include <utility>

#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal.h"
#include "kernel/graph/event_walk.h"
#include "kernel/graph/ring_read.h"

namespace {

bool holds(const eset_t* set, uint32_t id) {
    for (int i = 0; i < set->count; ++i) {
        if (set->ids[i] == id)
            return true;
    }
    return false;
}

/// Adds `id` to a set whose members fall.
void add_falling(eset_t* set, uint32_t id) {
    eset_add(set, id);
    for (int at = set->count - 1; at > 0 && set->ids[at - 1] < set->ids[at]; --at)
        std::swap(set->ids[at - 1], set->ids[at]);
}

/// The archived part of eset_by_subsystem: what is older than all that the ring gave. A segment may
/// hold one event from the middle of another.
void add_archived(const char* name, eset_t* out) {
    const auto records = heap_ptr<cjournal_event_t>::make(ESET_MAX);
    const uint32_t end = out->count != 0 ? out->ids[out->count - 1] : UINT32_MAX;
    int count = records ? cjournal_query_subsystem(name, records.get(), ESET_MAX) : 0;
    while (count-- > 0) {
        const uint32_t id = records[static_cast<size_t>(count)].id;
        if (id < end)
            add_falling(out, id);
    }
}

// --- The command ---

using build_fn = bool (*)(char** words, eset_t* out);

bool parse_type(const char* word, causal_type_t* type) {
    const int found = causal_type_from_name(word);
    if (found < 0)
        kprintf("unknown type: %s\n", word);
    *type = static_cast<causal_type_t>(found);
    return found >= 0;
}

bool build_type(char** words, eset_t* out) {
    causal_type_t type;
    if (!parse_type(words[0], &type))
        return false;
    eset_by_type(type, out);
    return true;
}

bool build_subsystem(char** words, eset_t* out) {
    eset_by_subsystem(words[0], out);
    return true;
}

bool build_range(char** words, eset_t* out) {
    eset_by_range(static_cast<uint32_t>(atoi(words[0])), static_cast<uint32_t>(atoi(words[1])),
                  out);
    return true;
}

using combine_fn = void (*)(const eset_t* a, const eset_t* b, eset_t* out);

template <combine_fn combine>
bool build_combined(char** words, eset_t* out) {
    eset_t a;
    eset_t b;
    if (!build_type(&words[0], &a) || !build_type(&words[1], &b))
        return false;
    combine(&a, &b, out);
    return true;
}

bool build_filtered(char** words, eset_t* out) {
    eset_t all;
    if (!build_type(words, &all))
        return false;
    eset_filter_desc(&all, words[1], out);
    return true;
}

struct form_t {
    const char* name;
    const char* arguments;
    int least;
    build_fn build;
};

constexpr form_t FORMS[] = {
    {"type", "<name>", 1, build_type},
    {"sub", "<name>", 1, build_subsystem},
    {"range", "<start> <end>", 2, build_range},
    {"union", "<t1> <t2>", 2, build_combined<eset_union>},
    {"intersect", "<t1> <t2>", 2, build_combined<eset_intersect>},
    {"diff", "<t1> <t2>", 2, build_combined<eset_diff>},
    {"filter", "<type> <pattern>", 2, build_filtered},
    {"count", "<type>", 1, build_type},
};

void print_usage() {
    kprintf("usage: eset <subcommand> [args]\n");
    kprintf("  type <name>          events by type\n");
    kprintf("  sub <name>           events by subsystem\n");
    kprintf("  range <start> <end>  events in ID range\n");
    kprintf("  union <t1> <t2>      union of two types\n");
    kprintf("  intersect <t1> <t2>  intersection of two types\n");
    kprintf("  diff <t1> <t2>       difference of two types\n");
    kprintf("  filter <type> <pat>  filter by description\n");
    kprintf("  count <type>         count events of type\n");
}

void run(const form_t& form, int words, char** argv) {
    eset_t set;
    if (words < form.least) {
        kprintf("usage: eset %s %s\n", form.name, form.arguments);
        return;
    }
    if (!form.build(argv, &set))
        return;
    if (strcmp(form.name, "count") == 0)
        kprintf("%d event(s)\n", eset_count(&set));
    else
        eset_print(&set);
}

}  // namespace

void eset_init() {}

void eset_add(eset_t* set, uint32_t id) {
    if (set->count < ESET_MAX)
        set->ids[set->count++] = id;
}

void eset_by_type(causal_type_t type, eset_t* out) {
    out->count = causal_recent_ids(type, out->ids, ESET_MAX);
}

void eset_by_subsystem(const char* name, eset_t* out) {
    out->count = 0;
    const uint32_t oldest = causal_oldest_event_id();
    if (oldest == 0)
        return;
    for (uint32_t id = causal_total_events(); id >= oldest && out->count < ESET_MAX; --id) {
        bool equal = false;
        const bool found = causal_read_ring(
            id, [&](const causal_event_t& ev) { equal = strcmp(ev.subsystem, name) == 0; });
        if (found && equal)
            eset_add(out, id);
    }
    if (out->count < ESET_MAX)
        add_archived(name, out);
}

void eset_by_range(uint32_t start, uint32_t end, eset_t* out) {
    out->count = 0;
    if (start > end)
        return;
    event_walk_each([=](const event_facts_t& event) {
        if (event.id >= start && event.id <= end)
            eset_add(out, event.id);
        return event.id < end && out->count < ESET_MAX;
    });
}

void eset_union(const eset_t* a, const eset_t* b, eset_t* out) {
    out->count = 0;
    for (const eset_t* set : {a, b}) {
        for (int i = 0; i < set->count; ++i) {
            if (set == a || !holds(out, set->ids[i]))
                eset_add(out, set->ids[i]);
        }
    }
}

void eset_intersect(const eset_t* a, const eset_t* b, eset_t* out) {
    out->count = 0;
    for (int i = 0; i < a->count; ++i) {
        if (holds(b, a->ids[i]))
            eset_add(out, a->ids[i]);
    }
}

void eset_diff(const eset_t* a, const eset_t* b, eset_t* out) {
    out->count = 0;
    for (int i = 0; i < a->count; ++i) {
        if (!holds(b, a->ids[i]))
            eset_add(out, a->ids[i]);
    }
}

void eset_filter_desc(const eset_t* a, const char* text, eset_t* out) {
    out->count = 0;
    causal_event_t ev;
    for (int i = 0; i < a->count; ++i) {
        if (causal_copy(a->ids[i], &ev) && strstr(ev.desc, text) != nullptr)
            eset_add(out, a->ids[i]);
    }
}

int eset_count(const eset_t* set) { return set->count; }

void eset_print(const eset_t* set) {
    if (set->count == 0) {
        kprintf("  (empty set)\n");
        return;
    }
    causal_event_t ev;
    for (int i = 0; i < set->count; ++i) {
        if (causal_copy(set->ids[i], &ev))
            kprintf("  #%-4u [%-6s] %-16s %s\n", ev.id, causal_type_name(ev.type), ev.subsystem,
                    ev.desc);
    }
    kprintf("  --- %d event(s) ---\n", set->count);
}

void cmd_eset(int argc, char** argv) {
    if (argc < 2) {
        print_usage();
        return;
    }
    for (const form_t& form : FORMS) {
        if (strcmp(argv[1], form.name) == 0) {
            run(form, argc - 2, argv + 2);
            return;
        }
    }
    kprintf("unknown subcommand: %s\n", argv[1]);
}
