#include "kernel/drivers/virtio_net.h"

#include "kernel/core/interrupt.h"
#include "tests/machine/virtio_nic.h"
#include "tests/unit/drivers/virtio_fixture.h"

namespace {

class VirtioNet : public virtio_fixture {
protected:
    virtio_nic nic;
    std::vector<uint8_t> frame = std::vector<uint8_t>(1514), in = std::vector<uint8_t>(2000);

    void SetUp() override {
        start_machine(nic, virtio_nic::DEVICE_ID, virtio_nic::PORT);
        for (size_t i = 0; i < frame.size(); ++i)
            frame[i] = static_cast<uint8_t>(i * 3 + 1);
    }
};

TEST_F(VirtioNet, StartsWithItsAddress) {
    EXPECT_EQ(net_send(frame.data(), 60), -1);
    ASSERT_EQ(net_init(), 0);
    EXPECT_EQ(machine_texts(), "[net] MAC 52:54:00:12:34:56\n");
    EXPECT_EQ(newest(), "init: MAC 52:54:00:12:34:56");
    EXPECT_EQ(nic.driver_features, 0x20u);
    machine_texts().clear();
    net_debug_rxring();
    EXPECT_EQ(machine_texts(),
              "[net-rx] last_used=0 used_idx=0 avail_idx=16 free=240 io=0xc040\n"
              "[net-rx] ISR=0x0\n");
}

TEST_F(VirtioNet, AFailedStartKeepsNoMemoryAndNoDevice) {
    const uint32_t used = heap_used();
    const auto fails = [&](const char* text) {
        machine_texts().clear();
        EXPECT_EQ(net_init(), -1);
        EXPECT_NE(machine_texts().find(text), std::string::npos) << machine_texts();
        EXPECT_FALSE(net_present());
        EXPECT_EQ(heap_used(), used);
    };
    nic.features = 0;
    fails("[net] virtio init failed\n");
    nic.features = 0x20;
    nic.queue_sizes[1] = 0;
    fails("[net] need 2 queues, got 1\n");
    nic.queue_sizes[1] = 256;
    for (const uint32_t room : {26000u, 40000u}) {  // with no and with some receive buffers
        const auto rest = take_heap_but(room);
        const uint32_t before = heap_used();
        EXPECT_EQ(net_init(), -1);
        EXPECT_EQ(heap_used(), before);
    }
    EXPECT_NE(machine_texts().find("[net] RX buffer alloc failed\n"), std::string::npos);
}

TEST_F(VirtioNet, FramesGoOutWholeAndOnlyOnceTheLastIsGone) {
    ASSERT_EQ(net_init(), 0);
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(net_send(frame.data(), 1514), 0);
    EXPECT_EQ(nic.sent.back(), frame);
    EXPECT_EQ(net_send(frame.data(), 1515), -1);
    nic.stalled = true;
    EXPECT_EQ(net_send(frame.data(), 60), -1);
    EXPECT_EQ(newest(), "send error: TX completion timeout, len=60");
    EXPECT_EQ(net_send(frame.data() + 1, 61), -1);  // the buffer is still the card's
    EXPECT_EQ(newest(), "send error: virtq_push failed, len=61");
    nic.stalled = false;
    nic.send_waiting();
    EXPECT_EQ(nic.sent.back(), std::vector<uint8_t>(frame.begin(), frame.begin() + 60));
    EXPECT_EQ(net_send(frame.data(), 62), 0);
    EXPECT_EQ(nic.sent.back().size(), 62u);
}

TEST_F(VirtioNet, FramesComeInCutToTheRoomAndTheirBuffersGoRound) {
    ASSERT_EQ(net_init(), 0);
    EXPECT_EQ(net_receive(in.data(), 2000), 0);
    for (int round = 0; round < 100; ++round) {
        int delivered = 0;
        while (nic.deliver(frame))
            ++delivered;
        ASSERT_EQ(delivered, 16);
        for (int i = 0; i < 15; ++i)
            ASSERT_EQ(net_receive(in.data(), 2000), 1514);
        ASSERT_TRUE(std::equal(frame.begin(), frame.end(), in.begin()));
        in[100] = 0x77;
        ASSERT_EQ(net_receive(in.data(), 100), 100);
        ASSERT_EQ(in[100], 0x77);
    }
    ASSERT_TRUE(nic.deliver({}));
    EXPECT_EQ(net_receive(in.data(), 2000), 0);  // a header alone
    EXPECT_EQ(net_stats.rx_drops, 0u);
    machine().on_pause = [&] {
        system_ticks = system_ticks + 1;
        if (system_ticks % 8 == 0)
            nic.deliver(frame);
    };
    EXPECT_EQ(net_receive_wait(in.data(), 2000, 100), 1514);
    machine().on_pause = [] { system_ticks = system_ticks + 1; };
    EXPECT_EQ(net_receive_wait(in.data(), 2000, 100), 0);
}

TEST_F(VirtioNet, WhatTheCardMakesUpIsDroppedAndCounted) {
    ASSERT_EQ(net_init(), 0);
    const auto dropped = [&](const char* event) {
        const uint32_t before = net_stats.rx_drops;
        EXPECT_EQ(net_receive(in.data(), 2000), 0);
        EXPECT_EQ(net_stats.rx_drops, before + 1);
        EXPECT_EQ(newest(), event);
    };
    nic.give(0, 32, 100);
    dropped("rx error: invalid desc=32");
    nic.give(0, 20, 100);
    dropped("rx error: desc=20 bad map=-1");
    ASSERT_TRUE(nic.deliver(frame, 1525));
    dropped("rx error: desc=0 bad len=1525");
    int delivered = 0;
    while (nic.deliver(frame))
        ++delivered;
    EXPECT_EQ(delivered, 16);  // none was lost
}

}  // namespace
