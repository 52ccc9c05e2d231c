// Watchers: patterns that a task looks for again and again.
#include <algorithm>

#include "kernel/core/task.h"
#include "kernel/graph/epattern/internal.h"

namespace {

constexpr uint32_t CHECK_TICKS = 100;
constexpr int TASK_PRIORITY = 6;
constexpr uint32_t STRIDE = EPATTERN_WINDOW / 2;  // a sequence of that length is never missed

/// What a watcher found in the check under way.
struct found_t {
    uint32_t count;
    uint32_t newest;  ///< the last event of the last sequence
};

struct watch_state_t {
    epattern_watcher_t watchers[EPATTERN_WATCHERS];
    found_t found[EPATTERN_WATCHERS];
    bool task_runs;
};

watch_state_t state GUARDED_BY(epattern_lock);

void watch_task() {
    for (;;) {
        for (uint32_t tick = 0; tick < CHECK_TICKS; tick++)
            task_sleep(1);  // longer sleeps are recorded
        epattern_check();
    }
}

/// Starts the task with the first watcher: before that it has nothing to do. It belongs to no
/// session, so that it stays when the session ends.
bool start_task() REQUIRES(epattern_lock) {
    if (state.task_runs)
        return true;
    task_t* task = task_create("epattern", watch_task, TASK_PRIORITY);
    if (task == nullptr)
        return false;
    task_set_io(task, nullptr, nullptr, nullptr);
    state.task_runs = true;
    return true;
}

/// Counts the matches in the window whose last event is newer than `after`.
void count_new(epattern_watcher_t& watcher, found_t& found, int slot, uint32_t after)
    REQUIRES(epattern_lock) {
    epattern_each(watcher.pattern, [&watcher, &found, slot, after](const epattern_match_t& match) {
        const uint32_t last = match.event_ids[match.num_events - 1];
        if (last <= after)
            return true;
        ++watcher.match_count;
        found.newest = last;
        if (++found.count > EPATTERN_RECORDED)
            return true;
        causal_set_current(last);
        causal_event_fmt(CAUSAL_USER, "epattern", "watcher %d matched #%u..#%u", slot,
                         match.event_ids[0], last);
        return true;
    });
}

/// Records for each watcher how many sequences it found beyond those recorded by themselves.
void record_rest() REQUIRES(epattern_lock) {
    for (int slot = 0; slot < EPATTERN_WATCHERS; slot++) {
        const found_t& found = state.found[slot];
        if (found.count <= EPATTERN_RECORDED)
            continue;
        causal_set_current(found.newest);
        causal_event_fmt(CAUSAL_USER, "epattern", "watcher %d matched %u more up to #%u", slot,
                         found.count - EPATTERN_RECORDED, found.newest);
    }
}

/// The newest event that every watcher has been shown; UINT32_MAX without watchers.
uint32_t shown_to_all() REQUIRES(epattern_lock) {
    uint32_t least = UINT32_MAX;
    for (const epattern_watcher_t& watcher : state.watchers) {
        if (watcher.active)
            least = std::min(least, watcher.last_checked);
    }
    return least;
}

/// Shows the events up to `end` to the watchers; those up to `from` were shown before.
void show(uint32_t from, uint32_t end) REQUIRES(epattern_lock) {
    epattern_load(end, epattern_source_t::ring_of_others);
    for (int slot = 0; slot < EPATTERN_WATCHERS; slot++) {
        epattern_watcher_t& watcher = state.watchers[slot];
        if (!watcher.active || watcher.last_checked >= end)
            continue;
        count_new(watcher, state.found[slot], slot, std::max(from, watcher.last_checked));
        watcher.last_checked = end;
    }
}

}  // namespace

void epattern_init() {
    mutex_guard lock(epattern_lock);
    for (epattern_watcher_t& watcher : state.watchers)
        watcher.active = false;
    state.task_runs = false;
}

int epattern_watch(const epattern_t& pattern, const char* text) {
    mutex_guard lock(epattern_lock);
    int slot = 0;
    while (slot < EPATTERN_WATCHERS && state.watchers[slot].active)
        ++slot;
    if (slot == EPATTERN_WATCHERS)
        return EPATTERN_NO_SLOT;
    if (!start_task())
        return EPATTERN_NO_TASK;
    state.watchers[slot] = {pattern, causal_total_events(), 0, true};
    causal_event_fmt(CAUSAL_USER, "epattern", "watcher %d: '%s'", slot, text);
    return slot;
}

bool epattern_get_watcher(int slot, epattern_watcher_t* out) {
    mutex_guard lock(epattern_lock);
    if (slot < 0 || slot >= EPATTERN_WATCHERS || !state.watchers[slot].active)
        return false;
    *out = state.watchers[slot];
    return true;
}

void epattern_check() {
    mutex_guard lock(epattern_lock);
    const uint32_t newest = causal_total_events();
    uint32_t from = shown_to_all();
    if (from >= newest)
        return;
    // What left the ring since is not looked at any more.
    from = std::max(from, causal_oldest_event_id() - 1);
    for (found_t& found : state.found)
        found = {};
    while (from < newest) {
        const uint32_t end = newest - from > STRIDE ? from + STRIDE : newest;
        show(from, end);
        from = end;
    }
    record_rest();
}
