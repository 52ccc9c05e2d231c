#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kernel/core/noise.h"
#include "kernel/graph/causal_schema.h"
#include "kernel/graph/cjournal/format.h"
#include "tests/unit/graph/journal_vectors.h"

namespace {

using bytes_t = std::vector<uint8_t>;
using records_t = std::vector<cjournal_event_t>;

template <typename T>
void append(bytes_t* to, const T& what) {
    const auto* from = reinterpret_cast<const uint8_t*>(&what);
    to->insert(to->end(), from, from + sizeof what);
}

std::string digest(const void* data, size_t size) {
    uint8_t hash[32];
    char hex[65];
    blake2s(hash, data, static_cast<uint32_t>(size));
    causal_hash_hex(hash, hex);
    return hex;
}
std::string digest(const bytes_t& data) { return digest(data.data(), data.size()); }

/// The records that journal_answers.py makes too.
cjournal_event_t make_record(uint32_t i) {
    const uint32_t id = 4000000000u + i;
    causal_event_t ev = {};
    ev.id = id;
    ev.node_hash = 0xA0B0C0D0 + i;
    ev.time = {1000 + 3 * i, 50 + i * 7 % 13, 99};
    ev.type = static_cast<causal_type_t>(i % 10);
    snprintf(ev.subsystem, sizeof ev.subsystem, "sub%u", i % 7);
    snprintf(ev.desc, sizeof ev.desc, "event number %u", id);
    ev.num_parents = static_cast<uint8_t>(i % 5);
    for (uint32_t j = 0; j < i % 5; j++)
        ev.parents[j] = id - 1 - j;
    ev.child_count = static_cast<uint16_t>(i % 3);
    ev.payload_len = i % 4 != 0 ? i * 3 % 421 : 0;
    const std::string payload = "payload " + std::to_string(id);
    blake2s(ev.payload_hash, payload.data(), static_cast<uint32_t>(payload.size()));
    ev.payload_hash_valid = true;
    ev.schema_id = static_cast<uint16_t>(i % 12);
    ev.schema_version = 1;
    cjournal_event_t record;
    compact_event(ev, &record);
    return record;
}

records_t make_records(uint32_t count) {
    records_t records(count);
    for (uint32_t i = 0; i < count; i++)
        records[i] = make_record(i);
    return records;
}

std::vector<cjournal_hash_t> make_hashes(const records_t& records, uint32_t version = 4) {
    std::vector<cjournal_hash_t> hashes(records.size());
    for (size_t i = 0; i < records.size(); i++)
        EXPECT_TRUE(cjournal_record_hash(version, records[i], &hashes[i]));
    return hashes;
}

/// A segment file whose records are cut to `event_size` bytes and whose footer to `footer_size`.
bytes_t make_segment(const records_t& records, uint32_t segment, uint32_t event_size,
                     uint32_t footer_size, uint32_t flags = 0) {
    constexpr uint32_t SIZES[] = {24, 28, 40, 44, 48};
    const cjournal_header_t header = cjournal_make_header(records);
    bytes_t file;
    append(&file, header);
    for (const cjournal_event_t& record : records) {
        append(&file, record);
        file.resize(file.size() - sizeof record + event_size);
    }
    cjournal_footer_t footer =
        cjournal_make_footer(header, segment, cjournal_checksum(file), 0xDEADBEEF, flags);
    footer.version = static_cast<uint32_t>(
        std::find(std::begin(SIZES), std::end(SIZES), footer_size) - SIZES + 1);
    footer.event_size = event_size;
    footer.footer_size = footer_size;
    append(&file, footer);
    file.resize(file.size() - sizeof footer + footer_size);
    return file;
}

bool recognise(const bytes_t& file, uint32_t segment, cjournal_layout_t* layout) {
    cjournal_header_t header;
    memcpy(&header, file.data(), sizeof header);
    const size_t tail = std::min<size_t>(file.size(), 48);
    return cjournal_recognise(header, segment, static_cast<uint32_t>(file.size()),
                              std::span(file).last(tail), layout);
}

TEST(JournalFormat, SegmentSidecarAndRootAreTheKnownBytes) {
    for (const journal_answer_t& answer : JOURNAL_ANSWERS) {
        const records_t records = make_records(answer.count);
        const uint32_t segment = 40 + answer.count;
        const cjournal_header_t header = cjournal_make_header(records);
        std::vector<cjournal_hash_t> hashes = make_hashes(records);
        const bytes_t file = make_segment(records, segment, 175, 48, answer.count % 2);
        EXPECT_EQ(digest(file), answer.segment) << answer.count;
        EXPECT_EQ(file.size(), cjournal_segment_bytes(answer.count));
        bytes_t sidecar;
        append(&sidecar, cjournal_make_hash_header(header, segment));
        for (const cjournal_hash_t& hash : hashes)
            append(&sidecar, hash);
        EXPECT_EQ(digest(sidecar), answer.sidecar) << answer.count;
        EXPECT_EQ(sidecar.size(), cjournal_sidecar_bytes(answer.count));
        const auto root = cjournal_make_root(header, segment, cjournal_merkle_root(hashes));
        EXPECT_EQ(digest(&root, sizeof root), answer.root) << answer.count;
    }
    for (uint32_t version = 1; version <= 4; version++) {
        const auto hashes = make_hashes(make_records(20), version);
        EXPECT_EQ(digest(hashes.data(), hashes.size() * 32), JOURNAL_HASH_ANSWERS[version - 1]);
    }
    cjournal_hash_t none;
    EXPECT_FALSE(cjournal_record_hash(5, make_record(0), &none));
    EXPECT_EQ(cjournal_segment_bytes(512), 89692u);
    EXPECT_EQ(cjournal_sidecar_bytes(512), 16408u);
}

TEST(JournalFormat, EveryLeafHasAProofThatLeadsToTheRoot) {
    for (const uint32_t count : {1u, 2u, 5u, 511u, 512u}) {
        const auto leaves = make_hashes(make_records(count));
        auto scratch = leaves;
        const cjournal_hash_t root = cjournal_merkle_root(scratch);
        for (uint32_t leaf = 0; leaf<count; leaf += count> 64 ? 37 : 1) {
            cjournal_hash_t siblings[CJOURNAL_PROOF_DEPTH];
            uint32_t depth = 99;
            scratch = leaves;
            const cjournal_hash_t top = cjournal_merkle_proof(scratch, leaf, siblings, &depth);
            EXPECT_EQ(memcmp(&top, &root, 32), 0);
            EXPECT_EQ(1u << depth, std::bit_ceil(count));
            const std::span<const cjournal_hash_t> path(siblings, depth);
            const cjournal_hash_t proved = cjournal_proof_root(leaves[leaf], leaf, path);
            EXPECT_EQ(memcmp(&proved, &root, 32), 0) << count << " " << leaf;
            const cjournal_hash_t forged = cjournal_proof_root(root, leaf, path);
            EXPECT_EQ(memcmp(&forged, &root, 32) == 0, count == 1);
        }
    }
}

TEST(JournalFormat, AmbiguousSizesGoToTheNewerRecordAndLyingOnesAreRefused) {
    // 16 records of 172 bytes and a footer of 48 are as long as 16 records of 175 alone.
    bytes_t file(44 + 16 * 175);
    const cjournal_header_t header = {CJOURNAL_SEGMENT_MAGIC, 1, 16, 1, 16, 1, 16, 1, 1};
    memcpy(file.data(), &header, sizeof header);
    cjournal_layout_t layout = {};
    ASSERT_TRUE(recognise(file, 1, &layout));
    EXPECT_EQ(layout.event_size, 175u);
    for (const uint32_t count : {0u, 513u, 0x80000000u, 0xFFFFFFFFu}) {
        memcpy(file.data() + 8, &count, 4);
        EXPECT_FALSE(recognise(file, 1, &layout)) << count;
    }
    EXPECT_FALSE(cjournal_recognise(header, 1, 44, {}, &layout));
    // A footer that claims records so long that the product wraps.
    bytes_t lying = make_segment(make_records(4), 9, 175, 48);
    lying[lying.size() - 16] = 0;
    lying[lying.size() - 13] = 0x40;
    ASSERT_TRUE(recognise(lying, 9, &layout));
    EXPECT_EQ(layout.event_size, 175u);
}

TEST(JournalFormat, NamesAreExactlyTheSegmentForm) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(4294967295u, cjournal_file_t::signature, path);
    EXPECT_STREQ(path, "/causal/seg-4294967295.sig");
    const auto parse = [](const std::string& name) {
        uint32_t segment = 0;
        cjournal_file_t file = {};
        const bool good =
            cjournal_parse_name(name.c_str(), static_cast<uint32_t>(name.size()), &segment, &file);
        return good ? std::to_string(segment) + "/" + std::to_string(static_cast<int>(file)) : "";
    };
    EXPECT_EQ(parse("seg-00000001.jnl"), "1/0");
    EXPECT_EQ(parse("seg-00000042.hsh"), "42/1");
    EXPECT_EQ(parse("seg-123456789.ert"), "123456789/2");
    EXPECT_EQ(parse("seg-4294967295.sig"), "4294967295/3");
    for (const char* name : {"seg-00000000.jnl", "seg-1.jnl", "seg-000000001.jnl", "seg-.jnl", "",
                             "seg-00000001.jnlx", "seg-00000001.jn", "xseg-00000001.jnl", "seg",
                             "seg-4294967296.jnl", "seg-00000001.jnl.jnl", "seg-+0000001.jnl"})
        EXPECT_EQ(parse(name), "") << name;
}

