#include <cstdio>

#include "kernel/apps/mood.h"
#include "kernel/apps/sched_app.h"
#include "kernel/apps/shell.h"
#include "kernel/apps/sysdigest.h"
#include "kernel/core/cap.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/timeline.h"
#include "tests/machine/kernel.h"
#include "tests/unit/core/task/fixture.h"

namespace {

class StatusApps : public Sched {
protected:
    void SetUp() override {
        Sched::SetUp();
        system_ticks = 0;
        timeline_init();
        actor_init();
        cap_init();
        sched_app_init();
        sysdigest_init();
        mood_init();
    }
    void TearDown() override {
        system_ticks = 0;
        Sched::TearDown();
    }
    static void emit(int count, const char* desc, causal_type_t type = CAUSAL_USER) {
        for (int i = 0; i < count; ++i)
            causal_emit(type, "test", desc, nullptr, 0);
    }
    /// A hundred ticks with these events, then the sample.
    static mood_t sample(int events, const char* desc = "quiet") {
        system_ticks = system_ticks + 50;
        emit(events, desc);
        system_ticks = system_ticks + 50;
        mood_tick();
        return mood_current();
    }
};

TEST_F(StatusApps, TheMoodFollowsFiveSamplesInARow) {
    EXPECT_EQ(sample(60), MOOD_ZEN);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(sample(60), MOOD_ZEN);
    EXPECT_EQ(sample(4), MOOD_ZEN);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(sample(50), MOOD_ZEN);
    EXPECT_EQ(sample(50), MOOD_BUSY);
    EXPECT_EQ(recorded("mood: zen -> busy"), 1);
    for (const auto& [events, last] : {std::pair{48, MOOD_CALM}, {3, MOOD_ZEN}}) {
        for (int i = 0; i < 4; ++i)
            sample(events);
        EXPECT_EQ(sample(events), last);
    }
}

TEST_F(StatusApps, FaultsMakeItCriticalAndTheirEndMakesItRecover) {
    emit(40, "[R] Page Fault");  // of an earlier boot
    for (int i = 0; i < 5; ++i)  // the first one sees two of them, the others four
        EXPECT_EQ(sample(2, "Page Fault"), MOOD_ZEN);
    EXPECT_EQ(sample(2, "Page Fault"), MOOD_CRITICAL);
    emit(6, "[R] quiet", CAUSAL_FS);
    const std::string shown = run_line(cmd_mood, "mood");
    EXPECT_NE(shown.find("  faults     : 4 recent\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("Hottest: USER (5 events)"), std::string::npos) << shown;
    char last[80];
    snprintf(last, sizeof last, "  Last fault: event %u (Page Fault)\n  Try: query root-cause",
             causal_total_events() - 7);  // behind it stand the change and six
    EXPECT_NE(shown.find(last), std::string::npos) << shown;
    EXPECT_EQ(sample(1, "a panic"), MOOD_CRITICAL);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(sample(1, "a panic"), MOOD_CRITICAL);
    EXPECT_EQ(sample(1, "a panic"), MOOD_STRESSED);  // one a sample: two are in the window
    for (int i = 0; i < 6; ++i)
        sample(0);
    EXPECT_EQ(mood_current(), MOOD_RECOVERING);
    for (int i = 0; i < 5; ++i)
        sample(40);
    EXPECT_EQ(mood_current(), MOOD_CALM);
}

TEST_F(StatusApps, OnlyTheNewestOfATypeCountAsFaults) {
    for (int i = 0; i < 5; ++i) {
        system_ticks = system_ticks + 50;
        emit(5, "crash");
        emit(32, "quiet");
        emit(1, "crash", CAUSAL_FS);
        system_ticks = system_ticks + 50;
        mood_tick();
    }
    EXPECT_EQ(mood_current(), MOOD_STRESSED);
    EXPECT_NE(run_line(cmd_mood, "mood").find("faults     : 2 recent"), std::string::npos);
}

TEST_F(StatusApps, APinnedMoodStaysAndTheHistoryKeepsSixteen) {
    EXPECT_EQ(run_line(cmd_mood, "mood history"),
              "  mood transition history:\n  [       0] (^_^) zen\n");
    EXPECT_EQ(run_line(cmd_mood, "mood set critical"), "  mood override: (X_X) critical\n");
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(sample(0), MOOD_CRITICAL);
    run_line(cmd_mood, "mood reset");
    for (int i = 0; i < 5; ++i)
        sample(0);
    EXPECT_EQ(mood_current(), MOOD_RECOVERING);
    for (int i = 0; i < 8; ++i) {
        system_ticks = 5000 + static_cast<uint32_t>(i);
        run_line(cmd_mood, "mood set calm");
        run_line(cmd_mood, "mood set busy");
    }
    const std::string history = run_line(cmd_mood, "mood history");
    EXPECT_EQ(std::count(history.begin(), history.end(), '\n'), 17);
    EXPECT_EQ(history.find("  mood transition history:\n  [    5000] (\xb7_\xb7) calm\n"), 0u);
    EXPECT_EQ(run_line(cmd_mood, "mood set grim"),
              "  unknown mood: grim\n  valid: zen calm busy stressed critical recovering\n");
    for (const char* bad : {"mood x", "mood set", "mood set calm now", "mood reset now"})
        EXPECT_EQ(run_line(cmd_mood, bad), "  usage: mood [history|explain|set <mood>|reset]\n")
            << bad;
}

TEST_F(StatusApps, AScheduledLineRunsOnceAndIsOnTheTimeline) {
    EXPECT_EQ(run_line(cmd_schedule, "schedule 50 echo hi  there"),
              "Scheduled at T+50 (slot 0): echo hi there\n");
    system_ticks = 49;
    machine_texts().clear();
    sched_app_tick();
    EXPECT_EQ(machine_texts(), "");
    system_ticks = 50;
    sched_app_tick();
    sched_app_tick();
    EXPECT_EQ(machine_texts(), "echo hi there\nhi there\n");
    EXPECT_EQ(recorded("schedule: echo hi there at T+50"), 1);
    EXPECT_EQ(recorded("executed: echo hi there"), 1);
    EXPECT_EQ(recorded("fired: echo hi there"), 1);
    EXPECT_EQ(run_line(cmd_scheduled, "scheduled"), "Scheduled commands:\n  (none pending)\n");
    for (const char* bad :
         {"schedule", "schedule 5", "schedule -1 ls", "schedule 4294967296 ls", "schedule 5x ls"})
        EXPECT_EQ(run_line(cmd_schedule, bad), "usage: schedule <tick> <command...>\n") << bad;
}

TEST_F(StatusApps, SixteenLinesWaitAndLongOnesAreCut) {
    const std::string text(200, 'x');
    for (int slot = 0; slot < SCHED_APP_SLOTS; ++slot)
        ASSERT_EQ(sched_app_add(100, text.c_str()), slot);
    EXPECT_EQ(run_line(cmd_schedule, "schedule 1 ls"), "[sched] error: all 16 slots full\n");
    EXPECT_EQ(sched_app_remove(3), 0);
    EXPECT_EQ(sched_app_remove(3), -1);
    EXPECT_EQ(sched_app_remove(16), -1);
    sched_entry_t copies[SCHED_APP_SLOTS];
    EXPECT_EQ(sched_app_get_entries(copies, 3), 3);
    ASSERT_EQ(sched_app_get_entries(copies, SCHED_APP_SLOTS), 15);
    EXPECT_EQ(copies[3].event_id, 4u);
    EXPECT_EQ(strlen(copies[3].command), 127u);
    timeline_destroy(timeline_find("schedule"));
    EXPECT_EQ(sched_app_add(1, "ls"), -1);
}

TEST_F(StatusApps, AScheduledLineMayNoMoreThanWhoScheduledIt) {
    sched.pool[0].pid = 9;
    ASSERT_EQ(sched_app_add(0, "cap grant 9 all"), 0);
    sched.pool[0].pid = 0;
    ASSERT_EQ(sched_app_add(0, "cap test admin"), 1);
    machine_texts().clear();
    sched_app_tick();
    EXPECT_EQ(machine_texts(),
              "cap grant 9 all\ncap: grant failed (need admin)\n"
              "cap test admin\nadmin: GRANTED\n");
    // What would wait for keys does not, where nobody answers.
    ASSERT_EQ(sched_app_add(0, "top"), 0);
    sched_app_tick();
    EXPECT_TRUE(shell_is_attended());
}

TEST_F(StatusApps, TheDigestWarnsOfWhoWaitsForOthers) {
    EXPECT_NE(run_line(cmd_digest, "digest health").find("  All systems nominal.\n\n"),
              std::string::npos);
    for (int i = 0; i < 6; ++i) {
        task_t* t = task("t", 3);
        task_block(t);
        t->sleep_until = 999;
    }
    EXPECT_NE(run_line(cmd_digest, "digest health").find("nominal"), std::string::npos);
    for (int pid = 3; pid < 9; ++pid)
        task_find_by_pid(pid)->sleep_until = 0;
    EXPECT_EQ(run_line(cmd_digest, "digest health"),
              " HEALTH\n--------------------------------------------\n"
              "  [WARN] 6 tasks blocked — possible deadlock\n\n");
    EXPECT_NE(run_line(cmd_digest, "digest tasks")
                  .find("  Total : 9       Running : 1\n  Ready : 2       Blocked : 6\n"
                        "  Dead  : 0     \n\n  PID  PRI  STATE    NAME\n"
                        "  0    4    running  boot\n"),
              std::string::npos)
        << machine_texts();
}

TEST_F(StatusApps, TheDigestIsPrintedWholeAndCutByPieces) {
    sysdigest_set_network_hook([](sysdigest_network_t* out) { *out = {3, 9, 4, 5}; });
    const std::string whole = run_line(cmd_digest, "digest");
    EXPECT_GT(whole.size(), 1000u);
    EXPECT_NE(whole.find("  Mesh peers : 3\n  TCP conns  : 9  (listen: 4, estab: 5)\n\n"
                         "============================================\n"),
              std::string::npos)
        << whole;
    char small[300];
    memset(small, 'x', sizeof small);
    const int length = sysdigest_generate(small, sizeof small);
    EXPECT_EQ(strlen(small), static_cast<size_t>(length));
    EXPECT_EQ(std::string(small), whole.substr(0, whole.find(" HEALTH")) +
                                      std::string(small).substr(whole.find(" HEALTH")));
    for (const char* bad : {"digest foo", "digest net net"})
        EXPECT_EQ(run_line(cmd_digest, bad),
                  "usage: digest [tasks|actors|net|memory|causal|health]\n");
}

}  // namespace
