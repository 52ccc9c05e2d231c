// Start-up and phases of the stress image. It prints "STRESS PASS n preemptions", or "STRESS FAIL"
// and what broke, and switches the machine off. "seed=N" on the command line repeats a run's random
// choices.
#include "kernel/core/main.h"

#include <array>

#include "arch/x86/cpu.h"
#include "arch/x86/hal.h"
#include "kernel/apps/surgeon.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/string.h"
#include "kernel/core/task/sched.h"
#include "kernel/core/x86.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "kernel/drivers/keyboard.h"
#include "kernel/drivers/pci.h"
#include "kernel/fs/ramfs.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/causal.h"
#include "tests/stress/work.h"

volatile bool stop_workers;
volatile uint32_t workers_alive;

namespace {

constexpr uint32_t TIMER_HZ = 100;
constexpr uint32_t FAST_TIMER_HZ = 10000;
constexpr uint32_t FAST_TICKS = 2 * FAST_TIMER_HZ;
constexpr uint32_t MULTIBOOT_INFO_CMDLINE = 1u << 2;

struct phase_t {
    pace_t pace;
    uint32_t preemptions;
};

// Every distance from 1 on visits each instruction of a loop at some time, since none divides all
// loop lengths; the random phases break the rhythm.
constexpr phase_t PHASES[] = {
    {{true, 1, false}, 40000},  {{true, 2, false}, 20000},  {{true, 3, false}, 20000},
    {{true, 5, false}, 20000},  {{true, 7, false}, 20000},  {{true, 11, false}, 20000},
    {{true, 23, false}, 15000}, {{true, 61, false}, 10000}, {{true, 4, true}, 40000},
    {{true, 30, true}, 20000},
};

/// The kernel says nothing while all is well.
void unexpected_text(const char* text, int) { stress_fail(text, 0, 0); }

uint32_t choose_seed(const multiboot_info_t* info) {
    uint32_t seed = static_cast<uint32_t>(cpu_rdtsc());
    if ((info->flags & MULTIBOOT_INFO_CMDLINE) == 0)
        return seed;
    const char* given = strstr(reinterpret_cast<const char*>(uintptr_t{info->cmdline}), "seed=");
    if (given != nullptr && safe_parse_uint(given + 5, &seed) != 0)
        kprintf("seed= wants a number\n");
    return seed;
}

void verify_queues() {
    const sched_guard guard;
    uint32_t eligible = 0, offloadable = 0;
    for (int priority = 0; priority < TASK_PRIORITIES; ++priority) {
        for (const task_t* t = sched.ready_queue[priority].head; t != nullptr; t = t->next) {
            if (t->state != TASK_READY || t->priority != priority)
                stress_fail("a queued task is not ready", static_cast<uint32_t>(t->pid), t->state);
            ++eligible;
            offloadable += task_can_offload(t) ? 1 : 0;
        }
    }
    uint32_t ready = 0;
    for (int i = 0; i < task_pool_count(); ++i)
        ready += task_get_list()[i].state == TASK_READY ? 1 : 0;
    if (ready != eligible || sched.ready_eligible[0] != eligible)
        stress_fail("the run queues lost count", eligible, sched.ready_eligible[0]);
    if (sched.ready_offloadable != offloadable)
        stress_fail("the offload counter is wrong", offloadable, sched.ready_offloadable);
}

uint32_t heap_used() {
    uint32_t total, used;
    heap_get_stats(&total, &used);
    return used;
}

void idle_task() {
    for (;;) {
        task_yield();
        task_idle_wait();
    }
}

void verify_all() {
    verify_queues();
    verify_events();
    heap_used();
}

void run_phases() {
    for (const phase_t& phase : PHASES) {
        const uint32_t end = preemptions() + phase.preemptions;
        stepping_set(phase.pace);
        while (static_cast<int32_t>(end - preemptions()) > 0) {
            task_sleep(1);
            verify_queues();
            verify_keys();
        }
        verify_all();
    }
    stepping_set({false, 1, false});
    pit_init(FAST_TIMER_HZ);
    const uint32_t start = system_ticks;
    while (system_ticks - start < FAST_TICKS) {
        task_sleep(10);
        {
            const irq_guard guard;
            feed_key();
        }
        verify_queues();
        verify_keys();
    }
    pit_init(TIMER_HZ);
}

void end_workers(uint32_t heap_before) {
    stop_workers = true;
    while (workers_alive > 0) {
        workers_release();
        task_sleep(1);
    }
    for (int i = 0; i < 300 && heap_used() != heap_before; ++i)
        task_sleep(1);
    if (heap_used() != heap_before)
        stress_fail("the heap is not level", heap_used(), heap_before);
}

}  // namespace

void stress_fail(const char* what, uint32_t a, uint32_t b) {
    const irq_guard masked;
    kprintf_set_log(nullptr);
    console_force_local();
    kprintf("\nSTRESS FAIL in '%s' after %u preemptions: %s (%u, %u)\n", running().name,
            preemptions(), what, a, b);
    hal_shutdown();
}

void kernel_main(uint32_t, multiboot_info_t* info) {
    console_init();
    dmesg_init();
    gdt_init();
    idt_init();
    hal_irq_init();
    interrupt_set_fault_hook(surgeon_enter);
    pmm_init(info);
    vmm_init();
    heap_init();
    causal_init();
    tss_init();
    keyboard_init();
    task_init();
    fs_init();
    if (fs_reserve(fs_resolve(SHARED_FILE), SHARED_FILE_BYTES) != 0)
        stress_fail("no memory for a file", 0, 0);
    actor_init();
    actor_register(SHARED_ACTOR, -1);
    pci_init();
    storage_start();
    const uint32_t seed = choose_seed(info);
    kprintf("STRESS seed=%u\n", seed);
    stepping_init(seed);
    hal_timer_init(TIMER_HZ);
    cpu_sti();
    task_create("idle", idle_task, TASK_PRIORITIES - 1);
    task_set_priority(0, 0);
    kprintf_set_log(unexpected_text);
    const uint32_t heap_before = heap_used();
    workers_start();
    sched_start();
    run_phases();
    end_workers(heap_before);
    verify_all();
    kprintf_set_log(nullptr);
    workers_verify();
    kprintf("\nSTRESS PASS %u preemptions\n", preemptions());
    hal_shutdown();
}

void kernel_shutdown(bool) { hal_shutdown(); }
