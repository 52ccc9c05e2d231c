#include "kernel/core/mutex.h"
#include "tests/unit/core/task/fixture.h"

namespace {

mutex_t lock;
std::string journal;
int session;

/// Runs a body of its own in each task; `idle` keeps the processor busy.
class SchedWait : public Sched {
protected:
    void SetUp() override {
        Sched::SetUp();
        fake_switch.coroutines = true;
        lock = {};
        journal.clear();
        task_set_priority(0, 7);
        sched_start();
    }

    static void note() { journal += task_current()->name[0]; }
    static void settle() {
        for (int i = 0; i < 20; ++i)
            task_yield();
    }
};

TEST_F(Sched, BeforeTheSchedulerStartsNothingSwitches) {
    task("a", 0);
    schedule();
    task_block(task_current());
    EXPECT_EQ(current(), "boot");
    machine().on_hlt = [] { system_ticks = system_ticks + 1; };
    const uint32_t start = system_ticks;
    task_sleep(3);
    EXPECT_EQ(system_ticks, start + 3);
    mutex_t m;
    {
        const mutex_guard guard(m);
        EXPECT_EQ(m.owner, task_current());
        EXPECT_THROW(mutex_lock(m), machine_halted);
        machine().interrupts_on = true;
    }
    EXPECT_FALSE(m.locked);
}

TEST_F(SchedWait, SleepersWakeInTimeAndTheirWakeFollowsTheSleep) {
    task_create(
        "long", [] { task_sleep(5), note(); }, 2);
    task_create(
        "short", [] { task_sleep(1), note(); }, 3);
    system_ticks = 0xFFFFFFFC;  // the counter wraps meanwhile
    settle();
    EXPECT_EQ(recorded("sleep pid=1 ticks=5 until=1"), 1);
    const uint32_t sleep = task_find_by_pid(1)->sleep_event;
    ticks(4);
    settle();
    EXPECT_EQ(journal, "s");
    ticks(1);
    EXPECT_EQ(recorded("wake pid=1 from sleep"), 1);
    EXPECT_EQ(recorded("wake pid=2 from sleep"), 0) << "one tick is too short to tell";
    uint32_t wake = causal_total_events();
    while (std::string(causal_get_ring(wake)->desc) != "wake pid=1 from sleep")
        --wake;
    EXPECT_EQ(causal_get_ring(wake)->parents[0], sleep);
    settle();
    EXPECT_EQ(journal, "sl");
}

TEST_F(SchedWait, AnUnblockJoinsTheHistoriesOfBoth) {
    task_t* t = task_create(
        "t", [] { task_block(task_current()), note(); }, 2);
    settle();
    ASSERT_EQ(t->state, TASK_BLOCKED);
    t->sleep_until = system_ticks + 50;
    const uint32_t woken = t->causal_ctx;
    const uint32_t waker = causal_emit(CAUSAL_IO, "keyboard", "key", nullptr, 0);
    task_unblock_reason(t, "input");
    EXPECT_STREQ(newest().desc, "unblock pid=1 reason=input");
    EXPECT_EQ(newest().parents[0], woken);
    EXPECT_EQ(newest().parents[1], waker);
    EXPECT_EQ(t->causal_ctx, newest().id);
    EXPECT_EQ(causal_get_current(), waker);
    EXPECT_EQ(t->sleep_until, 0u) << "a later block must not end with an older sleep";
    const uint32_t events = causal_total_events();
    task_unblock(t);
    task_unblock(nullptr);
    EXPECT_EQ(causal_total_events(), events) << "only blocked tasks are woken";
    task_block(t);
    causal_set_current(t->causal_ctx);
    task_unblock(t);
    EXPECT_STREQ(newest().desc, "unblock pid=1 reason=unknown");
    EXPECT_EQ(newest().num_parents, 1);
    settle();
    EXPECT_EQ(journal, "t");
}

TEST_F(SchedWait, TheMutexIsHandedOnInTheOrderOfAsking) {
    const auto hold = [] {
        const mutex_guard guard(lock);
        note();
        task_sleep(1);
        note();
    };
    for (const char* name : {"a", "b", "c", "d"})
        task_create(name, hold, 3);
    settle();
    task_t* c = task_find_by_pid(3);
    EXPECT_EQ(lock.owner, task_find_by_pid(1));
    task_unblock(task_find_by_pid(2));  // woken by somebody else: it keeps its place
    task_set_io(c, nullptr, nullptr, &session);
    task_end_io_session(&session);  // a waiter that ends is forgotten
    for (int i = 0; i < 6; ++i) {
        settle();
        ticks(1);
    }
    EXPECT_EQ(journal, "aabbdd");
    EXPECT_FALSE(lock.locked);
    EXPECT_EQ(c->state, TASK_DEAD);
    EXPECT_EQ(recorded("unblock pid=4 reason=mutex"), 1);
}

TEST_F(SchedWait, ASessionEndsWithItsTasksButNotInsideAMutex) {
    task_create(
        "plain", [] { task_sleep(1), note(); }, 3);
    task_create(
        "holder",
        [] {
            {
                const mutex_guard guard(lock);
                task_sleep(1);
                note();
            }
            journal += '!';
        },
        3);
    task_create(
        "caller", [] { task_end_io_session(&session), note(); }, 4);
    for (int i = 1; i < task_pool_count(); ++i)
        task_set_io(task_get_list() + i, nullptr, nullptr, &session);
    settle();
    EXPECT_EQ(task_find_by_pid(1)->state, TASK_DEAD);
    task_end_io_session(nullptr);
    ticks(1);
    settle();
    EXPECT_EQ(journal, "ch");
    EXPECT_FALSE(lock.locked);
    EXPECT_EQ(task_find_by_pid(2)->state, TASK_DEAD);
    task_reap();
    EXPECT_EQ(task_find_by_pid(2), nullptr);
}

TEST_F(SchedWait, ExitLeavesAZombieToALivingParentAndOrphansToPidOne) {
    static std::string ended;
    ended.clear();
    const task_lifecycle_hooks_t hooks = {
        [](const task_t* t) { ended += "x" + std::to_string(t->pid); },
        [](pid_t pid) { ended += "r" + std::to_string(pid); }};
    task_set_lifecycle_hooks(&hooks);
    task_create(
        "parent", [] { task_block(task_current()); }, 2);
    task_create(
        "child", [] { task_set_exit_status(9); }, 3);
    task_create(
        "free", [] { task_current()->detached = true; }, 2);
    for (pid_t pid : {2, 3})
        task_find_by_pid(pid)->parent_pid = 1;
    task_t* parent = task_find_by_pid(1);
    parent->waiting_for_pid = -1;
    task_yield();  // the parent blocks, the child exits and wakes it
    EXPECT_EQ(task_find_by_pid(3)->state, TASK_DEAD) << "nobody is asked about a detached task";
    EXPECT_EQ(recorded("exit pid=2 status=9 name=child"), 1);
    EXPECT_EQ(recorded("unblock pid=1 reason=child_exit"), 1);
    EXPECT_EQ(parent->sig_pending, 1u << 17);
    settle();
    EXPECT_EQ(recorded("reparent child=2 to=1"), 1) << "the parent has exited";
    for (int i = 0; i < 100; ++i)
        ticks(1);
    settle();
    EXPECT_EQ(recorded("reap pid=2"), 1);
    EXPECT_EQ(ended, "x3x2x1r1r2r3");
    EXPECT_THROW(task_exit(), machine_halted) << "the boot task cannot end";
    machine().interrupts_on = true;
}

}  // namespace
