#include "tests/machine/virtio_nic.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t HEADER_BYTES = 10;
constexpr std::array<uint8_t, HEADER_BYTES> PLAIN_HEADER = {};

}  // namespace

virtio_nic::virtio_nic() {
    queue_sizes = {256, 256, 0, 0};
    features = 0x79BF8064;  // as real ones offer them
}

bool virtio_nic::deliver(std::span<const uint8_t> frame, uint32_t said) {
    chain_t chain;
    if (!take(0, &chain))
        return false;
    if (chain.buffers.size() != 1 || !chain.buffers[0].writable ||
        chain.buffers[0].len < HEADER_BYTES)
        throw std::logic_error("a receive buffer of another shape");
    const buffer_t& buffer = chain.buffers[0];
    const auto length = std::min<size_t>(frame.size(), buffer.len - HEADER_BYTES);
    std::memset(buffer.data, 0xEE, HEADER_BYTES);
    std::copy_n(frame.begin(), length, buffer.data + HEADER_BYTES);
    give(0, chain.head, said != 0 ? said : static_cast<uint32_t>(HEADER_BYTES + length));
    return true;
}

void virtio_nic::notified(int queue) {
    chain_t chain;
    while (queue == 1 && !stalled && take(1, &chain)) {
        const buffer_t& buffer = chain.buffers.at(0);
        if (chain.buffers.size() != 1 || buffer.writable || buffer.len < HEADER_BYTES ||
            !std::equal(PLAIN_HEADER.begin(), PLAIN_HEADER.end(), buffer.data))
            throw std::logic_error("a frame of another shape");
        sent.emplace_back(buffer.data + HEADER_BYTES, buffer.data + buffer.len);
        give(1, chain.head, 0);
    }
}
