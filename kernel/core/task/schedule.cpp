// The scheduling pass. A pass runs with interrupts masked, and with sched_lock held once further
// processors run; the task that is switched to releases it. No pass allocates, and the scans that
// cost more than a look at the queues run at most every 10 ticks.
#include <array>

#include "arch/x86/switch.h"
#include "kernel/core/assert.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/smp.h"
#include "kernel/core/task/sched.h"
#include "kernel/core/x86.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint32_t REAP_INTERVAL = 100;  // ticks
constexpr int REAP_PER_PASS = 4;
constexpr uint32_t BOOST_INTERVAL = 10;
constexpr uint32_t CAUSAL_INTERVAL = 10;
constexpr uint32_t CAUSAL_LEAD = 3;  // events; whoever overtakes is ahead by more
constexpr int BOOST_LOWEST_PRIORITY = 6;
constexpr size_t SWITCH_TEXT_SIZE = sizeof "switch ->" + 2 * (TASK_NAME_SIZE - 1);

constexpr std::array<uint8_t, TASK_PRIORITIES> priority_quantum = {8, 6, 4, 3, 2, 2, 1, 1};

uint32_t* directory_of(const task_t* t) {
    return t->page_dir != nullptr ? t->page_dir : vmm_get_kernel_dir();
}

/// The boost's choice, out of its queue: the oldest task of priority 6, else 5, ... 0.
task_t* dequeue_starved_locked() REQUIRES(sched_lock) {
    for (int priority = BOOST_LOWEST_PRIORITY; priority >= 0; --priority) {
        task_t* t = first_for_cpu_locked(priority, 0);
        if (t == nullptr)
            continue;
        dequeue_task_locked(t);
        return t;
    }
    return nullptr;
}

/// The next task of processor 0, out of its queue; `prev` when a due boost finds nobody else.
task_t* pick_locked(task_t* prev, uint32_t now) REQUIRES(sched_lock) {
    if (now - sched.last_boost_tick < BOOST_INTERVAL)
        return dequeue_for_cpu_locked(0);
    sched.last_boost_tick = now;
    task_t* starved = dequeue_starved_locked();
    if (starved != nullptr)
        return starved;
    if (prev->state != TASK_READY)
        return dequeue_for_cpu_locked(0);
    dequeue_task_locked(prev);
    return prev;
}

/// A waiting task of lower priority with markedly more recent events than the candidate changes
/// places with it.
task_t* overtake_locked(task_t* candidate, uint32_t now) REQUIRES(sched_lock) {
    if (now - sched.last_causal_check < CAUSAL_INTERVAL)
        return candidate;
    sched.last_causal_check = now;
    std::array<task_t*, TASK_MAX + 1> tasks;
    std::array<int32_t, TASK_MAX + 1> pids;
    std::array<uint32_t, TASK_MAX + 1> activity;
    tasks[0] = candidate;
    pids[0] = candidate->pid;
    size_t n = 1;
    for (int priority = candidate->priority + 1; priority < TASK_PRIORITIES; ++priority) {
        for (task_t* t = sched.ready_queue[priority].head; t != nullptr; t = t->next) {
            if (t->state != TASK_READY || t->cpu_affinity != 0)
                continue;
            tasks[n] = t;
            pids[n++] = t->pid;
        }
    }
    if (n == 1)
        return candidate;
    causal_task_activities(pids.data(), activity.data(), static_cast<int>(n));
    size_t best = 0;
    for (size_t i = 1; i < n; ++i)
        if (activity[i] > activity[best] + CAUSAL_LEAD)
            best = i;
    if (best == 0)
        return candidate;
    dequeue_task_locked(tasks[best]);
    enqueue_locked(candidate);
    return tasks[best];
}

/// The first queued task that a further processor may take over; null: none.
task_t* find_offloadable_locked(const task_t* prev) REQUIRES(sched_lock) {
    for (const task_queue_t& queue : sched.ready_queue) {
        for (task_t* t = queue.head; t != nullptr; t = t->next)
            if (t != prev && task_can_offload(t))
                return t;
    }
    return nullptr;
}

