// Queue 0 receives, queue 1 sends. Each receive buffer is posted on one descriptor; desc_to_rx says
// on which. A frame that the card has not sent in time is still its own: the transmit buffer is
// used again only after every chain is back.
#include "kernel/drivers/virtio_net.h"

#include <algorithm>
#include <array>

#include "arch/x86/cpu.h"
#include "arch/x86/ports.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/drivers/virtio.h"
#include "kernel/graph/causal.h"

net_stats_t net_stats;

namespace {

constexpr uint16_t NET_DEVICE_ID = 0x1000;
constexpr uint32_t FEATURE_MAC = 1u << 5;
constexpr int RX_QUEUE = 0;
constexpr int TX_QUEUE = 1;
constexpr int QUEUES_NEEDED = 2;
constexpr uint32_t TX_POLLS_MAX = 100000;
constexpr uint32_t HEADER_BYTES = 10;
constexpr uint32_t BUFFER_BYTES = HEADER_BYTES + NET_FRAME_MAX;
static_assert(BUFFER_BYTES == 1524);
constexpr int RX_BUFFERS = 16;
constexpr int RX_DESCRIPTORS = 32;
constexpr int NO_BUFFER = -1;
constexpr uint16_t MAC_BYTES = 6;
constexpr uint32_t TICK_MS = 10;

mutex_t rx_lock, tx_lock;

struct state_t {
    virtio_device_t device;
    bool initialized;
    uint8_t mac[MAC_BYTES];
    std::array<uint8_t*, RX_BUFFERS> rx_bufs;
    std::array<int, RX_DESCRIPTORS> desc_to_rx;
    uint8_t tx_buf[BUFFER_BYTES];
};

state_t net;

void post_rx_buffer(int i) {
    const virtq_buf buf = {net.rx_bufs[static_cast<size_t>(i)], BUFFER_BYTES, true};
    const int head = virtq_push(&net.device.queues[RX_QUEUE], &buf, 1);
    if (head < 0 || head >= RX_DESCRIPTORS) {
        kprintf("[net] RX virtq_push failed for buf %d\n", i);
        return;
    }
    net.desc_to_rx[static_cast<size_t>(head)] = i;
    virtq_kick(&net.device, RX_QUEUE);
}

bool post_all_rx_buffers() {
    for (int i = 0; i < RX_BUFFERS; ++i) {
        auto* buf = static_cast<uint8_t*>(kmalloc(BUFFER_BYTES));
        if (buf == nullptr)
            return false;
        memset(buf, 0, BUFFER_BYTES);
        net.rx_bufs[static_cast<size_t>(i)] = buf;
        post_rx_buffer(i);
    }
    return true;
}

/// Gives up a card that came up but cannot be used.
void release() {
    virtio_release_device(&net.device);
    for (uint8_t*& buf : net.rx_bufs) {
        kfree(buf);
        buf = nullptr;
    }
}

void drop_rx() { ++net_stats.rx_drops; }

/// The buffer that was posted on descriptor `desc`, which it leaves; NO_BUFFER after counting and
/// recording that there is none.
int take_rx_buffer(int desc) {
    if (desc >= RX_DESCRIPTORS) {
        drop_rx();
        causal_event_fmt(CAUSAL_IO, "net", "rx error: invalid desc=%d", desc);
        return NO_BUFFER;
    }
    int& slot = net.desc_to_rx[static_cast<size_t>(desc)];
    const int i = slot;
    slot = NO_BUFFER;
    if (i < 0 || i >= RX_BUFFERS || net.rx_bufs[static_cast<size_t>(i)] == nullptr) {
        drop_rx();
        causal_event_fmt(CAUSAL_IO, "net", "rx error: desc=%d bad map=%d", desc, i);
        return NO_BUFFER;
    }
    return i;
}

/// Whether the card has returned every chain that it was given to send.
bool tx_idle() {
    virtq_t* vq = &net.device.queues[TX_QUEUE];
    for (uint32_t n = 0; n < vq->size && virtq_pop(vq, nullptr) >= 0; ++n) {
    }
    return vq->num_free == vq->size;
}

bool wait_for_tx() {
    for (uint32_t poll = 0; poll < TX_POLLS_MAX; ++poll) {
        if (tx_idle())
            return true;
        cpu_pause();
    }
    return false;
}

/// Hands the transmit buffer to the card, unless it still has it.
bool push_tx(const void* data, uint32_t len) {
    if (!tx_idle())
        return false;
    memset(net.tx_buf, 0, HEADER_BYTES);
    memcpy(net.tx_buf + HEADER_BYTES, data, len);
    const virtq_buf buf = {net.tx_buf, len + HEADER_BYTES, false};
    return virtq_push(&net.device.queues[TX_QUEUE], &buf, 1) >= 0;
}

}  // namespace

