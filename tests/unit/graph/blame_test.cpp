#include "kernel/graph/blame.h"

#include "kernel/apps/cmd_whatif.h"
#include "tests/unit/graph/naive_graph.h"

namespace {

class Blame : public naive_graph {
protected:
    static std::vector<blame_suspect_t> blame(uint32_t id, int max = BLAME_SUSPECTS) {
        std::vector<blame_suspect_t> out(BLAME_SUSPECTS);
        const int count = blame_analyze(id, out.data(), max);
        out.resize(static_cast<size_t>(std::max(count, 0)));
        return out;
    }
};

TEST_F(Blame, FindsTheRootThatExplainsTheMostAndLeadsToLittleElse) {
    const uint32_t boot = add({1}, "boot");
    const uint32_t bug = add({boot}, "driver loaded");
    for (int i = 0; i < 30; i++)
        add({boot}, "ordinary");
    const uint32_t read = add({bug}, "read");
    const uint32_t fault = add({read}, "page fault");
    add({bug}, "panic elsewhere");
    for (int i = 0; i < 10; i++)
        add({fault}, "clean-up");
    const auto suspects = blame(fault);
    ASSERT_EQ(suspects.size(), 4u);
    EXPECT_EQ(suspects[0].event_id, bug);
    EXPECT_EQ(suspects[0].score, 1000);  // both faults, and nothing but what leads to them
    EXPECT_EQ(suspects[0].faults, 2u);
    EXPECT_EQ(suspects[0].descendants, 13u);
    EXPECT_EQ(suspects[1].event_id, read);
    EXPECT_EQ(suspects[1].score, 500);  // one of two faults
    EXPECT_EQ(suspects[2].event_id, 1u);
    EXPECT_EQ(suspects[2].score, 1000 * 5 / 35);
    EXPECT_EQ(blame(fault, 2).size(), 2u);
    EXPECT_EQ(blame(fault, 2)[0].event_id, bug);
    EXPECT_EQ(blame_analyze(fault, nullptr, 4), -1);
    EXPECT_EQ(run(cmd_blame, {"last"}).substr(0, 44),
              "blame: suspects for #46 \"clean-up\"\n  BLAME  ");
    EXPECT_EQ(run(cmd_blame, {"1"}), "blame: event 1 has no upstream cause (it is a root event)\n");
    EXPECT_EQ(run(cmd_blame, {"47"}), "blame: event 47 not found\n");
    EXPECT_EQ(run(cmd_blame, {"x"}), "blame: invalid event id 'x'\n");
}

TEST_F(Blame, CountsAsANaiveWalkDoes) {
    std::mt19937 random(4);
    add_random(random, 600, 12, false);
    for (const uint32_t id : {300u, 450u, 601u}) {
        for (const blame_suspect_t& suspect : blame(id)) {
            std::set<uint32_t> after = {suspect.event_id};
            uint32_t faults = 0;
            for (const auto& [event, ev] : events)
                for (const uint32_t parent : ev.parents)
                    if (after.contains(parent) && after.insert(event).second)
                        faults += event == id || ev.desc == "page fault";
            EXPECT_EQ(suspect.descendants, after.size() - 1);
            EXPECT_EQ(suspect.faults, faults);
            EXPECT_TRUE(suspect.score >= 0 && suspect.score <= BLAME_SCORE_MAX);
        }
    }
    add_random(random, 500, 12, true);  // lies are not believed, and do no harm
    EXPECT_FALSE(blame(causal_total_events()).empty());
}

TEST_F(Blame, ReachesBackIntoTheArchive) {
    const uint32_t cause = add({1}, "cause");
    const uint32_t gone = add({cause}, "a crash long ago");
    keep_archive();
    const uint32_t late = add({cause}, "late fault");
    for (uint32_t i = 0; i < CAUSAL_RING_SLOTS - 1; i++)
        add({});
    ASSERT_EQ(causal_get_ring(gone), nullptr);
    EXPECT_EQ(blame(late)[0].event_id, cause);
    EXPECT_EQ(blame(late)[0].faults, 1u);
    EXPECT_EQ(blame(gone)[0].score, 1000);
}

}  // namespace
