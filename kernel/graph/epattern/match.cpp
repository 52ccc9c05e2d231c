// Finding a pattern in the window, a copy of what matching needs of some events in a row. An
// attempt goes forward through it once. Which events descend from the current one is found on the
// way: causes come before their effects, so a parent's generation is known when it is asked for.
// One that claims to be younger than its effect is not believed.
#include <algorithm>

#include "kernel/core/string.h"
#include "kernel/graph/epattern/internal.h"
#include "kernel/graph/ring_read.h"

mutex_t epattern_lock;

namespace {

constexpr uint8_t GENERATIONS = 8;  // how far an event may be from the one that it descends from
constexpr uint32_t NOT_FOUND = EPATTERN_WINDOW;

struct entry_t {
    uint32_t type;
    uint32_t tick;
    uint32_t parents[CAUSAL_PARENTS_MAX];
    uint8_t num_parents;
    bool there;
    uint8_t generation;  ///< from the event of `stamp`
    uint32_t stamp;      ///< the search that reached it
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
};

struct window_t {
    uint32_t first;  ///< identifier of the first entry
    uint32_t stamp;  ///< of the search in hand
    uint32_t current;
    entry_t entries[EPATTERN_WINDOW];
};

window_t window GUARDED_BY(epattern_lock);

void take(entry_t& entry, const causal_event_t& ev) {
    entry.type = ev.type;
    entry.tick = ev.time.wall_ticks;
    entry.num_parents = std::min<uint8_t>(ev.num_parents, CAUSAL_PARENTS_MAX);
    std::copy_n(ev.parents, CAUSAL_PARENTS_MAX, entry.parents);
    memcpy(entry.subsystem, ev.subsystem, sizeof entry.subsystem);
}

bool load_event(uint32_t id, epattern_source_t source, entry_t& entry) {
    const auto copy = [&entry](const causal_event_t& ev) { take(entry, ev); };
    if (source == epattern_source_t::anywhere)
        return causal_read_anywhere(id, copy);
    return causal_read_ring(id, copy) && strcmp(entry.subsystem, "epattern") != 0;
}

/// Makes the event at `at` the one that the next ones must descend from.
void set_current(uint32_t at) REQUIRES(epattern_lock) {
    window.current = at;
    window.entries[at].stamp = ++window.stamp;
    window.entries[at].generation = 0;
}

/// Whether the event at `at` descends from the current one. Asked for each in turn.
bool descends(uint32_t at) REQUIRES(epattern_lock) {
    entry_t& entry = window.entries[at];
    uint8_t nearest = GENERATIONS;
    bool found = false;
    for (uint32_t i = 0; i < entry.num_parents; i++) {
        const uint32_t parent = entry.parents[i] - window.first;
        if (parent >= at || window.entries[parent].stamp != window.stamp ||
            window.entries[parent].generation >= nearest)
            continue;
        nearest = window.entries[parent].generation;
        found = true;
    }
    if (!found)
        return false;
    entry.stamp = window.stamp;
    entry.generation = static_cast<uint8_t>(nearest + 1);
    return true;
}

bool type_matches(const epattern_step_t& step, uint32_t type) {
    if (step.type_filter == EPATTERN_ANY)
        return true;
    const auto is = [type](int wanted) {
        return wanted != EPATTERN_ANY && type == static_cast<uint32_t>(wanted);
    };
    const bool named = is(step.type_filter) || is(step.alt_type);
    return named != ((step.flags & EPATTERN_NEGATED) != 0);
}

bool matches_step(const entry_t& entry, const epattern_step_t& step) {
    return type_matches(step, entry.type) &&
           (strcmp(step.subsystem, "*") == 0 || strcmp(step.subsystem, entry.subsystem) == 0);
}

/// Takes the run of further events that a repeating step matches.
void extend(const epattern_step_t& step) REQUIRES(epattern_lock) {
    if ((step.flags & EPATTERN_REPEAT) == 0)
        return;
    for (uint32_t at = window.current + 1; at < EPATTERN_WINDOW; at++) {
        if (!window.entries[at].there)
            continue;
        if (!matches_step(window.entries[at], step) || !descends(at))
            return;
        set_current(at);
    }
}

/// The next event that matches `step` and descends from the current one.
uint32_t find_next(const epattern_step_t& step) REQUIRES(epattern_lock) {
    const uint64_t latest = uint64_t{window.entries[window.current].tick} + step.max_gap;
    for (uint32_t at = window.current + 1; at < EPATTERN_WINDOW; at++) {
        const entry_t& entry = window.entries[at];
        if (!entry.there)
            continue;
        if (step.max_gap != 0 && entry.tick > latest)
            return NOT_FOUND;
        if (descends(at) && matches_step(entry, step))
            return at;
    }
    return NOT_FOUND;
}

}  // namespace

void epattern_load(uint32_t last, epattern_source_t source) {
    window.first = last > EPATTERN_WINDOW ? last - EPATTERN_WINDOW + 1 : 1;
    window.stamp = 0;
    for (uint32_t i = 0; i < EPATTERN_WINDOW; i++) {
        entry_t& entry = window.entries[i];
        const uint32_t id = window.first + i;
        entry.stamp = 0;
        entry.there = id <= last && load_event(id, source, entry);
    }
}

bool epattern_match_at(const epattern_t& p, uint32_t start, epattern_match_t* out) {
    const entry_t& entry = window.entries[start];
    if (!entry.there || !matches_step(entry, p.steps[0]))
        return false;
    *out = {};
    uint32_t at = start;
    for (int i = 0;; i++) {
        out->event_ids[out->num_events++] = window.first + at;
        if (out->num_events == p.num_steps)
            return true;
        set_current(at);
        extend(p.steps[i]);
        at = find_next(p.steps[i + 1]);
        if (at == NOT_FOUND)
            return false;
    }
}

int epattern_match(const epattern_t* p, epattern_match_t* out, int max) {
    const uint32_t newest = causal_total_events();
    if (p == nullptr || !p->valid || p->num_steps < 1 || max < 1 || newest == 0)
        return 0;
    mutex_guard lock(epattern_lock);
    epattern_load(newest, epattern_source_t::anywhere);
    int count = 0;
    epattern_each(*p, [&](const epattern_match_t& match) {
        if (out != nullptr)
            out[count] = match;
        return ++count < max;
    });
    return count;
}
