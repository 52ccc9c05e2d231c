#include "kernel/graph/epattern.h"

#include "kernel/apps/cmd_whatif.h"
#include "tests/unit/graph/naive_graph.h"

namespace {

class Pattern : public naive_graph {
protected:
    void SetUp() override {
        naive_graph::SetUp();
        epattern_init();
    }
    static std::string pattern(std::vector<std::string> args) { return run(cmd_pattern, args); }

    static bool naive_step(uint32_t id, const epattern_step_t& step) {
        const causal_event_t* ev = causal_get(id);
        const int type = static_cast<int>(ev->type);
        const bool named =
            type == step.type_filter || (step.alt_type >= 0 && type == step.alt_type);
        const bool fits = step.type_filter < 0 || named != ((step.flags & 2) != 0);
        return fits &&
               (std::string(step.subsystem) == "*" || std::string(step.subsystem) == ev->subsystem);
    }
    static uint32_t naive_extend(const epattern_step_t& step, uint32_t current) {
        for (uint32_t id = current + 1; (step.flags & 1) != 0 && id <= causal_total_events();
             id++) {
            if (!naive_step(id, step) || !naive_descends(id, current, 8))
                break;
            current = id;
        }
        return current;
    }
    static ids_t naive_attempt(const epattern_t& p, uint32_t start) {
        if (!naive_step(start, p.steps[0]))
            return {};
        ids_t ids = {start};
        uint32_t current = naive_extend(p.steps[0], start);
        for (int i = 1; i < p.num_steps; i++) {
            uint32_t found = 0;
            for (uint32_t id = current + 1; id <= causal_total_events() && found == 0; id++) {
                const uint32_t gap = p.steps[i].max_gap;
                if (gap != 0 &&
                    causal_get(id)->time.wall_ticks > causal_get(current)->time.wall_ticks + gap)
                    return {};
                if (naive_step(id, p.steps[i]) && naive_descends(id, current, 8))
                    found = id;
            }
            if (found == 0)
                return {};
            ids.push_back(found);
            current = naive_extend(p.steps[i], found);
        }
        return ids;
    }
    static std::vector<ids_t> matches(const char* text) {
        epattern_t p;
        EXPECT_EQ(epattern_compile(text, &p), 0) << text;
        std::vector<epattern_match_t> out(600);
        std::vector<ids_t> found;
        for (int i = 0, n = epattern_match(&p, out.data(), 600); i < n; i++)
            found.emplace_back(
                out[static_cast<size_t>(i)].event_ids,
                out[static_cast<size_t>(i)].event_ids + out[static_cast<size_t>(i)].num_events);
        return found;
    }
};

constexpr const char* PATTERNS[] = {
    "sched sched+ net",    "*",       "net|io -> *+ mem within 3", "!sched !net+/b sched",
    "mem+ mem+ mem+ mem+", "*/a */b", "sched !* net within 9",     "user+/a|b user"};

TEST_F(Pattern, MatchesAsTheDefinitionSays) {
    std::mt19937 random(6);
    for (int round = 0; round < 6; round++) {
        for (int i = 0; i < 40; i++) {
            const uint32_t next = causal_get_next_id();
            ids_t causes;
            for (uint32_t n = random() % 3; n > 0; n--)
                causes.push_back(next - std::min(next - 1, 1 + random() % 4));
            constexpr causal_type_t TYPES[] = {CAUSAL_SCHED, CAUSAL_NET, CAUSAL_MEM, CAUSAL_USER};
            system_ticks = system_ticks + random() % 3;
            add(causes, "x", TYPES[random() % 4], random() % 2 == 0 ? "a" : "b");
        }
        for (const char* text : PATTERNS) {
            epattern_t p;
            ASSERT_EQ(epattern_compile(text, &p), 0);
            std::vector<ids_t> wanted;
            for (uint32_t start = 1; start <= causal_total_events(); start++)
                if (const ids_t ids = naive_attempt(p, start); !ids.empty())
                    wanted.push_back(ids);
            EXPECT_EQ(matches(text), wanted) << text;
        }
    }
}

TEST_F(Pattern, StartsAmongTheNewest512AndEndsOnTheWorstGraph) {
    for (uint32_t i = 0; i < 3000; i++) {
        const uint32_t next = causal_get_next_id();
        add({next - 1, next - 2, next - 3, next + 7, next}, "x", CAUSAL_SCHED);
    }
    EXPECT_EQ(matches("*").size(), 512u);
    EXPECT_EQ(matches("*").front(), ids_t{causal_total_events() - 511});
    EXPECT_EQ(matches("sched+ sched+ sched+ net").size(), 0u);
    EXPECT_EQ(matches("sched sched sched sched").size(), 509u);
}

TEST_F(Pattern, TextsThatCompileAndThoseThatDoNot) {
    epattern_t p;
    for (const char* text : {"", "   ", "->", "within 5", " -> within 5"})
        EXPECT_EQ(epattern_compile(text, &p), -1) << text;
    EXPECT_EQ(epattern_compile(nullptr, &p), -1);
    for (const char* text : {"|", "+/-|", "!", "\t", "net\tio", "a b c d e f within 3",
                             "net/averyveryverylongsubsystem", "averyveryverylongtypename+"})
        EXPECT_EQ(epattern_compile(text, &p), std::string(text) == "\t" ? -1 : 0) << text;
    const uint32_t a = add({1}, "1", CAUSAL_SCHED), b = add({a}, "2", CAUSAL_SCHED),
                   c = add({b}, "3", CAUSAL_SCHED), d = add({c}, "4", CAUSAL_NET);
    EXPECT_EQ(pattern({"match", "sched/test", "sched+", "net"}),
              "2 matches:\n  match: [2] sched/test [3] sched/test [5] net/test\n"
              "  match: [3] sched/test [4] sched/test [5] net/test\n");
    EXPECT_STREQ(causal_get(d + 1)->desc, "pattern match 'sched/test sched+ net': 2 results");
    EXPECT_EQ(pattern({"count", "net", "within", "50"}), "1 match\n");
    EXPECT_EQ(pattern({"match", "within", "5"}), "error: invalid pattern 'within 5'\n");
    EXPECT_EQ(pattern({"match", "fs"}), "no matches found\n");
    EXPECT_EQ(pattern({"count", "net", std::string(200, 'x')}), "1 match\n");
}

TEST_F(Pattern, WatchersCountEachSequenceOnceHoweverManyEventsPass) {
    EXPECT_EQ(pattern({"watchers"}), "no active watchers\n");
    const uint32_t early = add({1}, "before", CAUSAL_FS);
    EXPECT_EQ(pattern({"watch", "fs|io+", "->", "!mem/test", "within", "7"}),
              "watcher 0 installed\n");
    EXPECT_EQ(pattern({"watch", "*"}), "watcher 1 installed\n");
    add({early}, "completes it", CAUSAL_NET);
    epattern_check();
    epattern_check();
    for (int i = 0; i < 700; i++)
        add({add({1}, "a", CAUSAL_FS)}, "b", CAUSAL_NET);
    epattern_check();
    epattern_check();
    epattern_watcher_t watcher;
    ASSERT_TRUE(epattern_get_watcher(0, &watcher));
    EXPECT_EQ(watcher.match_count, 701u);
    ASSERT_TRUE(epattern_get_watcher(1, &watcher));
    // The task's own start, and what was added; nothing of what the watchers recorded.
    EXPECT_EQ(watcher.match_count, 1401u);
    uint32_t recorded = 0;
    for (uint32_t id = 1; id <= causal_total_events(); id++)
        recorded += std::string(causal_get(id)->desc).starts_with("watcher 0 matched");
    EXPECT_EQ(recorded, 1 + EPATTERN_RECORDED + 1);
    EXPECT_EQ(pattern({"watchers"}),
              "  watcher 0: fs|io+/* -> !mem/test [within 7]  (701 matches)\n"
              "  watcher 1: */*  (1401 matches)\n");
    EXPECT_EQ(pattern({"watch", "io"}), "watcher 2 installed\n");
    EXPECT_EQ(pattern({"watch", "io"}), "watcher 3 installed\n");
    EXPECT_EQ(pattern({"watch", "io"}), "error: max watchers reached (4)\n");
}

}  // namespace
