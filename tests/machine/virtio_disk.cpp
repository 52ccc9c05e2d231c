#include "tests/machine/virtio_disk.h"

#include <algorithm>
#include <cstring>

#include "tests/machine/kernel.h"

namespace {

constexpr sector_t ZEROS = {};
constexpr uint32_t HEADER_BYTES = 16;
constexpr uint8_t STATUS_OK = 0, STATUS_FAILED = 1;

bool meet(uint64_t first, uint64_t count, uint64_t from, uint64_t to) {
    return first < to && from < first + count;
}

}  // namespace

// --- The image -----------------------------------------------------------------------------------

void disk_image::check(uint64_t sector, uint32_t count) const {
    if (count > sectors_ || sector > sectors_ - count)
        throw std::out_of_range("a sector beyond the end of the disk");
}

const sector_t& disk_image::sector_at(uint64_t sector) const {
    const auto found = chunks_.find(sector / CHUNK_SECTORS);
    return found == chunks_.end() ? ZEROS : (*found->second)[sector % CHUNK_SECTORS];
}

void disk_image::read(uint64_t sector, void* to, uint32_t count) const {
    check(sector, count);
    for (uint32_t i = 0; i < count; ++i)
        std::memcpy(static_cast<uint8_t*>(to) + i * sizeof(sector_t), sector_at(sector + i).data(),
                    sizeof(sector_t));
}

void disk_image::write(uint64_t sector, const void* from, uint32_t count) {
    check(sector, count);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t at = sector + i;
        std::shared_ptr<chunk_t>& chunk = chunks_[at / CHUNK_SECTORS];
        if (chunk == nullptr)
            chunk = std::make_shared<chunk_t>();
        else if (chunk.use_count() > 1)
            chunk = std::make_shared<chunk_t>(*chunk);
        std::memcpy((*chunk)[at % CHUNK_SECTORS].data(),
                    static_cast<const uint8_t*>(from) + i * sizeof(sector_t), sizeof(sector_t));
    }
}

sector_t disk_image::operator[](uint64_t sector) const {
    check(sector, 1);
    return sector_at(sector);
}

std::vector<uint8_t> disk_image::bytes(uint64_t sector, uint32_t count) const {
    std::vector<uint8_t> all(count * sizeof(sector_t));
    read(sector, all.data(), count);
    return all;
}

void disk_image::apply(const write_log_t& log, size_t count) {
    for (size_t i = 0; i < count; ++i)
        write(log[i].sector, log[i].data.data());
}

bool disk_image::operator==(const disk_image& other) const {
    const auto held_by = [](const disk_image& a, const disk_image& b) {
        return std::all_of(a.chunks_.begin(), a.chunks_.end(), [&](const auto& entry) {
            const auto found = b.chunks_.find(entry.first);
            return found == b.chunks_.end() ? *entry.second == chunk_t{}
                                            : *entry.second == *found->second;
        });
    };
    return sectors_ == other.sectors_ && held_by(*this, other) && held_by(other, *this);
}

// --- The device ----------------------------------------------------------------------------------

virtio_disk::virtio_disk(uint64_t sectors) : image(sectors) {
    queue_sizes = {256, 0, 0, 0};
    features = 0x79000054;  // as real ones offer them
}

uint8_t virtio_disk::config(uint32_t offset) const {
    return static_cast<uint8_t>(offset < 8 ? image.sectors() >> (8 * offset) : 0);
}

void virtio_disk::start_log() {
    writes.clear();
    logging_ = true;
}

void virtio_disk::fail_request(uint64_t n, uint64_t count) {
    fail_from_ = requests + n;
    fail_to_ = fail_from_ + count;
}

void virtio_disk::fail_sectors(uint64_t first, uint64_t count) {
    bad_from_ = first;
    bad_to_ = first + count;
}

void virtio_disk::cut_power_after(uint64_t n) { power_left_ = n; }

void virtio_disk::power_on() {
    fail_from_ = fail_to_ = bad_from_ = bad_to_ = 0;
    power_left_ = ENDLESS;
    stall_count = late_polls = 0;
    lie = disk_lie::none;
}

void virtio_disk::notified(int queue) {
    chain_t& chain = current_;
    while (take(queue, &chain)) {
        ++requests;
        if (during_request)
            during_request();
        if (stall_count == 0 && late_polls == 0) {
            complete(chain);
            continue;
        }
        held_.push_back(chain);
        polls_ = 0;
        if (stall_count > 0)
            --stall_count;
        else
            machine().on_pause = [this] {
                if (++polls_ >= late_polls)
                    complete_pending();
            };
    }
}

