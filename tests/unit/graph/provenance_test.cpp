#include "kernel/graph/provenance.h"

#include <algorithm>

#include "kernel/graph/tldiff.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

class Provenance : public causal_fixture {
protected:
    static inline prov_chain_t chain;

    static ids_t found(int depth_from, int depth_to) {
        ids_t ids;
        for (int i = 0; i < chain.count; ++i)
            if (chain.results[i].depth >= depth_from && chain.results[i].depth <= depth_to)
                ids.push_back(chain.results[i].event_id);
        return ids;
    }
    static std::string str(uint32_t n) { return std::to_string(n); }
};

TEST_F(Provenance, QueriesMatchTheirKindAndWalkBackAcrossSubsystems) {
    const uint32_t key = emit({}, "key pressed", CAUSAL_IO, "keyboard");
    const uint32_t cmd = emit({key}, "cmd: write /docs/a", CAUSAL_SHELL, "shell");
    const uint32_t old = emit({1}, "write /docs/a (1 bytes)", CAUSAL_FS, "vofs");
    emit({1}, "x /docs/a", CAUSAL_NET, "net");
    const uint32_t disk = emit({1}, "flush /docs/a", CAUSAL_IO, "blockfs");
    const uint32_t now = emit({old, cmd}, "write /docs/a (2 bytes)", CAUSAL_FS, "vofs");
    EXPECT_EQ(prov_query_file("/docs/a", &chain), 7);
    EXPECT_EQ(found(0, 0), (ids_t{now, disk, old, cmd}));
    EXPECT_EQ(found(1, 32), (ids_t{now, cmd, key}));

    const uint32_t sent = emit({now}, "send to=fs type=1", CAUSAL_ACTOR, "actor");
    const uint32_t made = emit({sent}, "pid=7 name=x pri=2", CAUSAL_SCHED, "sched");
    prov_query_actor("fs", &chain);
    EXPECT_EQ(found(0, 0), ids_t{sent});
    prov_query_task(7, &chain);
    EXPECT_EQ(found(0, 1), (ids_t{made, made}));
    EXPECT_EQ(prov_query_task(8, &chain), 0);
    prov_query_net("docs", &chain);
    EXPECT_EQ(found(1, 9).back(), 1u);
    EXPECT_EQ(prov_query_net("none", &chain), 0);
    EXPECT_GT(prov_query_net(nullptr, &chain), 1);
    EXPECT_EQ(prov_query_subsystem("vofs", &chain), 2);
    EXPECT_EQ(prov_query_pattern("/docs/a", &chain), 5);

    // A long way, and more matches than the answer holds.
    uint32_t last = now;
    for (int i = 0; i < 100; ++i)
        last = emit({last}, "hop", CAUSAL_NET, "net");
    EXPECT_EQ(prov_query_net("hop", &chain), 64);
    EXPECT_EQ(found(1, 99), ids_t{});
    EXPECT_EQ(prov_query_pattern("hop", &chain), 64);
    emit({last}, "unique", CAUSAL_NET, "net");
    EXPECT_EQ(prov_query_net("unique", &chain), 33);
}

TEST_F(Provenance, TheCommandPrintsAnswersAndWhatItNeeds) {
    causal_set_node_hash(0xA);
    const uint32_t far =
        causal_emit_remote(CAUSAL_NET, "net", "far", nullptr, 0, nullptr, 0, 0xBEEF);
    const uint32_t near = emit({far}, "near", CAUSAL_NET, "net");
    std::string rule;
    for (int i = 0; i < 40; ++i)
        rule += "─";
    EXPECT_EQ(run(cmd_prov, {"net", "near"}),
              "═══ provenance of net: near ═══\n  [" + str(near) + "] T+0  net  near\n  ← [" +
                  str(near) + "] T+0  net  near\n⊕ [remote]     ← [" + str(far) +
                  "] T+0  net  far\n" + rule + "\n1 operations, 3 total events in chain\n");
    EXPECT_EQ(run(cmd_prov, {"sub", "none"}), "No events found\n");
    EXPECT_EQ(run(cmd_prov, {"file"}), "prov file: need path\n");
    EXPECT_EQ(run(cmd_prov, {"sub"}), "prov sub: need subsystem name\n");
    EXPECT_EQ(run(cmd_prov, {"task", "x"}), "prov task: invalid pid 'x'\n");
    EXPECT_EQ(run(cmd_prov, {"frob"}), "prov: unknown subcommand 'frob'\n");
    EXPECT_EQ(run(cmd_prov).substr(0, 7), "Usage:\n");
}

