#include <algorithm>
#include <numeric>

#include "tests/unit/graph/journal.h"

namespace {

using records_t = std::vector<cjournal_event_t>;

class JournalChecks : public JournalVolume {
protected:
    void SetUp() override {
        JournalVolume::SetUp();
        boot();
    }
    static void spill(uint32_t events) {
        wait_for(events);
        EXPECT_EQ(cjournal_spill(static_cast<int>(events)), static_cast<int>(events));
    }
    /// What the check of the whole journal prints with `byte` of a file changed by `by`.
    static std::string verified_with(const std::string& path, size_t byte, uint8_t by) {
        const bytes_t sound = read(path.c_str());
        bytes_t damaged = sound;
        damaged.at(byte) = static_cast<uint8_t>(damaged[byte] ^ by);
        write(path.c_str(), damaged);
        machine_texts().clear();
        EXPECT_EQ(cjournal_verify(), -1) << path << " " << byte;
        write(path.c_str(), sound);
        return machine_texts();
    }
    static bool says(const std::string& text, const std::string& what) {
        return text.find("[cjournal] verify: " + what + "\n") != std::string::npos;
    }
    static records_t all_records() {
        records_t all;
        for (const segment_t& s : segments())
            all.insert(all.end(), s.records.begin(), s.records.end());
        return all;
    }
};

TEST_F(JournalChecks, EveryKindOfDamageHasItsLine) {
    spill(20);
    spill(20);
    spill(20);
    machine_texts().clear();
    ASSERT_EQ(cjournal_verify(), 0);
    EXPECT_TRUE(says(machine_texts(), "chain ok (2 links)"));
    EXPECT_TRUE(says(machine_texts(), "epoch root ok (3 segments)"));
    EXPECT_TRUE(says(machine_texts(), "ok (3 segments, 60 events)"));

    const std::string two = path(2);
    const size_t record = 44 + 3 * 175;
    const struct {
        size_t byte;
        uint8_t by;
        std::string line;
    } cases[] = {
        {0, 1, "bad header in " + two},
        {8, 1, "size mismatch in " + two},
        {9, 4, "bad event count 1044 in " + two},
        {12, 1, "first id mismatch in " + two},
        {16, 1, "last id mismatch in " + two},
        {record, 0x80, "non-monotonic id at 4 in " + two},
        {record + 133, 8, "bad parent count at event 3 in " + two},
        {record + 20, 0x80, "bad type 130 at event 3 in " + two},
        {record + 15, 1, "lamport out of range at event 3 in " + two},
        {record + 40, 1, "bad footer in " + two},
        {44 + 20 * 175 + 40, 1, "bad previous checksum in " + two},
    };
    for (const auto& c : cases) {
        const std::string text = verified_with(two, c.byte, c.by);
        EXPECT_TRUE(says(text, c.line)) << c.line << "\n" << text;
        EXPECT_TRUE(says(text, "segment 2 FAILED"));
    }
    EXPECT_TRUE(says(verified_with(two, record + 19, 1),
                     "tick 16777216 out of range at event 3 in " + two));
    EXPECT_TRUE(
        says(verified_with(path(1), 44 + 20 * 175 + 40, 1), "bad previous checksum in " + path(1)));
    const std::string sidecar = path(2, cjournal_file_t::sidecar);
    EXPECT_TRUE(says(verified_with(sidecar, 24 + 32 * 7, 1), "segment 2 stored hash mismatch"));
    EXPECT_TRUE(says(verified_with(path(3, cjournal_file_t::root), 30, 1),
                     "segment 3 epoch root mismatch"));
    EXPECT_TRUE(
        says(verified_with(CJOURNAL_INDEX_PATH, 0, 1), "missing or invalid /causal/index.jix"));
    EXPECT_TRUE(
        says(verified_with(CJOURNAL_INDEX_PATH, 12, 1), "index file does not match memory"));
    EXPECT_TRUE(
        says(verified_with(CJOURNAL_INDEX_PATH, 24 + 80 + 40, 1), "index entry 1 mismatch"));
    EXPECT_EQ(cjournal_verify(), 0);
}

TEST_F(JournalChecks, WhatIsGoneIsMissingAndNotCorrupt) {
    spill(5);
    spill(5);
    spill(5);
    EXPECT_EQ(blockfs_remove(path(2, cjournal_file_t::sidecar).c_str()), 0);
    EXPECT_EQ(blockfs_remove(path(2, cjournal_file_t::root).c_str()), 0);
    EXPECT_EQ(cjournal_verify(), 0);
    cjournal_seg_verdict_t verdict;
    cjournal_verify_segment_verdict(2, &verdict);
    EXPECT_TRUE(verdict.ok && verdict.chain && verdict.hash_status == 0 &&
                verdict.root_status == 0);
    cjournal_verify_segment_verdict(7, &verdict);
    EXPECT_TRUE(!verdict.ok && !verdict.indexed && verdict.root_status == -1);
    cjournal_retry_probe_t probe;
    EXPECT_TRUE(cjournal_read_retry_probe(3, &probe));
    EXPECT_FALSE(cjournal_read_retry_probe(2, &probe));
    EXPECT_TRUE(probe.header_ok && probe.footer_ok && probe.index_ok && !probe.root_ok);
    EXPECT_EQ(blockfs_remove(path(2).c_str()), 0);
    machine_texts().clear();
    EXPECT_EQ(cjournal_verify(), -1);
    EXPECT_TRUE(says(machine_texts(), "missing " + path(2)));
    EXPECT_FALSE(says(machine_texts(), "segment 3 FAILED")) << "its link is only unchecked";
}

TEST_F(JournalChecks, ProofsLeadToTheStoredRoot) {
    spill(5);
    spill(1);
    const segment_t one = segment(1);
    const bytes_t root_file = read(path(1, cjournal_file_t::root).c_str());
    for (uint32_t leaf = 0; leaf < 5; leaf++) {
        cjournal_epoch_proof_t proof;
        cjournal_hash_t siblings[CJOURNAL_PROOF_DEPTH], hash;
        const std::string id = std::to_string(uint32_t{one.records[leaf].id});
        ASSERT_EQ(cjournal_segment_proof(1, id.c_str(), &proof, siblings), 0);
        EXPECT_TRUE(proof.ok && proof.leaf_index == leaf && proof.depth == 3);
        cjournal_record_hash(4, one.records[leaf], &hash);
        const cjournal_hash_t root =
            cjournal_proof_root(hash, leaf, std::span(siblings).first(proof.depth));
        EXPECT_EQ(memcmp(root.bytes, &root_file[28], 32), 0);
    }
    cjournal_epoch_proof_t proof;
    EXPECT_EQ(cjournal_epoch_proof("last", &proof), 0);
    EXPECT_TRUE(proof.ok && proof.depth == 0 && proof.segment_num == 2);
    EXPECT_EQ(cjournal_epoch_proof("x", &proof), CJEP_ERR_EVENT);
    EXPECT_EQ(cjournal_epoch_proof("4000000", &proof), CJEP_ERR_NOT_IN_SEGMENT);
    EXPECT_EQ(cjournal_epoch_segment_proof(9, &proof), CJEP_ERR_SEGMENT);
    EXPECT_EQ(blockfs_remove(path(1, cjournal_file_t::root).c_str()), 0);
    EXPECT_EQ(cjournal_epoch_segment_proof(1, &proof), CJEP_ERR_ROOT_MISSING);
}

TEST_F(JournalChecks, QueriesFindWhatASearchThroughAllRecordsFinds) {
    const char* subsystems[] = {"net", "tcp", "test", ""};
    for (uint32_t i = 0; i < 700; i++) {
        system_ticks = i / 3;
        const uint32_t parents[] = {1 + i / 4, 5};
        causal_emit(static_cast<causal_type_t>(i * 7 % 10), subsystems[i % 4],
                    i % 5 == 0 ? "a needle" : "hay", parents, 2);
    }
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(cjournal_spill(150), 150);
    const records_t all = all_records();
    records_t out(1000);
    const auto ids = [&](int count) {
        std::vector<uint32_t> found;
        for (int i = 0; i < count; i++)
            found.push_back(out[static_cast<size_t>(i)].id);
        return found;
    };
    const auto wanted = [&](size_t newest, auto matches) {
        std::vector<uint32_t> found;
        for (const cjournal_event_t& r : all)
            if (matches(r))
                found.push_back(r.id);
        if (found.size() > newest)
            found.erase(found.begin(), found.end() - static_cast<ptrdiff_t>(newest));
        return found;
    };
    const auto has = [](const char* field, const char* text) {
        return std::string(field).find(text) != std::string::npos;
    };
    EXPECT_EQ(ids(cjournal_query_type(3, out.data(), 500)),
              wanted(128, [](const auto& r) { return r.type == 3; }));
    EXPECT_EQ(ids(cjournal_query_subsystem("tcp", out.data(), 50)),
              wanted(50, [&](const auto& r) { return std::string(r.subsystem) == "tcp"; }));
    EXPECT_EQ(ids(cjournal_query_text("needle", out.data(), 100)),
              wanted(100, [&](const auto& r) { return has(r.desc, "needle"); }));
    EXPECT_EQ(ids(cjournal_query_recent(out.data(), 20)), wanted(20, [](auto&) { return true; }));
    EXPECT_EQ(ids(cjournal_query_schema(8, out.data(), 128)),
              wanted(128, [](const auto& r) { return r.schema_id == 8; }));
    EXPECT_EQ(ids(cjournal_query_type(40, out.data(), 10)), std::vector<uint32_t>{});
    EXPECT_EQ(ids(cjournal_query_range(50, 60, out.data(), 1000)),
              wanted(1000, [](const auto& r) { return r.wall_ticks >= 50 && r.wall_ticks <= 60; }));
    EXPECT_EQ(ids(cjournal_query_lamport(300, 310, out.data(), 1000)),
              wanted(1000, [](const auto& r) { return r.lamport >= 300 && r.lamport <= 310; }));
    EXPECT_EQ(
        cjournal_count_filter(CJOURNAL_FILTER_TYPE | CJOURNAL_FILTER_TEXT, 0, 0, nullptr, "needle",
                              0, 0),
        wanted(1000, [&](const auto& r) { return r.type == 0 && has(r.desc, "needle"); }).size());
    EXPECT_EQ(cjournal_count_matching(CJOURNAL_COUNT_ALL, 0, 0, nullptr), all.size());
    uint32_t types[CAUSAL_TYPE_COUNT];
    cjournal_type_histogram(types);
    EXPECT_EQ(std::accumulate(types, types + CAUSAL_TYPE_COUNT, 0u), all.size());

    // Level by level, each once.
    std::vector<uint32_t> reached, level = {40};
    for (int depth = 0; depth < 3; depth++) {
        std::vector<uint32_t> next;
        for (const cjournal_event_t& r : all)
            for (uint32_t i = 0; i < r.num_parents; i++)
                if (std::ranges::find(level, r.parents[i]) != level.end() &&
                    std::ranges::find(reached, r.id) == reached.end() &&
                    std::ranges::find(next, r.id) == next.end())
                    next.push_back(r.id);
        reached.insert(reached.end(), next.begin(), next.end());
        level = next;
    }
    reached.resize(std::min<size_t>(reached.size(), 128));
    EXPECT_EQ(ids(cjournal_query_descendants(40, 3, out.data(), 500)), reached);
    EXPECT_EQ(ids(cjournal_query_descendants(40, 0, out.data(), 2)).size(), 2u);
}

}  // namespace
