#include "kernel/drivers/virtio_blk.h"

#include <algorithm>

#include "tests/machine/virtio_disk.h"
#include "tests/unit/drivers/virtio_fixture.h"

namespace {

class VirtioBlk : public testing::Test {
protected:
    disk_machine m{8388608 + 9};
    virtio_disk& disk = m.disk;
    std::vector<uint8_t> data = pattern(8);

    static std::vector<uint8_t> pattern(size_t sectors) {
        std::vector<uint8_t> bytes(sectors * BLK_SECTOR_SIZE);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(i * 7 + i / BLK_SECTOR_SIZE);
        return bytes;
    }
};

TEST_F(VirtioBlk, SectorsUpToTheLastComeBackAsWritten) {
    const uint64_t first = blk_capacity() - 2048;
    const std::vector<uint8_t> out = pattern(2048);
    std::vector<uint8_t> in(out.size());
    ASSERT_EQ(blk_write(first, out.data(), 2048), 0);
    ASSERT_EQ(blk_read(first, in.data(), 2048), 0);
    EXPECT_EQ(in, out);
    EXPECT_EQ(disk.image.bytes(first, 2048), out);
    EXPECT_EQ(disk.requests, 2u);
}

TEST_F(VirtioBlk, PiecesGoOutInOrderAndTogetherAsFarAsTheQueueHasRoom) {
    std::vector<blk_piece_t> pieces;
    for (uint32_t i = 8; i-- > 0;)
        pieces.push_back({data.data() + i * BLK_SECTOR_SIZE, 1});
    pieces.push_back({data.data(), 8});
    const auto write = [&](uint64_t sector) {
        ASSERT_EQ(blk_write_pieces(sector, pieces), 0);
        for (uint32_t i = 0; i < 16; ++i)
            EXPECT_EQ(memcmp(disk.image[sector + i].data(),
                             data.data() + (i < 8 ? 7 - i : i - 8) * BLK_SECTOR_SIZE, 512),
                      0);
    };
    write(100);
    EXPECT_EQ(disk.requests, 1u);
    disk.queue_sizes[0] = 4;
    ASSERT_EQ(blk_init(), 0);
    write(200);
    EXPECT_EQ(disk.requests, 6u);
    EXPECT_EQ(blk_write_pieces(0, {}), -1);
    pieces.push_back({data.data(), 8388607});
    EXPECT_EQ(blk_write_pieces(0, pieces), -1);
    EXPECT_EQ(disk.requests, 6u);
}

TEST_F(VirtioBlk, StartsOnceThereIsADiskAndSaysItsSize) {
    machine_texts().clear();
    ASSERT_EQ(blk_init(), 0);
    EXPECT_EQ(machine_texts(), "[virtio-blk] capacity: 8388617 sectors (4096 MB)\n");
    EXPECT_EQ(newest(), "init: virtio-blk ready, 8388617 sectors");
    pci_device_count = 0;
    EXPECT_EQ(blk_init(), -1);
    EXPECT_FALSE(blk_present());
    EXPECT_EQ(blk_capacity(), 0u);
    EXPECT_EQ(blk_read(0, data.data(), 1), -1);
}

TEST_F(VirtioBlk, WhatCannotBeIsRefusedBeforeTheDeviceHearsOfIt) {
    const uint64_t end = blk_capacity();
    EXPECT_EQ(blk_write(0, nullptr, 1), -1);
    for (const auto& [sector, count] : {std::pair{0ull, 0u},
                                        {end, 1},
                                        {end - 1, 2},
                                        {~0ull, 1},
                                        {0, 8388608}})  // 4 GiB have no 32-bit length
        EXPECT_EQ(blk_read(sector, data.data(), count) + blk_write(sector, data.data(), count), -2);
    EXPECT_EQ(disk.requests, 0u);
    EXPECT_EQ(machine_texts(), "");
}

TEST_F(VirtioBlk, AFailingRequestIsTriedThreeTimes) {
    disk.fail_request(1, 2);
    ASSERT_EQ(blk_write(5, data.data(), 8), 0);
    EXPECT_EQ(machine_texts(),
              "[virtio-blk] retrying write sector=5 count=8 (attempt 2)\n"
              "[virtio-blk] retrying write sector=5 count=8 (attempt 3)\n");
    EXPECT_EQ(newest(1), "write error sector=5 count=8");
    EXPECT_EQ(newest(), "write retry sector=5 count=8");
    EXPECT_EQ(disk.image.bytes(5, 8), data);
    disk.fail_request(1, 3);
    EXPECT_EQ(blk_read(5, data.data(), 1), -1);
    EXPECT_EQ(newest(), "read error sector=5 count=1");
    EXPECT_EQ(disk.requests, 6u);
}

TEST_F(VirtioBlk, ASilentDeviceIsResetAndTouchesNothingAfterwards) {
    const uint32_t used = heap_used();
    disk.image.write(9, data.data());
    disk.stall_count = 3;
    std::vector<uint8_t> in(BLK_SECTOR_SIZE);
    ASSERT_EQ(blk_read(9, in.data(), 1), -1);
    EXPECT_EQ(machine_texts(),
              "[virtio-blk] read timeout on sector 9\n"
              "[virtio-blk] retrying read sector=9 count=1 (attempt 2)\n"
              "[virtio-blk] read timeout on sector 9\n"
              "[virtio-blk] retrying read sector=9 count=1 (attempt 3)\n"
              "[virtio-blk] read timeout on sector 9\n");
    EXPECT_EQ(newest(), "read timeout sector=9");
    EXPECT_EQ(disk.pending(), 0u);
    EXPECT_EQ(disk.resets, 4u);
    ASSERT_EQ(blk_read(9, in.data(), 1), 0);
    EXPECT_TRUE(std::equal(in.begin(), in.end(), data.begin()));
    EXPECT_EQ(heap_used(), used);
    disk.late_polls = 1000000;
    EXPECT_EQ(blk_read(9, in.data(), 1), 0);
    EXPECT_EQ(disk.resets, 4u);
}

TEST_F(VirtioBlk, ADeviceThatDoesNotComeBackIsGivenUp) {
    const uint32_t queue_bytes = 3 * 4096, used = heap_used();
    disk.stall_count = 1;
    disk.status_never = VIRTIO_DRIVER_OK;
    EXPECT_EQ(blk_write(0, data.data(), 1), -1);
    EXPECT_FALSE(blk_present());
    EXPECT_EQ(disk.status, VIRTIO_FAILED);
    EXPECT_EQ(disk.pending() + disk.queue_pages[0], 0u);
    EXPECT_LE(heap_used(), used - queue_bytes);
}

TEST_F(VirtioBlk, ALieIsAFailureAndDoesNoHarm) {
    ASSERT_EQ(blk_write(1, data.data(), 8), 0);
    const uint32_t used = heap_used();
    for (const disk_lie lie : {disk_lie::id_beyond, disk_lie::id_huge, disk_lie::id_other,
                               disk_lie::id_middle, disk_lie::index_ahead, disk_lie::length_short,
                               disk_lie::length_beyond, disk_lie::chain_loop}) {
        std::vector<uint8_t> in(data.size());
        const uint64_t first = disk.requests + 1;
        disk.during_request = [&] { disk.lie = disk.requests == first ? lie : disk_lie::none; };
        ASSERT_EQ(blk_read(1, in.data(), 8), 0) << static_cast<int>(lie);
        EXPECT_EQ(disk.requests, first + 1);
        EXPECT_EQ(in, data);
    }
    EXPECT_EQ(heap_used(), used);
}

TEST_F(VirtioBlk, TasksAtTheSameTimeGetOneRequestEach) {
    task_init();
    fake_switch.coroutines = true;
    sched_start();
    int inside = 0;
    disk.during_request = [&] {
        EXPECT_EQ(++inside, 1);
        task_yield();
        --inside;
    };
    const auto body = [] {
        const auto own = static_cast<uint8_t>(task_getpid());
        uint8_t sector[BLK_SECTOR_SIZE];
        for (int i = 0; i < 10; ++i) {
            std::fill_n(sector, sizeof sector, own);
            EXPECT_EQ(blk_write(own, sector, 1), 0);
            EXPECT_EQ(blk_read(own, sector, 1), 0);
            EXPECT_EQ(std::count(sector, sector + sizeof sector, own), 512);
        }
    };
    for (int i = 0; i < 4; ++i)
        ASSERT_NE(task_create("writer", body, 0), nullptr);
    for (int i = 0; i < 300; ++i)
        task_yield();
    EXPECT_EQ(disk.sectors_read, 40u);
    fake_switch_reset();
    running() = {};
}

}  // namespace
