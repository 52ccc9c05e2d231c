// The index: entries in memory, the file they are saved in, and the way back from the segments.
#include "kernel/core/assert.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

struct [[gnu::packed]] index_file_t {
    cjournal_index_header_t header;
    cjournal_index_entry_t entries[CJOURNAL_SEGMENTS_MAX];
};
static_assert(sizeof(index_file_t) == CJOURNAL_INDEX_BYTES_MAX);

void enter_header(const cjournal_header_t& header, cjournal_entry_t* entry) {
    entry->first_id = header.first_id;
    entry->last_id = header.last_id;
    entry->first_tick = header.first_tick;
    entry->last_tick = header.last_tick;
    entry->first_lamport = header.first_lamport;
    entry->last_lamport = header.last_lamport;
    entry->event_count = header.event_count;
}

void enter_stats(const cjournal_stats_t& stats, cjournal_entry_t* entry) {
    entry->type_bitmap = stats.type_bitmap;
    entry->subsystem_bitmap = stats.subsystem_bitmap;
    entry->schema_bitmap = stats.schema_bitmap;
    entry->parent_edge_count = stats.parent_edge_count;
    entry->parent_min_id = stats.parent_min_id;
    entry->parent_max_id = stats.parent_max_id;
}

bool header_agrees(const cjournal_header_t& header, const cjournal_index_entry_t& saved) {
    return header.first_id == saved.first_id && header.last_id == saved.last_id &&
           header.first_tick == saved.first_tick && header.last_tick == saved.last_tick &&
           header.first_lamport == saved.first_lamport &&
           header.last_lamport == saved.last_lamport && header.event_count == saved.event_count;
}

template <typename T>
bool same(const T& a, const T& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

/// In one step; when the volume has no room for two of them, the old one goes first: a cut there
/// leaves none, and the next start rebuilds it.
bool replace_index(const void* data, uint32_t bytes) {
    if (blockfs_replace_file(CJOURNAL_INDEX_PATH, data, bytes) == 0)
        return true;
    uint32_t free_blocks = 0;
    if (blockfs_df(nullptr, nullptr, &free_blocks, nullptr, nullptr, nullptr) != 0 ||
        free_blocks * BLOCKFS_BLOCK_BYTES >= bytes)
        return false;
    return blockfs_remove(CJOURNAL_INDEX_PATH) == 0 &&
           blockfs_replace_file(CJOURNAL_INDEX_PATH, data, bytes) == 0;
}

/// Takes a saved entry over if its segment still says the same; what could not be read when it was
/// saved may be read now. `changed`: it now says something else.
bool accept_saved_locked(const cjournal_index_entry_t& saved, bool* changed)
    REQUIRES(cjournal_lock) {
    cjournal_header_t header;
    if (saved.segment_num == 0 || same(saved.stats, CJOURNAL_STATS_UNKNOWN) ||
        read_segment_header_locked(saved.segment_num, &header) != 0 ||
        !header_agrees(header, saved))
        return false;
    cjournal_entry_t* entry = &cjournal.index[cjournal.index_count];
    *entry = {};
    entry->segment_num = saved.segment_num;
    enter_header(header, entry);
    enter_stats(saved.stats, entry);
    entry->flags = saved.flags;
    cjournal_sidecar_summary_locked(entry);
    if (saved.root_valid == 1 && saved.root_hash_version == CAUSAL_HASH_VERSION) {
        entry->root_valid = true;
        entry->root_hash_version = CAUSAL_HASH_VERSION;
        entry->root_prefix = saved.root_prefix;
    } else {
        cjournal_root_summary_locked(entry);
    }
    entry->active = true;
    cjournal.index_count++;
    *changed = *changed || !same(cjournal_saved_entry(*entry), saved);
    return true;
}

void clear_index_locked() REQUIRES(cjournal_lock) {
    memset(cjournal.index, 0, sizeof cjournal.index);
    cjournal.index_count = 0;
    cjournal.segments_written = 0;
    cjournal.events_spilled = 0;
    cjournal.last_spilled_id = 0;
}

void raise(uint32_t* value, uint32_t to) {
    if (*value < to)
        *value = to;
}

/// The statistics of a segment's records; those that match everything when they cannot be read.
cjournal_stats_t stats_on_disk_locked(uint32_t segment, cjournal_event_t* records)
    REQUIRES(cjournal_lock) {
    cjournal_stats_t stats = CJOURNAL_STATS_UNKNOWN;
    const int count =
        read_segment_events_locked(segment, records, static_cast<int>(CJOURNAL_SEGMENT_EVENTS));
    if (count > 0)
        segment_events_index_stats({records, static_cast<size_t>(count)}, &stats);
    return stats;
}

/// Adds the entry of a segment that was found on disk; one whose header does not read is left out.
void rebuild_entry_locked(uint32_t segment, cjournal_event_t* records) REQUIRES(cjournal_lock) {
    cjournal_header_t header;
    if (read_segment_header_locked(segment, &header) != 0)
        return;
    if (cjournal.index_count == static_cast<int32_t>(CJOURNAL_SEGMENTS_MAX) &&
        !delete_oldest_segment_locked())
        return;
    cjournal_entry_t* entry = &cjournal.index[cjournal.index_count++];
    *entry = {};
    entry->segment_num = segment;
    enter_header(header, entry);
    enter_stats(stats_on_disk_locked(segment, records), entry);
    cjournal_segment_file_t file;
    if (cjournal_open_segment_locked(segment, &file) == 0)
        entry->flags = cjournal_segment_flags_locked(file, segment);
    cjournal_sidecar_summary_locked(entry);
    cjournal_root_summary_locked(entry);
    entry->active = true;
    cjournal.events_spilled += header.event_count;
    if ((entry->flags & CJOURNAL_FLAG_IMPORTED) == 0)
        raise(&cjournal.last_spilled_id, header.last_id);
}

/// The highest number of a segment whose header reads; before anything is evicted, for that may
/// write a segment.
void raise_numbers_locked(const cjournal_listing_t& listing) REQUIRES(cjournal_lock) {
    cjournal_header_t header;
    for (uint32_t i = 0; i < listing.count; i++) {
        if (listing.at(i).has(cjournal_file_t::segment) &&
            read_segment_header_locked(listing.at(i).segment, &header) == 0)
            raise(&cjournal.segments_written, listing.at(i).segment);
    }
}

}  // namespace

