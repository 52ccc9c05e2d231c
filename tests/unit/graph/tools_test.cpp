// The small tools over the graph: event sets, flow profile, debugger, bisection.
#include <algorithm>
#include <map>

#include "kernel/graph/cbisect.h"
#include "kernel/graph/cdb.h"
#include "kernel/graph/cprof.h"
#include "kernel/graph/eset.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

class Tools : public causal_fixture {
protected:
    static ids_t ids(const eset_t& set) { return ids_t(set.ids, set.ids + set.count); }
    static std::string str(uint32_t n) { return std::to_string(n); }
    static bool has(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }
    /// Turns the ring over: 20,000 events of mixed types, subsystems and causes.
    static void fill() {
        const char* subsystems[] = {"net", "tcp", "fs"};
        for (uint32_t i = 0; i < 20000; ++i) {
            system_ticks = i / 7;
            const uint32_t next = causal_get_next_id();
            emit({next - 1 - i % 5, next - 1 - i % 11, i % 3 == 0 ? next + 5 : 1},
                 i % 100 == 0 ? "round" : "thing", static_cast<causal_type_t>(i * 7 % 10),
                 subsystems[i % 3]);
        }
    }
};

TEST_F(Tools, SetsHoldTheNewestAndKeepTheirOrder) {
    fill();
    const uint32_t newest = causal_total_events();
    ids_t wanted;
    for (uint32_t id = newest; wanted.size() < 128; --id)
        if (std::string(causal_get(id)->subsystem) == "tcp")
            wanted.push_back(id);
    eset_t a, b, c;
    eset_by_subsystem("tcp", &a);
    EXPECT_EQ(ids(a), wanted);
    eset_by_subsystem("nothing", &b);
    EXPECT_EQ(b.count, 0);
    eset_by_range(1, newest, &b);
    EXPECT_EQ(b.ids[0], causal_oldest_event_id());
    EXPECT_EQ(b.ids[127], causal_oldest_event_id() + 127);
    eset_by_range(newest - 2, newest, &b);
    EXPECT_EQ(ids(b), (ids_t{newest - 2, newest - 1, newest}));
    eset_by_range(10, 5, &b);
    EXPECT_EQ(b.count, 0);

    a = {{5, 3, 9, 3}, 4};
    b = {{9, 7, 5}, 3};
    eset_union(&a, &b, &c);
    EXPECT_EQ(ids(c), (ids_t{5, 3, 9, 3, 7}));
    eset_intersect(&a, &b, &c);
    EXPECT_EQ(ids(c), (ids_t{5, 9}));
    eset_diff(&a, &b, &c);
    EXPECT_EQ(ids(c), (ids_t{3, 3}));
    for (uint32_t i = 0; i < 200; ++i)
        eset_add(&c, i);
    EXPECT_EQ(eset_count(&c), ESET_MAX);
}

TEST_F(Tools, TheSetCommandsPrintWhatTheyFind) {
    emit({}, "ls /", CAUSAL_SHELL, "shell");
    emit({}, "cat", CAUSAL_SHELL, "shell");
    EXPECT_EQ(run(cmd_eset, {"filter", "shell", "ls"}),
              "  #2    [shell ] shell            ls /\n  --- 1 event(s) ---\n");
    EXPECT_EQ(run(cmd_eset, {"union", "shell", "shell"}), run(cmd_eset, {"type", "shell"}));
    EXPECT_EQ(run(cmd_eset, {"intersect", "sched", "shell"}), "  (empty set)\n");
    EXPECT_EQ(run(cmd_eset, {"range", "-5", "10"}), "  (empty set)\n");
    EXPECT_EQ(run(cmd_eset, {"count", "shell"}), "2 event(s)\n");
    EXPECT_EQ(run(cmd_eset, {"diff", "no", "nor"}), "unknown type: no\n");
    EXPECT_EQ(run(cmd_eset, {"range", "1"}), "usage: eset range <start> <end>\n");
    EXPECT_EQ(run(cmd_eset, {"frob"}), "unknown subcommand: frob\n");
    EXPECT_EQ(run(cmd_eset).substr(0, 37), "usage: eset <subcommand> [args]\n  typ");
}

