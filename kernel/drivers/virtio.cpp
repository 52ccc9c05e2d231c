// Bringing a device up, and its rings. The legacy layout of a queue with q descriptors, one heap
// block; both parts begin on 4096-byte boundaries:
//
//     | descriptors 16q | available ring 6+2q | ... | used ring 6+8q | ... |
//     |<------- written by the driver ------------->|<-- by the device --->|
#include "kernel/drivers/virtio.h"

#include <limits.h>
#include <bit>

#include "arch/x86/ports.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint32_t RING_ALIGN = 4096;

constexpr uint32_t round_up(uint32_t bytes) { return (bytes + RING_ALIGN - 1) & ~(RING_ALIGN - 1); }

/// Bytes before the used ring.
constexpr uint32_t driver_part_bytes(uint32_t q) { return round_up(16 * q + 6 + 2 * q); }
constexpr uint32_t queue_bytes(uint32_t q) { return driver_part_bytes(q) + round_up(6 + 8 * q); }
static_assert(queue_bytes(256) == 3 * 4096 && queue_bytes(1024) == 8 * 4096);

uint16_t reg(const virtio_device_t* vdev, uint16_t offset) {
    return static_cast<uint16_t>(vdev->io_base + offset);
}

void write_status(const virtio_device_t* vdev, uint8_t status) {
    outb(reg(vdev, VIRTIO_REG_STATUS), status);
}

uint8_t read_status(const virtio_device_t* vdev) { return inb(reg(vdev, VIRTIO_REG_STATUS)); }

/// Writes `status` and says whether the device shows all of `wanted` and no failure.
bool status_accepted(const virtio_device_t* vdev, uint8_t status, uint8_t wanted) {
    write_status(vdev, status);
    const uint8_t shown = read_status(vdev);
    return (shown & wanted) == wanted && (shown & VIRTIO_FAILED) == 0;
}

int virtio_fail(virtio_device_t* vdev, const char* reason) {
    const uint8_t status = read_status(vdev);
    write_status(vdev, status | VIRTIO_FAILED);
    virtio_release_device(vdev);
    kprintf("[virtio] init failed: %s (status=0x%x)\n", reason, status);
    causal_event_fmt(CAUSAL_IO, "virtio", "init failed: %s status=0x%x", reason, status);
    return -1;
}

uint16_t select_queue(const virtio_device_t* vdev, int queue_idx) {
    outw(reg(vdev, VIRTIO_REG_QUEUE_SELECT), static_cast<uint16_t>(queue_idx));
    return inw(reg(vdev, VIRTIO_REG_QUEUE_SIZE));
}

/// Empties the queue's memory and chains all descriptors into the free list.
void empty_queue(virtq_t* vq) {
    memset(vq->desc, 0, queue_bytes(vq->size));
    for (uint16_t i = 0; i + 1 < vq->size; ++i)
        vq->desc[i].next = static_cast<uint16_t>(i + 1);
    vq->free_head = 0;
    vq->num_free = vq->size;
    vq->last_used = 0;
}

/// Tells the device where the memory of the selected queue is.
void announce_queue(const virtio_device_t* vdev, const virtq_t* vq) {
    const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(vq->desc));
    outl(reg(vdev, VIRTIO_REG_QUEUE_ADDRESS), address / RING_ALIGN);
}

bool set_up_queues(virtio_device_t* vdev) {
    while (vdev->num_queues < VIRTIO_QUEUES_MAX &&
           virtq_alloc(vdev, vdev->num_queues, &vdev->queues[vdev->num_queues]) == 0)
        ++vdev->num_queues;
    return vdev->num_queues > 0;
}

/// Announces the queues that are there, emptied.
bool reuse_queues(virtio_device_t* vdev) {
    for (int i = 0; i < vdev->num_queues; ++i) {
        virtq_t* vq = &vdev->queues[i];
        if (select_queue(vdev, i) != vq->size)
            return false;
        empty_queue(vq);
        announce_queue(vdev, vq);
    }
    return vdev->num_queues > 0;
}

/// From reset to DRIVER_OK; `queues` does its part on the way.
int start_device(virtio_device_t* vdev, bool (*queues)(virtio_device_t*)) {
    uint8_t status = VIRTIO_ACKNOWLEDGE;
    write_status(vdev, 0);
    write_status(vdev, status);
    status |= VIRTIO_DRIVER;
    if (!status_accepted(vdev, status, 0))
        return virtio_fail(vdev, "device rejected driver status");
    vdev->device_features = inl(reg(vdev, VIRTIO_REG_DEVICE_FEATURES));
    if ((vdev->driver_features & ~vdev->device_features) != 0)
        return virtio_fail(vdev, "required feature missing");
    outl(reg(vdev, VIRTIO_REG_DRIVER_FEATURES), vdev->driver_features);
    status |= VIRTIO_FEATURES_OK;
    if (!status_accepted(vdev, status, VIRTIO_FEATURES_OK))
        return virtio_fail(vdev, "feature negotiation rejected");
    if (!queues(vdev))
        return virtio_fail(vdev, "no virtqueues available");
    status |= VIRTIO_DRIVER_OK;
    if (!status_accepted(vdev, status, VIRTIO_DRIVER_OK))
        return virtio_fail(vdev, "driver_ok rejected");
    return 0;
}

bool is_free(const virtq_desc& d) { return d.addr == 0; }

/// Whether `num_bufs` free descriptors follow each other from the free head.
bool free_chain_sound(const virtq_t* vq, int num_bufs) {
    uint16_t at = vq->free_head;
    for (int i = 0; i < num_bufs; ++i) {
        if (at >= vq->size || !is_free(vq->desc[at]))
            return false;
        at = vq->desc[at].next;
    }
    return true;
}