cjournal_entry_t* cjournal_find_entry_locked(uint32_t segment) {
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        if (cjournal.index[i].active && cjournal.index[i].segment_num == segment)
            return &cjournal.index[i];
    }
    return nullptr;
}

void cjournal_remove_entry_locked(cjournal_entry_t* entry) {
    const uint32_t events = entry->event_count;
    const cjournal_entry_t* end = &cjournal.index[cjournal.index_count--];
    memmove(entry, entry + 1, static_cast<size_t>(end - entry - 1) * sizeof *entry);
    cjournal.index[cjournal.index_count] = {};
    cjournal.events_spilled -= events < cjournal.events_spilled ? events : cjournal.events_spilled;
}

cjournal_index_entry_t cjournal_saved_entry(const cjournal_entry_t& entry) {
    return {entry.segment_num,
            entry.first_id,
            entry.last_id,
            entry.first_tick,
            entry.last_tick,
            entry.first_lamport,
            entry.last_lamport,
            entry.event_count,
            {entry.type_bitmap, entry.subsystem_bitmap, entry.schema_bitmap,
             entry.parent_edge_count, entry.parent_min_id, entry.parent_max_id},
            entry.flags,
            entry.root_hash_version,
            entry.root_prefix,
            entry.root_valid ? 1u : 0u};
}

int save_index_file_locked() {
    if (!cjournal.disk_available)
        return -1;
    cjournal_writer.index_file_valid = false;
    const auto file = heap_ptr<index_file_t>::make();
    if (!file)
        return -1;
    const auto count = static_cast<uint32_t>(cjournal.index_count);
    file->header = {CJOURNAL_INDEX_MAGIC,    CJOURNAL_INDEX_VERSION,   count,
                    cjournal.events_spilled, cjournal.last_spilled_id, cjournal.segments_written};
    for (uint32_t i = 0; i < count; i++)
        file->entries[i] = cjournal_saved_entry(cjournal.index[i]);
    if (!replace_index(file.get(), cjournal_index_bytes(count)))
        return -1;
    cjournal_writer.index_file_valid = true;
    return 0;
}

