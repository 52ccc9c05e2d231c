#include "kernel/graph/replay.h"

#include "tests/unit/graph/causal_fixture.h"

namespace {

class Replay : public causal_fixture {
protected:
    static replay_snapshot_t at(uint32_t tick) {
        replay_snapshot_t snap;
        EXPECT_EQ(replay_at(tick, &snap), 0);
        return snap;
    }
    static void sched(const std::string& desc) { emit({}, desc.c_str(), CAUSAL_SCHED, "sched"); }
};

TEST_F(Replay, TasksComeAndGo) {
    system_ticks = 10;
    sched("spawn pid=7 name=worker");
    for (int pid = 100; pid < 117; ++pid)
        sched("pid=" + std::to_string(pid) + " name=w" + std::to_string(pid) + " pri=3");
    sched("pid=100 name=again pri=3");
    sched("create without a number pid= name=x");
    EXPECT_EQ(at(10).active_task_count, 16);
    EXPECT_STREQ(at(10).active_tasks[15].name, "w114");
    sched("exit pid=7 status=0 name=worker");
    sched("reap pid=9999");
    const replay_snapshot_t snap = at(10);
    EXPECT_EQ((ids_t{snap.tasks_created, snap.tasks_exited, snap.tasks_alive}), (ids_t{20, 2, 18}));
    EXPECT_EQ(snap.active_task_count, 15);
    EXPECT_EQ(snap.active_tasks[0].pid, 100u);
    EXPECT_EQ(replay_at(1, nullptr), -1);
}

TEST_F(Replay, CountsByTypeAndWordsUpToTheTick) {
    EXPECT_EQ(at(0).total_events, 1u);  // the store's own
    system_ticks = 5;
    for (const char* desc : {"tcp connect tx", "send", "rx", "tcp accept recv", "tcp close",
                             "tcp close", "tcp close", "tcp connect"})
        emit({}, desc, CAUSAL_NET);
    emit({}, "kmalloc", CAUSAL_MEM);
    emit({}, "store", CAUSAL_MEM);
    emit({}, "create x", CAUSAL_FS);
    emit({}, "call", CAUSAL_SYSCALL);
    for (int i = 0; i < 10; ++i)
        emit({}, ("register name=a" + std::to_string(i % 9) + " id=1").c_str(), CAUSAL_ACTOR);
    const uint32_t last = causal_total_events();
    system_ticks = 6;
    emit();
    const replay_snapshot_t snap = at(5);
    EXPECT_EQ(snap.net_bytes_tx, 128u);
    EXPECT_EQ(snap.conn_events, 1);
    EXPECT_EQ(snap.active_actor_count, 8);
    EXPECT_EQ((ids_t{snap.net_tx, snap.net_rx, snap.disk_reads, snap.disk_writes, snap.fs_ops,
                     snap.syscalls, snap.actor_msgs, snap.total_events}),
              (ids_t{2, 2, 1, 1, 1, 1, 10, last}));
    EXPECT_EQ(ids_t(snap.recent_ids, snap.recent_ids + 8),
              (ids_t{last - 7, last - 6, last - 5, last - 4, last - 3, last - 2, last - 1, last}));
}

TEST_F(Replay, PrintsAPictureAndSignedChanges) {
    sched("pid=7 name=worker pri=3");
    system_ticks = 300;
    emit({}, "read", CAUSAL_IO, "blk");
    sched("exit pid=7");
    EXPECT_EQ(run(cmd_replay, {"0"}),
              "=== System State at T+0 ===\nTasks: 1 alive (1 created, 0 exited)\n"
              "  Active:  [7] worker\n"
              "Network: 0 TX / 0 RX (~0 / 0 bytes), 0 conn\nDisk: 0 reads / 0 writes\n"
              "FS ops: 0  Actor msgs: 0  Syscalls: 0\nTotal events: 2\nRecent:\n"
              "  [2] T+0 sched sched: pid=7 name=worker pri=3\n"
              "  [1] T+0 sched boot: kernel boot started\n");
    const std::string changes =
        "=== Changes from T+0 to T+300 ===\nTasks: +0 created, +1 exited\n"
        "Network: +0 TX / +0 RX\nDisk: +0 reads / +0 writes\n"
        "FS ops: +0  Actor msgs: +0  Syscalls: +0\nTotal events: +2\n";
    EXPECT_EQ(run(cmd_replay, {"300", "0"}), changes);
    EXPECT_NE(run(cmd_replay, {"300"}).find("  [3] T+300 io blk: read\n"), std::string::npos);
    EXPECT_EQ(run(cmd_replay), "Usage: replay <tick> [tick2]\n");
    EXPECT_EQ(run(cmd_replay, {"1", "x"}), "replay: invalid tick 'x'\n");
}

}  // namespace
