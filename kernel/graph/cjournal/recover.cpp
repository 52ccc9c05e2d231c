// What a power cut, or a disk that failed, left of a segment. Only segments that the index does not
// name are touched: they are the work that was going on. One that is whole stays and gets its
// companions; of one that is not, or that was being imported, nothing stays. Without an index no
// segment is removed but one whose identifiers and chain show that it was overtaken.
//
// Damage to segments that the index names is never repaired; verification reports it.
#include <algorithm>

#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr uint32_t LISTING_BYTES_MAX = 1u << 20;

/// The index as the last boot saved it, as far as recovery needs it.
struct saved_index_t {
    bool valid;
    cjournal_index_header_t header;
    heap_ptr<cjournal_index_entry_t> entries;

    const cjournal_index_entry_t* find(uint32_t segment) const {
        for (uint32_t i = 0; valid && i < header.entry_count; i++) {
            if (entries[i].segment_num == segment)
                return &entries[i];
        }
        return nullptr;
    }
    bool newer_than_saved(uint32_t segment) const {
        return valid && segment > header.segments_written;
    }
};

/// Adds the segment files among `names`, one a line, of which there is room for `room`. A name may
/// hold line feeds, if the volume was made to.
void parse_listing(const char* names, cjournal_listing_t* listing, uint32_t room) {
    while (*names != '\0' && listing->count < room) {
        const char* end = strchr(names, '\n');
        const auto length = static_cast<uint32_t>(end != nullptr ? static_cast<size_t>(end - names)
                                                                 : strlen(names));
        uint32_t segment = 0;
        cjournal_file_t file;
        if (cjournal_parse_name(names, length, &segment, &file))
            listing->items[listing->count++] = {segment, 1u << static_cast<uint32_t>(file)};
        names += length + (end != nullptr ? 1 : 0);
    }
}

/// One item a segment, by rising number.
void sort_listing(cjournal_listing_t* listing) {
    cjournal_listed_t* items = listing->items.get();
    std::sort(items, items + listing->count,
              [](const auto& a, const auto& b) { return a.segment < b.segment; });
    uint32_t kept = 0;
    for (uint32_t i = 0; i < listing->count; i++) {
        if (kept > 0 && items[kept - 1].segment == items[i].segment)
            items[kept - 1].files |= items[i].files;
        else
            items[kept++] = items[i];
    }
    listing->count = kept;
}

/// Reads a segment whole into `draft`; true when it is in the current layout and nothing is wrong
/// with its records and footer, which goes to `footer`.
bool read_sound_locked(uint32_t segment, cjournal_draft_t* draft, cjournal_footer_t* footer)
    REQUIRES(cjournal_lock) {
    cjournal_segment_file_t file;
    if (cjournal_open_segment_locked(segment, &file) != 0 ||
        file.layout.event_size != CJOURNAL_EVENT_SIZE ||
        file.layout.footer_size != CJOURNAL_FOOTER_SIZE ||
        cjournal_read_exact_retry(file.inode, draft->segment, 0, file.size) !=
            static_cast<int>(file.size))
        return false;
    draft->count = file.header.event_count;
    const uint32_t covered = file.size - CJOURNAL_FOOTER_SIZE;
    memcpy(footer, draft->segment + covered, sizeof *footer);
    const bool footer_sound = cjournal_check_footer(
        file.header, segment, file.layout, {draft->segment + covered, CJOURNAL_FOOTER_SIZE},
        cjournal_checksum({draft->segment, covered}));
    const cjournal_record_check_t records =
        cjournal_check_records(file.header, {draft->records(), draft->count});
    return footer_sound && records.fault == cjournal_fault_t::none;
}

/// The segment does not continue the one before it, which is there.
bool chain_broken_locked(uint32_t segment, cjournal_draft_t* draft, const cjournal_footer_t& footer)
    REQUIRES(cjournal_lock) {
    uint32_t checksum = 0;
    if (segment == 1)
        return footer.prev_checksum != 0;
    return cjournal_checksum_by_pieces_locked(segment - 1, draft->piece(), &checksum) &&
           checksum != footer.prev_checksum;
}

bool overlaps_previous_locked(uint32_t segment, const cjournal_header_t& header)
    REQUIRES(cjournal_lock) {
    cjournal_header_t before;
    return segment > 1 && read_segment_header_locked(segment - 1, &before) == 0 &&
           header.first_id <= before.last_id;
}

/// Nothing of this segment is worth keeping: it was overtaken, or its import never ended.
bool abandoned_locked(const saved_index_t& saved, uint32_t segment, cjournal_draft_t* draft,
                      const cjournal_footer_t& footer) REQUIRES(cjournal_lock) {
    if (saved.newer_than_saved(segment))
        return (footer.flags & CJOURNAL_FLAG_IMPORTED) != 0 ||
               chain_broken_locked(segment, draft, footer);
    return !saved.valid && footer.flags == 0 &&
           overlaps_previous_locked(segment, *draft->header()) &&
           chain_broken_locked(segment, draft, footer);
}

/// The companions on disk are those of the segment in the draft.
bool companions_match_locked(uint32_t segment, cjournal_draft_t* draft) REQUIRES(cjournal_lock) {
    cjournal_make_companions(segment, draft);
    const uint32_t bytes = cjournal_sidecar_bytes(draft->count);
    const auto sidecar = heap_ptr<uint8_t>::make(bytes);
    cjournal_root_header_t root;
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::sidecar, path);
    if (!sidecar || cjournal_read_file(path, sidecar.get(), bytes) != 1 ||
        memcmp(sidecar.get(), draft->sidecar, bytes) != 0)
        return false;
    cjournal_path(segment, cjournal_file_t::root, path);
    return cjournal_read_file(path, &root, sizeof root) == 1 &&
           memcmp(&root, &draft->root, sizeof root) == 0;
}

