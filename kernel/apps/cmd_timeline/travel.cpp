// `rewind`: all timelines at a moment. `proc`: the history of a task.
#include "kernel/apps/cmd_timeline.h"
#include "kernel/apps/cmd_timeline/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"

namespace {

constexpr int HISTORY_SHOWN = 16;

void print_cursors() {
    for (int i = 0; i < TIMELINE_SLOTS; ++i) {
        const timeline_t* tl = timeline_get(i);
        if (tl != nullptr)
            kprintf("  %-20s T+%u%s\n", tl->name, timeline_cursor_tick(i),
                    tl->cursor_id == tl->head_id ? "" : " (rewound)");
    }
}

/// Puts a cursor where it was at `tick`; a timeline that began later keeps its own.
bool travel(int tl_id, uint32_t tick) { return timeline_rewind(tl_id, tick) == 0; }

/// Puts a cursor to the head, also from an event that has left the ring.
bool travel_back(int tl_id) {
    return timeline_forward(tl_id, UINT32_MAX) == 0 ||
           timeline_forward_steps(tl_id, UINT32_MAX) == 0;
}

const char* state_name(task_state_t state) {
    constexpr const char* NAMES[] = {"running", "ready", "blocked", "dead", "zombie", "stopped"};
    return state <= TASK_STOPPED ? NAMES[state] : "?";
}

const timeline_t* timeline_of(pid_t pid, int* tl_id) {
    char name[TIMELINE_NAME_SIZE];
    ksnprintf(name, sizeof name, "proc/%d", pid);
    *tl_id = timeline_find(name);
    return timeline_get(*tl_id);
}

void list_tasks() {
    kprintf("  PID NAME                 STATE    TIMELINE\n");
    const task_t* tasks = task_get_list();
    for (int i = 0; i < task_pool_count(); ++i) {
        const task_t& task = tasks[i];
        if (task.state == TASK_DEAD)
            continue;
        int tl_id;
        const timeline_t* tl = timeline_of(task.pid, &tl_id);
        kprintf("%5d %-20s %-8s ", task.pid, task.name, state_name(task.state));
        if (tl != nullptr)
            kprintf("%u events\n", tl->event_count);
        else
            kprintf("-\n");
    }
}

/// `desc` speaks of "pid=" with this number and no further digit.
bool speaks_of(const char* desc, const char* needle) {
    const size_t len = strlen(needle);
    for (const char* at = strstr(desc, needle); at != nullptr; at = strstr(at + 1, needle)) {
        if (at[len] < '0' || at[len] > '9')
            return true;
    }
    return false;
}

/// What the ring says of a task that has no timeline, oldest first; the number of events.
int print_history(pid_t pid) {
    char needle[16];
    ksnprintf(needle, sizeof needle, "pid=%d", pid);
    uint32_t ids[HISTORY_SHOWN];
    int count = 0;
    causal_event_t ev;
    const uint32_t newest = causal_total_events();
    for (uint32_t i = 0; i < causal_ring_used() && count < HISTORY_SHOWN; ++i) {
        const causal_event_t* slot = causal_get_ring(newest - i);
        if (slot != nullptr && speaks_of(slot->desc, needle))
            ids[count++] = newest - i;
    }
    for (int i = count - 1; i >= 0; --i) {
        if (causal_copy(ids[i], &ev))
            kprintf("    [%u] T+%u %s: %s\n", ev.id, ev.time.wall_ticks, ev.subsystem, ev.desc);
    }
    return count;
}

void show_task(pid_t pid) {
    const task_t* task = task_find_by_pid(pid);
    const bool lives = task != nullptr && task->state != TASK_DEAD;
    if (lives)
        kprintf("Task %d: %s, %s\n", pid, task->name, state_name(task->state));
    int tl_id;
    if (timeline_of(pid, &tl_id) != nullptr)
        tl_show(tl_id, 0, nullptr);
    else if (print_history(pid) == 0 && !lives)
        kprintf("proc: no task %d, and no event of it in the ring\n", pid);
}

}  // namespace

void cmd_rewind(int argc, char** argv) {
    if (argc < 2) {
        print_cursors();
        return;
    }
    uint32_t tick = 0;
    const bool to_head = strcmp(argv[1], "now") == 0;
    if (!to_head && !tl_parse_tick("rewind", argv[1], &tick))
        return;
    const int only = argc > 2 ? timeline_find(argv[2]) : -1;
    if (argc > 2 && only < 0) {
        kprintf("Timeline '%s' not found\n", argv[2]);
        return;
    }
    int moved = 0;
    for (int i = 0; i < TIMELINE_SLOTS; ++i) {
        if (only < 0 || i == only)
            moved += (to_head ? travel_back(i) : travel(i, tick)) ? 1 : 0;
    }
    if (to_head)
        kprintf("Back to now: %d timelines\n", moved);
    else
        kprintf("Rewound to T+%u: %d timelines\n", tick, moved);
}

void cmd_proc(int argc, char** argv) {
    int pid;
    if (argc < 2)
        list_tasks();
    else if (safe_atoi(argv[1], &pid) != 0 || pid < 0)
        kprintf("Usage: proc [pid]\n");
    else
        show_task(pid);
}
