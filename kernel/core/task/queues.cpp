// The run queues and the counters that say, without a scan, whether there is anything to pick.
#include "kernel/core/interrupt.h"
#include "kernel/core/smp.h"
#include "kernel/core/task/sched.h"
#include "kernel/graph/causal.h"

namespace {

void drop_one(uint32_t* count) {
    if (*count > 0)
        --*count;
}

void count_in(const task_t* t) {
    if (t->cpu_affinity < CPU_MAX)
        ++sched.ready_eligible[t->cpu_affinity];
    if (task_can_offload(t))
        ++sched.ready_offloadable;
}

void count_out(const task_t* t) {
    if (t->cpu_affinity < CPU_MAX)
        drop_one(&sched.ready_eligible[t->cpu_affinity]);
    if (task_can_offload(t))
        drop_one(&sched.ready_offloadable);
}

/// Takes `t`, which follows `before` (null: it is the head), out of `queue`.
void unlink(task_queue_t* queue, task_t* before, task_t* t) {
    if (before == nullptr)
        queue->head = t->next;
    else
        before->next = t->next;
    if (queue->tail == t)
        queue->tail = before;
    t->next = nullptr;
    count_out(t);
}

}  // namespace

bool task_can_offload(const task_t* t) {
    return t->state == TASK_READY && !t->is_user && t->cpu_affinity == 0 && t->ap_offloadable;
}

void enqueue_locked(task_t* t) {
    task_queue_t& queue = sched.ready_queue[t->priority];
    t->next = nullptr;
    if (queue.head == nullptr)
        queue.head = t;
    else
        queue.tail->next = t;
    queue.tail = t;
    count_in(t);
}

bool dequeue_task_locked(task_t* t) {
    task_queue_t& queue = sched.ready_queue[t->priority];
    task_t* before = nullptr;
    for (task_t* at = queue.head; at != nullptr; before = at, at = at->next) {
        if (at != t)
            continue;
        unlink(&queue, before, t);
        return true;
    }
    return false;
}

task_t* dequeue_for_cpu_locked(uint32_t cpu) {
    for (task_queue_t& queue : sched.ready_queue) {
        task_t* before = nullptr;
        for (task_t* at = queue.head; at != nullptr; before = at, at = at->next) {
            if (at->cpu_affinity != cpu)
                continue;
            unlink(&queue, before, at);
            return at;
        }
    }
    return nullptr;
}

task_t* first_for_cpu_locked(int priority, uint32_t cpu) {
    task_t* at = sched.ready_queue[priority].head;
    while (at != nullptr && at->cpu_affinity != cpu)
        at = at->next;
    return at;
}

void move_to_cpu_locked(task_t* t, uint32_t cpu) {
    count_out(t);
    t->cpu_affinity = static_cast<uint8_t>(cpu);
    count_in(t);
}

void poke_cpu_of_locked(const task_t* t) {
    if (t->cpu_affinity == cpu_id())
        return;
    const cpu_state_t* cpu = smp_cpu_state(t->cpu_affinity);
    if (cpu != nullptr && cpu->active)
        smp_send_ipi(cpu->lapic_id, VECTOR_IPI);
}

void make_ready_locked(task_t* t) {
    t->state = TASK_READY;
    t->sleep_until = 0;
    t->sleep_event = 0;
    enqueue_locked(t);
    poke_cpu_of_locked(t);
}

void task_make_ready(task_t* t) {
    const sched_guard guard;
    if (t->pid == 0 || t->state == TASK_RUNNING || t->state == TASK_READY)
        return;
    make_ready_locked(t);
}

int task_set_priority(pid_t pid, int priority) {
    if (priority < 0 || priority >= TASK_PRIORITIES)
        return -1;
    const irq_guard masked;
    const auto may_renice = sched.capability_hooks.may_renice;
    if (may_renice != nullptr && !may_renice(pid))
        return -1;
    {
        const sched_guard guard;
        task_t* t = task_find_by_pid(pid);
        if (t == nullptr || t->state == TASK_DEAD)
            return -1;
        const bool queued = t->state == TASK_READY && dequeue_task_locked(t);
        t->priority = priority;
        if (queued)
            enqueue_locked(t);
    }
    causal_event_fmt(CAUSAL_SCHED, "sched", "renice pid=%d priority=%d", pid, priority);
    return 0;
}

void task_set_ap_offloadable(task_t* t, bool offloadable) {
    const sched_guard guard;
    const bool queued = t->state == TASK_READY;
    if (queued)
        count_out(t);
    t->ap_offloadable = offloadable;
    if (queued)
        count_in(t);
}