/// Hands waiting tasks to further processors that idle, at most one to each.
void offload_locked(const task_t* prev, uint32_t now) REQUIRES(sched_lock) {
    const uint32_t cpus = smp_cpu_count();
    if (!sched.smp_locking || sched.ready_offloadable == 0 || cpus <= 1 ||
        sched.last_offload_tick == now)
        return;
    sched.last_offload_tick = now;
    for (uint32_t i = 1; i < cpus && i < CPU_MAX; ++i) {
        const cpu_state_t* cpu = smp_cpu_state(i);
        if (!cpu->active || sched.cpu_current[i] != &sched.ap_idle_task[i])
            continue;
        task_t* t = find_offloadable_locked(prev);
        if (t == nullptr)
            return;
        move_to_cpu_locked(t, i);
        {
            // The event belongs to the history of the task that moves, not to the leaving one's.
            const irq_context_scope context;
            causal_set_current(t->causal_ctx);
            causal_event_fmt(CAUSAL_SCHED, "sched", "offload pid=%d to=cpu%u", t->pid, i);
        }
        smp_send_ipi(cpu->lapic_id, VECTOR_IPI);
    }
}

void make_running_locked(task_t* t, uint32_t cpu) REQUIRES(sched_lock) {
    t->state = TASK_RUNNING;
    t->last_cpu = static_cast<uint8_t>(cpu);
    t->quantum_remaining = priority_quantum[static_cast<size_t>(t->priority)];
    t->quantum_spent = false;
    sched.cpu_current[cpu] = t;
}

/// A task that overran its stack never runs again; it leaves the processor in this pass.
void end_if_overrun_locked(task_t* prev, uint32_t cpu) REQUIRES(sched_lock) {
    if (!task_stack_overrun(prev))
        return;
    // The text belongs on the machine's console: writing to somebody's session might wait.
    sched.cpu_current[cpu] = nullptr;
    kprintf("[FAULT] Stack overflow in '%s' (pid %d)\n", prev->name, prev->pid);
    sched.cpu_current[cpu] = prev;
    if (cpu == 0) {
        const irq_context_scope context;
        causal_set_current(prev->causal_ctx);
        causal_event_fmt(CAUSAL_SCHED, "sched", "stack_overflow pid=%d name=%s", prev->pid,
                         prev->name);
    }
    running().recorded = true;  // so that the switch away from it is recorded
    end_task_locked(prev);
}

char* append(char* to, const char* text) {
    while (*text != '\0')
        *to++ = *text++;
    return to;
}

/// Formatted by hand: it is the most frequent event, and a formatter costs as much as the switch.
void record_switch(const task_t* prev, const task_t* next) {
    char text[SWITCH_TEXT_SIZE];
    char* end = append(text, "switch ");
    end = append(end, prev->name);
    end = append(end, "->");
    end = append(end, next->name);
    *end = '\0';
    causal_emit(CAUSAL_SCHED, "sched", text, nullptr, 0);
}

/// Leaves `prev` for `next`, which is already the processor's current task; returns when `prev`
/// runs again.
void switch_locked(task_t* prev, task_t* next, uint32_t cpu, bool preempted) REQUIRES(sched_lock) {
    ++sched.cpu_switch_count[cpu];
    uint32_t* directory = directory_of(next);
    if (directory != directory_of(prev))
        vmm_switch_dir(directory);
    const bool of_interest = running().recorded || (preempted && !prev->idle_waiting);
    running_becomes(next);
    if (of_interest && cpu == 0) {
        record_switch(prev, next);
        running().recorded = false;
    }
    context_switch(&prev->esp, next->esp);
}

