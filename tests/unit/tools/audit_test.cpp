#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "kernel/core/noise.h"
#include "tests/machine/memory.h"
#include "tools/audit/segment.h"
#include "tools/audit/state.h"

namespace {

using records_t = std::vector<cjournal_event_t>;

std::string name(uint32_t segment, cjournal_file_t file) {
    return segment_file_name(segment, file);
}

template <typename T>
void put(bytes_t* bytes, const T& value) {
    const auto* from = reinterpret_cast<const uint8_t*>(&value);
    bytes->insert(bytes->end(), from, from + sizeof value);
}

cjournal_event_t record(uint32_t id, const char* desc = "thing", const char* subsystem = "test") {
    cjournal_event_t r = {};
    r.id = id;
    r.lamport = id + 5;
    r.wall_ticks = 1000 + id % 7;
    r.type = CAUSAL_USER;
    r.num_parents = 2;
    r.parents[0] = id + 1000;
    r.parents[1] = 7;
    r.child_count = 3;
    r.payload_len = 9;
    memset(r.payload_hash, 0xA5, sizeof r.payload_hash);
    r.schema_version = 1;
    strncpy(r.subsystem, subsystem, sizeof r.subsystem - 1);
    strncpy(r.desc, desc, sizeof r.desc - 1);
    return r;
}

records_t run(uint32_t first, uint32_t last) {
    records_t records;
    for (uint32_t id = first; id <= last; ++id)
        records.push_back(record(id));
    return records;
}

void flip(uint8_t* byte, size_t bit) { *byte = static_cast<uint8_t>(*byte ^ 1u << bit % 8); }

class Audit : public testing::Test {
protected:
    void SetUp() override {
        machine_boot_memory();
        ed25519_keypair(key.data(), secret);
        files["node-sign.key"] = bytes_t(secret, secret + 32);
    }
    /// Writes the companions of the records in `segment`, as whoever can compute does.
    void companions(uint32_t segment, const records_t& records, const cjournal_header_t& header) {
        bytes_t sidecar, root;
        std::vector<cjournal_hash_t> hashes(records.size());
        put(&sidecar, cjournal_make_hash_header(header, segment));
        for (size_t i = 0; i < records.size(); ++i) {
            cjournal_record_hash(4, records[i], &hashes[i]);
            put(&sidecar, hashes[i]);
        }
        put(&root, cjournal_make_root(header, segment, cjournal_merkle_root(hashes)));
        files[name(segment, cjournal_file_t::sidecar)] = sidecar;
        files[name(segment, cjournal_file_t::root)] = root;
    }
    /// Writes a segment with its companions; `previous` 0 takes the one before's checksum.
    void write(uint32_t segment, const records_t& records, bool with_signature = true,
               uint32_t flags = 0) {
        bytes_t file;
        const cjournal_header_t header = cjournal_make_header(records);
        put(&file, header);
        for (const cjournal_event_t& r : records)
            put(&file, r);
        const uint32_t checksum = cjournal_checksum(file);
        const uint32_t previous = checksums.contains(segment - 1) ? checksums[segment - 1] : 0;
        put(&file, cjournal_make_footer(header, segment, checksum, previous, flags));
        checksums[segment] = checksum;
        files[name(segment, cjournal_file_t::segment)] = file;
        companions(segment, records, header);
        if (with_signature)
            sign(segment);
    }
    void sign(uint32_t segment) {
        bytes_t signature(64);
        const bytes_t& root = files[name(segment, cjournal_file_t::root)];
        ASSERT_EQ(ed25519_sign(signature.data(), root.data() + 28, 32, secret), 0);
        files[name(segment, cjournal_file_t::signature)] = signature;
    }
    audit_verdict_t verdict() const { return audit_verdict(audit_journal(files, {})); }
    /// What is wrong, and what is noted.
    std::string findings() const {
        const audit_t audit = audit_journal(files, {});
        std::string text;
        for (const std::string& fault : audit.faults)
            text += fault + "\n";
        for (const std::string& note : audit.notes)
            text += "(" + note + ")\n";
        return text;
    }

