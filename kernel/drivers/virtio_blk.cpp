// One request is header, data in one or more pieces, status byte. It completes when the device
// returns the chain; a device that does not, or that returns something else, is reset before
// anything of the request is used again.
#include "kernel/drivers/virtio_blk.h"

#include <algorithm>
#include <array>

#include "arch/x86/cpu.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/mutex.h"
#include "kernel/drivers/virtio.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint16_t BLK_DEVICE_ID = 0x1001;
constexpr int REQUEST_QUEUE = 0;
constexpr uint16_t CONFIG_CAPACITY = 0;
constexpr uint32_t POLLS_MAX = 1000000;
// Most requests are back within the first polls, which follow each other at once. The later ones
// wait a little, so that the limit comes to seconds and a slow medium does not reach it.
constexpr uint32_t POLLS_AT_ONCE = 5000;
constexpr uint32_t PAUSES_A_POLL = 32;
constexpr int ATTEMPTS_MAX = 3;
constexpr uint8_t STATUS_OK = 0;
constexpr uint8_t STATUS_NONE = 0xFF;  ///< the device has not written the byte
constexpr uint32_t COUNT_MAX = UINT32_MAX / BLK_SECTOR_SIZE - 1;

enum class request_type : uint32_t { read = 0, write = 1 };

struct virtio_blk_req_header {
    uint32_t type;
    uint32_t reserved;
    uint64_t sector;
};
static_assert(sizeof(virtio_blk_req_header) == 16);

struct request_t {
    request_type type;
    uint64_t sector;
    std::span<const blk_piece_t> pieces;  ///< only read for a write
    uint32_t count;                       ///< their sectors

    const char* name() const { return type == request_type::read ? "read" : "write"; }
    uint32_t sector_shown() const { return static_cast<uint32_t>(sector); }
    uint32_t bytes() const { return count * BLK_SECTOR_SIZE; }
};

mutex_t blk_lock;  // one request at a time

struct state_t {
    virtio_device_t device;
    bool ready;
    uint64_t capacity;  ///< sectors
    virtio_blk_req_header header;
    volatile uint8_t status;
    std::array<virtq_buf, BLK_PIECES_MAX + 2> chain;
};

state_t blk;

uint32_t config_word(uint16_t offset) {
    uint32_t word = 0;
    for (uint16_t i = 0; i < 4; ++i)
        word |= uint32_t{virtio_read_config8(&blk.device, static_cast<uint16_t>(offset + i))}
                << (8 * i);
    return word;
}

/// Ends what the device still does with the request; without it there is no disk any more.
void recover_device() REQUIRES(blk_lock) { blk.ready = virtio_restart_device(&blk.device) == 0; }

/// Polls until the device returns the chain `head`; false when it does not, or only another one.
bool wait_for_chain(int head, uint32_t* len) REQUIRES(blk_lock) {
    virtq_t* vq = &blk.device.queues[REQUEST_QUEUE];
    for (uint32_t poll = 0; poll < POLLS_MAX; ++poll) {
        if (virtq_pop(vq, len) == head)
            return true;
        for (uint32_t i = 0; poll >= POLLS_AT_ONCE && i < PAUSES_A_POLL; ++i)
            cpu_pause();
    }
    return false;
}

/// Whether the device may have written `len` bytes of this request.
bool length_sound(const request_t& r, uint32_t len) {
    const uint32_t room = r.type == request_type::read ? r.bytes() + 1 : 1;
    const uint32_t least = r.type == request_type::read ? r.bytes() : 0;
    return len >= least && len <= room + sizeof(virtio_blk_req_header);
}

/// Puts the request on the queue; the chain's head, or -1.
int push_chain(const request_t& r) REQUIRES(blk_lock) {
    blk.header = {static_cast<uint32_t>(r.type), 0, r.sector};
    blk.status = STATUS_NONE;
    size_t used = 0;
    blk.chain[used++] = {&blk.header, sizeof blk.header, false};
    for (const blk_piece_t& piece : r.pieces)
        blk.chain[used++] = {piece.data, piece.count * BLK_SECTOR_SIZE,
                             r.type == request_type::read};
    blk.chain[used++] = {const_cast<const uint8_t*>(&blk.status), sizeof blk.status, true};
    return virtq_push(&blk.device.queues[REQUEST_QUEUE], blk.chain.data(), static_cast<int>(used));
}