int net_init(void) {
    net = {};
    net_stats = {};
    net.desc_to_rx.fill(NO_BUFFER);
    pci_device_t* pci = pci_find_device(VIRTIO_VENDOR, NET_DEVICE_ID);
    if (pci == nullptr)
        return -1;
    if (virtio_init_device(&net.device, pci, FEATURE_MAC) != 0) {
        kprintf("[net] virtio init failed\n");
        return -1;
    }
    if (net.device.num_queues < QUEUES_NEEDED) {
        kprintf("[net] need 2 queues, got %d\n", net.device.num_queues);
        release();
        return -1;
    }
    for (uint16_t i = 0; i < MAC_BYTES; ++i)
        net.mac[i] = virtio_read_config8(&net.device, i);
    char mac[18];
    kprintf("[net] MAC %s\n", format_mac(mac, net.mac));
    if (!post_all_rx_buffers()) {
        kprintf("[net] RX buffer alloc failed\n");
        release();
        return -1;
    }
    causal_event_fmt(CAUSAL_IO, "net", "init: MAC %s", mac);
    net.initialized = true;
    return 0;
}

int net_send(const void* data, uint32_t len) {
    if (!net.initialized || data == nullptr || len > NET_FRAME_MAX)
        return -1;
    const mutex_guard guard(tx_lock);
    if (!push_tx(data, len)) {
        causal_event_fmt(CAUSAL_IO, "net", "send error: virtq_push failed, len=%u", len);
        return -1;
    }
    virtq_kick(&net.device, TX_QUEUE);
    if (wait_for_tx())
        return 0;
    causal_event_fmt(CAUSAL_IO, "net", "send error: TX completion timeout, len=%u", len);
    return -1;
}

int net_receive(void* buf, uint32_t max_len) {
    if (!net.initialized || buf == nullptr)
        return 0;
    const mutex_guard guard(rx_lock);
    uint32_t written = 0;
    const int desc = virtq_pop(&net.device.queues[RX_QUEUE], &written);
    if (desc < 0)
        return 0;
    const int i = take_rx_buffer(desc);
    if (i == NO_BUFFER)
        return 0;
    uint32_t copied = 0;
    if (written > BUFFER_BYTES) {
        drop_rx();
        causal_event_fmt(CAUSAL_IO, "net", "rx error: desc=%d bad len=%u", desc, written);
    } else if (written > HEADER_BYTES) {
        copied = std::min(written - HEADER_BYTES, max_len);
        memcpy(buf, net.rx_bufs[static_cast<size_t>(i)] + HEADER_BYTES, copied);
    }
    post_rx_buffer(i);
    return static_cast<int>(copied);
}

int net_receive_wait(void* buf, uint32_t max_len, uint32_t timeout_ms) {
    const uint32_t start = system_ticks;
    for (;;) {
        const int received = net_receive(buf, max_len);
        if (received > 0)
            return received;
        if (system_ticks - start >= timeout_ms / TICK_MS)
            return 0;
        cpu_pause();
    }
}

void net_get_mac(uint8_t* mac) { memcpy(mac, net.mac, sizeof net.mac); }

bool net_present(void) { return net.initialized; }

void net_debug_rxring(void) {
    if (!net.initialized) {
        kprintf("[net] not initialized\n");
        return;
    }
    const virtq_t& vq = net.device.queues[RX_QUEUE];
    const uint16_t io = net.device.io_base;
    kprintf("[net-rx] last_used=%u used_idx=%u avail_idx=%u free=%u io=0x%x\n", vq.last_used,
            vq.used->idx, vq.avail->idx, vq.num_free, io);
    kprintf("[net-rx] ISR=0x%x\n", inb(static_cast<uint16_t>(io + VIRTIO_REG_INTERRUPT)));
}
