#include "kernel/drivers/virtio.h"

#include <limits.h>

#include "tests/unit/drivers/virtio_fixture.h"

namespace {

/// A device that does nothing by itself.
class silent_device : public virtio_model {
    void notified(int) override {}
    uint8_t config(uint32_t) const override { return 0; }
};

class Virtio : public virtio_fixture {
protected:
    silent_device device;
    virtio_device_t vdev;
    virtq_t* const vq = &vdev.queues[0];
    uint8_t bytes[64];
    const virtq_buf bufs[3] = {{bytes, 16, false}, {bytes + 16, 32, true}, {bytes + 48, 1, true}};

    void SetUp() override {
        device.features = 0x21;
        device.queue_sizes = {8, 4, 0, 16};
        start_machine(device, 0x1001, 0xC000);
    }
    int start(uint32_t wanted = 0x20) { return virtio_init_device(&vdev, pci_devices, wanted); }
};

TEST_F(Virtio, ADeviceComesUpWithTheWantedFeaturesAndItsQueues) {
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(device.status, 15);
    EXPECT_EQ(device.driver_features, 0x20u);
    EXPECT_EQ(vdev.num_queues, 2);  // the third is not there
    EXPECT_EQ(device.desc(1), vdev.queues[1].desc);
    EXPECT_EQ(pci_read_config(0, 3, 0, 4) & 4, 4u);
}

TEST_F(Virtio, AFailedStartSaysWhyKeepsNoMemoryAndLeavesFailedSet) {
    const auto fails = [&](const std::string& reason, const std::string& status, uint32_t wanted) {
        const uint32_t used = heap_used();
        machine_texts().clear();
        EXPECT_EQ(start(wanted), -1);
        EXPECT_EQ(machine_texts(),
                  "[virtio] init failed: " + reason + " (status=" + status + ")\n");
        EXPECT_EQ(newest(), "init failed: " + reason + " status=" + status);
        EXPECT_EQ(device.status & VIRTIO_FAILED, VIRTIO_FAILED);
        EXPECT_EQ(device.queue_pages[0], 0u);
        EXPECT_EQ(heap_used(), used);
    };
    device.status_always = VIRTIO_FAILED;
    fails("device rejected driver status", "0x83", 0);
    device.status_always = 0;
    fails("required feature missing", "0x3", 0x22);
    device.status_never = VIRTIO_FEATURES_OK;
    fails("feature negotiation rejected", "0x3", 0);
    device.status_never = VIRTIO_DRIVER_OK;
    fails("driver_ok rejected", "0xb", 0);
    for (const uint16_t size : {uint16_t{0}, uint16_t{12}}) {  // no ring has such a size
        device.queue_sizes[0] = size;
        fails("no virtqueues available", "0xb", 0);
    }
    for (const uint32_t bar : {0u, 1u, 0xFEBF1000u, 0x1C001u}) {
        pci_devices[0].bar[0] = bar;
        EXPECT_EQ(start(), -1);
    }
}

TEST_F(Virtio, WithoutMemoryForAQueueTheOnesBeforeItAreAllThereAre) {
    constexpr uint32_t QUEUE_BYTES = 8 * 4096, ALIGNMENT_WASTE = 4200;
    device.queue_sizes = {1024, 1024, 1024, 1024};
    for (uint32_t queues = 0; queues <= 4; ++queues) {
        const auto rest = take_heap_but(queues * (QUEUE_BYTES + ALIGNMENT_WASTE) + 4096);
        const uint32_t used = heap_used();
        EXPECT_EQ(start(), queues > 0 ? 0 : -1);
        EXPECT_EQ(vdev.num_queues, static_cast<int>(queues));
        if (queues > 0)
            virtio_release_device(&vdev);
        EXPECT_EQ(heap_used(), used);
    }
}

TEST_F(Virtio, ChainsGoRoundTheRingsForEver) {
    device.queue_sizes = {1024, 0, 0, 0};
    ASSERT_EQ(start(), 0);
    virtio_model::chain_t a, b;
    for (int round = 0; round < 70000; ++round) {
        const int first = virtq_push(vq, bufs, 3), second = virtq_push(vq, bufs + 1, 1);
        ASSERT_TRUE(device.take(0, &a) && device.take(0, &b) && !device.take(0, &b));
        device.give(0, b.head, 32);
        device.give(0, a.head, 33);
        uint32_t len = 0;
        ASSERT_EQ(virtq_pop(vq, &len), second);
        ASSERT_EQ(len, 32u);
        ASSERT_EQ(virtq_pop(vq, nullptr), first);
        ASSERT_EQ(virtq_pop(vq, nullptr), -1);
        ASSERT_EQ(vq->num_free, 1024);
    }
    ASSERT_EQ(a.buffers.size(), 3u);
    EXPECT_EQ(a.buffers[1].data, bytes + 16);
    EXPECT_TRUE(!a.buffers[0].writable && a.buffers[2].writable && a.buffers[2].len == 1);
}

TEST_F(Virtio, AFullQueueAndEmptyBuffersAreRefused) {
    ASSERT_EQ(start(), 0);
    const virtq_buf nothing = {bytes, 0, false}, nowhere = {nullptr, 1, false};
    EXPECT_EQ(virtq_push(vq, bufs, 0), -1);
    EXPECT_EQ(virtq_push(vq, &nothing, 1), -1);
    EXPECT_EQ(virtq_push(vq, &nowhere, 1), -1);
    for (const int wanted : {0, 3, -1})
        EXPECT_EQ(virtq_push(vq, bufs, 3), wanted);
}

TEST_F(Virtio, WhatTheDeviceNeverGotFreesNothing) {
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(virtq_push(vq, bufs, 3), 0);
    for (const uint32_t id : {8u, 5u, ~0u}) {
        device.give(0, id, 1);
        EXPECT_EQ(virtq_pop(vq, nullptr), static_cast<int>(std::min(id, uint32_t{INT_MAX})));
        EXPECT_EQ(vq->num_free, 5);
    }
}

}  // namespace