TEST(JournalFormat, StatisticsAndChecksumsKeepTheirEdges) {
    EXPECT_EQ(cjournal_fnv(std::span(reinterpret_cast<const uint8_t*>("foobar"), 6)), 0xBF9CF968u);
    // A text whose FNV-1a is 0.
    constexpr uint8_t ZERO_SUM[] = {0xCC, 0x24, 0x31, 0xC4};
    EXPECT_EQ(cjournal_fnv(ZERO_SUM), 0u);
    EXPECT_EQ(cjournal_checksum(ZERO_SUM), 1u);
    EXPECT_EQ(cjournal_subsystem_bit(nullptr), 0u);
    EXPECT_EQ(cjournal_subsystem_bit(""), 0u);
    EXPECT_EQ(cjournal_subsystem_bit("0123456789abcdef"),
              cjournal_subsystem_bit("0123456789abcdefgh"));
    records_t records = make_records(3);
    records[2].parents[0] = 0;
    records[2].schema_id = 32;
    cjournal_stats_t stats;
    segment_events_index_stats(records, &stats);
    EXPECT_EQ(stats.type_bitmap, 7u);
    EXPECT_EQ(stats.schema_bitmap, 3u);
    EXPECT_EQ(stats.parent_edge_count, 2u);
    EXPECT_EQ(stats.parent_min_id, 4000000000u);
    EXPECT_EQ(stats.parent_max_id, 4000000000u);
    segment_events_index_stats({}, &stats);
    EXPECT_EQ(stats.parent_min_id + stats.parent_max_id + stats.subsystem_bitmap, 0u);
}