class TimelineDiff : public causal_fixture {
protected:
    void SetUp() override {
        causal_fixture::SetUp();
        timeline_init();
    }
    static void emit_to(const char* name, const std::string& what, uint32_t len = 1) {
        const std::vector<uint8_t> data(len);
        ASSERT_NE(timeline_emit(timeline_find(name), TIMELINE_DATA, data.data(), len, what.c_str()),
                  0u);
    }
    static ids_t order(const char* name) {
        ids_t sources;
        timeline_replay(
            timeline_find(name),
            [](const causal_event_t* ev, void* ctx) {
                uint32_t type;
                const uint8_t* data;
                uint16_t len;
                if (timeline_parse_payload(ev, &type, &data, &len) && type == TIMELINE_DATA)
                    static_cast<ids_t*>(ctx)->push_back(data[0] + 256u * data[1]);
            },
            &sources);
        return sources;
    }
};

TEST_F(TimelineDiff, ComparesPositionByPosition) {
    timeline_create("old", "app");
    emit_to("old", "of another timeline in this slot");
    timeline_destroy(timeline_find("old"));
    timeline_create("a", "app");
    timeline_create("b", "app");
    emit_to("a", "one", 1000);
    emit_to("a", "two");
    emit_to("b", "three");
    tldiff_result_t result;
    ASSERT_EQ(tldiff_compare("a", "a", &result), 0);
    EXPECT_EQ(result.common_count, 3);
    ASSERT_EQ(tldiff_compare("a", "b", &result), 0);
    EXPECT_EQ(result.count, 3);
    EXPECT_EQ(result.diverged, 2);
    EXPECT_EQ(result.left_only, 1);
    EXPECT_EQ(tldiff_compare("a", "none", &result), -1);
    const std::string said = run(cmd_tldiff, {"b", "a"});
    EXPECT_NE(said.find("  Only in b: 0 events\n  Only in a: 1 events\n  Diverged: 2 positions\n"),
              std::string::npos);
    EXPECT_NE(said.find("\n    2                                  > #"), std::string::npos);
    EXPECT_EQ(run(cmd_tldiff, {"b", "none"}), "Diff failed (timeline 'b' or 'none' not found)\n");
    EXPECT_EQ(run(cmd_tldiff),
              "Available timelines:\n  a                        (app, 3 events)\n"
              "  b                        (app, 2 events)\n");
}

TEST_F(TimelineDiff, MergesByLamportTime) {
    EXPECT_EQ(run(cmd_tldiff), "No active timelines\n");
    timeline_create("a", "app");
    timeline_create("b", "app");
    for (int i = 0; i < 20; ++i)
        emit_to(i % 3 == 0 ? "a" : "b", "event");
    ids_t wanted;
    for (uint32_t id = 1; id <= causal_total_events(); ++id)
        if (std::string(causal_get(id)->subsystem) == "app")
            wanted.push_back(id);
    EXPECT_EQ(tldiff_merge("b", "a", "both"), 22);
    EXPECT_EQ(order("both"), wanted);
    EXPECT_EQ(tldiff_merge("a", "a", "twice"), 8);
    EXPECT_EQ(tldiff_merge("a", "b", "both"), -1);
    EXPECT_EQ(run(cmd_tldiff, {"merge", "a", "none", "x"}), "Merge failed (timeline not found?)\n");
    EXPECT_EQ(run(cmd_tldiff, {"merge", "a", "b"}),
              "Usage: tldiff merge <left> <right> <merged-name>\n");
}

}  // namespace