void pass_on_bsp_locked(bool preempted) REQUIRES(sched_lock) {
    const uint32_t now = system_ticks;
    ++sched.cpu_run_ticks[0];
    if (now - sched.last_reap_tick >= REAP_INTERVAL && reap_locked(REAP_PER_PASS) <= REAP_PER_PASS)
        sched.last_reap_tick = now;
    task_t* prev = sched.cpu_current[0];
    end_if_overrun_locked(prev, 0);
    if (prev->state == TASK_RUNNING) {
        if (sched.ready_eligible[0] == 0)
            return;
        prev->state = TASK_READY;
        enqueue_locked(prev);
    }
    if (sched.smp_first_bsp_schedule) {
        sched.smp_first_bsp_schedule = false;
        sched.last_boost_tick = now;
        sched.last_causal_check = now;
    }
    task_t* next = pick_locked(prev, now);
    // Idle tasks never block, so whoever leaves for good or for long finds somebody to take over.
    KASSERT(next != nullptr);
    next = overtake_locked(next, now);
    offload_locked(prev, now);
    make_running_locked(next, 0);
    if (next->stack_bottom != 0)
        tss_set_kernel_stack(next->stack_bottom + TASK_STACK_BYTES);
    if (next != prev)
        switch_locked(prev, next, 0, preempted);
}

/// A further processor only takes the next task from the queues; it runs kernel tasks, so the
/// stack for ring transitions stays as it is.
void pass_on_ap_locked(uint32_t cpu) REQUIRES(sched_lock) {
    task_t* prev = sched.cpu_current[cpu];
    task_t* idle = &sched.ap_idle_task[cpu];
    if (prev == nullptr)
        return;
    ++sched.cpu_run_ticks[cpu];
    end_if_overrun_locked(prev, cpu);
    if (prev->state == TASK_RUNNING && prev != idle) {
        prev->state = TASK_READY;
        enqueue_locked(prev);
    }
    task_t* next = dequeue_for_cpu_locked(cpu);
    if (next == nullptr && prev->state == TASK_RUNNING)
        return;
    if (next == nullptr)
        next = idle;
    // The idle record counts as running all the time: nobody queues it.
    make_running_locked(next, cpu);
    if (next != prev)
        switch_locked(prev, next, cpu, false);
}

/// The first thing a new task does: it arrives from inside a scheduling pass.
void leave_first_pass() NO_THREAD_SAFETY_ANALYSIS {
    if (sched.smp_locking)
        spin_unlock(sched_lock);
}

}  // namespace

void running_becomes(task_t* t) {
    running_t& record = running();
    record.pid = t->pid;
    record.name = t->name;
    record.page_dir = t->page_dir;
    record.causal_ctx = &t->causal_ctx;
    record.recorded = false;
}

void schedule_pass(bool preempted) {
    if (!sched.active)
        return;
    const sched_guard guard;
    const uint32_t cpu = cpu_id();
    if (cpu == 0)
        pass_on_bsp_locked(preempted);
    else
        pass_on_ap_locked(cpu);
}

void schedule(void) { schedule_pass(false); }

void task_yield(void) { schedule_pass(false); }

bool task_stack_overrun(const task_t* t) {
    return t->stack_bottom != 0 &&
           (*reinterpret_cast<const volatile uint32_t*>(t->stack_bottom) != TASK_STACK_CANARY ||
            switch_stack_pointer() < t->stack_bottom);
}

extern "C" [[noreturn]] void task_enter(void) {
    leave_first_pass();
    cpu_sti();
    task_current()->entry();
    task_exit();
}

/// The ring 3 stack pointer in the low half, the entry point in the high one. Interrupts stay
/// masked until ring 3 is reached.
extern "C" uint64_t task_enter_user(void) {
    leave_first_pass();
    const task_t* t = task_current();
    const uintptr_t esp = t->user_entry_esp != 0
                              ? t->user_entry_esp
                              : t->user_stack + (TASK_USER_STACK_END - TASK_USER_STACK_BASE);
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(t->entry)) << 32 | esp;
}
