#include "kernel/apps/cmd_graph.h"

#include "tests/unit/graph/causal_fixture.h"

namespace {

std::string str(uint32_t n) { return std::to_string(n); }

class GraphCommands : public causal_fixture {
protected:
    static int count(const std::string& text, const std::string& what) {
        int found = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            found++;
        return found;
    }
    /// A chain of `n` events under `parent`; returns the last.
    static uint32_t chain(uint32_t parent, int n) {
        while (n-- > 0)
            parent = emit({parent});
        return parent;
    }
};

TEST_F(GraphCommands, EventsByCountAndType) {
    for (uint32_t i = 0; i < 100; i++)
        emit({}, str(i).c_str(), i % 2 == 0 ? CAUSAL_IO : CAUSAL_NET);
    EXPECT_EQ(count(run(cmd_events), "\n"), 20);
    EXPECT_EQ(count(run(cmd_events, {"1000"}), "\n"), 64);
    EXPECT_EQ(run(cmd_events, {"2"}), "[100] T+0 io test: 98\n[101] T+0 net test: 99\n");
    const std::string io = run(cmd_events, {"io"});
    EXPECT_EQ(count(io, " io test: "), 20);
    EXPECT_TRUE(io.starts_with("[62] ") && io.ends_with("\n[100] T+0 io test: 98\n"));
    EXPECT_EQ(run(cmd_events, {"fs_op"}), "No fs_op events\n");
    for (const std::string bad : {"0", "-3", "foo", "fs", "", "99999999999"})
        EXPECT_EQ(run(cmd_events, {bad}),
                  "events: unknown type '" + bad +
                      "'\n"
                      "  types: sched mem fs_op net syscall shell actor mesh user\n");
}

TEST_F(GraphCommands, GraphDrawsCountsAndCauses) {
    emit({1, 777}, "two causes", CAUSAL_NET, "tcp");
    EXPECT_EQ(run(cmd_graph),
              "Causal Graph: 2 events (ring: 2/16384)\n  sched: 1  net: 1\n"
              "Recent causal DAG (oldest to newest):\n"
              "[1] sched/boot: kernel boot started\n  +-- root\n[2] net/tcp: two causes\n"
              "  +-- caused by [1] boot: kernel boot started\n  +-- caused by [777] (evicted)\n");
    for (int i = 0; i < 40; i++)
        emit();
    EXPECT_EQ(count(run(cmd_graph, {"0"}), "+-- root"), 12);
    EXPECT_EQ(count(run(cmd_graph, {"99"}), "+-- root"), 24);
}

TEST_F(GraphCommands, BadIdentifiersGetTheirLine) {
    using case_t = std::tuple<void (*)(int, char**), std::vector<std::string>, std::string>;
    const case_t cases[] = {
        {cmd_effects, {}, "Usage: effects <event_id>\n"},
        {cmd_effects, {"x"}, "effects: invalid event id 'x'\n"},
        {cmd_blast, {"-1"}, "blast: invalid event id '-1'\n"},
        {cmd_trace, {"0"}, "trace: invalid event id '0'\n"},
        {cmd_trace, {"4294967295"}, "trace: event 4294967295 not found\n"},
        {cmd_why, {}, "Usage: why <event_id>\n"},
        {cmd_why, {"0"}, "why: invalid event id '0'\n"},
        {cmd_why, {"last"}, "why: invalid event id 'last'\n"},
        {cmd_why, {"9999"}, "Causal chain for event 9999:\n  Event 9999 not found\n"},
        {cmd_why, {"-r"}, "usage: why -r <event-id|last>\n"},
        {cmd_why, {"-r", "x"}, "why -r: invalid event id 'x'\n"},
        {cmd_why, {"remote_parent"}, "why remote_parent: no remote parent chain recorded\n"},
        {cmd_autopsy, {}, "Usage: autopsy <event-id|last>\n"},
        {cmd_autopsy, {"first"}, "autopsy: invalid event id 'first'\n"},
        {cmd_cpath, {"1"}, "Usage: cpath <ancestor-id> <descendant-id> | cpath common <a> <b>\n"},
        {cmd_cpath, {"common", "1", "y"}, "cpath: invalid event id\n"},
        {cmd_cdot, {}, "Usage: cdot <event-id|last> [effects] [max-nodes]\n"},
        {cmd_cdot, {"x"}, "cdot: invalid event id\n"},
    };
    for (const auto& [command, args, wanted] : cases)
        EXPECT_EQ(run(command, args), wanted);
}

TEST_F(GraphCommands, EffectsAreDirectAndBlastGoesFourLevelsByAllRoutes) {
    emit({}, "root");
    emit({2});
    emit({2});
    chain(emit({3, 4}), 3);
    EXPECT_EQ(run(cmd_effects, {"+2"}),
              "Event 2: [test] root\nEffects (direct):\n"
              "  → [3] T+0 test: thing (+1 more)\n  → [4] T+0 test: thing (+1 more)\n");
    EXPECT_EQ(run(cmd_blast, {"2"}),
              "Impact analysis for [2] test: root\n\n"
              "  → [3] T+0 test: thing\n  → [4] T+0 test: thing\n"
              "    → [5] T+0 test: thing\n    → [5] T+0 test: thing\n"
              "      → [6] T+0 test: thing\n      → [6] T+0 test: thing\n"
              "        → [7] T+0 test: thing\n        → [7] T+0 test: thing\n"
              "\n8 downstream events affected\n");
    EXPECT_TRUE(run(cmd_blast, {"8"}).ends_with("\n\n\n0 downstream events affected\n"));
}

TEST_F(GraphCommands, WideConesAreTruncated) {
    for (uint32_t i = 0; i < 40; i++) {
        const uint32_t child = emit({1}, "child", CAUSAL_USER, ("tag" + str(i)).c_str());
        for (int k = 0; k < 20; k++)
            emit({child});
    }
    const std::string blast = run(cmd_blast, {"1"});
    EXPECT_EQ(count(blast, "→"), 120);
    EXPECT_TRUE(blast.ends_with("\n120 downstream events affected (truncated)\n"));
    const std::string autopsy = run(cmd_autopsy, {"1"});
    EXPECT_TRUE(
        autopsy.ends_with("tag30. Upstream 0 events, downstream 127 events "
                          "(truncated: yes).\n"));
    EXPECT_NE(autopsy.find("\n  Touched subsystems: boot, tag0, tag1, "), std::string::npos);
    EXPECT_EQ(count(run(cmd_cdot, {"1", "effects", "600"}), "label="), 1 + 16 + 16 * 16);
    EXPECT_EQ(count(run(cmd_cdot, {"1", "effects", "5"}), " -> "), 4);
}

TEST_F(GraphCommands, TraceFollowsFourOfALevelAndSixteenLevels) {
    for (int i = 0; i < 4; i++)
        emit({emit({}, "upper"), 1}, "top");
    const uint32_t tip = emit({3, 5, 7, 9}, "tip");
    const std::string text = run(cmd_trace, {str(tip)});
    EXPECT_TRUE(
        text.starts_with("[10] T+0 user test: tip [←3] (parents: 3 5 7 9)\n"
                         "  [3] T+0 user test: top [→1] [←2] (parents: 2 1)\n"));
    EXPECT_EQ(count(text, "\n  ["), 4);
    EXPECT_EQ(count(text, "\n    ["), 4);
    EXPECT_EQ(count(run(cmd_trace, {str(chain(tip, 30))}), "\n"), 17);
}

TEST_F(GraphCommands, AutopsyTellsCausesEffectsAndSubsystems) {
    emit({}, "key", CAUSAL_IO, "keyboard");
    emit({2, 1}, "unblock", CAUSAL_SCHED, "sched");
    emit({3}, "cmd: ls", CAUSAL_SHELL, "shell");
    emit({4}, "a", CAUSAL_FS, "fs");
    emit({4, 5}, "b", CAUSAL_FS, "");
    EXPECT_EQ(run(cmd_autopsy, {"4"}),
              "Autopsy for #4 [shell]: cmd: ls\nCause chain (what led here):\n"
              "  [1] T+0 sched boot: kernel boot started [→1]\n"
              "  [2] T+0 io keyboard: key [→1]\n"
              "  [3] T+0 sched sched: unblock [→1] [←2] (parents: 2 1)\n"
              "Effect cone (what this caused):\n"
              "  [5] T+0 fs_op fs: a [→1] [←4]\n  [6] T+0 fs_op : b [←4] (parents: 4 5)\n"
              "Summary:\n  Touched subsystems: shell, boot, keyboard, sched, fs. "
              "Upstream 3 events, downstream 2 events (truncated: no).\n");
    EXPECT_TRUE(run(cmd_autopsy, {"last"}).starts_with("Autopsy for #6 []: b\n"));
    const std::string deep = run(cmd_autopsy, {str(chain(1, 17))});
    EXPECT_NE(deep.find("\n  (no downstream effects)\n"), std::string::npos);
    EXPECT_TRUE(deep.ends_with("Upstream 16 events, downstream 0 events (truncated: yes).\n"));
}

TEST_F(GraphCommands, CpathFindsShortestPathsAndNearestCommonAncestors) {
    emit({}, "root");
    emit({2}, "left");
    emit({2}, "right");
    emit({3, 4, 2}, "x");
    emit({4, 3}, "y");
    EXPECT_EQ(run(cmd_cpath, {"2", "6"}),
              "Causal path #2 -> #6:\n  [2] T+0 test: root\n  [4] T+0 test: right\n"
              "  [6] T+0 test: y\ncpath: 2 hops\n");
    EXPECT_EQ(run(cmd_cpath, {"5", "5"}), "cpath: same event #5\n");
    EXPECT_EQ(run(cmd_cpath, {"5", "6"}),
              "cpath: no causal path from #5 to #6 (searched 4 events)\n");
    EXPECT_EQ(run(cmd_cpath, {"common", "5", "6"}),
              "Nearest common ancestor of #5 and #6: #3\n  [3] T+0 test: left\n"
              "cpath: dist 1 from #5, 1 from #6\n");
    EXPECT_TRUE(run(cmd_cpath, {"common", "2", "3"}).ends_with("dist 0 from #2, 1 from #3\n"));
    EXPECT_EQ(run(cmd_cpath, {"common", "1", "5"}), "cpath: no common ancestor of #1 and #5\n");
    const std::string self = run(cmd_cpath, {"selftest"});
    EXPECT_TRUE(
        self.starts_with("cpath selftest: a=#7 b=#8 c=#9 d=#10\n"
                         "Causal path #7 -> #9:\n"));
    EXPECT_TRUE(
        self.ends_with("Nearest common ancestor of #9 and #10: #7\n"
                       "  [7] T+0 cpath: selftest root\n"
                       "cpath: dist 2 from #9, 1 from #10\ncpath selftest: PASS\n"));
    const std::string tip = str(chain(1, 600));
    EXPECT_TRUE(run(cmd_cpath, {"1", tip}).ends_with(" (searched 512 events)\n"));
}

TEST_F(GraphCommands, CdotExportsCausesAndEffects) {
    emit({777, 0}, "say \"hi\\\"\n");
    emit({2, 1}, "b");
    EXPECT_EQ(run(cmd_cdot, {"last"}),
              "digraph causal {\n  rankdir=LR;\n  \"3\" [label=\"#3\\ntest\\nb\"];\n"
              "  \"2\" [label=\"#2\\ntest\\nsay \\\"hi\\\\\\\"\"];\n"
              "  \"1\" [label=\"#1\\nboot\\nkernel boot started\"];\n"
              "  \"777\" [label=\"#777\\n(evicted)\"];\n"
              "  \"2\" -> \"3\";\n  \"1\" -> \"3\";\n  \"777\" -> \"2\";\n}\n");
    const std::string self = run(cmd_cdot, {"selftest"});
    EXPECT_TRUE(self.starts_with("cdot selftest: root #4\ndigraph"));
    EXPECT_TRUE(self.ends_with("  \"4\" -> \"5\";\n  \"4\" -> \"6\";\n}\n"));
    const std::string tip = str(chain(1, 600));
    EXPECT_EQ(count(run(cmd_cdot, {tip, "600"}), "label="), 512);
    for (const char* none : {"0", "-5", "x"})
        EXPECT_EQ(count(run(cmd_cdot, {tip, none}), "label="), 32);
    char out[6];
    cdot_escape("a\t\"bc", out, sizeof out);
    EXPECT_STREQ(out, "a\\\"b");
}

TEST_F(GraphCommands, OrphansListsTheNewestFive) {
    const uint32_t last = chain(1, 3);
    EXPECT_EQ(run(cmd_orphans),
              "Causal orphans: 1 / 4 events (25%)\n\nRecent orphans:\n"
              "  [1] T+0 boot: kernel boot started\n");
    for (int i = 0; i < 7; i++)
        emit();
    emit({last});
    const std::string text = run(cmd_orphans);
    EXPECT_TRUE(
        text.starts_with("Causal orphans: 8 / 12 events (66%)\n\nRecent orphans:\n"
                         "  [11] T+0 test: thing\n"));
    EXPECT_EQ(count(text, "\n  ["), 5);
    chain(1, CAUSAL_RING_SLOTS);
    EXPECT_EQ(run(cmd_orphans), "Causal orphans: 0 / 16384 events (0%)\n");
}

TEST_F(GraphCommands, GraphHealthRatesConnectivity) {
    // Depths of events 1, 11, ... 91: three orphans, 6, 16, 26 steps to event 25, 32 at most.
    while (causal_total_events() < 25)
        emit();
    chain(25, 74);
    system_ticks = 100;
    causal_update_rate();
    emit({25, 24});
    system_ticks = 199;
    causal_update_rate();
    EXPECT_EQ(run(cmd_graph_health),
              "Causal Graph Health:\n  Events:       100 in ring buffer\n"
              "  Rate:         99 events/sec\n  Orphans:      25 (25%)\n  Multi-parent: 1\n"
              "  Max depth:    32\n  Avg depth:    17.6\n  Connectivity: 75% (good)\n");
    causal_init();
    EXPECT_TRUE(run(cmd_graph_health).ends_with("  Connectivity: 0% (poor)\n"));
    chain(1, 4);
    EXPECT_TRUE(run(cmd_graph_health).ends_with("  Connectivity: 80% (excellent)\n"));
}

TEST_F(GraphCommands, WhyFollowsTheCauseFromAnotherSubsystem) {
    const uint32_t net = emit({777}, "packet", CAUSAL_NET, "net");
    const uint32_t sched = emit({1}, "ready", CAUSAL_SCHED, "sched");
    const uint32_t both = emit({sched, net}, "switch", CAUSAL_SCHED, "sched");
    const uint32_t last = emit({both}, "run", CAUSAL_SCHED, "sched");
    EXPECT_EQ(run(cmd_why, {str(last)}), "Causal chain for event " + str(last) + ":\n├─ [" +
                                             str(last) + "] T+0 sched: run\n  ├─ [" + str(both) +
                                             "] T+0 sched: switch\n    ╰→ [" + str(net) +
                                             "] T+0 net: packet\n  (root cause)\n");

    const std::string hops = run(cmd_why, {str(chain(last, 20))});
    EXPECT_EQ(count(hops, "├─ "), 16);
    EXPECT_TRUE(hops.ends_with("  ... (max depth reached)\n"));
    EXPECT_TRUE(run(cmd_why, {str(chain(emit(), 15))}).ends_with("  (root cause)\n"));

    causal_set_node_hash(0xA);
    const uint32_t alien =
        causal_emit_remote(CAUSAL_MESH, "mesh", "far", nullptr, 0, nullptr, 0, 0xBEEF);
    emit({alien}, "near");
    EXPECT_EQ(run(cmd_why, {"-r", "last"}),
              "Causal chain for event " + str(alien + 1) +
                  " (with origin nodes):\n  local node: 0000000a\n  [" + str(alien + 1) +
                  "] T+0 test: near   origin=local\n  [" + str(alien) +
                  "] T+0 mesh: far   origin=node:0000beef\n      ^-- remote boundary (event "
                  "imported from another node)\n  (root cause)\nnote: federation imports events "
                  "individually, so remote ancestors beyond an imported event may not be present "
                  "locally.\n");
    EXPECT_EQ(count(run(cmd_why, {"-r", str(both)}), "all displayed hops"), 1);
}

}  // namespace