TEST_F(Tools, TheProfileCountsWhatANaiveCountFinds) {
    fill();
    struct figures_t {
        uint64_t edges = 0, span = 0, longest = 0;
    };
    std::map<std::pair<uint32_t, uint32_t>, figures_t> pairs;
    uint64_t edges = 0, crossings = 0, span = 0;
    for (uint32_t id = causal_total_events() - 3000 + 1; id <= causal_total_events(); ++id) {
        for (const uint32_t parent : parents(id)) {
            const causal_event_t* cause = causal_get(parent);
            const causal_event_t* effect = causal_get(id);
            if (cause == nullptr || cause->time.wall_ticks > effect->time.wall_ticks)
                continue;
            const uint64_t gap = effect->time.wall_ticks - cause->time.wall_ticks;
            figures_t& f = pairs[{cause->type, effect->type}];
            f = {f.edges + 1, f.span + gap, std::max(f.longest, gap)};
            ++edges;
            crossings += cause->type != effect->type;
            span += gap;
        }
    }
    const std::string said = run(cmd_cprof, {"3000"});
    EXPECT_TRUE(said.starts_with("CAUSAL FLOW PROFILE (last 3000 events, " + std::to_string(edges) +
                                 " causal edges)\n"));
    EXPECT_TRUE(has(said, "Summary: " + std::to_string(edges) + " edges, " +
                              std::to_string(crossings) + " cross-subsystem crossings, " +
                              std::to_string(span) + " total span ticks; dominant "));
    const auto best = std::max_element(pairs.begin(), pairs.end(), [](auto& a, auto& b) {
        return std::pair(a.second.edges, a.second.span) < std::pair(b.second.edges, b.second.span);
    });
    const auto& [types, f] = *best;
    EXPECT_TRUE(has(said, std::string("volume):\n  ") + causal_type_name(types.first) + " -> " +
                              causal_type_name(types.second) +
                              (types.first != types.second ? " *" : "") + "  edges " +
                              std::to_string(f.edges) + "  span " + std::to_string(f.span) +
                              "t (avg " + std::to_string(f.span / f.edges) + "t, max " +
                              std::to_string(f.longest) + "t)\n"))
        << said;
    EXPECT_TRUE(run(cmd_cprof, {"100000"}).starts_with("CAUSAL FLOW PROFILE (last 8192 events"));
    EXPECT_TRUE(run(cmd_cprof, {"x"}).starts_with("CAUSAL FLOW PROFILE (last 2048 events"));
    emit({1});
    EXPECT_EQ(run(cmd_cprof, {"0"}),
              "CAUSAL FLOW PROFILE (last 1 events, 0 causal edges)\ncprof: no causal edges in the "
              "last 1 events\n");
}

