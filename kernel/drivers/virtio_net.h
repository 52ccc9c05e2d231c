// The network card: a legacy virtio network device (virtio 0.9.5, appendix C),
// polled. Frames are Ethernet II without checksum; 16 receive buffers go round between the card and
// net_receive. Sending and receiving are each under a sleeping mutex, so that
// several tasks may do it at once. All events are CAUSAL_IO "net".
#pragma once

#include <stdint.h>

constexpr uint32_t NET_FRAME_MAX = 1514;  ///< bytes of a frame

/// Statistics of the interface. The driver counts rx_drops, the network stack the rest.
struct net_stats_t {
    uint32_t rx_packets;
    uint32_t tx_packets;
    uint32_t rx_drops;
    uint32_t tx_drops;
    uint32_t arp_misses;
    uint32_t tcp_resets;
    uint32_t tcp_retransmits;
    uint32_t checksum_errors;
    uint32_t unknown_protocol;
};

extern net_stats_t net_stats;

/// Finds device 0x1AF4:0x1000, brings it up and gives it its receive buffers. 0; -1 when there is
/// none (silently) or it does not come up (after a line; nothing is kept then). Start-up, after
/// pci_init. Records "init: MAC %s".
int net_init(void);

/// Sends one frame of `len` bytes, at most 1514. 0, or -1: no card, too long, "send error:
/// virtq_push failed, len=%u" or "send error: TX completion timeout, len=%u". Task context.
[[nodiscard]] int net_send(const void* data, uint32_t len);

/// Takes one received frame and copies at most `max_len` bytes of it. Returns the bytes copied, 0
/// when no frame waits. What the card returns wrongly is dropped and counted: "rx error: invalid
/// desc=%d", "rx error: desc=%d bad map=%d", "rx error: desc=%d bad len=%u". Task context.
int net_receive(void* buf, uint32_t max_len);

/// net_receive until there is a frame or timeout_ms / 10 ticks have passed; 0 then. It spins, and
/// needs interrupts on. Task context.
int net_receive_wait(void* buf, uint32_t max_len, uint32_t timeout_ms);

/// Copies the card's six-byte address; zeros without one. Any context.
void net_get_mac(uint8_t* mac);

/// Whether there is a card that works. Any context.
bool net_present(void);

/// Prints the state of the receive ring and of the interrupt status register, which it clears.
void net_debug_rxring(void);
