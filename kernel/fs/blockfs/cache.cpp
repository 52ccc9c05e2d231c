// The write-through sector cache, and the one place that talks to the device. A request that the
// device cannot make of the caller's memory (it takes physical addresses) goes through a buffer of
// our own.
#include <array>

#include "kernel/core/memory.h"
#include "kernel/core/string.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

struct vofs_cache_entry_t {
    bool valid;
    uint32_t sector;
    uint32_t age;  ///< the clock when it was last stored or hit
    uint8_t data[VOFS_SECTOR];
};

std::array<vofs_cache_entry_t, 16> cache GUARDED_BY(vofs_lock);
uint32_t cache_clock GUARDED_BY(vofs_lock);
blockfs_cache_stats_t cache_stats GUARDED_BY(vofs_lock);
uint32_t write_attempts GUARDED_BY(vofs_lock);

vofs_cache_entry_t* find_locked(uint32_t sector) REQUIRES(vofs_lock) {
    for (vofs_cache_entry_t& entry : cache)
        if (entry.valid && entry.sector == sector)
            return &entry;
    return nullptr;
}

/// The sector's entry, else the first unused one, else the one not used for longest.
vofs_cache_entry_t& entry_for_locked(uint32_t sector) REQUIRES(vofs_lock) {
    if (vofs_cache_entry_t* present = find_locked(sector))
        return *present;
    vofs_cache_entry_t* oldest = &cache[0];
    for (vofs_cache_entry_t& entry : cache) {
        if (!entry.valid)
            return entry;
        if (entry.age < oldest->age)
            oldest = &entry;
    }
    return *oldest;
}

void store_locked(uint32_t sector, const void* data) REQUIRES(vofs_lock) {
    vofs_cache_entry_t& entry = entry_for_locked(sector);
    entry.valid = true;
    entry.sector = sector;
    entry.age = ++cache_clock;
    memcpy(entry.data, data, VOFS_SECTOR);
}

void invalidate_locked(uint32_t sector, uint32_t count) REQUIRES(vofs_lock) {
    for (vofs_cache_entry_t& entry : cache) {
        if (!entry.valid || entry.sector - sector >= count)
            continue;
        entry.valid = false;
        ++cache_stats.invalidations;
    }
}

int read_one_locked(uint32_t sector, void* buf) REQUIRES(vofs_lock) {
    if (vofs_cache_entry_t* entry = find_locked(sector)) {
        memcpy(buf, entry->data, VOFS_SECTOR);
        entry->age = ++cache_clock;
        ++cache_stats.hits;
        return 0;
    }
    return cache_reread_locked(sector, buf);
}

int write_one_locked(uint32_t sector, const void* buf) REQUIRES(vofs_lock) {
    if (!cache_reaches_locked(buf, VOFS_SECTOR)) {
        memcpy(vofs_buffers.sector, buf, VOFS_SECTOR);
        buf = vofs_buffers.sector;
    }
    if (const int failed = blk_write(sector, buf, 1))
        return failed;
    ++cache_stats.writes;
    store_locked(sector, buf);
    return 0;
}

constexpr uint32_t piece_of(uint32_t left) {
    return left < VOFS_RUN_SECTORS ? left : VOFS_RUN_SECTORS;
}

int read_pieces_locked(uint32_t sector, uint8_t* buf, uint32_t count) REQUIRES(vofs_lock) {
    for (uint32_t done = 0; done < count;) {
        const uint32_t piece = piece_of(count - done);
        if (const int failed = blk_read(sector + done, vofs_buffers.run, piece))
            return failed;
        memcpy(buf + done * VOFS_SECTOR, vofs_buffers.run, piece * VOFS_SECTOR);
        done += piece;
    }
    return 0;
}

int write_pieces_locked(uint32_t sector, const uint8_t* buf, uint32_t count) REQUIRES(vofs_lock) {
    for (uint32_t done = 0; done < count;) {
        const uint32_t piece = piece_of(count - done);
        memcpy(vofs_buffers.run, buf + done * VOFS_SECTOR, piece * VOFS_SECTOR);
        if (const int failed = blk_write(sector + done, vofs_buffers.run, piece))
            return failed;
        done += piece;
    }
    return 0;
}

