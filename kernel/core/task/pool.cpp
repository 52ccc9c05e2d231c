// The task pool: start, creation, lookup. A task is built as a draft outside the pool, with all its
// memory, and then published in one guarded step, so that nobody finds half a task.
#include "arch/x86/switch.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task/sched.h"
#include "kernel/graph/causal.h"

sched_state_t sched;
spinlock_t sched_lock;

namespace {

constexpr int BOOT_PRIORITY = 4;
constexpr int IDLE_PRIORITY = 7;
constexpr uint32_t FIRST_FLAGS = 0x202;  // interrupts on

/// The first used slot that is free, else the next unused one; null when the pool is full. The boot
/// task has pid 0 as well, but never dies.
task_t* take_slot_locked() REQUIRES(sched_lock) {
    for (int i = 0; i < sched.pool_used; ++i)
        if (sched.pool[i].pid == 0 && sched.pool[i].state == TASK_DEAD)
            return &sched.pool[i];
    return sched.pool_used < TASK_MAX ? &sched.pool[sched.pool_used++] : nullptr;
}

void end_faulting_user_task() {
    task_set_exit_status(-1);
    task_exit();
}

void shift_event(uint32_t* id, uint32_t delta) {
    if (*id != 0)
        *id += delta;
}

void renumber_events(uint32_t delta) {
    const sched_guard guard;
    for (task_t& t : sched.pool) {
        shift_event(&t.causal_ctx, delta);
        shift_event(&t.sleep_event, delta);
    }
    for (task_t& t : sched.ap_idle_task)
        shift_event(&t.causal_ctx, delta);
}

}  // namespace

void task_init(void) {
    memset(&sched, 0, sizeof sched);
    sched_lock.held = 0;
    for (task_t& t : sched.pool)
        t.state = TASK_DEAD;
    sched.pool_used = 1;
    sched.next_pid = 1;
    task_t* boot = &sched.pool[0];
    strcpy(boot->name, "boot");
    boot->state = TASK_RUNNING;
    boot->priority = BOOT_PRIORITY;
    boot->page_dir = vmm_get_kernel_dir();
    sched.cpu_current[cpu_id()] = boot;
    running_becomes(boot);
    causal_on_renumber(renumber_events);
    interrupt_set_tick_hook(task_tick);
    interrupt_set_reschedule_hook(schedule);
    interrupt_set_user_fault_hook(end_faulting_user_task);
    kprintf("[sched] Causal-aware scheduling enabled\n");
}

void sched_start(void) {
    const irq_guard masked;
    sched.smp_first_bsp_schedule = sched.smp_locking;
    sched.active = true;
}

void sched_enable_smp_locking(void) {
    const irq_guard masked;
    sched.smp_locking = true;
}

void ap_sched_init(uint32_t cpu) {
    if (cpu == 0 || cpu >= CPU_MAX)
        return;
    const sched_guard guard;
    task_t* idle = &sched.ap_idle_task[cpu];
    memset(idle, 0, sizeof *idle);
    ksnprintf(idle->name, sizeof idle->name, "idle-cpu%u", cpu);
    idle->state = TASK_RUNNING;
    idle->priority = IDLE_PRIORITY;
    idle->page_dir = vmm_get_kernel_dir();
    idle->cpu_affinity = static_cast<uint8_t>(cpu);
    idle->last_cpu = static_cast<uint8_t>(cpu);
    sched.cpu_current[cpu] = idle;
    running_becomes(idle);
}

void task_set_lifecycle_hooks(const task_lifecycle_hooks_t* hooks) {
    const sched_guard guard;
    sched.hooks = hooks != nullptr ? *hooks : task_lifecycle_hooks_t{};
}

void task_set_capability_hooks(const task_capability_hooks_t* hooks) {
    const sched_guard guard;
    sched.capability_hooks = hooks != nullptr ? *hooks : task_capability_hooks_t{};
}

bool task_draft(task_t* draft, const char* name, task_entry_fn entry, int priority, uint32_t cpu) {
    if (entry == nullptr || priority < 0 || priority >= TASK_PRIORITIES || cpu >= CPU_MAX)
        return false;
    memset(draft, 0, sizeof *draft);
    strncpy(draft->name, name != nullptr ? name : "", sizeof draft->name - 1);
    draft->state = TASK_READY;
    draft->priority = priority;
    draft->cpu_affinity = static_cast<uint8_t>(cpu);
    draft->page_dir = vmm_get_kernel_dir();
    draft->entry = entry;
    const task_t* creator = task_current();
    if (creator == nullptr)
        return true;
    draft->causal_ctx = creator->causal_ctx;
    draft->io_write = creator->io_write;
    draft->io_read = creator->io_read;
    draft->io_ctx = creator->io_ctx;
    return true;
}

bool task_draft_stack(task_t* draft, uintptr_t trampoline) {
    auto* base = static_cast<uint32_t*>(kmalloc(TASK_STACK_BYTES));
    if (base == nullptr)
        return false;
    *base = TASK_STACK_CANARY;
    const uint32_t frame[] = {0, 0, 0, 0, FIRST_FLAGS, trampoline};  // as context_switch pops it
    draft->stack_bottom = reinterpret_cast<uintptr_t>(base);
    draft->esp = draft->stack_bottom + TASK_STACK_BYTES - sizeof frame;
    memcpy(reinterpret_cast<void*>(draft->esp), frame, sizeof frame);
    return true;
}

task_t* task_publish(const task_t* draft) {
    const sched_guard guard;
    task_t* t = take_slot_locked();
    if (t == nullptr)
        return nullptr;
    memcpy(t, draft, sizeof *t);
    t->pid = sched.next_pid++;
    t->pgid = t->pid;
    const uint32_t event =
        causal_event_fmt(CAUSAL_SCHED, "sched", "pid=%d name=%s pri=%d%s", t->pid, t->name,
                         t->priority, t->is_user ? " ring=3" : "");
    if (event != 0)
        t->causal_ctx = event;
    if (sched.capability_hooks.created != nullptr)
        sched.capability_hooks.created(t->pid, t->parent_pid);
    if (t->state != TASK_READY)
        return t;
    enqueue_locked(t);
    poke_cpu_of_locked(t);
    return t;
}

task_t* task_create(const char* name, task_entry_fn entry, int priority) {
    return task_create_pinned(name, entry, priority, 0);
}

task_t* task_create_pinned(const char* name, task_entry_fn entry, int priority, uint32_t cpu) {
    task_t draft;
    if (!task_draft(&draft, name, entry, priority, cpu) ||
        !task_draft_stack(&draft, switch_trampoline()))
        return nullptr;
    task_t* t = task_publish(&draft);
    if (t == nullptr)
        task_free_memory(&draft);
    return t;
}

task_t* task_find_by_pid(pid_t pid) {
    for (int i = 0; i < sched.pool_used; ++i)
        if (sched.pool[i].pid == pid)
            return &sched.pool[i];
    return nullptr;
}

task_t* task_get_list(void) { return sched.pool; }

int task_pool_count(void) { return sched.pool_used; }
