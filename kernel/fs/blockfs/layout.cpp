// A file's bytes on their way to new blocks. All sectors that they need are taken at once, first
// fit, in the order of places (format.h); so sectors rise with places, and neighbours go out in one
// request, pointer blocks among them: data from where the caller has it, the rest from slots of the
// run buffer. A new pointer block is complete when it is written, for what it points to is known by
// then.
#include <algorithm>
#include <array>

#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

constexpr uint32_t INDIRECT_PLACE = vofs_place_of_block(VOFS_DIRECT) - 1;
constexpr uint32_t DOUBLE_PLACE = vofs_place_of_block(VOFS_DOUBLE_START) - 2;

/// The sector of each place from the layout's first one on.
std::array<uint32_t, VOFS_PLACES_MAX> sectors GUARDED_BY(vofs_lock);

/// Neighbours on the disk on their way into one request.
struct run_t {
    std::array<blk_piece_t, BLK_PIECES_MAX> pieces;
    uint32_t count;    ///< pieces
    uint32_t sectors;  ///< of all pieces
    uint32_t slots;    ///< sectors of vofs_buffers.run in use

    bool add(const uint8_t* data, uint32_t added) {
        blk_piece_t* last = count > 0 ? &pieces[count - 1] : nullptr;
        const bool joins = last != nullptr && data == static_cast<const uint8_t*>(last->data) +
                                                          last->count * VOFS_SECTOR;
        if (!joins && count == pieces.size())
            return false;
        if (joins)
            last->count += added;
        else
            pieces[count++] = {data, added};
        sectors += added;
        return true;
    }
};

run_t run GUARDED_BY(vofs_lock);

uint32_t sector_of_block_locked(uint32_t block) REQUIRES(vofs_lock) {
    return sectors[vofs_place_of_block(block)];
}

constexpr uint32_t leaf_first_block(uint32_t leaf) {
    return VOFS_DOUBLE_START + leaf * VOFS_POINTERS;
}

constexpr uint32_t place_of_leaf(uint32_t leaf) {
    return vofs_place_of_block(leaf_first_block(leaf)) - 1;
}

/// Enters the new blocks among the 128 that begin with `start`.
void enter_blocks_locked(const vofs_layout_t& layout, uint32_t start, vofs_pointers* pointers)
    REQUIRES(vofs_lock) {
    const uint32_t from = layout.first > start ? layout.first : start;
    const uint32_t end = start + VOFS_POINTERS;
    const uint32_t to = layout.blocks < end ? layout.blocks : end;
    for (uint32_t block = from; block < to; ++block)
        pointers->at[block - start] = sector_of_block_locked(block);
}

/// Enters the new leaves into the double-indirect block.
void enter_leaves_locked(const vofs_layout_t& layout, vofs_pointers* pointers) REQUIRES(vofs_lock) {
    for (uint32_t leaf = vofs_leaves_for(layout.first); leaf < vofs_leaves_for(layout.blocks);
         ++leaf)
        pointers->at[leaf] = sectors[place_of_leaf(leaf)];
}

/// Makes the contents of a place that is new.
void fill_locked(const vofs_layout_t& layout, vofs_place place, uint8_t* sector)
    REQUIRES(vofs_lock) {
    if (place.kind == vofs_kind::data) {
        const uint32_t offset = (place.index - layout.first) * VOFS_SECTOR;
        const uint32_t left = layout.len - offset;
        const uint32_t bytes = left < VOFS_SECTOR ? left : VOFS_SECTOR;
        memcpy(sector, layout.data + offset, bytes);
        memset(sector + bytes, 0, VOFS_SECTOR - bytes);
        return;
    }
    memset(sector, 0, VOFS_SECTOR);
    auto* pointers = reinterpret_cast<vofs_pointers*>(sector);
    if (place.kind == vofs_kind::indirect)
        enter_blocks_locked(layout, VOFS_DIRECT, pointers);
    else if (place.kind == vofs_kind::leaf)
        enter_blocks_locked(layout, leaf_first_block(place.index), pointers);
    else
        enter_leaves_locked(layout, pointers);
}

/// Data blocks from `block` on with no pointer block between them.
constexpr uint32_t blocks_together(uint32_t block) {
    if (block < VOFS_DIRECT)
        return VOFS_DIRECT - block;
    if (block < VOFS_DOUBLE_START)
        return VOFS_DOUBLE_START - block;
    return VOFS_POINTERS - (block - VOFS_DOUBLE_START) % VOFS_POINTERS;
}

/// Adds what stands from `place` on to the run, at most `room` sectors; false when it is full.
bool add_place_locked(const vofs_layout_t& layout, uint32_t place, uint32_t room)
    REQUIRES(vofs_lock) {
    const vofs_place what = vofs_place_at(place);
    if (what.kind == vofs_kind::data) {
        const uint32_t offset = (what.index - layout.first) * VOFS_SECTOR;
        const uint32_t whole =
            std::min({room, blocks_together(what.index), (layout.len - offset) / VOFS_SECTOR});
        if (whole != 0 && cache_reaches_locked(layout.data + offset, whole * VOFS_SECTOR))
            return run.add(layout.data + offset, whole);
    }
    if (run.slots == VOFS_RUN_SECTORS)
        return false;
    uint8_t* slot = vofs_buffers.run + run.slots * VOFS_SECTOR;
    fill_locked(layout, what, slot);
    ++run.slots;
    return run.add(slot, 1);
}

