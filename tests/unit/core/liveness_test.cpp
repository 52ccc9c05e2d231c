#include "kernel/core/liveness.h"

#include "kernel/core/task.h"
#include "tests/unit/core/task/fixture.h"

namespace {

class Liveness : public Sched {
protected:
    void SetUp() override {
        Sched::SetUp();
        system_ticks = 1000;
        liveness_init();
    }
    void TearDown() override {
        system_ticks = 0;
        Sched::TearDown();
    }
    static void look_at(uint32_t tick) {
        system_ticks = tick;
        liveness_tick();
    }
};

TEST_F(Liveness, AComponentAgesAndAHeartbeatMakesItAliveAtOnce) {
    ASSERT_EQ(liveness_register("disk", 100), 0);
    EXPECT_EQ(liveness_register("disk", 7), -2);
    EXPECT_EQ(liveness_register(nullptr, 7), -1);
    EXPECT_EQ(liveness_register("none", 0), -1);
    const liveness_state_t found[] = {LIVENESS_ALIVE, LIVENESS_SUSPECT, LIVENESS_SUSPECT,
                                      LIVENESS_DEAD, LIVENESS_DEAD};
    const uint32_t ticks[] = {1099, 1100, 1199, 1200, 9000};
    for (int i = 0; i < 5; ++i) {
        look_at(ticks[i]);
        EXPECT_EQ(liveness_check("disk"), found[i]) << ticks[i];
    }
    EXPECT_EQ(recorded("suspect name=disk elapsed=100"), 1);
    EXPECT_EQ(recorded("dead name=disk elapsed=200"), 1);
    EXPECT_EQ(liveness_heartbeat("disk"), 0);
    EXPECT_EQ(liveness_check("disk"), LIVENESS_ALIVE);
    EXPECT_EQ(recorded("recovered name=disk"), 1);
    const uint32_t events = causal_total_events();
    look_at(9300);  // over both limits at once
    EXPECT_EQ(causal_total_events(), events + 1);
    EXPECT_EQ(liveness_heartbeat("nosuch"), -1);
    EXPECT_EQ(liveness_heartbeat(nullptr), -1);
    EXPECT_EQ(liveness_check("nosuch"), LIVENESS_DEAD);
}

TEST_F(Liveness, ALongIntervalDoesNotWrapAndTheTableEnds) {
    ASSERT_EQ(liveness_register("slow", 0x90000000), 0);
    look_at(1000 + 0x8FFFFFFF);
    EXPECT_EQ(liveness_check("slow"), LIVENESS_ALIVE);
    look_at(1000 + 0xF0000000);
    EXPECT_EQ(liveness_check("slow"), LIVENESS_SUSPECT);
    const std::string name(31, 'n');
    ASSERT_EQ(liveness_register((name + "abc").c_str(), 1), 0);
    EXPECT_EQ(liveness_register((name + "xyz").c_str(), 1), -2);
    for (int i = 2; i < LIVENESS_ENTRIES; ++i)
        ASSERT_EQ(liveness_register(std::to_string(i).c_str(), 1), 0);
    EXPECT_EQ(liveness_register("one more", 1), -3);
    EXPECT_EQ(liveness_count(), LIVENESS_ENTRIES);
}

TEST_F(Liveness, LooksBeatForATaskThatIsWell) {
    task_t* self = task_current();
    ASSERT_EQ(liveness_register_task("me", 100), 0);
    look_at(1500);
    EXPECT_EQ(liveness_check("me"), LIVENESS_ALIVE);
    self->state = TASK_BLOCKED;
    self->waiting_for_input = true;
    look_at(2000);
    EXPECT_EQ(liveness_check("me"), LIVENESS_ALIVE);
    self->waiting_for_input = false;
    look_at(2100);
    EXPECT_EQ(liveness_check("me"), LIVENESS_SUSPECT);
    self->state = TASK_ZOMBIE;
    look_at(2200);
    EXPECT_EQ(liveness_check("me"), LIVENESS_DEAD);
    self->state = TASK_RUNNING;
}

TEST_F(Liveness, ATokenIsGoodForItsNameAndTickOnly) {
    ASSERT_EQ(liveness_register("shell", 100), 0);
    system_ticks = 54;
    liveness_proof_t token;
    ASSERT_EQ(liveness_proof("shell", &token), 0);
    uint32_t h = 54u ^ 0x5A5A5A5Au;
    for (const char c : std::string("shell"))
        h = ((h << 5) | (h >> 27)) ^ static_cast<unsigned char>(c);
    EXPECT_EQ(token.hash, (54u * 0x9E3779B1u) ^ h);
    EXPECT_TRUE(liveness_verify(&token));
    ++token.tick;
    EXPECT_FALSE(liveness_verify(&token));
    --token.tick;
    token.name[0] = 'S';
    EXPECT_FALSE(liveness_verify(&token));
    EXPECT_FALSE(liveness_verify(nullptr));
    EXPECT_EQ(liveness_proof("nosuch", &token), -1);
    EXPECT_EQ(liveness_proof("shell", nullptr), -1);
}

}  // namespace