bool cjournal_read_index_locked(cjournal_index_header_t* header,
                                heap_ptr<cjournal_index_entry_t>* entries) {
    const int64_t size = cjournal_file_size(CJOURNAL_INDEX_PATH);
    if (size < 0 || size > CJOURNAL_INDEX_BYTES_MAX ||
        cjournal_read_file(CJOURNAL_INDEX_PATH, header, sizeof *header, true) != 1 ||
        !cjournal_index_valid(*header, static_cast<uint32_t>(size)))
        return false;
    const uint32_t bytes = header->entry_count * static_cast<uint32_t>(sizeof **entries);
    *entries = heap_ptr<cjournal_index_entry_t>::make(header->entry_count);
    const int inode = blockfs_resolve(CJOURNAL_INDEX_PATH);
    return *entries && cjournal_read_exact_retry(inode, entries->get(), sizeof *header, bytes) ==
                           static_cast<int>(bytes);
}

bool cjournal_load_index_locked() {
    cjournal_index_header_t header;
    heap_ptr<cjournal_index_entry_t> entries;
    clear_index_locked();
    if (!cjournal_read_index_locked(&header, &entries))
        return false;
    bool changed = false;
    for (uint32_t i = 0; i < header.entry_count; i++) {
        if (!accept_saved_locked(entries[i], &changed))
            return false;
    }
    cjournal.events_spilled = header.events_spilled;
    cjournal.last_spilled_id = header.last_spilled_id;
    cjournal.segments_written = header.segments_written;
    cjournal_writer.index_file_valid = true;
    cjournal_writer.index_source = "loaded";
    if (changed)
        save_index_file_locked();
    return true;
}

void index_add_segment_locked(uint32_t segment, cjournal_draft_t* draft, uint32_t flags) {
    KASSERT(cjournal.index_count < static_cast<int32_t>(CJOURNAL_SEGMENTS_MAX));
    cjournal_entry_t* entry = &cjournal.index[cjournal.index_count++];
    cjournal_stats_t stats;
    segment_events_index_stats({draft->records(), draft->count}, &stats);
    *entry = {};
    entry->segment_num = segment;
    enter_header(*draft->header(), entry);
    enter_stats(stats, entry);
    entry->flags = flags;
    entry->hash_version = CAUSAL_HASH_VERSION;
    entry->hash_first_prefix = cjournal_hash_prefix(draft->first_hash);
    entry->hash_first_valid = true;
    entry->root_hash_version = CAUSAL_HASH_VERSION;
    entry->root_prefix = cjournal_hash_prefix(draft->root.root);
    entry->root_valid = true;
    entry->active = true;
    cjournal.events_spilled += draft->count;
    raise(&cjournal.segments_written, segment);
}

int rebuild_index_locked() {
    cjournal_listing_t listing;
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    if (!cjournal.disk_available || !records || !cjournal_list_locked(&listing))
        return -1;
    const uint32_t cursor = cjournal.last_spilled_id;
    clear_index_locked();
    raise_numbers_locked(listing);
    for (uint32_t i = 0; i < listing.count; i++) {
        if (listing.at(i).has(cjournal_file_t::segment))
            rebuild_entry_locked(listing.at(i).segment, records.get());
    }
    // A segment that was spilled through stands ahead of what the regular spill has yet to write.
    if (cjournal.initialized && cursor < cjournal.last_spilled_id)
        cjournal.last_spilled_id = cursor;
    if (save_index_file_locked() == 0)
        cjournal_writer.index_source = "rebuilt";
    return cjournal.index_count;
}

int cjournal_rebuild_index() {
    const mutex_guard guard(cjournal_lock);
    return cjournal_running_locked() ? rebuild_index_locked() : -1;
}
