// The end of a task: exit, the end of its session, and the reaper that frees what it left.
#include "kernel/core/assert.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/task/sched.h"
#include "kernel/graph/causal.h"

namespace {

constexpr pid_t ORPHANS_PARENT = 1;
constexpr uint32_t SIGNAL_CHILD = 17;
constexpr pid_t WAITS_FOR_ANY = -1;

bool is_live(const task_t* t) { return t->state != TASK_DEAD && t->state != TASK_ZOMBIE; }

/// The children go to pid 1; those that wait for a parent's question are freed from it.
void give_children_away_locked(const task_t* parent) REQUIRES(sched_lock) {
    for (int i = 0; i < sched.pool_used; ++i) {
        task_t* child = &sched.pool[i];
        if (child->pid == 0 || child->state == TASK_DEAD || child->parent_pid != parent->pid)
            continue;
        causal_event_fmt(CAUSAL_SCHED, "sched", "reparent child=%d to=%d", child->pid,
                         ORPHANS_PARENT);
        child->parent_pid = ORPHANS_PARENT;
        if (child->state == TASK_ZOMBIE)
            child->state = TASK_DEAD;
    }
}

/// Leaves the task to its parent, if that one lives and cares, else to the reaper.
void become_ended_locked(task_t* t) REQUIRES(sched_lock) {
    task_t* parent = t->parent_pid != 0 ? task_find_by_pid(t->parent_pid) : nullptr;
    if (parent == nullptr || !is_live(parent) || t->detached) {
        t->state = TASK_DEAD;
        return;
    }
    t->state = TASK_ZOMBIE;
    parent->sig_pending |= 1u << SIGNAL_CHILD;
    if (parent->waiting_for_pid == t->pid || parent->waiting_for_pid == WAITS_FOR_ANY)
        unblock_locked(parent, "child_exit");
}

bool runs_somewhere_locked(const task_t* t) REQUIRES(sched_lock) {
    for (const task_t* current : sched.cpu_current)
        if (current == t)
            return true;
    return false;
}

/// Frees a dead task. What it records follows the task's own last event.
void reap_one_locked(task_t* t) REQUIRES(sched_lock) {
    const irq_context_scope context;
    const pid_t pid = t->pid;
    causal_set_current(t->causal_ctx);
    task_free_memory(t);
    *t = {};
    t->state = TASK_DEAD;
    if (sched.hooks.reaped != nullptr)
        sched.hooks.reaped(pid);
    causal_event_fmt(CAUSAL_SCHED, "sched", "reap pid=%d", pid);
}

}  // namespace

void end_task_locked(task_t* t) {
    if (t->state == TASK_READY)
        dequeue_task_locked(t);
    mutex_forget_waiter_locked(t);
    t->state = TASK_DEAD;
    poke_cpu_of_locked(t);
}

void task_exit(void) {
    {
        const irq_guard masked;
        task_t* t = task_current();
        KASSERT(t->pid != 0);
        KASSERT(t->mutexes_held == 0);
        if (cpu_id() == 0 && sched.hooks.exiting != nullptr)
            sched.hooks.exiting(t);
        causal_event_fmt(CAUSAL_SCHED, "sched", "exit pid=%d status=%d name=%s", t->pid,
                         t->exit_status, t->name);
        const sched_guard guard;
        give_children_away_locked(t);
        become_ended_locked(t);
    }
    schedule();
    cpu_halt_forever();  // nobody switches back to an ended task
}

int reap_locked(int max) {
    int dead = 0;
    for (int i = 0; i < sched.pool_used; ++i) {
        task_t* t = &sched.pool[i];
        if (t->pid == 0 || t->state != TASK_DEAD || runs_somewhere_locked(t))
            continue;
        if (++dead <= max)
            reap_one_locked(t);
    }
    return dead;
}

void task_reap(void) {
    int dead;
    do {
        const sched_guard guard;
        dead = reap_locked(1);
    } while (dead > 1);
}

void task_end_io_session(void* ctx) {
    if (ctx != nullptr) {
        const sched_guard guard;
        const task_t* caller = task_current();
        for (int i = 0; i < sched.pool_used; ++i) {
            task_t* t = &sched.pool[i];
            if (t->pid == 0 || t->io_ctx != ctx)
                continue;
            t->io_write = nullptr;
            t->io_read = nullptr;
            t->io_ctx = nullptr;
            if (t == caller || t->state == TASK_DEAD)
                continue;
            // What a mutex guards must not be left half-changed, nor the mutex held for ever.
            if (t->mutexes_held > 0)
                t->end_pending = true;
            else
                end_task_locked(t);
        }
    }
    schedule();
}
