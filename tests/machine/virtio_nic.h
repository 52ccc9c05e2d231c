// A legacy virtio network device of the fake machine: keeps what was sent, delivers what a test has
// for the kernel, and lies when it is told to.
#pragma once

#include <deque>
#include <span>

#include "tests/machine/virtio_model.h"

class virtio_nic : public virtio_model {
public:
    static constexpr uint16_t PORT = 0xC040;
    static constexpr uint16_t DEVICE_ID = 0x1000;
    std::array<uint8_t, 6> mac = {0x52, 0x54, 0x00, 0x12, 0x34, 0x56};
    std::deque<std::vector<uint8_t>> sent;  ///< frames, without the header
    bool stalled = false;                   ///< frames to send stay where they are

    virtio_nic();
    /// Puts a frame into the next receive buffer, and says that it wrote `said` bytes (0: the
    /// truth). False when no buffer is posted. A frame that does not fit is cut.
    bool deliver(std::span<const uint8_t> frame, uint32_t said = 0);
    /// Sends what waited while it was stalled.
    void send_waiting() { notified(1); }

protected:
    void notified(int queue) override;
    uint8_t config(uint32_t offset) const override { return offset < 6 ? mac[offset] : 0; }
};
