#include "kernel/graph/cprof.h"

#include <algorithm>

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/ring_read.h"

namespace {

constexpr uint32_t WINDOW_DEFAULT = 2048;
constexpr uint32_t WINDOW_MAX = 8192;
constexpr int PAIRS_SHOWN = 8;
constexpr uint32_t TYPES = CAUSAL_TYPE_COUNT;

/// Edges of one kind.
struct flow_t {
    uint32_t edges;
    uint32_t longest;  ///< span in ticks
    uint64_t span;     ///< of all

    void add(uint32_t ticks) {
        ++edges;
        longest = std::max(longest, ticks);
        span += ticks;
    }
    /// The order of the lists: more edges first, then more time.
    bool before(const flow_t& other) const {
        return edges != other.edges ? edges > other.edges : span > other.span;
    }
};

struct profile_t {
    uint32_t window;
    flow_t into[TYPES];
    flow_t pairs[TYPES][TYPES];  ///< from, to
    flow_t all;
    uint32_t crossings;
};

/// What an edge needs to know of its ends.
struct end_t {
    uint32_t type, tick;
    uint32_t parents[CAUSAL_PARENTS_MAX];
    int parent_count;
};

/// False when the event cannot be found.
bool read_end(uint32_t id, end_t* out) {
    return id != 0 && causal_read_anywhere(id, [out](const causal_event_t& ev) {
               out->type = ev.type;
               out->tick = ev.time.wall_ticks;
               memcpy(out->parents, ev.parents, sizeof out->parents);
               out->parent_count = std::min<int>(ev.num_parents, CAUSAL_PARENTS_MAX);
           });
}

void add_edge(profile_t* profile, const end_t& cause, const end_t& effect) {
    if (effect.tick < cause.tick || cause.type >= TYPES || effect.type >= TYPES)
        return;
    const uint32_t span = effect.tick - cause.tick;
    profile->into[effect.type].add(span);
    profile->pairs[cause.type][effect.type].add(span);
    profile->all.add(span);
    profile->crossings += cause.type != effect.type ? 1 : 0;
}

void take_window(profile_t* profile, uint32_t count) {
    const uint32_t newest = causal_total_events();
    const uint32_t oldest = causal_oldest_event_id();
    if (oldest == 0)
        return;
    const uint32_t first = newest >= count ? std::max(newest - count + 1, oldest) : oldest;
    profile->window = newest - first + 1;
    end_t effect;
    end_t cause;
    for (uint32_t left = profile->window, id = first; left > 0; --left, ++id) {
        if (!read_end(id, &effect))
            continue;
        for (int i = 0; i < effect.parent_count; ++i) {
            if (read_end(effect.parents[i], &cause))
                add_edge(profile, cause, effect);
        }
    }
}

/// Visits the flows of a table with edges, the first in order first, at most `max`.
template <typename visit_fn>
void each_in_order(const flow_t* flows, uint32_t count, int max, visit_fn visit) {
    bool shown[TYPES * TYPES] = {};
    for (; max > 0; --max) {
        uint32_t best = count;
        for (uint32_t i = 0; i < count; ++i) {
            if (!shown[i] && flows[i].edges > 0 && (best == count || flows[i].before(flows[best])))
                best = i;
        }
        if (best == count)
            return;
        shown[best] = true;
        visit(best);
    }
}

void print_pairs(const profile_t& profile) {
    kprintf("Cause -> effect boundaries (by edge volume):\n");
    const flow_t* pairs = &profile.pairs[0][0];
    each_in_order(pairs, TYPES * TYPES, PAIRS_SHOWN, [pairs](uint32_t at) {
        const flow_t& f = pairs[at];
        kprintf("  %s -> %s%s  edges %u  span %llut (avg %llut, max %ut)\n",
                causal_type_name(at / TYPES), causal_type_name(at % TYPES),
                at / TYPES != at % TYPES ? " *" : "", f.edges, f.span, f.span / f.edges, f.longest);
    });
}

void print_types(const profile_t& profile) {
    kprintf("By subsystem (incoming edges):\n");
    each_in_order(profile.into, TYPES, TYPES, [&profile](uint32_t type) {
        kprintf("  %-8s edges %u  span %llut\n", causal_type_name(type), profile.into[type].edges,
                profile.into[type].span);
    });
}

void print_summary(const profile_t& profile) {
    each_in_order(&profile.pairs[0][0], TYPES * TYPES, 1, [&profile](uint32_t at) {
        kprintf(
            "Summary: %u edges, %u cross-subsystem crossings, %llu total span ticks; dominant %s "
            "-> %s\n",
            profile.all.edges, profile.crossings, profile.all.span, causal_type_name(at / TYPES),
            causal_type_name(at % TYPES));
    });
    kprintf(
        "(span = wall-tick gap at 100Hz; tightly-coupled same-tick edges read 0 -- this view "
        "emphasizes causal FLOW volume and subsystem crossings, not micro-latency)\n");
}

}  // namespace

void cmd_cprof(int argc, char** argv) {
    uint32_t count = WINDOW_DEFAULT;
    if (argc > 1 && safe_parse_uint(argv[1], &count) != 0)
        count = WINDOW_DEFAULT;
    profile_t profile = {};
    take_window(&profile, std::clamp(count, 1u, WINDOW_MAX));
    kprintf("CAUSAL FLOW PROFILE (last %u events, %u causal edges)\n", profile.window,
            profile.all.edges);
    if (profile.all.edges == 0) {
        kprintf("cprof: no causal edges in the last %u events\n", profile.window);
        return;
    }
    print_pairs(profile);
    print_types(profile);
    print_summary(profile);
}
