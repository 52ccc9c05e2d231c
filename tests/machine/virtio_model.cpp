#include "tests/machine/virtio_model.h"

namespace {

constexpr uint16_t CONFIG_END = 64;  // the size of the port range
constexpr uint32_t PAGE = 4096;

}  // namespace

void virtio_model::attach(uint16_t port) {
    base_ = port;
    machine_attach(port, static_cast<uint16_t>(port + CONFIG_END - 1), this);
}

uint32_t virtio_model::read(uint16_t port, unsigned bytes) {
    const auto offset = static_cast<uint16_t>(port - base_);
    if (offset >= VIRTIO_REG_CONFIG && bytes == 1)
        return config(offset - uint32_t{VIRTIO_REG_CONFIG});
    const bool there = selected_ < queue_sizes.size();
    switch (offset) {
        case VIRTIO_REG_DEVICE_FEATURES:
            return features;
        case VIRTIO_REG_DRIVER_FEATURES:
            return driver_features;
        case VIRTIO_REG_QUEUE_ADDRESS:
            return there ? queue_pages[selected_] : 0;
        case VIRTIO_REG_QUEUE_SIZE:
            return there ? queue_sizes[selected_] : 0;
        case VIRTIO_REG_QUEUE_SELECT:
            return selected_;
        case VIRTIO_REG_STATUS:
            return status;
        case VIRTIO_REG_INTERRUPT:
            return 0;
        default:
            throw std::logic_error("a register that is not there was read");
    }
}

void virtio_model::write(uint16_t port, uint32_t value, unsigned) {
    switch (port - base_) {
        case VIRTIO_REG_DRIVER_FEATURES:
            driver_features = value;
            break;
        case VIRTIO_REG_QUEUE_ADDRESS:
            if (selected_ < queue_pages.size())
                queue_pages[selected_] = value;
            break;
        case VIRTIO_REG_QUEUE_SELECT:
            selected_ = static_cast<uint16_t>(value);
            break;
        case VIRTIO_REG_QUEUE_NOTIFY:
            if ((status & VIRTIO_DRIVER_OK) != 0 && value < queue_pages.size() &&
                queue_pages[value] != 0)
                notified(static_cast<int>(value));
            break;
        case VIRTIO_REG_STATUS:
            set_status(static_cast<uint8_t>(value));
            break;
        default:
            throw std::logic_error("a register that is not there was written");
    }
}

void virtio_model::set_status(uint8_t value) {
    if (value != 0) {
        status = static_cast<uint8_t>((value & ~status_never) | status_always);
        return;
    }
    status = 0;
    driver_features = 0;
    queue_pages = {};
    taken_ = {};
    ++resets;
    was_reset();
}

virtq_desc* virtio_model::desc(int queue) const {
    const uintptr_t page = queue_pages.at(static_cast<size_t>(queue));
    return reinterpret_cast<virtq_desc*>(page * PAGE);
}

virtq_avail* virtio_model::avail(int queue) const {
    return reinterpret_cast<virtq_avail*>(desc(queue) + queue_sizes.at(static_cast<size_t>(queue)));
}

virtq_used* virtio_model::used(int queue) const {
    const uint32_t size = queue_sizes.at(static_cast<size_t>(queue));
    const auto end = reinterpret_cast<uintptr_t>(&avail(queue)->ring[size + 1]);
    return reinterpret_cast<virtq_used*>((end + PAGE - 1) & ~uintptr_t{PAGE - 1});
}

bool virtio_model::take(int queue, chain_t* chain) {
    uint16_t& taken = taken_.at(static_cast<size_t>(queue));
    const uint16_t size = queue_sizes.at(static_cast<size_t>(queue));
    if (desc(queue) == nullptr || taken == avail(queue)->idx)
        return false;
    chain->head = avail(queue)->ring[taken++ % size];
    chain->buffers.clear();
    for (uint16_t at = static_cast<uint16_t>(chain->head);; at = desc(queue)[at].next) {
        if (at >= size || chain->buffers.size() == size)
            throw std::logic_error("a descriptor chain leads nowhere");
        const virtq_desc& d = desc(queue)[at];
        if (d.len == 0 || d.addr >> 32 != 0)
            throw std::logic_error("a descriptor without a buffer");
        chain->buffers.push_back({reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(d.addr)), d.len,
                                  (d.flags & VIRTQ_DESC_WRITE) != 0});
        if ((d.flags & VIRTQ_DESC_NEXT) == 0)
            return true;
    }
}

void virtio_model::give(int queue, uint32_t id, uint32_t len) {
    virtq_used* ring = used(queue);
    ring->ring[ring->idx % queue_sizes.at(static_cast<size_t>(queue))] = {id, len};
    skip_used(queue, 1);
}

void virtio_model::skip_used(int queue, uint16_t by) {
    used(queue)->idx = static_cast<uint16_t>(used(queue)->idx + by);
}
