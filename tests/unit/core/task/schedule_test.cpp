#include "tests/unit/core/task/fixture.h"

namespace {

class SchedPass : public Sched {
protected:
    /// Starts the scheduler with an idle boot task; a due boost and causal check are over.
    static void start() {
        task_set_priority(0, 7);
        sched_start();
        sched.last_boost_tick = system_ticks;
        sched.last_causal_check = system_ticks;
        task_yield();
    }

    /// Processor `cpu` runs and idles.
    static void add_cpu(uint32_t lapic_id) {
        const int cpu = smp_add_cpu(lapic_id);
        smp_cpu_state(static_cast<uint32_t>(cpu))->active = true;
        this_cpu = static_cast<uint32_t>(cpu);
        ap_sched_init(this_cpu);
        this_cpu = 0;
    }
};

TEST_F(SchedPass, QuantaGoByPriorityAndEqualsTakeTurns) {
    task("a", 2);
    task("b", 2);
    sched_start();
    EXPECT_EQ(ticks(3), "bbb") << "start-up goes on until the boot task yields";
    start();
    EXPECT_EQ(ticks(16), "aaabbbbaaaabbbba");
    task("x", 0);
    task("y", 0);
    task_yield();
    sched.last_boost_tick = system_ticks + 1;  // not due for a while
    EXPECT_EQ(ticks(8), "xxxxxxxy");
}

TEST_F(SchedPass, ALoneTaskThatUsedItsQuantumUpIsAskedAgainAtEachTick) {
    task("worker", 2);
    start();
    task_block(task_find_by_pid(0));
    EXPECT_EQ(ticks(9), "wwwwwwwww");
    task("late", 2);
    EXPECT_EQ(ticks(2), "ll");
    task_unblock(task_find_by_pid(0));
}

TEST_F(SchedPass, ABoostGivesStarvedTasksATurnButNotPrioritySeven) {
    task("busy", 1);
    task("six", 6);
    task_t* seven = task("7", 7);
    start();
    const std::string ran = ticks(14);
    // Quanta of 6: the pass at tick 6 comes too early, the one at tick 12 boosts.
    EXPECT_EQ(ran, "bbbbbbbbbbbsbb");
    EXPECT_EQ(seven->state, TASK_READY);
}

TEST_F(SchedPass, ABoostWithNobodyToBoostKeepsTheRunningTaskOrPicksAnother) {
    task("other", 7);
    start();
    const std::string first = current();
    sched.last_boost_tick = system_ticks - 10;
    task_yield();
    EXPECT_EQ(current(), first);
    EXPECT_EQ(task_current()->state, TASK_RUNNING);
    check();
    sched.last_boost_tick = system_ticks - 10;
    task_t* blocked = task_current();
    task_block(blocked);
    EXPECT_NE(current(), first);
    task_unblock(blocked);
}

TEST_F(SchedPass, ATaskWithMarkedlyMoreEventsOvertakes) {
    task_t* high = task("high", 1);
    task_t* low = task("low", 5);
    start();
    task_t* first = task("first", 1);
    const auto act = [](const task_t* t, int n) {
        for (int i = 0; i < n; ++i)
            causal_event_fmt(CAUSAL_USER, "test", "work pid=%d", t->pid);
    };
    ASSERT_EQ(task_current(), high);
    act(low, 3);  // with its creation three more than the candidate's one
    sched.last_causal_check = system_ticks - 10;
    task_yield();
    EXPECT_EQ(current(), "first");
    act(low, 1);
    task_yield();
    EXPECT_EQ(current(), "high") << "checked at most every 10 ticks";
    sched.last_causal_check = system_ticks - 10;
    task_yield();
    EXPECT_EQ(current(), "low");
    EXPECT_EQ(sched.ready_queue[1].tail, first);
}

TEST_F(SchedPass, OnlySwitchesOfInterestAreRecorded) {
    task("a", 2);
    task_t* b = task("b", 2);
    start();
    EXPECT_EQ(recorded("switch boot->a"), 1) << "boot recorded its renice";
    const uint32_t before = causal_total_events();
    for (int i = 0; i < 10; ++i)
        task_yield();
    EXPECT_EQ(causal_total_events(), before) << "polling leaves no trace";
    EXPECT_EQ(task_cpu_switches(0), 11u);
    const uint32_t b_last = b->causal_ctx;
    causal_emit(CAUSAL_USER, "test", "a did something", nullptr, 0);
    task_yield();
    EXPECT_STREQ(newest().desc, "switch a->b");
    EXPECT_EQ(newest().parents[0], b_last);
    EXPECT_EQ(b->causal_ctx, newest().id);
    EXPECT_FALSE(running().recorded);
    ticks(4);
    EXPECT_STREQ(newest().desc, "switch b->a") << "a preemption";
}

TEST_F(SchedPass, IdleTasksHaltWithoutATraceUntilThereIsWork) {
    task_t* idle = task("idle", 7);
    task_t* sleeper = task("sleeper", 2);
    start();
    task_sleep(3);
    task_yield();
    int halts = 0;
    machine().on_hlt = [&] {
        ++halts;
        EXPECT_TRUE(machine().interrupts_on);
        ticks(1);
    };
    task_idle_wait();  // of whichever idles now; the other one is no idler yet and must run
    EXPECT_EQ(halts, 0);
    task_yield();
    const uint32_t before = causal_total_events();
    for (; sleeper->state == TASK_BLOCKED; task_yield())
        task_idle_wait();
    EXPECT_EQ(causal_total_events(), before + 1);
    EXPECT_STREQ(newest().desc, "wake pid=2 from sleep");
    EXPECT_GT(halts, 1);
    EXPECT_TRUE(idle->idler);
}

TEST_F(SchedPass, AnOverrunStackEndsItsTaskAtTheNextPassOrTick) {
    const uint32_t memory = heap_used();
    task_t* a = task("a", 2);
    task_t* b = task("b", 2);
    start();
    *reinterpret_cast<uint32_t*>(a->stack_bottom) = 0;
    task_yield();
    EXPECT_EQ(current(), "b");
    EXPECT_EQ(machine_texts(), "[FAULT] Stack overflow in 'a' (pid 1)\n");
    EXPECT_EQ(recorded("stack_overflow pid=1 name=a"), 1);
    EXPECT_STREQ(newest().desc, "switch a->b") << "it did something of interest";
    EXPECT_EQ(a->state, TASK_DEAD);
    fake_switch.stack_pointer = b->stack_bottom - 4;  // past its end, the canary still whole
    ticks(1);
    EXPECT_EQ(current(), "boot");
    EXPECT_EQ(b->state, TASK_DEAD);
    task_reap();
    EXPECT_EQ(heap_used(), memory);
}

TEST_F(SchedPass, FurtherProcessorsRunWhatIsTheirsAndIdleOtherwise) {
    add_cpu(4);
    sched_enable_smp_locking();
    task_set_priority(0, 7);
    sched_start();
    task_t* pinned = task("pinned", 3, 1);
    EXPECT_EQ(fake_lapic.writes.back(), (std::pair<uint32_t, uint32_t>(LAPIC_ICR_LOW, 0x40FE)));
    EXPECT_TRUE(task_cpu_is_idle(1));
    task_yield();
    EXPECT_EQ(current(), "boot") << "not processor 0's task";
    this_cpu = 1;
    const uint32_t before = causal_total_events();
    schedule();
    EXPECT_EQ(task_current(), pinned);
    EXPECT_FALSE(task_cpu_is_idle(1));
    schedule();
    EXPECT_EQ(task_current(), pinned);
    *reinterpret_cast<uint32_t*>(pinned->stack_bottom) = 0;
    task_block(pinned);
    EXPECT_EQ(current(), "idle-cpu1");
    EXPECT_EQ(pinned->state, TASK_DEAD);
    EXPECT_EQ(causal_total_events(), before);
    EXPECT_NE(machine_texts().find("Stack overflow in 'pinned'"), std::string::npos);
    EXPECT_EQ(task_cpu_switches(1), 2u);
    EXPECT_EQ(task_cpu_current_pid(16), -1);
    this_cpu = 0;
}

TEST_F(SchedPass, OffloadingHandsOneTaskToEachIdleProcessor) {
    for (uint32_t lapic = 1; lapic < CPU_MAX; ++lapic)
        add_cpu(lapic * 2);
    EXPECT_EQ(smp_add_cpu(99), -1);
    smp_cpu_state(1)->active = false;
    task_t* tasks[4];
    for (task_t*& t : tasks) {
        t = task("w", 5);
        task_set_ap_offloadable(t, true);
    }
    task_set_ap_offloadable(tasks[1], false);
    start();
    EXPECT_EQ(sched.ready_offloadable, 2u) << "without the lock nothing moves";
    sched_enable_smp_locking();
    this_cpu = 0;
    system_ticks = system_ticks + 1;
    task_yield();  // tasks[1] is the candidate, tasks[0] the running one
    EXPECT_EQ(tasks[0]->cpu_affinity, 0);
    EXPECT_EQ(tasks[2]->cpu_affinity, 2);
    EXPECT_EQ(tasks[3]->cpu_affinity, 3);
    EXPECT_EQ(recorded("offload pid=4 to=cpu3"), 1);
    EXPECT_EQ(fake_lapic.writes.back().second, 0x40FEu);
    EXPECT_EQ(fake_lapic.writes[fake_lapic.writes.size() - 2].second, 6u << 24);
    task_t* late = task("late", 5);
    task_set_ap_offloadable(late, true);
    task_yield();
    EXPECT_EQ(late->cpu_affinity, 0) << "once a tick";
    check();
    this_cpu = 3;
    schedule();
    EXPECT_EQ(task_current(), tasks[3]);
    this_cpu = 0;
}

TEST_F(SchedPass, TheLockIsWaitedForWithPause) {
    sched_enable_smp_locking();
    start();
    int pauses = 0;
    sched_lock.held = 1;
    machine().on_pause = [&] {
        EXPECT_FALSE(machine().interrupts_on);
        if (++pauses == 3)
            sched_lock.held = 0;
    };
    schedule();
    EXPECT_EQ(pauses, 3);
}

TEST_F(SchedPass, ReniceMovesAReadyTaskToTheTail) {
    task_t* a = task("a", 2);
    task_t* b = task("b", 3);
    EXPECT_EQ(task_set_priority(1, 3), 0);
    EXPECT_EQ(sched.ready_queue[3].head, b);
    EXPECT_EQ(sched.ready_queue[3].tail, a);
    EXPECT_EQ(recorded("renice pid=1 priority=3"), 1);
    EXPECT_EQ(task_set_priority(1, 8) + task_set_priority(1, -1) + task_set_priority(9, 1), -3);
}

}  // namespace
