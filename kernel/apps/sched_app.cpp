#include "kernel/apps/sched_app.h"

#include <algorithm>
#include <iterator>

#include "kernel/apps/shell.h"
#include "kernel/core/cap.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/timeline.h"

namespace {

constexpr int TASK_PRIORITY = 6;
constexpr const char* TIMELINE = "schedule";
constexpr uint32_t NOTED = 2;  // sub-type of the timeline's events
constexpr size_t TEXT_SIZE = 128;

struct {
    sched_entry_t pending[SCHED_APP_SLOTS];
    uint32_t caps[SCHED_APP_SLOTS];  ///< of the task that scheduled the line
    pid_t runner;                    ///< the task
} state GUARDED_BY(irq_mask);

bool is_slot(int slot) { return slot >= 0 && slot < SCHED_APP_SLOTS; }

/// Copies slot `slot` if it is in use.
bool describe(int slot, sched_entry_t* out) {
    const irq_guard guard;
    *out = state.pending[slot];
    return out->active;
}

/// Takes the first free slot; -1 when there is none.
int take_slot(uint32_t tick, const char* command) {
    const uint32_t caps = cap_get(task_getpid());
    const irq_guard guard;
    for (int slot = 0; slot < SCHED_APP_SLOTS; ++slot) {
        sched_entry_t* entry = &state.pending[slot];
        if (entry->active)
            continue;
        *entry = {tick, {}, true, 0};
        string_copy(entry->command, command, sizeof entry->command);
        state.caps[slot] = caps;
        char text[TEXT_SIZE];
        ksnprintf(text, sizeof text, "schedule: %s at T+%u", entry->command, tick);
        entry->event_id = timeline_emit(timeline_find(TIMELINE), NOTED, nullptr, 0, text);
        return slot;
    }
    return -1;
}

/// Takes a line that is due out of its slot.
bool take_due(int slot, sched_entry_t* out, uint32_t* caps) {
    const irq_guard guard;
    sched_entry_t* entry = &state.pending[slot];
    if (!entry->active || entry->tick > system_ticks)
        return false;
    *out = *entry;
    *caps = state.caps[slot];
    entry->active = false;
    return true;
}

void fire(const sched_entry_t& entry, uint32_t caps) {
    causal_set_current(entry.event_id);
    char text[TEXT_SIZE];
    ksnprintf(text, sizeof text, "executed: %s", entry.command);
    timeline_emit(timeline_find(TIMELINE), NOTED, nullptr, 0, text);
    ksnprintf(text, sizeof text, "fired: %s", entry.command);
    causal_emit(CAUSAL_SHELL, "sched", text, nullptr, 0);
    const cap_limit_scope limited(caps);
    shell_exec_unattended(entry.command);
}

void sched_app_task() {
    for (;;) {
        sched_app_tick();
        task_sleep(1);
    }
}

bool runner_lives() REQUIRES(irq_mask) {
    const task_t* runner = state.runner != 0 ? task_find_by_pid(state.runner) : nullptr;
    return runner != nullptr && runner->state != TASK_DEAD;
}

bool any_pending() REQUIRES(irq_mask) {
    return std::any_of(std::begin(state.pending), std::end(state.pending),
                       [](const sched_entry_t& entry) { return entry.active; });
}

void start_runner() {
    const task_t* runner = task_create("sched_app", sched_app_task, TASK_PRIORITY);
    const irq_guard guard;
    state.runner = runner != nullptr ? runner->pid : 0;
}

}  // namespace

void sched_app_init() {
    timeline_create(TIMELINE, "sched");
    {
        const irq_guard guard;
        memset(&state, 0, sizeof state);
    }
    start_runner();
}

void sched_app_revive() {
    const irq_guard guard;
    if (runner_lives() || !any_pending())
        return;
    start_runner();
    // Each line brings its own limits, so the task may do everything, as the first one.
    (void)cap_grant(state.runner, CAP_ALL);
}

int sched_app_add(uint32_t tick, const char* command) {
    if (timeline_find(TIMELINE) < 0)
        return -1;
    const int slot = take_slot(tick, command);
    if (slot < 0)
        kprintf("[sched] error: all %d slots full\n", SCHED_APP_SLOTS);
    return slot;
}

int sched_app_remove(int slot) {
    const irq_guard guard;
    if (!is_slot(slot) || !state.pending[slot].active)
        return -1;
    state.pending[slot].active = false;
    return 0;
}

int sched_app_get_entries(sched_entry_t* out, int max) {
    int count = 0;
    for (int slot = 0; slot < SCHED_APP_SLOTS && count < max; ++slot) {
        if (!describe(slot, &out[count]))
            continue;
        out[count++].event_id = static_cast<uint32_t>(slot);
    }
    return count;
}

void sched_app_tick() {
    for (int slot = 0; slot < SCHED_APP_SLOTS; ++slot) {
        sched_entry_t entry;
        uint32_t caps = 0;
        if (take_due(slot, &entry, &caps))
            fire(entry, caps);
    }
}

void sched_app_list() {
    kprintf("Scheduled commands:\n");
    bool any = false;
    for (int slot = 0; slot < SCHED_APP_SLOTS; ++slot) {
        sched_entry_t entry;
        if (!describe(slot, &entry))
            continue;
        any = true;
        kprintf("  [%d] at T+%u: %s\n", slot, entry.tick, entry.command);
    }
    if (!any)
        kprintf("  (none pending)\n");
}

void cmd_schedule(int argc, char** argv) {
    uint32_t tick = 0;
    if (argc < 3 || safe_parse_uint(argv[1], &tick) != 0) {
        kprintf("usage: schedule <tick> <command...>\n");
        return;
    }
    char command[SCHED_APP_COMMAND_SIZE];
    shell_concat_args(command, sizeof command, argc, argv, 2);
    if (timeline_find(TIMELINE) < 0) {
        kprintf("schedule: the timeline '%s' was deleted\n", TIMELINE);
        return;
    }
    const int slot = sched_app_add(tick, command);
    if (slot >= 0)
        kprintf("Scheduled at T+%u (slot %d): %s\n", tick, slot, command);
}

void cmd_scheduled(int, char**) { sched_app_list(); }