int attempt(const request_t& r) REQUIRES(blk_lock) {
    virtq_t* vq = &blk.device.queues[REQUEST_QUEUE];
    const int head = push_chain(r);
    if (head < 0)
        return -1;
    virtq_kick(&blk.device, REQUEST_QUEUE);
    uint32_t len = 0;
    if (!wait_for_chain(head, &len)) {
        kprintf("[virtio-blk] %s timeout on sector %u\n", r.name(), r.sector_shown());
        causal_event_fmt(CAUSAL_IO, "blk", "%s timeout sector=%u", r.name(), r.sector_shown());
        recover_device();
        return -1;
    }
    // The one chain is back: were a descriptor missing now, the device would have changed it.
    const bool whole = vq->num_free == vq->size;
    if (!whole)
        recover_device();
    if (whole && blk.status == STATUS_OK && length_sound(r, len))
        return 0;
    causal_event_fmt(CAUSAL_IO, "blk", "%s error sector=%u count=%u", r.name(), r.sector_shown(),
                     r.count);
    return -1;
}

void announce_retry(const request_t& r, int number) {
    kprintf("[virtio-blk] retrying %s sector=%u count=%u (attempt %d)\n", r.name(),
            r.sector_shown(), r.count, number);
    causal_event_fmt(CAUSAL_IO, "blk", "%s retry sector=%u count=%u", r.name(), r.sector_shown(),
                     r.count);
}

/// The sectors of these pieces; 0 when they make no request.
uint32_t sectors_of(std::span<const blk_piece_t> pieces) {
    uint64_t count = 0;
    for (const blk_piece_t& piece : pieces) {
        if (piece.data == nullptr || piece.count == 0)
            return 0;
        count += piece.count;
    }
    return count <= COUNT_MAX ? static_cast<uint32_t>(count) : 0;
}

int transfer(const request_t& r) REQUIRES(blk_lock) {
    if (attempt(r) == 0)
        return 0;
    for (int number = 2; number <= ATTEMPTS_MAX && blk.ready; ++number) {
        announce_retry(r, number);
        if (attempt(r) == 0)
            return 0;
    }
    return -1;
}

/// Carries the pieces over, in one request where the device's queue is long enough.
int transfer_all(request_type type, uint64_t sector, std::span<const blk_piece_t> pieces) {
    const uint32_t count = sectors_of(pieces);
    const mutex_guard guard(blk_lock);
    if (count == 0 || !blk.ready || count > blk.capacity || sector > blk.capacity - count)
        return -1;
    const uint32_t room = blk.device.queues[REQUEST_QUEUE].size;
    const size_t at_once = room > 2 ? std::min(room - 2, BLK_PIECES_MAX) : 1;
    while (!pieces.empty()) {
        const auto part = pieces.first(std::min(at_once, pieces.size()));
        const request_t r = {type, sector, part, sectors_of(part)};
        if (transfer(r) != 0)
            return -1;
        sector += r.count;
        pieces = pieces.subspan(part.size());
    }
    return 0;
}

}  // namespace

int blk_init(void) {
    blk.ready = false;
    blk.capacity = 0;
    blk.device = {};
    pci_device_t* pci = pci_find_device(VIRTIO_VENDOR, BLK_DEVICE_ID);
    if (pci == nullptr || virtio_init_device(&blk.device, pci, 0) != 0)
        return -1;
    blk.capacity = config_word(CONFIG_CAPACITY) | uint64_t{config_word(CONFIG_CAPACITY + 4)} << 32;
    kprintf("[virtio-blk] capacity: %llu sectors (%llu MB)\n", blk.capacity,
            blk.capacity * BLK_SECTOR_SIZE >> 20);
    causal_event_fmt(CAUSAL_IO, "blk", "init: virtio-blk ready, %llu sectors", blk.capacity);
    blk.ready = true;
    return 0;
}

int blk_read(uint64_t sector, void* buf, uint32_t count) {
    const blk_piece_t piece = {buf, count};
    return transfer_all(request_type::read, sector, {&piece, 1});
}

int blk_write(uint64_t sector, const void* buf, uint32_t count) {
    const blk_piece_t piece = {buf, count};
    return blk_write_pieces(sector, {&piece, 1});
}

int blk_write_pieces(uint64_t sector, std::span<const blk_piece_t> pieces) {
    return transfer_all(request_type::write, sector, pieces);
}

uint64_t blk_capacity(void) { return blk.capacity; }

bool blk_present(void) { return blk.ready; }
