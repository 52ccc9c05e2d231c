// A legacy virtio block device of the fake machine, with a sparse image, a log of what was written,
// and everything that can go wrong with a disk.
#pragma once

#include <map>
#include <memory>

#include "kernel/drivers/virtio_blk.h"
#include "tests/machine/pci_bus.h"
#include "tests/machine/virtio_model.h"

using sector_t = std::array<uint8_t, BLK_SECTOR_SIZE>;

/// A sector that was written, in the order of writing.
struct sector_write_t {
    uint64_t sector;
    sector_t data;
};
using write_log_t = std::vector<sector_write_t>;

/// The contents of a disk; what was never written reads as zeros. Copies share what they have in
/// common, so that copying costs next to nothing. Sectors beyond the end throw std::out_of_range.
class disk_image {
public:
    explicit disk_image(uint64_t sectors) : sectors_(sectors) {}
    uint64_t sectors() const { return sectors_; }
    void read(uint64_t sector, void* to, uint32_t count = 1) const;
    void write(uint64_t sector, const void* from, uint32_t count = 1);
    sector_t operator[](uint64_t sector) const;
    std::vector<uint8_t> bytes(uint64_t sector, uint32_t count) const;
    /// Repeats the first `count` writes of a log.
    void apply(const write_log_t& log, size_t count);
    /// Whether both hold the same.
    bool operator==(const disk_image& other) const;

private:
    static constexpr uint32_t CHUNK_SECTORS = 32;
    using chunk_t = std::array<sector_t, CHUNK_SECTORS>;
    void check(uint64_t sector, uint32_t count) const;
    const sector_t& sector_at(uint64_t sector) const;
    uint64_t sectors_;
    std::map<uint64_t, std::shared_ptr<chunk_t>> chunks_;
};

/// What the disk claims about a request that it has carried out.
enum class disk_lie {
    none,
    id_beyond,      ///< a descriptor number outside the table
    id_huge,        ///< the greatest number there is
    id_other,       ///< a descriptor number that was not handed out
    id_middle,      ///< the number of the chain's second descriptor
    index_ahead,    ///< a used index that has run far ahead
    length_short,   ///< less than was asked for
    length_beyond,  ///< more than there is room for
    chain_loop,     ///< the chain's last descriptor made to lead back to its first
};

class virtio_disk : public virtio_model {
public:
    static constexpr uint16_t PORT = 0xC000;
    static constexpr uint16_t DEVICE_ID = 0x1001;
    disk_image image;
    write_log_t writes;         ///< since start_log
    uint64_t requests = 0;      ///< that the driver made, failed ones included
    uint64_t sectors_read = 0;  ///< that were carried out
    disk_lie lie = disk_lie::none;
    uint32_t late_polls = 0;  ///< PAUSE instructions until a request completes (0: at once)
    std::function<void()> during_request;  ///< called while the driver waits for a request
    uint32_t stall_count = 0;  ///< requests that are never completed, from the next one on

    explicit virtio_disk(uint64_t sectors);
    /// Logs the writes from now on, into an empty log.
    void start_log();
    /// Fails `count` requests with status 1, carrying out nothing: the n-th from now on (1 is the
    /// next) and those that follow it. The driver tries three times, so 3 is one failed call.
    void fail_request(uint64_t n, uint64_t count = 1);
    /// Fails all requests that touch these sectors: a bad place on the disk.
    void fail_sectors(uint64_t first, uint64_t count = 1);
    /// Cuts the power after `n` more sector writes, in the middle of a request if need be: nothing
    /// is written any more and all requests fail.
    void cut_power_after(uint64_t n);
    /// Ends every fault above.
    void power_on();
    /// Requests that the disk holds and has not completed.
    size_t pending() const { return held_.size(); }
    /// Carries out and completes what it holds.
    void complete_pending();

protected:
    void notified(int queue) override;
    void was_reset() override;
    uint8_t config(uint32_t offset) const override;

private:
    static constexpr uint64_t ENDLESS = ~0ull;
    void complete(const chain_t& chain);
    bool carry_out(uint32_t type, uint64_t sector, const buffer_t& data);
    void tell(const chain_t& chain, uint32_t len);
    chain_t current_;  ///< kept for its memory
    std::vector<chain_t> held_;
    uint32_t polls_ = 0;
    bool logging_ = false;
    uint64_t fail_from_ = 0, fail_to_ = 0;  ///< by the number of requests
    uint64_t bad_from_ = 0, bad_to_ = 0;    ///< sectors
    uint64_t power_left_ = ENDLESS;         ///< sector writes
};

/// A machine with memory, an event store, a PCI bus and a disk of `sectors` sectors; pci_init and
/// blk_init have run. The texts so far are cleared; port logging is off.
class disk_machine {
public:
    pci_bus bus;
    virtio_disk disk;
    explicit disk_machine(uint64_t sectors = 131072, uint32_t megabytes = 128);
    ~disk_machine();
    /// Starts the machine anew with the disk as it is: memory, events, devices.
    void reboot();

private:
    uint32_t megabytes_;
};