TEST_F(Tools, TheDebuggerStopsStepsAndGoesUp) {
    const uint32_t key = emit({}, "key", CAUSAL_IO, "keyboard");
    const uint32_t cmd = emit({key}, "cmd: ls", CAUSAL_SHELL, "shell");
    const uint32_t second = emit({}, "key", CAUSAL_IO, "keyboard");
    const auto cdb = [](std::vector<std::string> args) { return run(cmd_cdb, args); };
    const std::string key_line = "#" + str(key) + " [io] keyboard: key (tick 0)\n";
    cdb({"reset"});
    for (const char* word : {"p", "bt", "s", "up"})
        EXPECT_EQ(cdb({word}), "cdb: no current event (run first)\n");
    EXPECT_EQ(cdb({"run"}),
              "Breakpoint hit at event #1\n#1 [sched] boot: kernel boot started (tick 0)\n");
    EXPECT_EQ(cdb({"up"}), "cdb: no cause (root event)\n");
    EXPECT_EQ(cdb({"break", "type", "io"}), "cdb: breakpoint set (type=io)\n");
    EXPECT_EQ(cdb({"run"}), "Breakpoint hit at event #" + str(key) + "\n" + key_line);
    EXPECT_EQ(cdb({"p"}), key_line + "  causes: 0  effects: 1  lamport: 2\n  parents: (none)\n");
    EXPECT_EQ(cdb({"s"}), "stepped to effect #" + str(cmd) + "\n#" + str(cmd) +
                              " [shell] shell: cmd: ls (tick 0)\n");
    EXPECT_EQ(cdb({"s"}), "cdb: no downstream effect from #" + str(cmd) + "\n");
    EXPECT_EQ(cdb({"backtrace"}), "cause chain for #" + str(cmd) + ":\n  #0  " + key_line);
    EXPECT_EQ(cdb({"up"}), "moved up to cause #" + str(key) + "\n" + key_line);
    EXPECT_EQ(cdb({"c"}).substr(0, 25), "Breakpoint hit at event #");
    EXPECT_EQ(cdb({"status"}), "breakpoint: type=io text=any\ncursor: #" + str(second) + "\n");
    EXPECT_EQ(cdb({"continue"}), "cdb: no more matches\n");
    EXPECT_EQ(cdb({"break", "text", "cmd:"}), "cdb: breakpoint set (text=cmd:)\n");
    EXPECT_EQ(cdb({"run"}), "cdb: no event matches breakpoint\n");
    EXPECT_EQ(cdb({"break", "clear"}), "cdb: breakpoint cleared\n");
    EXPECT_EQ(cdb({"break", "type", "foo"}),
              "cdb: unknown type foo\ncdb: valid types: sched mem fs net syscall shell actor mesh "
              "io user\n");
    EXPECT_EQ(cdb({"break"}), "usage: cdb break type <name> | text <substr> | clear\n");
    fill();
    EXPECT_EQ(cdb({"p"}), "cdb: event #" + str(second) + " no longer in ring\n");
    EXPECT_TRUE(has(cdb({"c"}), "#" + str(causal_oldest_event_id()) + "\n"));
    EXPECT_EQ(cdb({"frob"}).substr(0, 21), "usage: cdb <command>\n");
    EXPECT_EQ(cdb({"reset"}), "cdb: reset\n");
}

TEST_F(Tools, BisectionFindsTheFirstTick) {
    fill();
    const uint32_t oldest = causal_oldest_event_id();
    const auto tick = [oldest](uint32_t n) { return causal_get(oldest + n - 1)->time.wall_ticks; };
    for (const uint32_t n : {1u, 2u, 500u, 16384u}) {
        const std::string said = run(cmd_cbisect, {"events", str(n)});
        EXPECT_TRUE(has(said, "FOUND: tick " + str(tick(n)) + " (events=")) << said;
        EXPECT_TRUE(has(said, "  probe tick " + str(system_ticks / 2) + " -> events="));
        EXPECT_TRUE(has(said, "  Next: replay at " + str(tick(n)) + "   ("));
    }
    EXPECT_EQ(
        run(cmd_cbisect, {"events", "16385"}),
        "cbisect: events never reached 16385 (max 16384 at tick " + str(system_ticks) + ")\n");
    EXPECT_EQ(run(cmd_cbisect, {"events", "0"}), "cbisect: threshold must be >= 1\n");
    for (const char* bad : {"-5", "x", "99999999999"})
        EXPECT_EQ(run(cmd_cbisect, {"events", bad}), "cbisect: invalid threshold\n");
    EXPECT_EQ(run(cmd_cbisect, {"bogus", "3"}).substr(0, 36),
              "Usage: cbisect <metric> <threshold>\n");
}

}  // namespace