TEST(JournalFormat, RecordsAreCanonicalAndEventsComeBack) {
    causal_event_t ev = {};
    ev.id = 9;
    ev.type = CAUSAL_NET;
    memset(ev.subsystem, 'x', sizeof ev.subsystem);
    memset(ev.desc, 'y', sizeof ev.desc);
    ev.payload_len = 5;
    memcpy(ev.payload, "hello", 5);
    ev.num_parents = 2;
    for (uint32_t& parent : ev.parents)
        parent = 77;
    cjournal_event_t record;
    compact_event(ev, &record);
    EXPECT_EQ(std::string(record.desc), std::string(79, 'y'));
    EXPECT_EQ(record.parents[2], 0u);
    EXPECT_EQ(record.schema_id, CAUSAL_SCHEMA_NET_PACKET);
    EXPECT_EQ(digest("hello", 5), [&] {
        char hex[65];
        causal_hash_hex(record.payload_hash, hex);
        return std::string(hex);
    }());
    causal_event_t back;
    cjournal_expand_event(record, &back);
    cjournal_event_t again;
    compact_event(back, &again);
    EXPECT_EQ(memcmp(&again, &record, sizeof record), 0);
    EXPECT_TRUE(back.payload_hash_valid);

    persist_event_t stored;
    cjournal_snapshot_record(ev, &stored);
    ASSERT_TRUE(cjournal_convert_snapshot(stored, &again));
    EXPECT_EQ(memcmp(&again, &record, offsetof(cjournal_event_t, child_count)), 0);
}

}  // namespace
