#include "kernel/drivers/virtio.h"

#include <gtest/gtest.h>

#include "kernel/core/heap_ptr.h"
#include "kernel/graph/causal.h"
#include "tests/machine/memory.h"
#include "tests/machine/pci_bus.h"
#include "tests/machine/virtio_model.h"

namespace {

uint32_t heap_used() {
    uint32_t total = 0, used = 0;
    heap_get_stats(&total, &used);
    return used;
}

/// A device that does nothing by itself.
class silent_device : public virtio_model {
public:
    std::vector<int> kicks;

protected:
    void notified(int queue) override { kicks.push_back(queue); }
    uint8_t config(uint32_t offset) const override { return static_cast<uint8_t>(0xA0 + offset); }
};

class Virtio : public testing::Test {
protected:
    pci_bus bus;
    silent_device device;
    virtio_device_t vdev;
    uint8_t bytes[64];
    const virtq_buf bufs[3] = {{bytes, 16, false}, {bytes + 16, 32, true}, {bytes + 48, 1, true}};

    void SetUp() override {
        machine_reset();
        machine().log_ports = false;
        machine_boot_memory();
        causal_init();
        bus.attach();
        bus.add(0, 3, 0, VIRTIO_VENDOR, 0x1001, 0xC001);
        device.attach(0xC000);
        device.features = 0x21;
        device.queue_sizes = {8, 4, 0, 16};
        pci_init();
        machine_texts().clear();
    }
    void TearDown() override { record_set_hook(nullptr); }
    int start(uint32_t wanted = 0x20) { return virtio_init_device(&vdev, pci_devices, wanted); }
};

TEST_F(Virtio, ADeviceComesUpWithTheWantedFeaturesAndItsQueues) {
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(device.status, 15);
    EXPECT_EQ(device.driver_features, 0x20u);
    EXPECT_EQ(vdev.device_features, 0x21u);
    EXPECT_EQ(vdev.num_queues, 2);  // the third is not there
    EXPECT_EQ(device.desc(1), vdev.queues[1].desc);
    EXPECT_EQ(pci_read_config(0, 3, 0, 4) & 4, 4u);
    EXPECT_EQ(virtio_read_config8(&vdev, 3), 0xA3);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(vdev.queues[0].desc) % 4096, 0u);
    EXPECT_EQ(machine_texts(), "");
}

TEST_F(Virtio, AFailedStartSaysWhyKeepsNoMemoryAndLeavesFailedSet) {
    const uint32_t used = heap_used();
    const auto fails = [&](const std::string& reason, uint32_t status, uint32_t wanted = 0x20) {
        machine_texts().clear();
        EXPECT_EQ(start(wanted), -1);
        char hex[8];
        snprintf(hex, sizeof hex, "0x%x", status);
        EXPECT_EQ(machine_texts(), "[virtio] init failed: " + reason + " (status=" + hex + ")\n");
        const causal_event_t* ev = causal_get_ring(causal_total_events());
        EXPECT_EQ(ev->desc, "init failed: " + reason + " status=" + hex);
        EXPECT_NE(device.status & VIRTIO_FAILED, 0);
        EXPECT_EQ(device.queue_pages[0], 0u);
        EXPECT_EQ(heap_used(), used);
        EXPECT_EQ(vdev.num_queues, 0);
    };
    device.status_always = VIRTIO_FAILED;
    fails("device rejected driver status", 0x83);
    device.status_always = 0;
    fails("required feature missing", 0x3, 0x22);
    device.status_never = VIRTIO_FEATURES_OK;
    fails("feature negotiation rejected", 0x3);
    device.status_never = VIRTIO_DRIVER_OK;
    fails("driver_ok rejected", 0xB);
    device.status_never = 0;
    device.queue_sizes = {0, 4, 4, 4};
    fails("no virtqueues available", 0xB);
    device.queue_sizes = {12, 4, 4, 4};  // no ring has such a size
    fails("no virtqueues available", 0xB);
    device.queue_sizes = {8, 4, 0, 0};
    for (const uint32_t bar : {0u, 1u, 0xFEBF1000u, 0x1C001u}) {
        pci_devices[0].bar[0] = bar;
        EXPECT_EQ(start(), -1);
    }
}

