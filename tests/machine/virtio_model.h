// What the virtio devices of the fake machine share: the legacy registers and the split rings,
// which lie where the driver says, in this process's own memory. Misuse that a real device would
// answer by going dead throws std::logic_error.
#pragma once

#include <array>
#include <vector>

#include "kernel/drivers/virtio.h"
#include "tests/machine/machine.h"

class virtio_model : public port_device {
public:
    uint32_t features = 0;
    std::array<uint16_t, 4> queue_sizes = {};
    uint8_t status = 0;
    uint8_t status_never = 0;   ///< bits that the status register does not take
    uint8_t status_always = 0;  ///< bits that it shows all the same, unless it is 0
    uint32_t driver_features = 0;
    std::array<uint32_t, 4> queue_pages = {};  ///< page frame numbers
    uint32_t resets = 0;

    /// Puts the registers at `port`.
    void attach(uint16_t port);
    uint32_t read(uint16_t port, unsigned bytes) override;
    void write(uint16_t port, uint32_t value, unsigned bytes) override;

    struct buffer_t {
        uint8_t* data;
        uint32_t len;
        bool writable;
    };
    struct chain_t {
        uint32_t head;
        std::vector<buffer_t> buffers;
    };
    /// Takes the next chain off the available ring; false when there is none.
    bool take(int queue, chain_t* chain);
    /// Puts an element on the used ring, whatever it says.
    void give(int queue, uint32_t id, uint32_t len);
    /// Moves the used index without an element.
    void skip_used(int queue, uint16_t by);
    /// The ring parts of a queue; null before the driver has set it up.
    virtq_desc* desc(int queue) const;
    virtq_avail* avail(int queue) const;
    virtq_used* used(int queue) const;

protected:
    /// The driver has notified `queue`.
    virtual void notified(int queue) = 0;
    /// The driver has reset the device: nothing that it handed over before may be touched.
    virtual void was_reset() {}
    /// A byte of the device's own configuration.
    virtual uint8_t config(uint32_t offset) const = 0;

private:
    void set_status(uint8_t value);
    uint16_t base_ = 0, selected_ = 0;
    std::array<uint16_t, 4> taken_ = {};
};
