// Waiting and waking: block and unblock, sleep, the tick, and what idle tasks do.
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/core/task/sched.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint32_t RATE_INTERVAL = 100;           // ticks
constexpr uint32_t SLEEP_TICKS_MAX = 0x7FFFFFFF;  // farther ahead looks like the past
constexpr uint32_t SLEEP_TICKS_RECORDED = 2;
constexpr size_t TEXT_SIZE = 80;

/// Whether `tick` has come; right across the wrap of the counter.
bool tick_reached(uint32_t tick) { return static_cast<int32_t>(system_ticks - tick) >= 0; }

/// Wakes `t`; its next events follow the wake-up, which follows its sleep.
void end_sleep_locked(task_t* t) REQUIRES(sched_lock) {
    if (t->sleep_event != 0) {
        char text[TEXT_SIZE];
        ksnprintf(text, sizeof text, "wake pid=%d from sleep", t->pid);
        const uint32_t event = causal_emit(CAUSAL_SCHED, "sched", text, &t->sleep_event, 1);
        if (event != 0)
            t->causal_ctx = event;
    }
    make_ready_locked(t);
}

void halt_until(uint32_t tick) {
    if ((cpu_flags() & EFLAGS_IF) == 0)
        return;
    for (;;) {
        const irq_guard masked;
        if (tick_reached(tick))
            return;
        cpu_sti_hlt();
    }
}

/// Whether a task that does not idle waits for processor 0.
bool work_is_ready_locked() REQUIRES(sched_lock) {
    for (const task_queue_t& queue : sched.ready_queue) {
        for (const task_t* t = queue.head; t != nullptr; t = t->next)
            if (t->cpu_affinity == 0 && !t->idler)
                return true;
    }
    return false;
}

void sleep_for(uint32_t ticks, bool recorded) {
    task_t* t = task_current();
    if (ticks > SLEEP_TICKS_MAX)
        ticks = SLEEP_TICKS_MAX;
    if (ticks != 0 && !sched.active) {
        halt_until(system_ticks + ticks);
        return;
    }
    if (t == nullptr || ticks == 0) {
        schedule();
        return;
    }
    const irq_guard masked;
    uint32_t until = system_ticks + ticks;
    if (until == 0)
        until = 1;  // 0 means not sleeping
    uint32_t event = 0;
    if (recorded)
        event = causal_event_fmt(CAUSAL_SCHED, "sched", "sleep pid=%d ticks=%u until=%u", t->pid,
                                 ticks, until);
    {
        const sched_guard guard;
        t->sleep_event = event;
        t->sleep_until = until;
        t->waiting_for_pid = 0;
        t->waiting_for_input = false;
        t->state = TASK_BLOCKED;
    }
    schedule();
}

}  // namespace

void task_block(task_t* t) {
    const bool self = t == task_current();
    if (self && !sched.active)
        return;
    {
        const sched_guard guard;
        if (t->state != TASK_RUNNING && t->state != TASK_READY)
            return;
        if (t->state == TASK_READY)
            dequeue_task_locked(t);
        t->state = TASK_BLOCKED;
        poke_cpu_of_locked(t);
    }
    if (self)
        schedule();
}

void unblock_locked(task_t* t, const char* reason) {
    if (t->state != TASK_BLOCKED)
        return;
    make_ready_locked(t);
    const uint32_t waker_event = causal_get_current();
    uint32_t parents[2];
    int n = 0;
    if (t->causal_ctx != 0)
        parents[n++] = t->causal_ctx;
    if (waker_event != 0 && waker_event != t->causal_ctx)
        parents[n++] = waker_event;
    char text[TEXT_SIZE];
    ksnprintf(text, sizeof text, "unblock pid=%d reason=%s", t->pid,
              reason != nullptr ? reason : "unknown");
    const uint32_t event = causal_emit(CAUSAL_SCHED, "sched", text, parents, n);
    if (event != 0)
        t->causal_ctx = event;
    causal_set_current(waker_event);
}

void task_unblock_reason(task_t* t, const char* reason) {
    if (t == nullptr)
        return;
    const sched_guard guard;
    unblock_locked(t, reason);
}

void task_unblock(task_t* t) { task_unblock_reason(t, nullptr); }

void task_sleep(uint32_t ticks) { sleep_for(ticks, ticks >= SLEEP_TICKS_RECORDED); }

void task_sleep_unrecorded(uint32_t ticks) { sleep_for(ticks, false); }

void task_wake_sleepers(void) {
    const sched_guard guard;
    const uint32_t context = causal_get_current();
    for (int i = 0; i < sched.pool_used; ++i) {
        task_t* t = &sched.pool[i];
        if (t->state == TASK_BLOCKED && t->sleep_until != 0 && tick_reached(t->sleep_until))
            end_sleep_locked(t);
    }
    causal_set_current(context);
}

void task_tick(void) {
    const irq_guard masked;
    const bool recorded = running().recorded;
    task_wake_sleepers();
    running().recorded = recorded;  // the wake-ups are not the interrupted task's
    if (system_ticks % RATE_INTERVAL == 0)
        causal_update_rate();
    task_t* t = task_current();
    if (t == nullptr)
        return;
    if (t->quantum_remaining > 0 && --t->quantum_remaining == 0)
        t->quantum_spent = true;
    // A spent quantum is asked about at every tick: somebody may have become ready since.
    if (t->quantum_spent || task_stack_overrun(t))
        schedule_pass(true);
}

void task_idle_wait(void) {
    task_t* t = task_current();
    const irq_guard masked;
    t->idler = true;
    {
        const sched_guard guard;
        if (work_is_ready_locked())
            return;
    }
    t->idle_waiting = true;
    cpu_sti_hlt();
    t->idle_waiting = false;
}
