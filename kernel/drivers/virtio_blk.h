// The disk: a legacy virtio block device (virtio 0.9.5, appendix D), polled.
// One request is in progress at a time, under a sleeping mutex that is the last of the storage
// locks; interrupts stay on while it waits.
//
// A request that the device does not complete ends with a reset of the device: after a call has
// returned, the device touches neither its buffer nor anything else of it. All events are
// CAUSAL_IO "blk".
#pragma once

#include <stdint.h>

#include <span>

constexpr uint32_t BLK_SECTOR_SIZE = 512;
constexpr uint32_t BLK_PIECES_MAX = 32;  ///< that go out in one request

/// Sectors side by side in memory.
struct blk_piece_t {
    const void* data;  ///< identity-mapped kernel memory
    uint32_t count;    ///< sectors
};

/// Finds device 0x1AF4:0x1001 and brings it up; prints and records its capacity. 0, or -1 when
/// there is none or it does not come up. Start-up, after pci_init. Records "init: virtio-blk ready,
/// %llu sectors".
int blk_init(void);

/// Reads `count` sectors from `sector` on into `buf`, which holds count * 512 bytes of
/// identity-mapped kernel memory (image, heap, kernel stack). 0 or -1; -1 at once without a device,
/// with a null buffer, a count of 0, or sectors beyond the capacity. A request that fails is tried
/// three times in all, with a line and "read retry sector=%u count=%u" before each further attempt;
/// what `buf` holds after a failure is undefined. Task context: it waits. Records "read error
/// sector=%u count=%u" and "read timeout sector=%u".
[[nodiscard]] int blk_read(uint64_t sector, void* buf, uint32_t count);

/// Writes `count` sectors from `buf`, with the contract of blk_read and "write" in the texts. After
/// a failure any of the sectors may have been written.
[[nodiscard]] int blk_write(uint64_t sector, const void* buf, uint32_t count);

/// blk_write of sectors that stand side by side on the disk and in several places in memory. They
/// go out in order; in one request where there are at most BLK_PIECES_MAX pieces and the device's
/// queue is long enough.
[[nodiscard]] int blk_write_pieces(uint64_t sector, std::span<const blk_piece_t> pieces);

/// The capacity in sectors, 0 before blk_init. Any context.
uint64_t blk_capacity(void);

/// Whether there is a disk that works. Any context.
bool blk_present(void);