bool bufs_sound(const virtq_buf* bufs, int num_bufs) {
    for (int i = 0; i < num_bufs; ++i)
        if (bufs[i].addr == nullptr || bufs[i].len == 0)
            return false;
    return true;
}

/// Length of the chain in use that begins at `head`; 0 when it is none.
uint16_t chain_length(const virtq_t* vq, uint32_t head) {
    const int in_use = vq->size - vq->num_free;
    uint32_t at = head;
    for (uint16_t n = 1; n <= in_use; ++n) {
        if (at >= vq->size || is_free(vq->desc[at]))
            return 0;
        if ((vq->desc[at].flags & VIRTQ_DESC_NEXT) == 0)
            return n;
        at = vq->desc[at].next;
    }
    return 0;
}

/// Puts the chain of `length` descriptors from `head` before the free list.
void free_chain(virtq_t* vq, uint16_t head, uint16_t length) {
    uint16_t at = head;
    for (uint16_t left = length; left > 0; --left) {
        const uint16_t next = vq->desc[at].next;
        vq->desc[at] = {};
        vq->desc[at].next = left == 1 ? vq->free_head : next;
        at = next;
    }
    vq->free_head = head;
    vq->num_free = static_cast<uint16_t>(vq->num_free + length);
}

/// The rings are shared with the device: all memory accesses before come before all after.
void fence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

}  // namespace

int virtio_init_device(virtio_device_t* vdev, pci_device_t* pci, uint32_t wanted_features) {
    constexpr uint32_t BAR_IO = 1;
    const uint32_t base = pci_get_bar(pci, 0);
    *vdev = {};
    if (base == 0 || base > UINT16_MAX || (pci->bar[0] & BAR_IO) == 0)
        return -1;
    vdev->pci = pci;
    vdev->io_base = static_cast<uint16_t>(base);
    vdev->driver_features = wanted_features;
    pci_enable_bus_mastering(pci);
    return start_device(vdev, set_up_queues);
}

int virtio_restart_device(virtio_device_t* vdev) { return start_device(vdev, reuse_queues); }

void virtio_release_device(virtio_device_t* vdev) {
    write_status(vdev, 0);
    pci_disable_bus_mastering(vdev->pci);
    for (virtq_t& vq : vdev->queues) {
        kfree(vq.desc);
        vq = {};
    }
    vdev->num_queues = 0;
    write_status(vdev, VIRTIO_FAILED);
}

int virtq_alloc(virtio_device_t* vdev, int queue_idx, virtq_t* vq) {
    *vq = {};
    const uint16_t size = select_queue(vdev, queue_idx);
    // Positions of the rings count modulo 65536, which only powers of two divide.
    if (!std::has_single_bit(size))
        return -1;
    void* memory = kmalloc_aligned(queue_bytes(size), RING_ALIGN);
    if (memory == nullptr)
        return -1;
    auto* bytes = static_cast<uint8_t*>(memory);
    vq->size = size;
    vq->desc = static_cast<virtq_desc*>(memory);
    vq->avail = reinterpret_cast<virtq_avail*>(bytes + sizeof(virtq_desc) * size);
    vq->used = reinterpret_cast<virtq_used*>(bytes + driver_part_bytes(size));
    empty_queue(vq);
    announce_queue(vdev, vq);
    return 0;
}

int virtq_push(virtq_t* vq, const virtq_buf* bufs, int num_bufs) {
    if (num_bufs < 1 || num_bufs > vq->num_free || !bufs_sound(bufs, num_bufs) ||
        !free_chain_sound(vq, num_bufs))
        return -1;
    const uint16_t head = vq->free_head;
    for (int i = 0; i < num_bufs; ++i) {
        virtq_desc& d = vq->desc[vq->free_head];
        d.addr = reinterpret_cast<uintptr_t>(bufs[i].addr);
        d.len = bufs[i].len;
        d.flags = bufs[i].device_writable ? VIRTQ_DESC_WRITE : 0;
        if (i + 1 < num_bufs)
            d.flags |= VIRTQ_DESC_NEXT;
        vq->free_head = d.next;
    }
    vq->num_free = static_cast<uint16_t>(vq->num_free - num_bufs);
    const uint16_t idx = vq->avail->idx;
    vq->avail->ring[idx % vq->size] = head;
    fence();
    vq->avail->idx = static_cast<uint16_t>(idx + 1);
    return head;
}

int virtq_pop(virtq_t* vq, uint32_t* len) {
    fence();
    const uint16_t used_idx = __atomic_load_n(&vq->used->idx, __ATOMIC_ACQUIRE);
    const auto pending = static_cast<uint16_t>(used_idx - vq->last_used);
    if (pending == 0 || pending > vq->size - vq->num_free)
        return -1;
    const virtq_used_elem elem = vq->used->ring[vq->last_used % vq->size];
    vq->last_used = static_cast<uint16_t>(vq->last_used + 1);
    if (len != nullptr)
        *len = elem.len;
    const uint16_t length = chain_length(vq, elem.id);
    if (length != 0)
        free_chain(vq, static_cast<uint16_t>(elem.id), length);
    return elem.id > INT_MAX ? INT_MAX : static_cast<int>(elem.id);
}

void virtq_kick(const virtio_device_t* vdev, int queue_idx) {
    fence();
    outw(reg(vdev, VIRTIO_REG_QUEUE_NOTIFY), static_cast<uint16_t>(queue_idx));
}

uint8_t virtio_read_config8(const virtio_device_t* vdev, uint16_t offset) {
    return inb(static_cast<uint16_t>(vdev->io_base + VIRTIO_REG_CONFIG + offset));
}
