// The graph in figures: orphans, depth, rate, and what the tasks did lately.
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal/store.h"

namespace {

constexpr uint32_t HEALTH_SAMPLE = 100;
constexpr uint32_t DEPTH_EVERY = 10;
constexpr uint32_t DEPTH_MAX = 32;
constexpr uint32_t RATE_TICKS = 100;
constexpr uint32_t ACTIVITY_EVENTS = 64;
constexpr uint32_t ACTIVITY_TICKS = 200;

/// Steps along first parents, up to an event that is missing or has none.
uint32_t depth_of(uint32_t id) {
    uint32_t parents[CAUSAL_PARENTS_MAX];
    uint32_t depth = 0;
    while (depth < DEPTH_MAX && causal_parents_of(id, parents) > 0) {
        id = parents[0];
        depth++;
    }
    return depth;
}

/// Each "pid=%d" of a description, once; the shortest of them takes five characters.
struct pids_t {
    int32_t values[CAUSAL_DESC_SIZE / 5];
    int count = 0;

    void add(int32_t pid) {
        for (int i = 0; i < count; i++) {
            if (values[i] == pid)
                return;
        }
        values[count++] = pid;
    }
};

/// Reads what "%d" prints, up to where no further digit follows; false for any other text.
bool read_pid(const char* s, int32_t* pid) {
    constexpr uint64_t INT32_LIMIT = 0x7FFFFFFF;
    constexpr int DIGITS_MAX = 10;
    const bool negative = *s == '-';
    s += negative ? 1 : 0;
    uint64_t value = 0;
    int digits = 0;
    for (; s[digits] >= '0' && s[digits] <= '9'; digits++) {
        if (digits == DIGITS_MAX)
            return false;
        value = value * 10 + static_cast<uint64_t>(s[digits] - '0');
    }
    const bool leading_zero = s[0] == '0' && (digits > 1 || negative);
    if (digits == 0 || leading_zero || value > INT32_LIMIT + (negative ? 1 : 0))
        return false;
    *pid = static_cast<int32_t>(static_cast<uint32_t>(negative ? 0 - value : value));
    return true;
}

pids_t pids_in(const char* desc) {
    pids_t pids;
    int32_t pid;
    for (const char* at = strstr(desc, "pid="); at != nullptr; at = strstr(at, "pid=")) {
        at += 4;
        if (read_pid(at, &pid))
            pids.add(pid);
    }
    return pids;
}

}  // namespace

uint32_t causal_count_orphans() {
    const causal_span_t span = causal_ring_span();
    uint32_t orphans = 0;
    for (uint32_t i = 0; i < span.count; i++) {
        const causal_event_t* ev = causal_in_ring(span.oldest + i);
        if (ev != nullptr && ev->num_parents == 0)
            orphans++;
    }
    return orphans;
}

void causal_compute_health(causal_health_t* h) {
    *h = {};
    h->events_per_sec = causal_store.health_events_per_sec;
    const uint32_t newest = causal_newest();
    if (newest == 0)
        return;
    const uint32_t oldest = causal_oldest_event_id();
    h->total_events = newest - (oldest != 0 ? oldest : 1) + 1;
    const uint32_t sample = h->total_events < HEALTH_SAMPLE ? h->total_events : HEALTH_SAMPLE;
    uint32_t depth_sum = 0;
    uint32_t depth_samples = 0;
    for (uint32_t i = 0; i < sample; i++) {
        const uint32_t id = newest - sample + 1 + i;
        uint32_t parents[CAUSAL_PARENTS_MAX];
        const int count = causal_parents_of(id, parents);
        if (count < 0)
            continue;
        h->orphan_count += count == 0 ? 1 : 0;
        h->multi_parent_count += count > 1 ? 1 : 0;
        if (i % DEPTH_EVERY != 0)
            continue;
        const uint32_t depth = depth_of(id);
        h->max_depth = depth > h->max_depth ? depth : h->max_depth;
        depth_sum += depth;
        depth_samples++;
    }
    h->avg_depth_x10 = depth_samples != 0 ? depth_sum * 10 / depth_samples : 0;
}

void causal_update_rate() {
    const uint32_t now = system_ticks;
    if (now - causal_store.last_rate_tick < RATE_TICKS)
        return;
    const uint32_t count = causal_newest();
    causal_store.health_events_per_sec = count - causal_store.last_rate_count;
    causal_store.last_rate_count = count;
    causal_store.last_rate_tick = now;
}

void causal_task_activities(const int32_t* pids, uint32_t* counts, int n) {
    for (int i = 0; i < n; i++)
        counts[i] = 0;
    const causal_span_t span = causal_ring_span();
    const uint32_t now = system_ticks;
    const uint32_t since = now > ACTIVITY_TICKS ? now - ACTIVITY_TICKS : 0;
    for (uint32_t back = 0; back < span.count && back < ACTIVITY_EVENTS; back++) {
        const causal_event_t* ev = causal_in_ring(span.oldest + span.count - 1 - back);
        if (ev == nullptr)
            continue;
        if (ev->time.wall_ticks < since)
            return;
        const pids_t named = pids_in(ev->desc);
        for (int k = 0; k < named.count; k++) {
            for (int i = 0; i < n; i++)
                counts[i] += pids[i] == named.values[k] ? 1 : 0;
        }
    }
}

uint32_t causal_task_activity(int32_t pid) {
    uint32_t count;
    causal_task_activities(&pid, &count, 1);
    return count;
}