TEST_F(Virtio, WithoutMemoryForAQueueTheOnesBeforeItAreAllThereAre) {
    device.queue_sizes = {1024, 1024, 1024, 1024};
    const uint32_t queue_bytes = 8 * 4096;
    for (int queues = 4; queues >= 0; --queues) {
        const uint32_t used = heap_used();
        const auto room = static_cast<uint32_t>(queues) * (queue_bytes + 4200) + 4096;
        const heap_ptr<uint8_t> rest(kmalloc(HEAP_BYTES - used - room));
        ASSERT_TRUE(rest);
        const uint32_t before = heap_used();
        EXPECT_EQ(start(), queues > 0 ? 0 : -1);
        EXPECT_EQ(vdev.num_queues, queues);
        if (queues > 0)
            virtio_release_device(&vdev);
        EXPECT_EQ(heap_used(), before);
    }
}

TEST_F(Virtio, ChainsGoRoundTheRingsForEver) {
    device.queue_sizes = {1024, 0, 0, 0};
    ASSERT_EQ(start(), 0);
    virtq_t* vq = &vdev.queues[0];
    virtio_model::chain_t a, b;
    for (int round = 0; round < 70000; ++round) {
        const int first = virtq_push(vq, bufs, 3), second = virtq_push(vq, bufs + 1, 1);
        ASSERT_TRUE(device.take(0, &a) && device.take(0, &b) && !device.take(0, &b));
        ASSERT_EQ(a.head, static_cast<uint32_t>(first));
        device.give(0, b.head, 32);
        device.give(0, a.head, 33);
        uint32_t len = 0;
        ASSERT_EQ(virtq_pop(vq, &len), second);
        ASSERT_EQ(len, 32u);
        ASSERT_EQ(virtq_pop(vq, nullptr), first);
        ASSERT_EQ(virtq_pop(vq, &len), -1);
        ASSERT_EQ(vq->num_free, 1024);
    }
    ASSERT_EQ(a.buffers.size(), 3u);
    EXPECT_EQ(a.buffers[1].data, bytes + 16);
    EXPECT_TRUE(!a.buffers[0].writable && a.buffers[2].writable && a.buffers[2].len == 1);
    virtq_kick(&vdev, 0);
    EXPECT_EQ(device.kicks, std::vector<int>{0});
}

TEST_F(Virtio, AFullQueueAndEmptyBuffersAreRefused) {
    ASSERT_EQ(start(), 0);
    virtq_t* vq = &vdev.queues[1];
    const virtq_buf nothing = {bytes, 0, false}, nowhere = {nullptr, 1, false};
    for (const int count : {0, -1, 5})
        EXPECT_EQ(virtq_push(vq, bufs, count), -1);
    EXPECT_EQ(virtq_push(vq, &nothing, 1), -1);
    EXPECT_EQ(virtq_push(vq, &nowhere, 1), -1);
    EXPECT_EQ(virtq_push(vq, bufs, 3), 0);
    EXPECT_EQ(virtq_push(vq, bufs, 2), -1);
    EXPECT_EQ(virtq_push(vq, bufs, 1), 3);
    EXPECT_EQ(virtq_push(vq, bufs, 1), -1);
}

TEST_F(Virtio, WhatTheDeviceNeverGotFreesNothing) {
    ASSERT_EQ(start(), 0);
    virtq_t* vq = &vdev.queues[0];
    ASSERT_EQ(virtq_push(vq, bufs, 3), 0);
    for (const uint32_t id : {8u, 5u, ~0u}) {
        device.give(0, id, 1);
        EXPECT_EQ(virtq_pop(vq, nullptr), id > INT_MAX ? INT_MAX : static_cast<int>(id));
        EXPECT_EQ(vq->num_free, 5);
    }
    device.skip_used(0, 9);
    EXPECT_EQ(virtq_pop(vq, nullptr), -1);
    device.skip_used(0, static_cast<uint16_t>(-9));
    device.give(0, 0, 1);
    device.give(0, 0, 1);
    EXPECT_EQ(virtq_pop(vq, nullptr), 0);
    EXPECT_EQ(vq->num_free, 8);
    EXPECT_EQ(virtq_pop(vq, nullptr), -1);  // nothing is out any more
    ASSERT_EQ(virtio_restart_device(&vdev), 0);
    EXPECT_EQ(virtq_push(vq, bufs, 3), 0);
    vq->desc[2] = {1, 1, VIRTQ_DESC_NEXT, 1};
    device.give(0, 0, 1);
    EXPECT_EQ(virtq_pop(vq, nullptr), 0);  // a loop
    EXPECT_EQ(vq->num_free, 5);
}

}  // namespace
