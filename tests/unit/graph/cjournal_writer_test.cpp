#include "kernel/graph/causal_persist.h"
#include "kernel/graph/cjournal/internal.h"
#include "tests/unit/graph/journal.h"

namespace {

class Journal : public JournalVolume {
protected:
    void SetUp() override {
        JournalVolume::SetUp();
        boot();
    }

    static std::string said() {
        std::string text;
        text.swap(machine_texts());
        return text;
    }
    /// The newest events with this word in their description, newest first.
    static std::vector<std::string> recorded(const std::string& word, uint32_t among = 200) {
        std::vector<std::string> found;
        const uint32_t total = causal_total_events();
        for (uint32_t id = total; id > 0 && id + among > total; id--) {
            const causal_event_t* ev = causal_get_ring(id);
            if (ev != nullptr && std::string(ev->subsystem) == "cjournal" &&
                std::string(ev->desc).find(word) != std::string::npos)
                found.emplace_back(ev->desc);
        }
        return found;
    }
    static std::vector<uint32_t> sizes() {
        std::vector<uint32_t> sizes;
        for (const segment_t& s : judge())
            sizes.push_back(s.header.event_count);
        return sizes;
    }
    static std::vector<uint32_t> numbers() {
        std::vector<uint32_t> found;
        for (const segment_t& s : segments())
            found.push_back(s.number);
        return found;
    }
    static void write_snapshot(uint32_t first, uint32_t count) {
        snapshot_t events;
        for (uint32_t i = 0; i < count; i++)
            events.emplace_back(first + i, i + 1);
        JournalVolume::write_snapshot(events);
    }
    using JournalVolume::write_snapshot;
};

TEST_F(Journal, TheThresholdStartsASpillDownToItsTarget) {
    EXPECT_NE(said().find("\n[cjournal] initialized — 0 segments, 0 events on disk\n"),
              std::string::npos);
    EXPECT_EQ(task_find_by_pid(1)->priority, 6);
    cjournal_tick();
    wait_for(12288);
    system_ticks = system_ticks + 100;
    cjournal_tick();
    EXPECT_EQ(numbers().size(), 0u);
    wait_for(12289);  // emission itself wakes the writer: no second passes
    ASSERT_EQ(causal_total_events(), 12289u);
    cjournal_tick();
    const auto all = judge();
    ASSERT_EQ(all.size(), 13u);
    EXPECT_EQ(all[0].header.event_count, 512u);
    EXPECT_EQ(all[0].footer.prev_checksum, 0u);
    EXPECT_EQ(all[12].header.event_count, 1u);
    EXPECT_EQ(cjournal_state()->last_spilled_id, 6145u);
    EXPECT_STREQ(cjournal_writer.index_source, "live");
    // A full ring alone is no reason; only what waits is.
    wait_for(12288);
    system_ticks = system_ticks + 100;
    cjournal_tick();
    EXPECT_EQ(numbers().size(), 13u);
}

TEST_F(Journal, RunsEndAt512WhereLamportTimeStepsBackAndWhereEventsWereLost) {
    wait_for(513);
    EXPECT_EQ(cjournal_spill(0) + cjournal_spill(-5), 0);
    EXPECT_EQ(cjournal_spill(1), 1);
    EXPECT_EQ(cjournal_spill(512), 512);
    EXPECT_EQ(sizes(), (std::vector<uint32_t>{1, 512}));
    wait_for(200);
    causal_get_ring(causal_total_events() - 60)->time.lamport = 3;
    causal_get_ring(causal_total_events() - 50)->time.lamport = 3;
    EXPECT_EQ(cjournal_spill(200), 200);
    ASSERT_EQ(numbers(), (std::vector<uint32_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(sizes()[3], 10u);
    const uint32_t next = cjournal_state()->last_spilled_id + 1;
    wait_for(CAUSAL_RING_SLOTS + 100);
    const uint32_t oldest = causal_oldest_event_id();
    EXPECT_EQ(cjournal_spill(10), 10);
    const uint32_t first = segments().back().header.first_id;
    EXPECT_GE(first, oldest);
    const std::string lost = "lost " + std::to_string(next) + ".." + std::to_string(first - 1);
    EXPECT_EQ(recorded("lost"), std::vector<std::string>{lost});
    // That event came to the disk before the gap. The next boot names what else this one loses.
    const uint32_t spilled = cjournal_state()->last_spilled_id;
    boot();
    EXPECT_EQ(recorded("lost"),
              std::vector<std::string>{"lost " + std::to_string(spilled + 1) + ".." +
                                       std::to_string(causal_numbering_base() - 1)});
}

TEST_F(Journal, OneEventSpilledThroughDoesNotMoveTheRegularSpill) {
    wait_for(40);
    const uint32_t id = causal_total_events();
    EXPECT_EQ(cjournal_spill_through(0), -1);
    EXPECT_EQ(cjournal_spill_through(id + 1000), -1);
    EXPECT_EQ(cjournal_spill_through(id), 1);
    EXPECT_EQ(cjournal_spill_through(id), 0);
    EXPECT_EQ(cjournal_state()->last_spilled_id, 0u);
    EXPECT_EQ(cjournal_spill(20), 20);
    EXPECT_EQ(cjournal_rebuild_index(), 2);
    EXPECT_EQ(cjournal_state()->last_spilled_id, 20u);
    // A boot that ends here has lost what stood between; the next one says so and goes on behind.
    boot();
    EXPECT_EQ(causal_numbering_base(), id);
    EXPECT_EQ(recorded("lost"), std::vector<std::string>{"lost 21.." + std::to_string(id - 1)});
    cjournal_shutdown();
    EXPECT_EQ(segments().back().header.first_id, id + 1);
}

TEST_F(Journal, TheOldestSegmentIsEvictedAndItsRootStaysKnown) {
    wait_for(20);
    cjournal_spill(5);
    const bytes_t root = read(path(1, cjournal_file_t::root).c_str());
    write(path(1, cjournal_file_t::signature).c_str(), bytes_t(64));
    cjournal_set_retention(2, 0);
    cjournal_spill(5);
    EXPECT_TRUE(recorded("evict").empty());
    cjournal_spill(5);
    EXPECT_EQ(numbers(), (std::vector<uint32_t>{2, 3}));
    char hex[65];
    causal_hash_hex(&root[28], hex);
    EXPECT_EQ(recorded("evict"), std::vector<std::string>{"evict 1 " + std::string(hex)});
    EXPECT_TRUE(exists(path(1, cjournal_file_t::signature)));
    EXPECT_FALSE(exists(path(1, cjournal_file_t::sidecar)));
    judge();
    wait_for(700);
    cjournal_set_retention(32, 100);  // 100 KB are 585 events
    cjournal_spill(512);
    EXPECT_EQ(cjournal_state()->index_count, 3);
    cjournal_spill(100);
    EXPECT_EQ(cjournal_set_retention(32, 100), 0);
    EXPECT_EQ(sizes(), (std::vector<uint32_t>{100}));
    cjournal_set_retention(1, 1);
    cjournal_spill(20);
    EXPECT_EQ(numbers(), std::vector<uint32_t>{6});
    // The index holds 32; signatures outlive their segments, but not for ever.
    cjournal_set_retention(32, 0);
    for (int i = 0; i < 35; i++) {
        wait_for(1);
        EXPECT_EQ(cjournal_spill(1), 1);
    }
    EXPECT_EQ(cjournal_state()->index_count, 32);
    EXPECT_EQ(cjournal_state()->segments_written, 41u);
    EXPECT_EQ(numbers().front(), 10u);
    judge();
}

TEST_F(Journal, AnIndexThatIsMissingOrDisagreesIsRebuilt) {
    wait_for(600);
    cjournal_spill(560);
    write("/causal/seg-00000009.jnl.bak", {1});
    write("/causal/seg-7.jnl", {1});
    for (int i = 0; i < 60; i++)  // a long listing, and names that look like several
        write(("/causal/seg-00000001.hsh\nseg-00000001.ert\nseg-" + std::to_string(i)).c_str(), {});
    const auto check = [&](const char* source) {
        boot();
        EXPECT_STREQ(cjournal_writer.index_source, source);
        EXPECT_EQ(cjournal_state()->index_count, 2);
        EXPECT_EQ(cjournal_state()->last_spilled_id, 560u);
        EXPECT_EQ(cjournal_state()->segments_written, 2u);
        EXPECT_EQ(cjournal_total_persisted(), 560u);
        EXPECT_EQ(causal_numbering_base(), 560u);
        judge();
    };
    check("loaded");
    const cjournal_index_entry_t loaded = cjournal_saved_entry(cjournal.index[0]);
    blockfs_remove(CJOURNAL_INDEX_PATH);
    check("rebuilt");
    const cjournal_index_entry_t rebuilt = cjournal_saved_entry(cjournal.index[0]);
    EXPECT_EQ(memcmp(&loaded, &rebuilt, sizeof loaded), 0);
    EXPECT_TRUE(cjournal.index[1].hash_first_valid);
    check("loaded");
    bytes_t index = read(CJOURNAL_INDEX_PATH);
    for (const size_t at : {0u, 4u, 8u, 24u + 4u, 24u + 80u + 24u}) {
        bytes_t bad = index;
        bad[at] ^= 1;
        write(CJOURNAL_INDEX_PATH, bad);
        check("rebuilt");
    }
    index.push_back(0);
    write(CJOURNAL_INDEX_PATH, index);
    check("rebuilt");
}

TEST_F(Journal, NumberingGoesOnBehindWhatIsArchived) {
    EXPECT_EQ(causal_numbering_base(), 0u);
    EXPECT_EQ(causal_get_ring(1)->id, 1u);
    wait_for(9000);
    cjournal_shutdown();
    const uint32_t spilled = cjournal_state()->last_spilled_id;
    boot();
    EXPECT_EQ(causal_numbering_base(), spilled);
    EXPECT_STREQ(causal_get_ring(spilled + 1)->desc, "kernel boot started");
    // The last boot's events are found by number, and this boot's go to disk without a gap.
    EXPECT_EQ(std::string(causal_get(spilled)->subsystem).empty(), false);
    cjournal_shutdown();
    judge();
    EXPECT_EQ(segments().back().header.last_id, cjournal_state()->last_spilled_id);
    // A damaged header must not use up the numbers.
    const uint32_t last = segments().back().number;
    const uint32_t top = cjournal_state()->last_spilled_id;
    bytes_t file = read(path(last).c_str());
    file[19] = 0xF0;
    write(path(last).c_str(), file);
    boot();
    EXPECT_EQ(causal_numbering_base(), top);
}

TEST_F(Journal, NumbersInASnapshotDoNotComeBack) {
    wait_for(30);
    cjournal_spill(10);
    const uint32_t newest = causal_total_events();
    EXPECT_GT(causal_flush(), 20);
    boot();
    EXPECT_EQ(causal_numbering_base(), newest);
    EXPECT_EQ(recorded("lost"), std::vector<std::string>{"lost 11.." + std::to_string(newest)});
    // An import gives the old events, and no number to two of them.
    EXPECT_GT(cjournal_import_legacy(), 20);
    cjournal_shutdown();
    std::map<uint32_t, std::string> known;
    for (const segment_t& s : judge())
        for (const cjournal_event_t& r : s.records)
            EXPECT_EQ(known.try_emplace(r.id, r.desc).first->second, r.desc) << uint32_t{r.id};
    // One that does not agree with itself is not believed.
    const uint32_t top = cjournal_state()->last_spilled_id;
    write_snapshot({{4000000000, 1}});
    boot();
    EXPECT_EQ(causal_numbering_base(), top);
}

TEST_F(Journal, TheOlderSnapshotIsImportedOnceAndWholly) {
    EXPECT_EQ(cjournal_import_legacy(), 0);
    wait_for(20);
    cjournal_spill(10);
    write_snapshot({{50, 9}, {51, 9}, {60, 4}, {61, 12}});
    EXPECT_EQ(cjournal_import_legacy(), 4);
    EXPECT_EQ(sizes(), (std::vector<uint32_t>{10, 2, 2}));
    EXPECT_EQ(segment(2).footer.flags, 1u);
    EXPECT_EQ(cjournal_state()->last_spilled_id, 10u);
    EXPECT_FALSE(exists(CJOURNAL_SNAPSHOT_PATH));
    write_snapshot({{50, 9}, {51, 9}, {60, 4}, {61, 12}});
    EXPECT_EQ(cjournal_import_legacy(), 4);
    EXPECT_EQ(numbers().size(), 3u);
    for (const auto& bad :
         std::vector<std::vector<std::pair<uint32_t, uint64_t>>>{{}, {{7, 1}, {7, 2}}, {{0, 1}}}) {
        write_snapshot(bad);
        EXPECT_EQ(cjournal_import_legacy(), -1);
    }
    write_snapshot(1, 512);
    cjournal_set_retention(3, 0);
    EXPECT_EQ(cjournal_import_legacy(), -1);
    cjournal_set_retention(32, 50);
    EXPECT_EQ(cjournal_import_legacy(), -1);
    cjournal_set_retention(32, 0);
    EXPECT_EQ(judge().size(), 3u);
    EXPECT_TRUE(exists(CJOURNAL_SNAPSHOT_PATH));
    EXPECT_EQ(cjournal_import_legacy(), 512);
    cjournal_spill(10);
    judge();
    boot();
    EXPECT_EQ(causal_numbering_base(), 512u);
}

TEST_F(Journal, RootsAreSignedWithAKeyThatIsKept) {
    wait_for(30);
    cjournal_spill(10);
    cjournal_spill(10);
    uint8_t key[32], again[32];
    EXPECT_EQ(cjournal_node_pubkey(nullptr), -1);
    ASSERT_EQ(cjournal_node_pubkey(key), 0);
    EXPECT_EQ(read(CJOURNAL_KEY_PATH), bytes_t(32, 7));
    said();
    EXPECT_EQ(cjournal_sign_segment(9), -1);
    EXPECT_EQ(said(), "journal sign: segment 9 root unavailable or mismatched\n");
    EXPECT_EQ(cjournal_sign_segment(1), 0);
    const bytes_t root = read(path(1, cjournal_file_t::root).c_str());
    const bytes_t signature = read(path(1, cjournal_file_t::signature).c_str());
    ASSERT_EQ(signature.size(), 64u);
    EXPECT_EQ(ed25519_verify(signature.data(), &root[28], 32, key), 0);
    char line[160];
    snprintf(line, sizeof line,
             "journal sign: PASS segment=1 root=0x%x sig=0x%x algo=ed25519 "
             "sig_file=/causal/seg-00000001.sig\n",
             *reinterpret_cast<const uint32_t*>(&root[28]),
             *reinterpret_cast<const uint32_t*>(&signature[0]));
    EXPECT_EQ(said(), line);
    cjournal_sign_all();
    EXPECT_EQ(said(), "journal sign-all: signed=1 already=1 failed=0 status=PASS\n");
    write(path(2, cjournal_file_t::signature).c_str(), bytes_t(63));
    bytes_t file = read(path(2).c_str());
    file[100] ^= 1;
    write(path(2).c_str(), file);
    EXPECT_EQ(cjournal_sign_all(), -1);
    EXPECT_EQ(said(), "journal sign-all: signed=0 already=1 failed=1 status=FAIL\n");
    boot();
    noise_set_random({[](void* buf, uint32_t len) { memset(buf, 8, len); }, [] {}, false});
    ASSERT_EQ(cjournal_node_pubkey(again), 0);
    EXPECT_EQ(memcmp(key, again, 32), 0);
    boot();
    write(CJOURNAL_KEY_PATH, bytes_t(31));
    ASSERT_EQ(cjournal_node_pubkey(again), 0);
    EXPECT_NE(memcmp(key, again, 32), 0);
}

TEST_F(Journal, AFullVolumeKeepsTheSpillWaitingAndLosesNothing) {
    wait_for(600);
    cjournal_spill(10);
    const auto free_blocks = [] {
        uint32_t free = 0;
        EXPECT_EQ(blockfs_df(nullptr, nullptr, &free, nullptr, nullptr, nullptr), 0);
        return free;
    };
    const auto fill = [&](uint32_t leave) {
        write("/filler", bytes_t((free_blocks() - 120) * 512));
        for (int i = 0; free_blocks() > leave; i++)
            write(("/f" + std::to_string(i)).c_str(),
                  bytes_t(std::min(free_blocks() - leave, 12u) * 512));
    };
    const disk_image before = m.disk.image;
    bool waited = false, spilled = false;
    for (uint32_t leave = 0; leave < 30; leave++) {  // also when all but the index finds room
        SCOPED_TRACE(leave);
        m.disk.image = before;
        boot();
        wait_for(60);
        fill(leave);
        const uint32_t waiting = unspilled_events();
        const auto count = static_cast<uint32_t>(cjournal_spill(20));
        EXPECT_TRUE(count == 0 || count == 20) << count;
        EXPECT_GE(unspilled_events(), waiting - count);
        (count == 0 ? waited : spilled) = true;
        judge();
        boot(true);
        judge();
    }
    EXPECT_TRUE(waited && spilled);
    wait_for(60);
    blockfs_remove("/filler");
    const size_t segments_now = segments().size();
    int created = 0;
    while (blockfs_create(("/" + std::to_string(created)).c_str(), BLOCKFS_FILE) >= 0)
        created++;
    blockfs_remove("/0");
    blockfs_remove("/1");
    EXPECT_EQ(cjournal_spill(10), 0);  // two inodes are free, a segment takes three
    EXPECT_EQ(judge().size(), segments_now);
    blockfs_remove("/2");
    EXPECT_EQ(cjournal_spill(10), 10);
    judge();
}

/// As file synchronisation may: looks an archived event up, and asks for another to be archived.
void ask_the_journal(int, const char* path, const void*, uint32_t) {
    EXPECT_EQ(std::string(path).find("/causal"), std::string::npos) << path;
    EXPECT_NE(causal_get(1), nullptr);
    EXPECT_EQ(cjournal_spill(1), 1);
}

TEST_F(Journal, WhoIsToldOfChangedFilesMayUseIt) {
    wait_for(16000);
    cjournal_spill(1000);
    wait_for(16000);
    blockfs_set_change_hook(ask_the_journal);
    const uint32_t before = cjournal_state()->segments_written;
    EXPECT_EQ(cjournal_spill(1), 1);
    write("/note", {1});
    blockfs_rename("/note", "/causal/note");
    blockfs_set_change_hook(nullptr);
    EXPECT_EQ(cjournal_state()->segments_written, before + 4) << "created, written, deleted";
}

}  // namespace
