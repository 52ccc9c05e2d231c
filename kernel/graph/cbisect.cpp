#include "kernel/graph/cbisect.h"

#include "kernel/core/heap_ptr.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/replay.h"

namespace {

constexpr int PROBES_MAX = 48;

struct metric_t {
    const char* name;
    uint32_t (*value)(const replay_snapshot_t& snap);
};

constexpr metric_t METRICS[] = {
    {"events", [](const replay_snapshot_t& s) { return s.total_events; }},
    {"tasks", [](const replay_snapshot_t& s) { return s.tasks_created; }},
    {"net", [](const replay_snapshot_t& s) { return s.net_rx + s.net_tx; }},
    {"fs", [](const replay_snapshot_t& s) { return s.fs_ops; }},
    {"actors", [](const replay_snapshot_t& s) { return s.actor_msgs; }},
    {"syscalls", [](const replay_snapshot_t& s) { return s.syscalls; }},
};

const metric_t* find_metric(const char* name) {
    for (const metric_t& metric : METRICS) {
        if (strcmp(metric.name, name) == 0)
            return &metric;
    }
    return nullptr;
}

/// A search: what it looks for, and the snapshot of the last probe.
struct search_t {
    const metric_t& metric;
    uint32_t threshold;
    replay_snapshot_t* snap;

    /// The metric at `tick`; prints what is wrong otherwise.
    bool probe(uint32_t tick, uint32_t* value) const {
        if (replay_at(tick, snap) != 0) {
            kprintf("cbisect: replay failed at tick %u\n", tick);
            return false;
        }
        *value = metric.value(*snap);
        return true;
    }
};

/// The earliest tick up to `now` at which the threshold was reached; false after a failed replay.
bool bisect(const search_t& search, uint32_t now, uint32_t* tick, int* probes) {
    uint32_t low = 0;
    uint32_t high = now;
    for (*probes = 0; low < high && *probes < PROBES_MAX; ++*probes) {
        const uint32_t middle = low + (high - low) / 2;
        uint32_t value;
        if (!search.probe(middle, &value))
            return false;
        const bool hit = value >= search.threshold;
        kprintf("  probe tick %u -> %s=%u  %s\n", middle, search.metric.name, value,
                hit ? "hit" : "miss");
        if (hit)
            high = middle;
        else
            low = middle + 1;
    }
    *tick = low;
    return true;
}

void print_found(const search_t& search, uint32_t tick, int probes) {
    uint32_t before;
    uint32_t value;
    const bool crossed = tick > 0 && search.probe(tick - 1, &before);
    if (!search.probe(tick, &value))
        return;
    if (crossed)
        kprintf("FOUND: tick %u (%s=%u, crossed from %u) after %d probes\n", tick,
                search.metric.name, value, before, probes);
    else
        kprintf("FOUND: tick %u (%s=%u) after %d probes\n", tick, search.metric.name, value,
                probes);
    if (search.snap->recent_count > 0) {
        kprintf("  events here:");
        for (uint32_t i = 0; i < search.snap->recent_count && i < REPLAY_RECENT; ++i)
            kprintf(" #%u", search.snap->recent_ids[i]);
        kprintf("\n");
    }
    kprintf("  Next: replay at %u   (full reconstructed state)   |   events   (browse history)\n",
            tick);
}

void run(const search_t& search) {
    const uint32_t now = system_ticks;
    uint32_t value;
    uint32_t tick = 0;
    int probes = 0;
    if (!search.probe(now, &value))
        return;
    if (value < search.threshold) {
        kprintf("cbisect: %s never reached %u (max %u at tick %u)\n", search.metric.name,
                search.threshold, value, now);
        return;
    }
    kprintf("CAUSAL BISECT: earliest tick where %s >= %u\n", search.metric.name, search.threshold);
    kprintf("  range [%u .. %u], reconstructing state per probe via replay\n", 0u, now);
    if (bisect(search, now, &tick, &probes))
        print_found(search, tick, probes);
}

}  // namespace

void cmd_cbisect(int argc, char** argv) {
    const metric_t* metric = argc > 2 ? find_metric(argv[1]) : nullptr;
    int threshold;
    if (metric == nullptr) {
        kprintf("Usage: cbisect <metric> <threshold>\n");
        kprintf("Metrics: events tasks net fs actors syscalls\n");
        kprintf(
            "Binary-searches replayable history for the first tick where a cumulative metric "
            "reaches threshold.\n");
        return;
    }
    if (safe_atoi(argv[2], &threshold) != 0 || threshold < 0) {
        kprintf("cbisect: invalid threshold\n");
        return;
    }
    if (threshold == 0) {
        kprintf("cbisect: threshold must be >= 1\n");
        return;
    }
    const auto snap = heap_ptr<replay_snapshot_t>::make();
    if (!snap) {
        kprintf("cbisect: no memory\n");
        return;
    }
    run({*metric, static_cast<uint32_t>(threshold), snap.get()});
}
