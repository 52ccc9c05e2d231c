// Which blocks are free. The bitmap in memory leads; sectors that changed wait to be written, so
// that an operation writes each of them once. A sector whose write failed goes on waiting.
#include <algorithm>
#include <array>
#include <bit>

#include "kernel/core/endian.h"
#include "kernel/core/kprintf.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

constexpr uint32_t BITMAP_SECTORS_MAX = VOFS_SECTORS_MAX / VOFS_BITS;
constexpr uint32_t WORD_BITS = 32;
constexpr uint32_t NONE = 0xFFFFFFFF;

/// One bit for each bitmap sector.
struct sector_set_t {
    std::array<uint32_t, BITMAP_SECTORS_MAX / WORD_BITS> words;

    bool has(uint32_t i) const { return (words[i / WORD_BITS] >> i % WORD_BITS & 1) != 0; }
    void add(uint32_t i) { words[i / WORD_BITS] |= 1u << i % WORD_BITS; }
    void drop(uint32_t i) { words[i / WORD_BITS] &= ~(1u << i % WORD_BITS); }
};

struct bitmap_state_t {
    sector_set_t waiting = {};      ///< differ from the disk, or may
    sector_set_t failed = {};       ///< nobody knows what the disk holds; a part of `waiting`
    uint32_t first_waiting = NONE;  ///< NONE and 0: none waits
    uint32_t last_waiting = 0;
    uint32_t lowest_free = 0;  ///< every bit below it is set
};

bitmap_state_t state GUARDED_BY(vofs_lock);

uint32_t bit_count_locked() REQUIRES(vofs_lock) {
    return vofs.sb.total_sectors - vofs.sb.data_start;
}

void changed_locked(uint32_t bit) REQUIRES(vofs_lock) {
    const uint32_t sector = bit / VOFS_BITS;
    state.waiting.add(sector);
    if (sector < state.first_waiting)
        state.first_waiting = sector;
    if (sector > state.last_waiting)
        state.last_waiting = sector;
}

/// The first clear bit from `bit` on, or the number of bits.
uint32_t next_clear_locked(uint32_t bit) REQUIRES(vofs_lock) {
    const uint32_t count = bit_count_locked();
    while (bit < count) {
        const uint32_t set = load_le32(vofs.bitmap + bit / WORD_BITS * 4) >> bit % WORD_BITS;
        const uint32_t run = static_cast<uint32_t>(std::countr_one(set));
        if (bit % WORD_BITS + run < WORD_BITS)
            return bit + run < count ? bit + run : count;
        bit = (bit / WORD_BITS + 1) * WORD_BITS;
    }
    return count;
}

/// Takes clear bits from `bit` on that stand side by side in one word, `wanted` at most; how many.
uint32_t take_together_locked(uint32_t bit, uint32_t wanted) REQUIRES(vofs_lock) {
    uint8_t* at = vofs.bitmap + bit / WORD_BITS * 4;
    const uint32_t shift = bit % WORD_BITS;
    const uint32_t word = load_le32(at);
    const uint32_t clear = static_cast<uint32_t>(std::countr_zero(word >> shift));
    const uint32_t room = std::min(WORD_BITS - shift, bit_count_locked() - bit);
    const uint32_t count = std::min({wanted, clear, room});
    store_le32(at, word | (UINT32_MAX >> (WORD_BITS - count)) << shift);
    changed_locked(bit);
    return count;
}

/// How many sectors from `first` on wait, side by side.
uint32_t waiting_run_locked(uint32_t first) REQUIRES(vofs_lock) {
    uint32_t count = 0;
    while (first + count <= state.last_waiting && state.waiting.has(first + count))
        ++count;
    return count;
}

/// Writes `count` waiting sectors from `first` on; returns how many it dealt with.
uint32_t flush_run_locked(uint32_t first, uint32_t count) REQUIRES(vofs_lock) {
    const uint8_t* data = vofs.bitmap + first * VOFS_SECTOR;
    const uint32_t sector = vofs.sb.bitmap_start + first;
    const bool on_disk =
        count == 1 && !state.failed.has(first) && cache_matches_locked(sector, data);
    const uint32_t written = on_disk ? 1 : cache_write_run_locked(sector, data, count);
    for (uint32_t i = first; i < first + written; ++i) {
        state.waiting.drop(i);
        state.failed.drop(i);
    }
    if (written == count)
        return count;
    kprintf("[vofs] bitmap write error at sector %u\n", sector + written);
    state.failed.add(first + written);
    return written + 1;
}

}  // namespace

void bitmap_reset_locked() { state = {}; }

uint32_t bitmap_take_locked(uint32_t* sectors, uint32_t count) {
    const uint32_t bits = bit_count_locked();
    uint32_t taken = 0;
    uint32_t bit = state.lowest_free;
    while (taken < count) {
        bit = next_clear_locked(bit);
        if (bit == bits)
            break;
        const uint32_t behind = taken + take_together_locked(bit, count - taken);
        for (; taken < behind; ++taken)
            sectors[taken] = vofs.sb.data_start + bit++;
    }
    state.lowest_free = bit;
    return taken;
}

void bitmap_release_locked(uint32_t sector) {
    if (!vofs_in_data_area_locked(sector))
        return;
    const uint32_t bit = sector - vofs.sb.data_start;
    vofs.bitmap[bit / 8] &= static_cast<uint8_t>(~(1u << bit % 8));
    changed_locked(bit);
    if (bit < state.lowest_free)
        state.lowest_free = bit;
}

void bitmap_flush_locked() {
    for (uint32_t at = state.first_waiting; at <= state.last_waiting;) {
        const uint32_t run = waiting_run_locked(at);
        at += run != 0 ? flush_run_locked(at, run) : 1;
    }
    while (state.first_waiting <= state.last_waiting && !state.waiting.has(state.first_waiting))
        ++state.first_waiting;
    if (state.first_waiting > state.last_waiting) {
        state.first_waiting = NONE;
        state.last_waiting = 0;
    }
}

bool bitmap_settled_locked() { return state.first_waiting == NONE; }

bool bitmap_waits_locked(uint32_t sector) {
    return state.waiting.has((sector - vofs.sb.data_start) / VOFS_BITS);
}

bool bitmap_marked_locked(uint32_t sector) {
    const uint32_t bit = sector - vofs.sb.data_start;
    return (vofs.bitmap[bit / 8] >> bit % 8 & 1) != 0;
}

uint32_t bitmap_count_locked(const uint8_t* bitmap) {
    const uint32_t count = bit_count_locked();
    uint32_t set = 0;
    for (uint32_t bit = 0; bit < count; bit += WORD_BITS) {
        uint32_t word = load_le32(bitmap + bit / 8);
        if (count - bit < WORD_BITS)
            word &= (1u << (count - bit)) - 1;
        set += static_cast<uint32_t>(std::popcount(word));
    }
    return set;
}

bool bitmap_write_all_locked() {
    const uint32_t count = vofs.sb.bitmap_sectors;
    for (uint32_t i = 0; i < count; ++i)
        state.waiting.add(i);
    state.first_waiting = 0;
    state.last_waiting = count - 1;
    state.lowest_free = 0;
    bitmap_flush_locked();
    return bitmap_settled_locked();
}