/// Makes a run of what stands from place `at` on, as long as the sectors are neighbours.
void make_run_locked(const vofs_layout_t& layout, uint32_t at, uint32_t end) REQUIRES(vofs_lock) {
    uint32_t behind = at + 1;
    while (behind < end && sectors[behind] == sectors[at] + (behind - at))
        ++behind;
    run = {};
    while (at + run.sectors < behind &&
           add_place_locked(layout, at + run.sectors, behind - at - run.sectors)) {
    }
}

/// Gives back the places from those of `blocks` data blocks up to `end`; `blocks` is what is left.
void cut_locked(vofs_layout_t* layout, uint32_t blocks, uint32_t end) REQUIRES(vofs_lock) {
    for (uint32_t place = vofs_places_for(blocks); place < end; ++place)
        bitmap_release_locked(sectors[place]);
    layout->blocks = blocks;
}

/// Writes a new pointer block again, if it is still needed; false if that fails, which costs the
/// layout what the block points to.
bool rewrite_locked(vofs_layout_t* layout, uint32_t place) REQUIRES(vofs_lock) {
    if (place < vofs_places_for(layout->first) || place >= vofs_places_for(layout->blocks))
        return true;
    fill_locked(*layout, vofs_place_at(place), vofs_buffers.run);
    if (cache_write_locked(sectors[place], vofs_buffers.run, 1) == 0)
        return true;
    layout->blocks = vofs_blocks_within(place);
    return false;
}

/// The layout lost its end after pointer blocks were written that point there: corrects those.
void rewrite_pointers_locked(vofs_layout_t* layout) REQUIRES(vofs_lock) {
    bool sound = false;
    while (!sound) {
        const uint32_t leaves = vofs_leaves_for(layout->blocks);
        sound = (leaves == 0 || rewrite_locked(layout, place_of_leaf(leaves - 1))) &&
                rewrite_locked(layout, INDIRECT_PLACE) && rewrite_locked(layout, DOUBLE_PLACE);
    }
}

/// The first place of [from, end) whose bit is not on disk, or `end`.
uint32_t first_unmarked_locked(uint32_t from, uint32_t end) REQUIRES(vofs_lock) {
    if (bitmap_settled_locked())
        return end;
    while (from < end && !bitmap_waits_locked(sectors[from]))
        ++from;
    return from;
}

}  // namespace

void layout_take_locked(vofs_layout_t* layout) {
    const uint32_t from = vofs_places_for(layout->first);
    const uint32_t wanted = vofs_places_for(layout->blocks) - from;
    const uint32_t taken = bitmap_take_locked(&sectors[from], wanted);
    if (taken < wanted)
        cut_locked(layout, vofs_blocks_within(from + taken), from + taken);
    if (layout->blocks == layout->first)
        return;
    bitmap_flush_locked();
    const uint32_t end = vofs_places_for(layout->blocks);
    const uint32_t marked = first_unmarked_locked(from, end);
    if (marked < end)
        cut_locked(layout, vofs_blocks_within(marked), end);
}

void layout_write_locked(vofs_layout_t* layout) {
    const uint32_t end = vofs_places_for(layout->blocks);
    uint32_t at = vofs_places_for(layout->first);
    while (at < end) {
        make_run_locked(*layout, at, end);
        const uint32_t written =
            cache_write_pieces_locked(sectors[at], {run.pieces.data(), run.count});
        at += written;
        if (written < run.sectors)
            break;
    }
    if (at == end)
        return;
    layout->blocks = vofs_blocks_within(at);
    rewrite_pointers_locked(layout);
    cut_locked(layout, layout->blocks, end);
}

void layout_enter_locked(const vofs_layout_t& layout, vofs_inode* inode) {
    for (uint32_t block = layout.first; block < layout.blocks && block < VOFS_DIRECT; ++block)
        inode->blocks[block] = sectors[block];
    if (layout.first <= VOFS_DIRECT && layout.blocks > VOFS_DIRECT)
        inode->indirect_block = sectors[INDIRECT_PLACE];
    if (layout.first <= VOFS_DOUBLE_START && layout.blocks > VOFS_DOUBLE_START)
        inode->double_indirect_block = sectors[DOUBLE_PLACE];
}

int layout_extend_locked(const vofs_layout_t& layout, const vofs_inode& inode) {
    if (layout.first == layout.blocks)
        return 0;
    if (layout.first > VOFS_DIRECT && layout.first < VOFS_DOUBLE_START) {
        enter_blocks_locked(layout, VOFS_DIRECT, &vofs_buffers.indirect);
        if (const int failed = cache_write_locked(inode.indirect_block, &vofs_buffers.indirect, 1))
            return failed;
    }
    const uint32_t leaves = vofs_leaves_for(layout.first);
    if (leaves == 0)
        return 0;
    if (layout.first < leaf_first_block(leaves)) {
        enter_blocks_locked(layout, leaf_first_block(leaves - 1), &vofs_buffers.leaf);
        const uint32_t sector = vofs_buffers.doubled.at[leaves - 1];
        if (const int failed = cache_write_locked(sector, &vofs_buffers.leaf, 1))
            return failed;
    }
    if (vofs_leaves_for(layout.blocks) == leaves)
        return 0;
    enter_leaves_locked(layout, &vofs_buffers.doubled);
    return cache_write_locked(inode.double_indirect_block, &vofs_buffers.doubled, 1);
}

void layout_drop_locked(vofs_layout_t* layout) {
    cut_locked(layout, layout->first, vofs_places_for(layout->blocks));
}
