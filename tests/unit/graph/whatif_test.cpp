#include "kernel/graph/whatif.h"

#include "kernel/apps/cmd_whatif.h"
#include "kernel/graph/whatif/internal.h"
#include "tests/unit/graph/naive_graph.h"

namespace {

class WhatIf : public naive_graph {
protected:
    void SetUp() override {
        naive_graph::SetUp();
        whatif_init();
    }
    static std::string whatif(std::vector<std::string> args) { return run(cmd_whatif, args); }

    static void naive_collect(uint32_t id, ids_t& ids) {
        for (const uint32_t child : naive_children(id)) {
            if (ids.size() == 256)
                return;
            if (std::find(ids.begin(), ids.end(), child) != ids.end())
                continue;
            ids.push_back(child);
            naive_collect(child, ids);
        }
    }
    using set_t = std::set<uint32_t>;
    /// What goes with `removed` among `ids`: all that has a parent that is gone.
    static set_t naive_gone(const ids_t& ids, const set_t& removed) {
        set_t gone = removed;
        for (size_t before = 0; before != gone.size();) {
            before = gone.size();
            for (const uint32_t id : ids)
                for (const uint32_t parent : events.at(id).parents)
                    if (gone.contains(parent))
                        gone.insert(id);
        }
        return gone;
    }
    static uint32_t naive_depth(uint32_t id, const set_t& gone,
                                std::map<uint32_t, uint32_t>& known) {
        if (const auto at = known.find(id); at != known.end())
            return at->second;
        uint32_t depth = 0;
        for (const uint32_t parent : events.at(id).parents)
            if (gone.contains(parent))
                depth = std::max(depth, naive_depth(parent, gone, known) + 1);
        return known[id] = depth;
    }
    /// Copies, removes the fork event and another one, and compares everything.
    static void compare(uint32_t fork, bool honest) {
        learn();
        ids_t wanted = {fork};
        naive_collect(fork, wanted);
        const int slot = whatif_branch(fork, "x");
        ASSERT_EQ(slot, 0);
        const whatif_branch_t& branch = whatif_branches[0];
        ids_t found;
        for (uint32_t i = 0; i < branch.count; i++)
            found.push_back(branch.events[i].orig_id);
        ASSERT_EQ(found, wanted);
        const set_t removed = {wanted[wanted.size() / 2], wanted.back()};
        for (const uint32_t id : removed)
            EXPECT_EQ(whatif_remove(0, id), 0);
        set_t gone = naive_gone(wanted, removed);
        EXPECT_EQ(whatif_analyze(0), static_cast<int>(gone.size() - removed.size()));
        for (uint32_t i = 0; i < branch.count; i++)
            EXPECT_EQ(whatif_gone(branch.events[i]), gone.contains(found[i])) << found[i];
        EXPECT_EQ(whatif_remove(0, fork), 0);
        whatif_impact_t impact;
        whatif_analyze_impact(0, &impact);
        gone = naive_gone(wanted, {fork, *removed.begin(), *removed.rbegin()});
        EXPECT_EQ(impact.eliminated,
                  gone.size() - removed.size() - (removed.contains(fork) ? 0 : 1));
        if (honest)
            check_depth(gone, impact);
        whatif_destroy(0);
    }
    static void check_depth(const set_t& gone, const whatif_impact_t& impact) {
        std::map<uint32_t, uint32_t> known;
        uint32_t deepest = 0;
        for (uint32_t i = 0; i < whatif_branches[0].count; i++)
            if (whatif_branches[0].events[i].status == WHATIF_AFFECTED)
                deepest = std::max(deepest,
                                   naive_depth(whatif_branches[0].events[i].orig_id, gone, known));
        EXPECT_EQ(impact.deepest_depth, deepest);
        EXPECT_EQ(impact.deepest_len, deepest == 0 ? 0 : std::min(deepest + 1, 8u));
        for (uint32_t i = 1; i < impact.deepest_len; i++)
            EXPECT_TRUE(effects[impact.deepest_chain[i]].contains(impact.deepest_chain[i - 1]));
    }
};

TEST_F(WhatIf, AgreesWithANaiveWalkOnRandomGraphs) {
    std::mt19937 random(1);
    for (const uint32_t reach : {1u, 3u, 10u, 60u}) {
        add_random(random, 300, reach, false);
        for (uint32_t back : {299u, 290u, 150u, 20u, 0u})
            compare(causal_total_events() - back, true);
    }
}

TEST_F(WhatIf, EndsOnCyclesOfLyingIdentifiers) {
    std::mt19937 random(2);
    add({3, 4, 5, 6}), add({2, 3, 4, 5}), add({2, 2, 2, 5}), add({5, 2}), add({5, 4, 3, 2});
    for (uint32_t fork = 1; fork <= 6; fork++)
        compare(fork, false);
    for (const uint32_t reach : {2u, 8u, 40u}) {
        add_random(random, 400, reach, true);
        for (uint32_t back : {399u, 380u, 200u, 3u})
            compare(causal_total_events() - back, false);
    }
}

TEST_F(WhatIf, CrossesTheEdgeOfAWrappedRingIntoTheArchive) {
    std::mt19937 random(3);
    add_random(random, 500, 4, false);
    keep_archive();
    const uint32_t old = 400;
    for (uint32_t i = 0; i < 19500; i++)
        add({i % 100 == 0 ? 400 + i / 300 : causal_total_events()});
    ASSERT_EQ(causal_get_ring(500), nullptr);
    compare(old, true);
    compare(causal_oldest_event_id(), true);
    EXPECT_EQ(whatif_branch(502, nullptr), -1);
}

TEST_F(WhatIf, AChainIsReportedToTheByte) {
    const uint32_t root = add({1}, "root", CAUSAL_NET, "net");
    const uint32_t mid = add({root}, "Pid :: 12x mid", CAUSAL_FS, "fs");
    uint32_t last = add({mid}, "pid=77 leaf, apid 3", CAUSAL_FS, "fs");
    EXPECT_EQ(whatif({"2"}),
              "whatif: branch 0 created from event 2 — 3 events copied\n"
              "whatif: event 2 marked removed in branch 0\n"
              "whatif: branch 0 analysis — \"drop analysis\"\n"
              "  fork point:  event 2\n"
              "  total shadow events: 3\n"
              "  removed:   1\n"
              "  injected:  0\n"
              "  affected:  2 (would not have happened)\n"
              "  unchanged: 0\n"
              "  affected events:\n"
              "    [3] fs: Pid :: 12x mid\n"
              "    [4] fs: pid=77 leaf, apid 3\n"
              "\nWhat-if: Remove event 2 (NET: root)\n"
              "  Would eliminate: 2 downstream events\n"
              "  Affected subsystems: fs(2)\n"
              "  Affected tasks: PID 12, PID 3\n"
              "  Deepest chain removed: depth 2 (2 -> 3 -> 4)\n"
              "  Verdict: LOW IMPACT — removing this event disrupts 2 services\n"
              "whatif: branch 0 destroyed\n");
    EXPECT_EQ(
        whatif({"summary", "3"}),
        "whatif: drop #3 (fs) -> 1 event eliminated, subsystems: fs(1), verdict: LOW IMPACT\n");
    EXPECT_EQ(whatif({"summary", "4"}),
              "whatif: drop #4 (fs) -> 0 events eliminated, verdict: NO IMPACT\n");
    EXPECT_EQ(whatif({"fix", "4"}).substr(0, 107),
              "whatif fix: fault #4 \"pid=77 leaf, apid 3\"\n"
              "  suspected root cause: #1 \"kernel boot started\" (blame 100.0%)\n");
    EXPECT_EQ(whatif({"fix", "1"}),
              "whatif fix: event 1 has no upstream cause (it is a root event)\n");
    for (uint32_t i = 0; i < 20; i++)
        last = add({last});
    const std::string ends = "depth 23 (" + std::to_string(last - 7) + " -> ";
    EXPECT_NE(whatif({"drop", "1"}).find(ends), std::string::npos);
}

TEST_F(WhatIf, VerdictsGoByTheNumberOfEvents) {
    for (const auto& [count, verdict] :
         std::map<uint32_t, whatif_verdict_t>{{5, WHATIF_LOW_IMPACT},
                                              {6, WHATIF_MEDIUM_IMPACT},
                                              {20, WHATIF_MEDIUM_IMPACT},
                                              {21, WHATIF_HIGH_IMPACT},
                                              {400, WHATIF_HIGH_IMPACT}}) {
        const uint32_t root = add({});
        for (uint32_t i = 0; i < count; i++)
            add({i < 15 ? root : causal_total_events()}, "PID " + std::to_string(i), CAUSAL_USER,
                ("s" + std::to_string(i)).c_str());
        const int slot = whatif_branch(root, nullptr);
        whatif_impact_t impact;
        EXPECT_EQ(whatif_analyze_impact(slot, &impact), 0);
        EXPECT_EQ(impact.verdict, WHATIF_NO_IMPACT);
        EXPECT_EQ(whatif_remove(slot, root), 0);
        whatif_analyze_impact(slot, &impact);
        EXPECT_EQ(impact.verdict, verdict) << count;
        EXPECT_EQ(impact.num_subsystems, std::min(count, 16u));
        EXPECT_EQ(impact.num_pids, std::min(count, 16u));
        EXPECT_EQ(impact.eliminated, std::min(count, 255u));
        whatif_destroy(slot);
    }
    EXPECT_STREQ(status_label(4), "?");
    EXPECT_STREQ(verdict_label(4), "UNKNOWN");
}

TEST_F(WhatIf, BranchesKeepWhatTheyWereAndRefuseWhatTheyMust) {
    const uint32_t root = add({1}, "root");
    const uint32_t leaf = add({root}, "leaf");
    EXPECT_EQ(whatif({"branch", "2", "", "more"}),
              "whatif: branch 0 created from event 2 — 2 events copied\n");
    for (int i = 1; i < 4; i++)
        EXPECT_EQ(whatif_branch(root, std::string(200, 'd').c_str()), i);
    EXPECT_EQ(whatif({"branch", "2"}), "whatif: all 4 branch slots full\n");
    EXPECT_EQ(whatif({"2"}), "whatif: all 4 branch slots full\n");
    EXPECT_EQ(whatif({"summary", "99"}), "whatif: event 99 not found\n");
    EXPECT_EQ(whatif({"branch", "-1"}), "whatif: event 4294967295 not found\n");
    EXPECT_EQ(whatif({"inject", "0", "42", "what", "never", "was"}),
              "whatif: injected hypothetical event into branch 0\n");
    EXPECT_EQ(whatif({"remove", "0", "0"}), "whatif: event 0 not in branch 0\n");
    EXPECT_EQ(whatif({"remove", "0", "2"}), "whatif: event 2 marked removed in branch 0\n");
    EXPECT_EQ(whatif_analyze(0), 1);
    add({leaf});
    EXPECT_EQ(whatif({"compare", "0"}),
              "whatif: branch 0 — \"unnamed branch\" (fork at event 2)\n"
              "  ID      STATUS      SUBSYSTEM   DESCRIPTION\n"
              "  ------  ----------  ----------  ----------------------------------------\n"
              "  2       REMOVED     test        root\n"
              "  3       AFFECTED    test        leaf\n"
              "  (new)   INJECTED    user        what never was\n");
    for (uint32_t i = 3; i < 256; i++)
        EXPECT_EQ(whatif_inject(0, 1, std::string(99, 's').c_str(), "again"), 0);
    EXPECT_EQ(whatif({"inject", "0", "1", "x"}), "whatif: branch 0 shadow buffer full\n");
    EXPECT_EQ(whatif_analyze(0), 1);
    for (const char* form : {"analyze", "impact", "compare", "destroy"})
        for (const char* slot : {"4", "-1", "77"})
            EXPECT_EQ(whatif({form, slot}),
                      "whatif: invalid branch " + std::to_string(atoi(slot)) + "\n");
    EXPECT_EQ(whatif({"destroy", "3"}), "whatif: branch 3 destroyed\n");
    EXPECT_EQ(whatif({"list"}).substr(0, 63),
              "  branch 0: fork@2, 256 events — \"unnamed branch\"\n  branch 1:");
}

TEST_F(WhatIf, SelfTestsPassOnSoundGroundAndFailWithoutIt) {
    for (const char* test : {"selftest", "opstest", "demos", "capdemo"})
        EXPECT_EQ(whatif({test}).find("FAIL"), std::string::npos) << screen;
    EXPECT_EQ(whatif({"demos"}).substr(screen.rfind("whatif demos")),
              "whatif demos: PASS passed=6 total=6\n");
    for (int i = 0; i < 4; i++)
        whatif_branch(1, nullptr);
    for (const char* test : {"selftest", "opstest", "demos", "live"})
        EXPECT_NE(whatif({test}).find("FAIL"), std::string::npos) << test;
    EXPECT_EQ(whatif({"selftests"}), "whatif: unknown subcommand 'selftests'\n");
}

}  // namespace