/// A segment that the index does not name.
void settle_segment_locked(const saved_index_t& saved, const cjournal_listed_t& listed,
                           cjournal_draft_t* draft) REQUIRES(cjournal_lock) {
    const uint32_t segment = listed.segment;
    cjournal_footer_t footer;
    if (!read_sound_locked(segment, draft, &footer)) {
        if (saved.newer_than_saved(segment))
            cjournal_remove_segment_locked(segment);
        return;
    }
    if (abandoned_locked(saved, segment, draft, footer)) {
        cjournal_remove_segment_locked(segment);
        return;
    }
    const bool lacks_companion =
        !listed.has(cjournal_file_t::sidecar) || !listed.has(cjournal_file_t::root);
    const bool incomplete = saved.newer_than_saved(segment)
                                ? !companions_match_locked(segment, draft)
                                : lacks_companion && !listed.has(cjournal_file_t::signature);
    if (incomplete && cjournal_write_companions_locked(segment, draft) != 0)
        cjournal_remove_companions_locked(segment);
}

/// The last identifier of a segment, if its last record has it too: a header that was damaged must
/// not use up the numbers. 0 when it cannot be told.
uint32_t last_id_locked(uint32_t segment) REQUIRES(cjournal_lock) {
    cjournal_segment_file_t file;
    uint32_t id = 0;
    if (cjournal_open_segment_locked(segment, &file) != 0)
        return 0;
    const uint32_t at =
        CJOURNAL_HEADER_SIZE + (file.header.event_count - 1) * file.layout.event_size;
    const int got = cjournal_read_exact_retry(file.inode, &id, at, sizeof id);
    return got == static_cast<int>(sizeof id) && id == file.header.last_id ? id : 0;
}

/// The newest event of the snapshot, if its header agrees with it; 0 when that cannot be told.
uint32_t snapshot_last_id() {
    persist_header_t header;
    uint32_t id = 0;
    if (cjournal_read_file(CJOURNAL_SNAPSHOT_PATH, &header, sizeof header, true) != 1 ||
        !cjournal_snapshot_valid(header))
        return 0;
    const auto at =
        static_cast<uint32_t>(sizeof header + (header.event_count - 1) * sizeof(persist_event_t));
    const int got =
        cjournal_read_exact_retry(blockfs_resolve(CJOURNAL_SNAPSHOT_PATH), &id, at, sizeof id);
    return got == static_cast<int>(sizeof id) && id + 1 == header.next_id ? id : 0;
}

}  // namespace

bool cjournal_list_locked(cjournal_listing_t* listing) {
    listing->count = 0;
    uint32_t inodes = 0;
    if (blockfs_df(nullptr, nullptr, nullptr, &inodes, nullptr, nullptr) != 0)
        return false;
    constexpr uint32_t LINE_BYTES = BLOCKFS_NAME_MAX + 1;
    uint32_t bytes = LISTING_BYTES_MAX;
    if (inodes < LISTING_BYTES_MAX / LINE_BYTES)
        bytes = inodes * LINE_BYTES + 2;
    const auto names = heap_ptr<char>::make(bytes);
    if (!names)
        return false;
    const int lines = blockfs_list(CJOURNAL_DIR, names.get(), static_cast<int>(bytes));
    if (lines <= 0)
        return true;
    listing->items = heap_ptr<cjournal_listed_t>::make(static_cast<uint32_t>(lines));
    if (!listing->items)
        return false;
    parse_listing(names.get(), listing, static_cast<uint32_t>(lines));
    sort_listing(listing);
    return true;
}

bool cjournal_recover_locked() {
    saved_index_t saved = {};
    saved.valid = cjournal_read_index_locked(&saved.header, &saved.entries);
    cjournal_listing_t listing;
    static_cast<void>(cjournal_list_locked(&listing));
    heap_ptr<cjournal_draft_t> draft;
    bool unnamed = false;
    for (uint32_t i = 0; i < listing.count; i++) {
        const cjournal_listed_t& listed = listing.at(i);
        if (!listed.has(cjournal_file_t::segment)) {
            if (listed.has(cjournal_file_t::sidecar) || listed.has(cjournal_file_t::root))
                cjournal_remove_companions_locked(listed.segment);
            continue;
        }
        if (saved.find(listed.segment) != nullptr)
            continue;
        unnamed = true;
        if (!draft)
            draft = heap_ptr<cjournal_draft_t>::make();
        if (draft)
            settle_segment_locked(saved, listed, draft.get());
    }
    return unnamed;
}

uint32_t cjournal_highest_archived_locked() {
    saved_index_t saved = {};
    saved.valid = cjournal_read_index_locked(&saved.header, &saved.entries);
    cjournal_listing_t listing;
    uint32_t highest = snapshot_last_id();
    const bool listed = cjournal_list_locked(&listing);
    for (uint32_t i = 0; !listed && saved.valid && i < saved.header.entry_count; i++)
        highest = std::max(highest, uint32_t{saved.entries[i].last_id});
    for (uint32_t i = 0; i < listing.count; i++) {
        if (!listing.at(i).has(cjournal_file_t::segment))
            continue;
        uint32_t last = last_id_locked(listing.at(i).segment);
        const cjournal_index_entry_t* entry = saved.find(listing.at(i).segment);
        if (last == 0 && entry != nullptr)
            last = entry->last_id;
        highest = std::max(highest, last);
    }
    return highest;
}
