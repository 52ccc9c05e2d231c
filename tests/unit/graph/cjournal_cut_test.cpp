// The power fails at any sector write of what the journal does, requests and allocations fail one
// after the other: what is on disk afterwards is a sound journal, and it goes on.
#include <iostream>
#include <random>

#include "kernel/graph/causal_persist.h"
#include "kernel/graph/cjournal/internal.h"
#include "tests/unit/graph/journal.h"

namespace {

uint64_t failing_allocation;  ///< counts down to the one that fails; 0: none

class JournalCut : public JournalVolume {
protected:
    void SetUp() override {
        JournalVolume::SetUp();
        boot();
    }

    /// Does `work`, then cuts the power after each of its sector writes: the auditor finds nothing,
    /// and the next boot, after which `check` is called, a sound journal.
    void cut(
        const char* what, const std::function<void()>& work,
        const std::function<void()>& check = [] {}) {
        uint32_t archived = 0;
        for (const segment_t& s : segments())
            archived = std::max(archived, uint32_t{s.header.last_id});
        const disk_image before = m.disk.image;
        m.disk.start_log();
        work();
        const write_log_t log = m.disk.writes;
        const disk_image after = m.disk.image;
        for (size_t at = 0; at <= log.size() && !HasFailure(); ++at, ++cuts) {
            SCOPED_TRACE(testing::Message() << what << " cut after " << at);
            m.disk.image = before;
            m.disk.image.apply(log, at);
            boot(true);
            EXPECT_EQ(machine_texts().find("ERROR"), std::string::npos) << machine_texts();
            judge();
            EXPECT_GE(causal_numbering_base(), archived) << "numbers come back";
            check();
        }
        m.disk.image = after;
        boot();
        judge();
    }
    size_t cuts = 0;

