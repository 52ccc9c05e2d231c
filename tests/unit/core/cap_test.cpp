#include "kernel/core/cap.h"

#include "kernel/apps/cmd_cap.h"
#include "kernel/apps/cmd_system.h"
#include "kernel/apps/shell.h"
#include "kernel/core/tempcap.h"
#include "tests/machine/kernel.h"
#include "tests/unit/core/task/fixture.h"

namespace {

class Cap : public Sched {
protected:
    void SetUp() override {
        Sched::SetUp();
        system_ticks = 0;
        cap_init();
        tempcap_init();
    }
    void TearDown() override {
        system_ticks = 0;
        running_as(0);
        Sched::TearDown();
    }
    /// From here on the boot task has this pid.
    static void running_as(pid_t pid) { sched.pool[0].pid = pid; }
};

TEST_F(Cap, ANewTaskGetsItsMaskAndPidsBehindTheTableNothing) {
    for (int pid = 2; pid < 7; ++pid)
        task("t", 3);
    EXPECT_EQ(cap_get(4), CAP_ALL);
    EXPECT_EQ(cap_get(5), CAP_CONSOLE | CAP_FS);
    EXPECT_EQ(recorded("task_init pid=5 parent=0 caps=console fs"), 1);
    running_as(64);
    EXPECT_FALSE(cap_check(CAP_FS));
    const uint32_t events = causal_total_events();
    EXPECT_FALSE(cap_require(CAP_FS, "x"));
    EXPECT_EQ(causal_total_events(), events);
    EXPECT_EQ(cap_audit_get(cap_audit_count() - 1)->pid, 64);
    EXPECT_EQ(cap_grant(64, CAP_FS), -1);
    EXPECT_EQ(cap_get(-1), 0u);
}

TEST_F(Cap, ChecksAreAuditedAndOnlyWhatMattersIsRecorded) {
    ASSERT_EQ(cap_grant(9, CAP_NET), 0);
    EXPECT_EQ(recorded("grant pid=9 +net (token=1)"), 1);
    running_as(9);
    EXPECT_FALSE(cap_require(0x3, "x"));
    EXPECT_EQ(recorded("DENIED pid=9 needs=net disk op=x"), 1);
    EXPECT_FALSE(cap_require(CAP_DISK, nullptr));
    EXPECT_EQ(recorded("DENIED pid=9 needs=disk op=?"), 1);
    EXPECT_TRUE(cap_require(CAP_NET, "whatif net"));
    EXPECT_EQ(recorded("ALLOW pid=9 has=net op=whatif net"), 1);
    EXPECT_EQ(cap_grant(9, CAP_ALL), -1);
    EXPECT_EQ(cap_revoke(0, CAP_ALL), -1);
    const uint32_t events = causal_total_events();
    for (uint32_t i = 1; i <= 200; ++i) {
        system_ticks = i;
        EXPECT_TRUE(cap_require(CAP_NET, std::string(60, 'n').c_str()));
    }
    EXPECT_EQ(causal_total_events(), events);
    EXPECT_EQ(cap_audit_count(), 128);
    EXPECT_EQ(cap_audit_get(0)->tick, 73u);
    EXPECT_EQ(strlen(cap_audit_get(127)->operation), 47u);
    EXPECT_EQ(cap_audit_get(128), nullptr);
}

TEST_F(Cap, AGrantForATimeIsPendingThenActiveThenExpired) {
    const int token = tempcap_grant_window(9, CAP_NET, 10, 50);
    ASSERT_EQ(token, 1);
    EXPECT_EQ(tempcap_grant_window(9, 0, 10, 50), -1);
    EXPECT_EQ(tempcap_grant_window(9, CAP_NET, 50, 50), -1);
    EXPECT_EQ(tempcap_grant(64, CAP_NET, 1), -1);
    EXPECT_NE(run_line(cmd_tempcap, "tempcap list 9").find("pending"), std::string::npos);
    running_as(9);
    for (const auto& [tick, valid] :
         {std::pair{9u, false}, {10u, true}, {49u, true}, {50u, false}}) {
        system_ticks = tick;
        EXPECT_EQ(tempcap_check(CAP_NET), valid) << tick;
        EXPECT_EQ(tempcap_require(CAP_NET, "op"), valid) << tick;
    }
    EXPECT_EQ(recorded("DENIED pid=9 needs=net op=op"), 2);
    tempcap_tick();
    EXPECT_EQ(recorded("expired token=1 pid=9 caps=0x1 tick=50"), 1);
    EXPECT_EQ(tempcap_revoke(9, 1), -1);
    for (int i = 0; i < TEMPCAP_SLOTS; ++i)
        EXPECT_GT(tempcap_grant(9, CAP_NET, 1), 0);
    machine_texts().clear();
    EXPECT_EQ(tempcap_grant(9, CAP_NET, 1), -1);
    EXPECT_EQ(machine_texts(), "tempcap: no free slots\n");
    EXPECT_EQ(tempcap_revoke(9, 3), 0);
    EXPECT_EQ(tempcap_grant(9, CAP_NET, UINT32_MAX), -1);  // the window would wrap
    EXPECT_EQ(tempcap_grant(9, CAP_NET, 1), 34);
}

TEST_F(Cap, WhoMayLittleHarmsNobody) {
    task_t* other = task("other", 5);
    task_t* child = task("child", 5);
    child->parent_pid = 9;
    int session = 0;
    task_t* neighbour = task("neighbour", 5);
    neighbour->io_ctx = task_current()->io_ctx = &session;
    running_as(9);
    EXPECT_EQ(task_set_priority(other->pid, 1), -1);
    EXPECT_EQ(other->priority, 5);
    EXPECT_EQ(recorded("DENIED pid=9 needs=admin op=renice"), 1);
    for (const pid_t own : {9, child->pid, neighbour->pid})
        EXPECT_EQ(task_set_priority(own, 4), 0) << own;
    EXPECT_EQ(run_line(cmd_halt, "halt"), "halt: permission denied (need admin)\n");
    EXPECT_EQ(run_line(cmd_crash, "crash div0"), "crash: permission denied (need admin)\n");
    EXPECT_EQ(run_line(cmd_tempcap, "tempcap grant 9 admin 5"),
              "tempcap: grant failed (need admin)\n");
    EXPECT_EQ(run_line(cmd_cap, "cap grant 9 all"), "cap: grant failed (need admin)\n");
    running_as(0);
    {
        const cap_limit_scope limited(CAP_FS);
        EXPECT_EQ(run_line(cmd_cap, "cap test admin"), "admin: DENIED\n");
        EXPECT_EQ(run_line(cmd_cap, "cap test fs"), "fs: GRANTED\n");
    }
    EXPECT_EQ(run_line(cmd_cap, "cap grant 9 all"), "Granted all to pid 9\n");
    EXPECT_EQ(cap_get(9), CAP_ALL);
}

}  // namespace