/// Writes sectors from one place, one by one: how many, before the first that cannot be written.
uint32_t write_singly_locked(uint32_t sector, const uint8_t* buf, uint32_t count)
    REQUIRES(vofs_lock) {
    for (uint32_t i = 0; i < count; ++i)
        if (cache_write_locked(sector + i, buf + i * VOFS_SECTOR, 1) != 0)
            return i;
    return count;
}

}  // namespace

bool cache_reaches_locked(const void* buf, uint32_t bytes) {
    const uintptr_t start = reinterpret_cast<uintptr_t>(buf);
    const uintptr_t own = start - reinterpret_cast<uintptr_t>(&vofs_buffers);
    if (bytes <= sizeof vofs_buffers && own <= sizeof vofs_buffers - bytes)
        return true;
    return bytes <= IDENTITY_MAP_BYTES && start <= IDENTITY_MAP_BYTES - bytes;
}

int cache_reread_locked(uint32_t sector, void* buf) {
    if (const int failed = blk_read(sector, vofs_buffers.sector, 1))
        return failed;
    store_locked(sector, vofs_buffers.sector);
    ++cache_stats.misses;
    memcpy(buf, vofs_buffers.sector, VOFS_SECTOR);
    return 0;
}

int cache_read_locked(uint32_t sector, void* buf, uint32_t count) {
    if (count == 1)
        return read_one_locked(sector, buf);
    if (cache_reaches_locked(buf, count * VOFS_SECTOR))
        return blk_read(sector, buf, count);
    return read_pieces_locked(sector, static_cast<uint8_t*>(buf), count);
}

int cache_write_locked(uint32_t sector, const void* buf, uint32_t count) {
    ++write_attempts;
    if (count == 1)
        return write_one_locked(sector, buf);
    const int failed = cache_reaches_locked(buf, count * VOFS_SECTOR)
                           ? blk_write(sector, buf, count)
                           : write_pieces_locked(sector, static_cast<const uint8_t*>(buf), count);
    if (failed != 0)
        return failed;
    ++cache_stats.writes;
    invalidate_locked(sector, count);
    return 0;
}

uint32_t cache_write_run_locked(uint32_t sector, const uint8_t* buf, uint32_t count) {
    if (cache_write_locked(sector, buf, count) == 0)
        return count;
    return count == 1 ? 0 : write_singly_locked(sector, buf, count);
}

uint32_t cache_write_pieces_locked(uint32_t sector, std::span<const blk_piece_t> pieces) {
    uint32_t count = 0;
    for (const blk_piece_t& piece : pieces)
        count += piece.count;
    if (count == 1)
        return cache_write_run_locked(sector, static_cast<const uint8_t*>(pieces[0].data), 1);
    ++write_attempts;
    if (blk_write_pieces(sector, pieces) == 0) {
        ++cache_stats.writes;
        invalidate_locked(sector, count);
        return count;
    }
    uint32_t written = 0;
    for (const blk_piece_t& piece : pieces) {
        const auto* from = static_cast<const uint8_t*>(piece.data);
        const uint32_t done = write_singly_locked(sector + written, from, piece.count);
        written += done;
        if (done < piece.count)
            break;
    }
    return written;
}

bool cache_matches_locked(uint32_t sector, const void* data) {
    const vofs_cache_entry_t* entry = find_locked(sector);
    return entry != nullptr && memcmp(entry->data, data, VOFS_SECTOR) == 0;
}

uint32_t cache_generation_locked() { return write_attempts; }

void cache_reset_locked() {
    ++write_attempts;
    for (vofs_cache_entry_t& entry : cache)
        entry.valid = false;
    cache_clock = 0;
    cache_stats = {};
}

void blockfs_cache_stats(blockfs_cache_stats_t* stats) {
    if (stats == nullptr)
        return;
    const mutex_guard guard(vofs_lock);
    *stats = cache_stats;
}

void blockfs_cache_clear() {
    const mutex_guard guard(vofs_lock);
    cache_reset_locked();
}