    /// What is archived stays so, and this boot's events follow it.
    static void spill_again() {
        const uint32_t base = causal_numbering_base();
        EXPECT_GT(cjournal_shutdown(), 0);
        const auto all = judge();
        EXPECT_EQ(all.back().header.first_id, base + 1);
    }
};

TEST_F(JournalCut, SpillsOfOneAndOfSeveralSegments) {
    cut(
        "the first spill", [] { cjournal_spill(1); }, spill_again);
    wait_for(514);
    cut("a full segment and one", [] { cjournal_spill(513); });
    wait_for(10);
    cut("a single event ahead", [] { cjournal_spill_through(causal_total_events()); });
    RecordProperty("cuts", static_cast<int>(cuts));
}

TEST_F(JournalCut, EventsThatWereLostAreAccountedForBeforeTheGapShows) {
    wait_for(20);
    cjournal_spill(10);
    wait_for(CAUSAL_RING_SLOTS + 50);
    cut(
        "overload", [] { EXPECT_EQ(cjournal_spill(20), 20); }, spill_again);
    // This boot begins behind a gap too, with more to restore than one segment holds.
    wait_for(600);
    cut("the next boot", [] { cjournal_spill(3); });
    EXPECT_GT(causal_flush(), 0);
    boot();
    cut("a boot behind a snapshot", [] { cjournal_spill(3); });
}

TEST_F(JournalCut, AnImportedSegmentIsEvictedFromBetweenOthers) {
    cjournal_set_retention(2, 0);
    for (int i = 0; i < 3; i++) {
        wait_for(20);
        cjournal_spill(10);
    }
    cjournal_set_retention(3, 0);
    write_snapshot({{1, 9}, {2, 9}});
    ASSERT_EQ(cjournal_import_legacy(), 2);
    cut("eviction", [] {
        cjournal_set_retention(3, 0);
        cjournal_spill(5);
    });
    EXPECT_EQ(judge().front().number, 3u);
    EXPECT_FALSE(exists(path(4)));
}

TEST_F(JournalCut, EvictionIndexKeyAndSignatures) {
    wait_for(60);
    for (int i = 0; i < 3; i++)
        cjournal_spill(15);
    cut("eviction", [] {
        cjournal_set_retention(2, 0);
        cjournal_spill(5);
    });
    wait_for(10);
    cut("the only one is replaced", [] {
        cjournal_set_retention(1, 0);
        cjournal_spill(5);
        cjournal_spill(5);
    });
    wait_for(10);
    cjournal_spill(5);
    cut(
        "rebuilding",
        [] {
            blockfs_remove(CJOURNAL_INDEX_PATH);
            cjournal_rebuild_index();
        },
        [] { EXPECT_EQ(cjournal_state()->index_count, 2); });
    cut(
        "signing", [] { cjournal_sign_all(); },
        [] {
            const size_t key = read(CJOURNAL_KEY_PATH).size();
            EXPECT_TRUE(key == 32 || !exists(CJOURNAL_KEY_PATH));
            for (uint32_t n = 1; n <= cjournal_state()->segments_written; n++) {
                const std::string name = path(n, cjournal_file_t::signature);
                EXPECT_TRUE(!exists(name) || (key == 32 && read(name.c_str()).size() == 64));
            }
        });
}

TEST_F(JournalCut, AnImportHappensWhollyOrNotAtAll) {
    wait_for(20);
    cjournal_spill(10);
    write_snapshot({{70, 9}, {71, 8}, {72, 7}});
    cut(
        "import", [] { EXPECT_EQ(cjournal_import_legacy(), 3); },
        [] {
            const int32_t count = cjournal_state()->index_count;
            EXPECT_TRUE(count == 1 || count == 4) << count;
            const int again = cjournal_import_legacy();
            EXPECT_TRUE(again == 3 || (again == 0 && exists(CJOURNAL_MIGRATED_PATH))) << again;
            EXPECT_EQ(judge().size(), 4u);
        });
}

/// Boots that record more than the journal can write, spill in every way, and lose power.
TEST_F(JournalCut, WhateverHappensAndWheneverThePowerFails) {
    const uint32_t seed = std::random_device()();
    std::mt19937 chance(seed);
    std::cout << "seed " << seed << "\n";
    const auto upto = [&](uint32_t most) { return chance() % (most + 1); };
    for (int round = 0; round < 60 && !HasFailure(); round++) {
        const uint32_t burst = upto(1) != 0 ? upto(2000) : upto(3);
        m.disk.during_request = [&] {
            for (uint32_t i = upto(burst); i > 0; i--)
                causal_event_fmt(CAUSAL_USER, "test", "event %u", causal_get_next_id());
        };
        m.disk.cut_power_after(upto(1500));
        for (uint32_t works = upto(9); works > 0; works--) {
            wait_for(upto(3) == 0 ? 2000 : 30);
            if (upto(3) == 0)
                cjournal_spill_through(causal_total_events() - upto(20));
            if (upto(4) == 0)
                cjournal_set_retention(1 + upto(8), 0);
            if (upto(9) == 0)
                causal_flush();
            cjournal_spill(static_cast<int>(upto(1) != 0 ? upto(30) : upto(1200)));
        }
        m.disk.during_request = nullptr;
        m.disk.power_on();
        boot(true);
        judge();
    }
}

TEST_F(JournalCut, WhatIsLeftWithoutAnIndexIsCompletedOrRemoved) {
    wait_for(80);
    for (int i = 0; i < 4; i++)
        cjournal_spill(10);
    const bytes_t stale = read(path(3).c_str());
    const bytes_t index = read(CJOURNAL_INDEX_PATH);
    const auto remove = [](uint32_t n, cjournal_file_t file) {
        EXPECT_EQ(blockfs_remove(path(n, file).c_str()), 0);
    };
    for (const bool indexed : {false, true}) {
        SCOPED_TRACE(indexed);
        wait_for(20);
        const uint32_t next = cjournal_state()->segments_written + 1;
        cjournal_spill(10);
        const uint32_t archived = cjournal_state()->last_spilled_id;
        // The newest lacks its companions; behind it lie one that was overtaken and a companion.
        remove(next, cjournal_file_t::sidecar);
        remove(next, cjournal_file_t::root);
        bytes_t old = stale;
        const uint32_t number = next + 1;
        memcpy(&old[old.size() - 40], &number, 4);
        write(path(number).c_str(), old);
        write(path(number + 5, cjournal_file_t::sidecar).c_str(), {1, 2});
        if (indexed)
            write(CJOURNAL_INDEX_PATH, index);
        else
            blockfs_remove(CJOURNAL_INDEX_PATH);
        boot();
        EXPECT_EQ(judge().size(), next);
        EXPECT_EQ(causal_numbering_base(), archived);
    }
    // Damage to what the index names is nobody's to repair.
    remove(2, cjournal_file_t::sidecar);
    boot();
    EXPECT_FALSE(exists(path(2, cjournal_file_t::sidecar)));
    EXPECT_EQ(cjournal.index[1].hash_version, 0u);
}

class JournalFault : public JournalCut {
protected:
    /// Everything that writes. What fails is said, and done at the next attempt.
    static void work() {
        cjournal_set_retention(2, 0);
        wait_for(560);
        cjournal_spill(530);
        cjournal_spill_through(causal_total_events());
        cjournal_sign_all();
        cjournal_rebuild_index();
        cjournal_import_legacy();
    }
    /// Works with the n-th of something failing for every n, until `fail` says that there is none.
    void for_every(const char* what, const std::function<void(uint64_t)>& fail,
                   const std::function<bool()>& failed) {
        wait_for(100);
        cjournal_spill(10);
        write_snapshot({{5, 9}, {6, 9}});
        const disk_image before = m.disk.image;
        for (uint64_t n = 1; !HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << what << " " << n);
            m.disk.image = before;
            boot();
            uint32_t total = 0, used = 0, after = 0;
            heap_get_stats(&total, &used);
            fail(n);
            work();
            const bool last = !failed();
            fail(0);
            heap_get_stats(&total, &after);
            EXPECT_EQ(used, after);
            boot(true);
            judge();
            EXPECT_GT(cjournal_shutdown(), 0);
            judge();
            if (last)
                return;
        }
    }
};

