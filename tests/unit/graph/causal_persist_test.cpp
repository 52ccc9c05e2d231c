#include "kernel/graph/causal_persist.h"

#include "kernel/core/endian.h"
#include "kernel/core/interrupt.h"
#include "tests/unit/fs/volume.h"

namespace {

constexpr const char* PATH = "/causal/journal.bin";

class CausalPersist : public Volume {
protected:
    void SetUp() override { restart(); }
    void restart() {
        m.disk.power_on();
        ASSERT_EQ(mount(), 0);
        causal_init();
        machine_texts().clear();
        causal_persist_init();
    }
    static void emit_until(uint32_t id) {
        while (causal_total_events() < id)
            causal_emit(CAUSAL_USER, "test", ("n" + std::to_string(causal_get_next_id())).c_str(),
                        nullptr, 0);
    }
    /// Events in the ring whose description begins with "[R] ".
    static std::vector<const causal_event_t*> restored() {
        std::vector<const causal_event_t*> found;
        for (uint32_t id = 1; id <= causal_total_events(); ++id) {
            const causal_event_t* ev = causal_get_ring(id);
            if (ev != nullptr && strncmp(ev->desc, "[R] ", 4) == 0)
                found.push_back(ev);
        }
        return found;
    }
};

TEST_F(CausalPersist, TheNewestEventsComeBackWithTheirTimes) {
    EXPECT_EQ(machine_texts(), "[cpersist] no journal found (first boot)\n");
    emit_until(699);
    causal_set_node_hash(0xABCD);
    causal_set_lamport(5000);
    system_ticks = 77;
    const std::string desc(79, 'd');
    causal_emit(CAUSAL_NET, "fifteen-letters", desc.c_str(), nullptr, 0);
    const uint32_t tsc = causal_get(700)->time.tsc_lo;
    ASSERT_EQ(causal_flush(), 512);
    EXPECT_EQ(newest(), "flushed 512 events to disk");
    const bytes_t file = read(PATH);
    ASSERT_EQ(file.size(), 24 + 512 * 138u);
    const uint32_t numbers[] = {0x43505354, 1, 512, 701, 5001, 0};
    EXPECT_EQ(memcmp(file.data(), numbers, sizeof numbers), 0);
    EXPECT_EQ(load_le32(&file[24]), 189u);
    const uint32_t fields[] = {700, 0xABCD, 5001, 0, 77, tsc};
    EXPECT_EQ(memcmp(&file[24 + 511 * 138], fields, sizeof fields), 0);

    restart();
    EXPECT_EQ(machine_texts(), "[cpersist] restored 512 events from disk\n");
    const auto events = restored();
    ASSERT_EQ(events.size(), 512u);
    EXPECT_EQ(newest(), "restored 512 events from disk");
    EXPECT_GT(causal_get_lamport(), 5001u);
    EXPECT_STREQ(events[0]->desc, "[R] n189");
    const causal_event_t& ev = *events[511];
    EXPECT_STREQ(ev.desc, ("[R] " + desc.substr(0, 75)).c_str());
    EXPECT_EQ((std::array<uint64_t, 4>{ev.time.lamport, ev.time.wall_ticks, ev.time.tsc_lo,
                                       ev.node_hash}),
              (std::array<uint64_t, 4>{5001, 77, tsc, 0xABCD}));
}

TEST_F(CausalPersist, ADamagedSnapshotIsRefusedWhole) {
    emit_until(20);
    const int count = causal_flush();
    const bytes_t sound = read(PATH);
    const auto result_of = [&](size_t at, uint8_t value) {
        bytes_t bytes = sound;
        bytes.at(at) = value;
        write(PATH, bytes);
        const size_t before = restored().size();
        const int result = causal_restore();
        EXPECT_EQ(restored().size() - before, static_cast<size_t>(result < 0 ? 0 : result));
        return result;
    };
    const size_t last = 24 + static_cast<size_t>(count - 1) * 138;
    const std::pair<size_t, uint8_t> damages[] = {
        {0, 'X'},        {4, 2},         {8, static_cast<uint8_t>(count + 1)},
        {11, 0xFF},      {23, 0x80},  // a Lamport clock about to overflow
        {last + 24, 10}, {last + 137, 5}};
    for (const auto& [at, value] : damages)
        EXPECT_EQ(result_of(at, value), -1) << at;
    EXPECT_EQ(result_of(8, 0), 0);
    EXPECT_EQ(result_of(last + 24, 9), count);
    bytes_t wild = sound;
    std::fill(wild.begin() + static_cast<long>(last) + 25,
              wild.begin() + static_cast<long>(last) + 121, 0x1B);  // no terminators
    write(PATH, wild);
    ASSERT_EQ(causal_restore(), count);
    EXPECT_STREQ(restored().back()->desc, ("[R] " + std::string(75, '?')).c_str());
    write(PATH, bytes_t(sound.begin(), sound.begin() + 23));
    restart();
    EXPECT_EQ(machine_texts(), "[cpersist] restore failed\n");
}

TEST_F(CausalPersist, FlushesItselfOnlyWhenThereIsReason) {
    const auto flushes_at = [](uint32_t tick) {
        const uint32_t before = causal_total_events();
        system_ticks = tick;
        causal_auto_flush();
        return causal_total_events() != before;
    };
    emit_until(12288);
    EXPECT_FALSE(flushes_at(3000));
    emit_until(12289);
    EXPECT_FALSE(flushes_at(2999));
    m.disk.fail_request(1, 1000000);
    EXPECT_TRUE(flushes_at(3000));
    m.disk.power_on();
    EXPECT_FALSE(flushes_at(3001));  // one that failed is not tried again at once
    EXPECT_TRUE(flushes_at(6000));
    EXPECT_EQ(newest(), "flushed 512 events to disk");
    EXPECT_FALSE(flushes_at(20000));  // nothing has happened since
    blockfs_forget();
    causal_auto_flush();
    EXPECT_EQ(causal_flush(), -1);
    EXPECT_EQ(causal_restore(), -1);
}

}  // namespace
