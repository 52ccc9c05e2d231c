// Accessors: the running task, its session, and what each processor runs.
#include "kernel/core/interrupt.h"
#include "kernel/core/task/sched.h"

namespace {

const task_t* current_of(uint32_t cpu) { return cpu < CPU_MAX ? sched.cpu_current[cpu] : nullptr; }

bool has_size(const task_t* t) { return t->term_rows != 0 && t->term_cols != 0; }

uint16_t clamped(int size) {
    return static_cast<uint16_t>(size < TASK_TERM_SIZE_MAX ? size : TASK_TERM_SIZE_MAX);
}

/// The first live task of the session `ctx` that knows its terminal's size; null: none.
const task_t* sized_in_session(const void* ctx) {
    for (int i = 0; i < sched.pool_used; ++i) {
        const task_t* t = &sched.pool[i];
        if (t->state != TASK_DEAD && t->state != TASK_ZOMBIE && t->io_ctx == ctx && has_size(t))
            return t;
    }
    return nullptr;
}

}  // namespace

task_t* task_current(void) {
    const irq_guard masked;  // the processor's number must still be right when it is used
    return sched.cpu_current[cpu_id()];
}

pid_t task_getpid(void) {
    const task_t* t = task_current();
    return t != nullptr ? t->pid : 0;
}

pid_t task_getppid(void) {
    const task_t* t = task_current();
    return t != nullptr ? t->parent_pid : 0;
}

void task_set_exit_status(int status) {
    task_t* t = task_current();
    if (t != nullptr)
        t->exit_status = status;
}

void task_set_io(task_t* t, io_write_fn write, io_read_fn read, void* ctx) {
    const sched_guard guard;
    t->io_write = write;
    t->io_read = read;
    t->io_ctx = ctx;
}

void task_set_term_size(task_t* t, int rows, int cols) {
    if (rows <= 0 || cols <= 0)
        return;
    const sched_guard guard;
    t->term_rows = clamped(rows);
    t->term_cols = clamped(cols);
}

bool task_get_term_size(task_t* t, int* rows, int* cols) {
    const sched_guard guard;
    const task_t* sized = has_size(t) ? t : sized_in_session(t->io_ctx);
    if (sized == nullptr)
        return false;
    *rows = sized->term_rows;
    *cols = sized->term_cols;
    return true;
}

bool task_waits_for_other(const task_t* t) {
    const sched_guard guard;
    return t->state == TASK_BLOCKED && t->sleep_until == 0 && !t->waiting_for_input;
}

const char* task_cpu_current_name(uint32_t cpu) {
    const task_t* t = current_of(cpu);
    return t != nullptr ? t->name : "none";
}

pid_t task_cpu_current_pid(uint32_t cpu) {
    const task_t* t = current_of(cpu);
    return t != nullptr ? t->pid : -1;
}

uint32_t task_cpu_switches(uint32_t cpu) { return cpu < CPU_MAX ? sched.cpu_switch_count[cpu] : 0; }

bool task_cpu_is_idle(uint32_t cpu) {
    const task_t* t = current_of(cpu);
    return t == nullptr || (cpu != 0 && t == &sched.ap_idle_task[cpu]);
}
