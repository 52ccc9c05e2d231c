// The timelines "proc/PID": the end of a task is an event of its timeline, and with the task goes
// the timeline, so that a slot is never lost to a dead one.
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/graph/timeline.h"

namespace {

int find_timeline_of(pid_t pid) {
    char name[TIMELINE_NAME_SIZE];
    ksnprintf(name, sizeof name, "proc/%d", pid);
    return timeline_find(name);
}

void task_exiting(const task_t* t) {
    const int tl_id = find_timeline_of(t->pid);
    if (tl_id < 0)
        return;
    char desc[CAUSAL_DESC_SIZE];
    ksnprintf(desc, sizeof desc, "exit status=%d", t->exit_status);
    timeline_emit(tl_id, TIMELINE_DATA, nullptr, 0, desc);
}

void task_reaped(pid_t pid) { timeline_destroy(find_timeline_of(pid)); }

}  // namespace

void timeline_watch_tasks() {
    static constexpr task_lifecycle_hooks_t HOOKS = {task_exiting, task_reaped};
    task_set_lifecycle_hooks(&HOOKS);
}
