// What the scheduler's own files (and the mutex) share: its state, its lock and the moves between
// states. Private to kernel/core/task and kernel/core/mutex.cpp.
#pragma once

#include "kernel/core/compiler.h"
#include "kernel/core/guards.h"
#include "kernel/core/task.h"

/// A first-in-first-out list linked through task_t::next.
struct task_queue_t {
    task_t* head;
    task_t* tail;
};

struct sched_state_t {
    task_t pool[TASK_MAX];
    int pool_used;  ///< slots ever handed out; slots are reused
    pid_t next_pid;
    task_queue_t ready_queue[TASK_PRIORITIES];
    uint32_t ready_eligible[CPU_MAX];  ///< queued tasks by processor
    uint32_t ready_offloadable;        ///< queued tasks that offloading may move
    task_t* cpu_current[CPU_MAX];
    uint32_t cpu_switch_count[CPU_MAX];
    uint32_t cpu_run_ticks[CPU_MAX];  ///< scheduling passes
    task_t ap_idle_task[CPU_MAX];     ///< never queued
    bool active;
    bool smp_locking;
    bool smp_first_bsp_schedule;
    uint32_t last_reap_tick, last_boost_tick, last_causal_check, last_offload_tick;
    task_lifecycle_hooks_t hooks;
    task_capability_hooks_t capability_hooks;
};

/// The one state; all of it is guarded by sched_guard.
extern sched_state_t sched;

/// Guards `sched` between processors; taken only while sched.smp_locking.
extern spinlock_t sched_lock;

/// Masks interrupts and, once further processors run, holds sched_lock for its scope. A task switch
/// inside the scope hands the lock on: who runs then releases it.
class SCOPED_CAPABILITY sched_guard {
public:
    sched_guard() ACQUIRE(sched_lock) NO_THREAD_SAFETY_ANALYSIS {
        if (sched.smp_locking)
            spin_lock(sched_lock);
    }
    ~sched_guard() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (sched.smp_locking)
            spin_unlock(sched_lock);
    }
    sched_guard(const sched_guard&) = delete;
    sched_guard& operator=(const sched_guard&) = delete;

private:
    irq_guard irq_;
};

// --- Queues (queues.cpp) ---

/// Appends `t` to the queue of its priority.
void enqueue_locked(task_t* t) REQUIRES(sched_lock);

/// Takes `t` out of its queue; false when it is not there.
bool dequeue_task_locked(task_t* t) REQUIRES(sched_lock);

/// Takes the oldest task of the highest non-empty priority of processor `cpu`; null: none.
task_t* dequeue_for_cpu_locked(uint32_t cpu) REQUIRES(sched_lock);

/// The oldest queued task of processor `cpu` with `priority`, left where it is; null: none.
task_t* first_for_cpu_locked(int priority, uint32_t cpu) REQUIRES(sched_lock);

/// Whether the task, were it queued, could be offloaded.
bool task_can_offload(const task_t* t);

/// Moves a queued task to processor `cpu`; it keeps its place.
void move_to_cpu_locked(task_t* t, uint32_t cpu) REQUIRES(sched_lock);

// --- Moves between states ---

/// READY and queued; a sleep is over. Another processor that should run it is told.
void make_ready_locked(task_t* t) REQUIRES(sched_lock);

/// Has the processor of `t` make a scheduling pass, if that is another one.
void poke_cpu_of_locked(const task_t* t) REQUIRES(sched_lock);

/// task_unblock_reason.
void unblock_locked(task_t* t, const char* reason) REQUIRES(sched_lock);

/// DEAD, wherever it was; the caller switches away if it is the running task.
void end_task_locked(task_t* t) REQUIRES(sched_lock);

/// Takes `t` out of the queue of the mutex it waits for, if it does. (mutex.cpp)
void mutex_forget_waiter_locked(task_t* t) REQUIRES(sched_lock);

// --- Passes, creation and reaping ---

/// One scheduling pass; `preempted`: the running task did not ask for it.
void schedule_pass(bool preempted);

/// Whether the task has left the bounds of its stack.
bool task_stack_overrun(const task_t* t);

/// Frees at most `max` dead tasks; returns how many there were to free.
int reap_locked(int max) REQUIRES(sched_lock);

/// Frees a task's stack, pages and directory.
void task_free_memory(task_t* t);

/// Fills a task record from its arguments and the running task's session; false when an argument is
/// out of range.
bool task_draft(task_t* draft, const char* name, task_entry_fn entry, int priority, uint32_t cpu);

/// Gives the draft a kernel stack that starts in `trampoline`; false without memory.
bool task_draft_stack(task_t* draft, uintptr_t trampoline);

/// Gives the finished draft a slot and a pid, records its creation, and queues it if it is READY.
/// Null when the pool is full; the draft's memory is then still the caller's.
task_t* task_publish(const task_t* draft);

/// The record of the lower floors (running.h) from now on speaks of `t`.
void running_becomes(task_t* t);
