// The wait queue is linked through the tasks themselves, not through their stacks: a waiter that is
// ended from outside is taken out of it.
#include "kernel/core/mutex.h"

#include "kernel/core/assert.h"
#include "kernel/core/task/sched.h"

namespace {

void give_to_locked(mutex_t& m, task_t* t) REQUIRES(sched_lock) {
    m.locked = true;
    m.owner = t;
    if (t != nullptr)
        ++t->mutexes_held;
}

void append_waiter_locked(mutex_t& m, task_t* t) REQUIRES(sched_lock) {
    t->waits_for_mutex = &m;
    t->next_waiter = nullptr;
    if (m.first_waiter == nullptr)
        m.first_waiter = t;
    else
        m.last_waiter->next_waiter = t;
    m.last_waiter = t;
}

/// Takes the mutex, or has the caller `t` wait for it: false. A waiter that somebody else woke
/// keeps its place.
bool take_or_wait_locked(mutex_t& m, task_t* t) REQUIRES(sched_lock) {
    if (!m.locked) {
        give_to_locked(m, t);
        return true;
    }
    if (t->waits_for_mutex != &m)
        append_waiter_locked(m, t);
    t->state = TASK_BLOCKED;
    return false;
}

}  // namespace

void mutex_forget_waiter_locked(task_t* t) {
    mutex_t* m = t->waits_for_mutex;
    if (m == nullptr)
        return;
    task_t* before = nullptr;
    for (task_t* at = m->first_waiter; at != t; at = at->next_waiter)
        before = at;
    if (before == nullptr)
        m->first_waiter = t->next_waiter;
    else
        before->next_waiter = t->next_waiter;
    if (m->last_waiter == t)
        m->last_waiter = before;
    t->waits_for_mutex = nullptr;
    t->next_waiter = nullptr;
}

void mutex_lock(mutex_t& m) NO_THREAD_SAFETY_ANALYSIS {
    task_t* self = task_current();
    KASSERT(!m.locked || m.owner != self);
    for (;;) {
        {
            const sched_guard guard;
            if (m.owner == self && m.locked)
                return;  // handed over by whoever unlocked it
            if (take_or_wait_locked(m, self))
                return;
        }
        schedule();
    }
}

void mutex_unlock(mutex_t& m) NO_THREAD_SAFETY_ANALYSIS {
    task_t* self = task_current();
    KASSERT(m.locked && m.owner == self);
    bool ends = false;
    {
        const sched_guard guard;
        m.locked = false;
        m.owner = nullptr;
        task_t* next = m.first_waiter;
        if (next != nullptr) {
            mutex_forget_waiter_locked(next);
            give_to_locked(m, next);
            unblock_locked(next, "mutex");
        }
        ends = self != nullptr && --self->mutexes_held == 0 && self->end_pending;
        if (ends)
            end_task_locked(self);
    }
    if (ends)
        schedule();
}