TEST_F(JournalFault, AnyRequestMayFail) {
    uint64_t end = 0;
    for_every(
        "request",
        [&](uint64_t n) {
            m.disk.power_on();
            end = m.disk.requests + n;
            if (n != 0)
                m.disk.fail_request(n, 3);
        },
        [&] { return m.disk.requests >= end; });
}

TEST_F(JournalFault, AnyAllocationMayFail) {
    for_every(
        "allocation", [](uint64_t n) { failing_allocation = n; },
        [] { return failing_allocation == 0; });
    // In start-up as well: without memory the journal may be off, but no number comes back.
    const uint32_t archived = cjournal_state()->last_spilled_id;
    const int32_t segments = cjournal_state()->index_count;
    for (uint64_t n = 1; n < 12; n++) {
        SCOPED_TRACE(n);
        start();
        failing_allocation = n;
        cjournal_continue_numbering();
        EXPECT_EQ(causal_numbering_base(), archived);
        cjournal_init();
        failing_allocation = 0;
        EXPECT_EQ(cjournal_state()->index_count, cjournal_state()->disk_available ? segments : 0);
    }
    boot(true);
    judge();
}

}  // namespace

// The linker sends the kernel's calls of kmalloc here.
extern "C" void* __real__Z7kmallocj(size_t size);
extern "C" void* __wrap__Z7kmallocj(size_t size) {
    const bool fails = failing_allocation != 0 && --failing_allocation == 0;
    return fails ? nullptr : __real__Z7kmallocj(size);
}