void virtio_disk::complete_pending() {
    machine().on_pause = nullptr;
    const std::vector<chain_t> chains = std::move(held_);
    held_.clear();
    for (const chain_t& chain : chains)
        complete(chain);
}

void virtio_disk::was_reset() {
    if (!held_.empty())
        machine().on_pause = nullptr;
    held_.clear();
}

void virtio_disk::complete(const chain_t& chain) {
    const buffer_t& header = chain.buffers.front();
    const buffer_t& state = chain.buffers.back();
    if (chain.buffers.size() < 3 || header.writable || !state.writable ||
        header.len != HEADER_BYTES || state.len != 1)
        throw std::logic_error("a request that is not header, data and status");
    uint32_t type = 0;
    uint64_t sector = 0;
    std::memcpy(&type, header.data, sizeof type);
    std::memcpy(&sector, header.data + 8, sizeof sector);
    bool done = type <= 1 && (requests < fail_from_ || requests >= fail_to_);
    uint32_t bytes = 0;
    for (size_t i = 1; i + 1 < chain.buffers.size(); ++i) {
        const buffer_t& data = chain.buffers[i];
        if (type > 1 || data.writable != (type == 0) || data.len % sizeof(sector_t) != 0)
            throw std::logic_error("a request of a type that does not fit its buffers");
        done = done && carry_out(type, sector + bytes / sizeof(sector_t), data);
        bytes += data.len;
    }
    *state.data = done ? STATUS_OK : STATUS_FAILED;
    tell(chain, done && type == 0 ? bytes + 1 : 1);
}

bool virtio_disk::carry_out(uint32_t type, uint64_t sector, const buffer_t& data) {
    const auto count = static_cast<uint32_t>(data.len / sizeof(sector_t));
    if (power_left_ == 0 || count > image.sectors() || sector > image.sectors() - count ||
        meet(sector, count, bad_from_, bad_to_))
        return false;
    if (type == 0) {
        image.read(sector, data.data, count);
        sectors_read += count;
        return true;
    }
    const auto written = static_cast<uint32_t>(std::min<uint64_t>(count, power_left_));
    image.write(sector, data.data, written);
    if (power_left_ != ENDLESS)
        power_left_ -= written;
    for (uint32_t i = 0; logging_ && i < written; ++i) {
        sector_write_t& entry = writes.emplace_back();
        entry.sector = sector + i;
        std::memcpy(entry.data.data(), data.data + i * sizeof(sector_t), sizeof(sector_t));
    }
    return written == count;
}

void virtio_disk::tell(const chain_t& chain, uint32_t len) {
    virtq_desc* table = desc(0);
    const uint16_t second = table[chain.head].next;
    switch (lie) {
        case disk_lie::none:
            return give(0, chain.head, len);
        case disk_lie::id_beyond:
            return give(0, queue_sizes[0], len);
        case disk_lie::id_huge:
            return give(0, ~0u, len);
        case disk_lie::id_other:
            return give(0, (chain.head + 100u) % queue_sizes[0], len);
        case disk_lie::id_middle:
            return give(0, second, len);
        case disk_lie::index_ahead:
            return skip_used(0, 1000);
        case disk_lie::length_short:
            return give(0, chain.head, len / 2);
        case disk_lie::length_beyond:
            return give(0, chain.head, ~0u);
        case disk_lie::chain_loop:
            table[table[second].next].flags |= VIRTQ_DESC_NEXT;
            table[table[second].next].next = static_cast<uint16_t>(chain.head);
            return give(0, chain.head, len);
    }
}

// --- The machine ---------------------------------------------------------------------------------

disk_machine::disk_machine(uint64_t sectors, uint32_t megabytes)
    : disk(sectors), megabytes_(megabytes) {
    reboot();
}

disk_machine::~disk_machine() {
    record_set_hook(nullptr);
    machine_reset();
}

void disk_machine::reboot() {
    boot_kernel(megabytes_);
    bus.attach();
    bus.add(0, 3, 0, VIRTIO_VENDOR, virtio_disk::DEVICE_ID, virtio_disk::PORT | 1);
    disk.attach(virtio_disk::PORT);
    pci_init();
    if (blk_init() != 0)
        throw std::logic_error("the disk does not come up");
    machine_texts().clear();
}