    files_t files;
    uint8_t secret[64] = {1, 2, 3};
    key_t32 key;
    std::map<uint32_t, uint32_t> checksums;
};

TEST_F(Audit, FindsEveryChangedByteOfASignedSegmentAndItsCompanions) {
    write(1, run(1, 16));
    ASSERT_EQ(verdict(), AUDIT_SOUND) << findings();
    for (auto& [file, bytes] : files) {
        for (size_t i = 0; i < bytes.size(); ++i) {
            flip(&bytes[i], i);
            ASSERT_EQ(verdict(), AUDIT_BAD) << file << " byte " << i;
            flip(&bytes[i], i);
        }
    }
}

TEST_F(Audit, FindsWhatAnAttackerRecomputesExceptWhatNothingBinds) {
    constexpr size_t CHILD_COUNT = offsetof(cjournal_event_t, child_count);
    write(1, run(1, 16));
    bytes_t& segment = files[name(1, cjournal_file_t::segment)];
    const files_t sound = files;
    const size_t records_end = CJOURNAL_HEADER_SIZE + 16 * CJOURNAL_EVENT_SIZE;
    for (size_t i = 0; i < records_end; ++i) {
        flip(&segment[i], i);
        const uint32_t checksum = cjournal_checksum(std::span(segment).first(records_end));
        memcpy(&segment[records_end + sizeof(cjournal_footer_v1_t)], &checksum, 4);
        records_t records(16);
        memcpy(records.data(), &segment[CJOURNAL_HEADER_SIZE], 16 * sizeof records[0]);
        cjournal_header_t header;
        memcpy(&header, segment.data(), sizeof header);
        companions(1, records, header);
        const size_t field = (i - CJOURNAL_HEADER_SIZE) % CJOURNAL_EVENT_SIZE;
        const bool unbound = i >= CJOURNAL_HEADER_SIZE && (field & ~size_t{1}) == CHILD_COUNT;
        ASSERT_EQ(verdict(), unbound ? AUDIT_SOUND : AUDIT_BAD) << "byte " << i;
        files = sound;
    }
}

TEST_F(Audit, NamesWhatIsMissingSwappedOrUnsigned) {
    for (uint32_t s = 1; s <= 4; ++s)
        write(s, run(4 * s - 3, 4 * s), s != 2);
    EXPECT_EQ(verdict(), AUDIT_UNSEALED) << findings();
    sign(2);
    EXPECT_EQ(verdict(), AUDIT_SOUND) << findings();
    const files_t sound = files;

    files.erase(name(1, cjournal_file_t::segment));
    EXPECT_EQ(verdict(), AUDIT_SOUND) << "the oldest may be evicted: " << findings();
    files = sound;
    files.erase(name(2, cjournal_file_t::segment));
    EXPECT_NE(findings().find("segments 2 are missing\n"), std::string::npos) << findings();
    files = sound;
    std::swap(files[name(2, cjournal_file_t::segment)], files[name(3, cjournal_file_t::segment)]);
    EXPECT_EQ(verdict(), AUDIT_BAD);
    files = sound;
    files.erase(name(3, cjournal_file_t::sidecar));
    EXPECT_EQ(findings().find("seg-00000003.jnl has no sidecar\n"), 0u) << findings();
    files = sound;
    bytes_t& cut = files[name(3, cjournal_file_t::segment)];
    cut.resize(cut.size() - CJOURNAL_FOOTER_SIZE);
    EXPECT_EQ(verdict(), AUDIT_BAD) << "without its footer it would pass for an old one";
    files = sound;
    files[name(4, cjournal_file_t::signature)].pop_back();
    EXPECT_EQ(verdict(), AUDIT_UNSEALED);
    files = sound;
    files[name(9, cjournal_file_t::root)] = {};
    files["a\x1b[2J"] = {};
    EXPECT_EQ(findings(),
              "('a?[2J' is no file of a journal)\n('seg-00000009.ert' belongs to no segment)\n"
              "(there is no valid index; the system rebuilds it)\n");
}

TEST_F(Audit, IdentifiersFollowEachOtherUnlessTheJournalAccountsForThem) {
    write(1, run(1, 4));
    write(2, {record(9)});  // spilled alone, ahead of the rest
    write(3, run(5, 10));
    EXPECT_EQ(verdict(), AUDIT_SOUND) << findings();
    write(2, {record(9, "another")});
    write(3, run(5, 10));
    EXPECT_NE(findings().find("two records of event 9 differ\n"), std::string::npos);

    write(2, run(7, 8));
    write(3, run(9, 10));
    EXPECT_NE(findings().find("events 5..6 are missing before segment 2\n"), std::string::npos);
    write(3, {record(9), record(10, "lost 5..6", "cjournal")});
    EXPECT_EQ(verdict(), AUDIT_SOUND) << findings();
    write(2, {record(8)});  // the boot ended before the rest was spilled
    write(3, {record(9), record(10, "lost 7..7", "cjournal"), record(11, "lost 5..6", "cjournal")});
    EXPECT_EQ(verdict(), AUDIT_SOUND) << findings();
    write(2, run(7, 8));
    write(3, run(8, 9));
    EXPECT_NE(findings().find("segment 3 goes back to event 8\n"), std::string::npos);

    write(3, run(9, 10));
    files.erase(name(2, cjournal_file_t::segment));
    write(4, {record(11), record(12, "evict 2 00ff", "cjournal")});
    EXPECT_NE(findings().find("(segment 2 was evicted, as the journal says)\n"), std::string::npos);
    write(1, run(2, 4));
    EXPECT_NE(findings().find("events 1 are missing before segment 1\n"), std::string::npos);
}

TEST_F(Audit, WhatWasSpilledAloneOrImportedMayBeLeftAtTheFront) {
    write(5, {record(40)});
    write(6, run(20, 23));
    EXPECT_EQ(verdict(), AUDIT_SOUND) << findings();
    write(8, run(24, 27));
    EXPECT_NE(findings().find("segments 7 are missing\n"), std::string::npos);
    files.erase(name(6, cjournal_file_t::segment));
    EXPECT_EQ(verdict(), AUDIT_SOUND) << findings();
    write(6, run(42, 45));
    EXPECT_NE(findings().find("events 41 are missing before segment 6\n"), std::string::npos);
}

TEST_F(Audit, AKeyMustBeTheExpectedOne) {
    write(1, run(1, 2));
    key_t32 other = key;
    other[0] ^= 1;
    EXPECT_EQ(audit_verdict(audit_journal(files, key)), AUDIT_SOUND);
    EXPECT_EQ(audit_verdict(audit_journal(files, other)), AUDIT_BAD);
    files.erase("node-sign.key");
    EXPECT_EQ(audit_verdict(audit_journal(files, key)), AUDIT_SOUND);
    EXPECT_EQ(verdict(), AUDIT_BAD) << "signed by whom?";
}

TEST_F(Audit, AStateFileGivesAwayRollbacksAndCutTails) {
    const std::string path = testing::TempDir() + "vorn-audit-" + std::to_string(getpid());
    const auto compared = [&] {
        audit_t audit = audit_journal(files, {});
        EXPECT_TRUE(state_compare(path, &audit));
        return audit_verdict(audit);
    };
    write(1, run(1, 4));
    EXPECT_EQ(compared(), AUDIT_SOUND);
    const files_t old = files;
    write(2, run(5, 8));
    ASSERT_TRUE(state_remember(path, audit_journal(files, {})));
    EXPECT_EQ(compared(), AUDIT_SOUND);
    files = old;
    EXPECT_EQ(compared(), AUDIT_BAD) << "the tail is gone";
    // An import that a cut broke off will be taken back, and its number used again.
    write(2, run(5, 8));
    files["index.jix"] = {};
    put(&files["index.jix"], cjournal_index_header_t{CJOURNAL_INDEX_MAGIC, 6, 0, 8, 8, 2});
    write(3, {record(1, "old")}, true, CJOURNAL_FLAG_IMPORTED);
    ASSERT_TRUE(state_remember(path, audit_journal(files, {})));
    write(3, run(9, 9));
    EXPECT_EQ(compared(), AUDIT_SOUND);
    files = old;
    write(2, {record(5), record(6, "another history")});
    EXPECT_EQ(compared(), AUDIT_BAD) << "another segment 2";
    std::ofstream(path) << "nonsense\n";
    audit_t audit;
    EXPECT_FALSE(state_compare(path, &audit));
    std::remove(path.c_str());
}

}  // namespace
