// The legacy virtio transport (virtio 0.9.5, 2): a device behind I/O ports, and
// split rings in memory that it shares with the driver.
//
// Kernel memory is identity-mapped, so the address of a buffer is what the device is told. A ring
// belongs to its driver, which lets one task at a time near it; nothing here takes a lock. What the
// device writes into the used ring is checked against what was handed to it: an index that runs
// ahead is as good as none, and an unknown descriptor number is reported and frees nothing.
//
// A free descriptor is all zero but for `next`, so that it can be told from one in use.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/drivers/pci.h"

constexpr uint16_t VIRTIO_VENDOR = 0x1AF4;
constexpr int VIRTIO_QUEUES_MAX = 4;

constexpr uint16_t VIRTQ_DESC_NEXT = 1;   ///< the chain goes on at `next`
constexpr uint16_t VIRTQ_DESC_WRITE = 2;  ///< the device writes into the buffer

// Device status bits.
constexpr uint8_t VIRTIO_ACKNOWLEDGE = 1;
constexpr uint8_t VIRTIO_DRIVER = 2;
constexpr uint8_t VIRTIO_DRIVER_OK = 4;
constexpr uint8_t VIRTIO_FEATURES_OK = 8;
constexpr uint8_t VIRTIO_FAILED = 0x80;

// Registers, offsets from io_base.
constexpr uint16_t VIRTIO_REG_DEVICE_FEATURES = 0;  ///< 32 bits
constexpr uint16_t VIRTIO_REG_DRIVER_FEATURES = 4;  ///< 32 bits
constexpr uint16_t VIRTIO_REG_QUEUE_ADDRESS = 8;    ///< 32 bits: page frame number
constexpr uint16_t VIRTIO_REG_QUEUE_SIZE = 12;      ///< 16 bits
constexpr uint16_t VIRTIO_REG_QUEUE_SELECT = 14;    ///< 16 bits
constexpr uint16_t VIRTIO_REG_QUEUE_NOTIFY = 16;    ///< 16 bits
constexpr uint16_t VIRTIO_REG_STATUS = 18;          ///< 8 bits
constexpr uint16_t VIRTIO_REG_INTERRUPT = 19;       ///< 8 bits, cleared by reading
constexpr uint16_t VIRTIO_REG_CONFIG = 20;          ///< the device's own configuration

/// A descriptor: one buffer of a chain.
struct virtq_desc {
    uint64_t addr;
    uint32_t len;
    uint16_t flags;
    uint16_t next;
};
static_assert(sizeof(virtq_desc) == 16 && offsetof(virtq_desc, flags) == 12);

/// Chains handed to the device; the ring has as many entries as the queue.
struct virtq_avail {
    uint16_t flags;
    uint16_t idx;
    uint16_t ring[];
};
static_assert(sizeof(virtq_avail) == 4);

struct virtq_used_elem {
    uint32_t id;   ///< first descriptor of the chain
    uint32_t len;  ///< bytes that the device wrote
};
static_assert(sizeof(virtq_used_elem) == 8);

/// Chains that the device has returned.
struct virtq_used {
    uint16_t flags;
    uint16_t idx;
    virtq_used_elem ring[];
};
static_assert(sizeof(virtq_used) == 4);

/// The driver's view of one queue.
struct virtq_t {
    virtq_desc* desc;  ///< start of the queue memory, a heap block; null: no queue
    virtq_avail* avail;
    virtq_used* used;
    uint16_t size;       ///< descriptors, a power of two
    uint16_t free_head;  ///< first free descriptor
    uint16_t num_free;
    uint16_t last_used;  ///< next position of the used ring to consume
};

/// One buffer for virtq_push. It must be identity-mapped and stay until the device returns it.
struct virtq_buf {
    const void* addr;
    uint32_t len;  ///< bytes, not 0
    bool device_writable;
};

/// A device and its queues.
struct virtio_device_t {
    pci_device_t* pci;
    uint16_t io_base;
    virtq_t queues[VIRTIO_QUEUES_MAX];
    int num_queues;
    uint32_t device_features;  ///< as offered
    uint32_t driver_features;  ///< as taken
};

/// Brings the device up with exactly the feature bits `wanted_features` and as many of its queues
/// as can be set up, at most 4. 0 or -1: without an I/O port range in BAR 0 silently; otherwise
/// after printing "[virtio] init failed: %s (status=0x%x)" and recording CAUSAL_IO "virtio" "init
/// failed: %s status=0x%x", with the queue memory freed and the device left with FAILED set. Task
/// context.
[[nodiscard]] int virtio_init_device(virtio_device_t* vdev, pci_device_t* pci,
                                     uint32_t wanted_features);

/// Resets a device that was brought up, which ends all its access to memory, and brings it up again
/// on the same, emptied queue memory. 0, or -1 as virtio_init_device. Task context.
[[nodiscard]] int virtio_restart_device(virtio_device_t* vdev);

/// Gives up a device that was brought up: resets it, frees its queue memory and leaves it with
/// FAILED set. Task context.
void virtio_release_device(virtio_device_t* vdev);

/// Allocates, empties and announces queue `queue_idx` of the device. 0, or -1 when the device has
/// no such queue (size 0, or none that a ring can have) or memory runs out. Task context.
[[nodiscard]] int virtq_alloc(virtio_device_t* vdev, int queue_idx, virtq_t* vq);

/// Puts a chain of `num_bufs` buffers on the available ring, without telling the device. Returns
/// its first descriptor; -1 if `num_bufs` < 1, fewer descriptors are free, or a buffer is empty.
[[nodiscard]] int virtq_push(virtq_t* vq, const virtq_buf* bufs, int num_bufs);

/// Takes the next element off the used ring. Returns its descriptor number and stores the length
/// that the device names in `len` unless that is null; -1 when there is nothing new. The number is
/// what the device says (at most INT_MAX): unless it is one that virtq_push returned and the caller
/// still waits for, the element is a lie, which has freed no descriptor in use.
[[nodiscard]] int virtq_pop(virtq_t* vq, uint32_t* len);

/// Tells the device that queue `queue_idx` has new chains.
void virtq_kick(const virtio_device_t* vdev, int queue_idx);

/// Reads one byte of the device's own configuration.
uint8_t virtio_read_config8(const virtio_device_t* vdev, uint16_t offset);
