// A machine with memory, an event store and a scheduler on it; after each test the queues, their
// counters, the lock and the interrupt flag are checked against each other.
#pragma once

#include <algorithm>

#include "arch/x86/lapic.h"
#include "kernel/core/smp.h"
#include "kernel/core/task/sched.h"
#include "tests/machine/kernel.h"

inline uint32_t this_cpu;

class Sched : public testing::Test {
protected:
    void SetUp() override {
        boot_kernel();
        fake_lapic = {};
        smp_init();
        this_cpu = 0;
        cpu_id_query = [] { return this_cpu; };
        machine().interrupts_on = true;
        fake_switch.on_switch = [] {
            EXPECT_EQ(sched_lock.held, sched.smp_locking ? 1u : 0u);
            EXPECT_FALSE(machine().interrupts_on);
        };
        machine_texts().clear();
    }

    void TearDown() override {
        check();
        cpu_id_query = nullptr;
        record_set_hook(nullptr);
        running() = {};
    }

    static void check() {
        EXPECT_EQ(sched_lock.held, 0u);
        EXPECT_TRUE(machine().interrupts_on);
        std::vector<const task_t*> queued;
        uint32_t eligible[CPU_MAX] = {}, offloadable = 0;
        for (const task_queue_t& queue : sched.ready_queue) {
            const task_t* last = nullptr;
            for (const task_t* t = queue.head; t != nullptr; last = t, t = t->next) {
                EXPECT_EQ(&sched.ready_queue[t->priority], &queue);
                queued.push_back(t);
                ++eligible[t->cpu_affinity];
                offloadable += task_can_offload(t) ? 1 : 0;
            }
            EXPECT_TRUE(last == nullptr || queue.tail == last);
        }
        for (const task_t& t : sched.pool)
            EXPECT_EQ(std::count(queued.begin(), queued.end(), &t), t.state == TASK_READY ? 1 : 0);
        EXPECT_TRUE(std::equal(eligible, eligible + CPU_MAX, sched.ready_eligible));
        EXPECT_EQ(sched.ready_offloadable, offloadable);
    }

    static void body() {}
    static task_t* task(const char* name, int priority, uint32_t cpu = 0) {
        return task_create_pinned(name, body, priority, cpu);
    }
    static std::string current() { return task_cpu_current_name(this_cpu); }

    /// The timer interrupt, `n` times; who runs after each, by the first letter of its name.
    static std::string ticks(int n) {
        std::string ran;
        for (int i = 0; i < n; ++i) {
            const bool on = machine().interrupts_on;
            machine().interrupts_on = false;
            {
                const irq_context_scope context;
                registers_t regs = {};
                timer_handler(&regs);
            }
            machine().interrupts_on = on;
            ran += current()[0];
        }
        return ran;
    }

    static const causal_event_t& newest() { return *causal_get_ring(causal_total_events()); }

    /// How many recorded events have this text.
    static int recorded(const std::string& text) {
        int n = 0;
        for (uint32_t id = 1; id <= causal_total_events(); ++id)
            n += causal_get_ring(id)->desc == text ? 1 : 0;
        return n;
    }
};
