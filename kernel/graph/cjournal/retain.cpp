// Retention: whole segments go, the one with the smallest first identifier first.
#include <algorithm>
#include <span>

#include "kernel/core/endian.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr uint32_t BYTES_PER_KB = 1024;

/// What an eviction leaves behind: the segment's number and root, as text and as payload.
struct [[gnu::packed]] evicted_t {
    uint16_t schema_id;
    uint8_t schema_version;
    uint8_t zero;
    uint32_t segment;
    cjournal_hash_t root;
};
static_assert(sizeof(evicted_t) == 40);

int32_t oldest_entry_locked() REQUIRES(cjournal_lock) {
    int32_t oldest = 0;
    for (int32_t i = 1; i < cjournal.index_count; i++) {
        if (cjournal.index[i].active &&
            cjournal.index[i].first_id < cjournal.index[oldest].first_id)
            oldest = i;
    }
    return oldest;
}

uint32_t record_eviction_locked(uint32_t segment) REQUIRES(cjournal_lock) {
    cjournal_root_header_t root;
    char text[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::root, text);
    const bool known =
        cjournal_read_file(text, &root, sizeof root) == 1 && cjournal_root_valid(root, segment);
    char hex[2 * CAUSAL_HASH_SIZE + 1] = "without root";
    evicted_t evicted = {0, 1, 0, segment, {}};
    if (known) {
        evicted.root = root.root;
        causal_hash_hex(evicted.root.bytes, hex);
    }
    char desc[CAUSAL_DESC_SIZE];
    ksnprintf(desc, sizeof desc, "evict %u %s", segment, hex);
    return causal_emit_payload(CAUSAL_IO, "cjournal", desc, nullptr, 0, &evicted, sizeof evicted);
}

std::span<const cjournal_entry_t> entries_locked() REQUIRES(cjournal_lock) {
    return {cjournal.index, static_cast<size_t>(cjournal.index_count)};
}

// What was imported or spilled alone may be the oldest, or not, anywhere in the row of numbers.

bool older_stays_locked(uint32_t segment) REQUIRES(cjournal_lock) {
    return std::ranges::any_of(entries_locked(),
                               [=](const auto& entry) { return entry.segment_num < segment; });
}

bool newer_stays_locked(uint32_t segment) REQUIRES(cjournal_lock) {
    return std::ranges::any_of(entries_locked(),
                               [=](const auto& entry) { return entry.segment_num > segment; });
}

/// Writes an event as the next segment, which has no entry yet.
bool write_alone_locked(uint32_t event, cjournal_draft_t* draft) REQUIRES(cjournal_lock) {
    if (draft == nullptr || !cjournal_ring_record(event, draft->records()))
        return false;
    draft->count = 1;
    return write_segment_locked(cjournal.segments_written + 1, draft, 0) == 0;
}

void put_back_locked(int32_t at, const cjournal_entry_t& entry) REQUIRES(cjournal_lock) {
    memmove(&cjournal.index[at + 1], &cjournal.index[at],
            static_cast<size_t>(cjournal.index_count - at) * sizeof entry);
    cjournal.index[at] = entry;
    cjournal.index_count++;
    cjournal.events_spilled += entry.event_count;
}

/// Removes the files of a segment that has no entry any more. The newest one in the row the index
/// file must not name when it goes: that would look like a tail that somebody cut off.
bool remove_evicted_locked(uint32_t segment) REQUIRES(cjournal_lock) {
    if (older_stays_locked(segment) && !newer_stays_locked(segment) &&
        save_index_file_locked() != 0)
        return false;
    return cjournal_remove_segment_locked(segment) || !cjournal_segment_exists(segment);
}

/// A signature outlives its segment, so that an evicted root can still be proved to be ours; but
/// not for ever, for each takes one of the volume's inodes.
void remove_old_signature(uint32_t segment) {
    if (segment <= CJOURNAL_SEGMENTS_MAX)
        return;
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment - CJOURNAL_SEGMENTS_MAX, cjournal_file_t::signature, path);
    if (blockfs_resolve(path) >= 0)
        blockfs_remove(path);
}

bool over_byte_limit_locked() REQUIRES(cjournal_lock) {
    return cjournal_writer.retention_max_kb != 0 &&
           cjournal_indexed_kb_locked() > cjournal_writer.retention_max_kb;
}

}  // namespace

uint32_t cjournal_indexed_events_locked() {
    uint32_t events = 0;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        if (cjournal.index[i].active)
            events += cjournal.index[i].event_count;
    }
    return events;
}

uint32_t cjournal_indexed_kb_locked() {
    return cjournal_indexed_events_locked() * CJOURNAL_EVENT_SIZE / BYTES_PER_KB;
}

bool delete_oldest_segment_locked() {
    if (cjournal.index_count == 0)
        return false;
    const int32_t at = oldest_entry_locked();
    const cjournal_entry_t entry = cjournal.index[at];
    const uint32_t event = record_eviction_locked(entry.segment_num);
    const uint32_t next = cjournal.segments_written + 1;
    const bool imported = (entry.flags & CJOURNAL_FLAG_IMPORTED) != 0;
    heap_ptr<cjournal_draft_t> account;
    if (imported && older_stays_locked(entry.segment_num)) {
        account = heap_ptr<cjournal_draft_t>::make();
        if (!write_alone_locked(event, account.get()))
            return false;
    }
    cjournal_remove_entry_locked(&cjournal.index[at]);
    if (!remove_evicted_locked(entry.segment_num)) {
        put_back_locked(at, entry);
        if (account)
            cjournal_remove_segment_locked(next);
        return false;
    }
    remove_old_signature(entry.segment_num);
    if (account)
        index_add_segment_locked(next, account.get(), 0);
    return true;
}

bool apply_retention_limit_locked(uint32_t stay) {
    while (cjournal.index_count > static_cast<int32_t>(stay) ||
           (cjournal.index_count > 1 && over_byte_limit_locked())) {
        if (!delete_oldest_segment_locked())
            return false;
    }
    return true;
}

int cjournal_set_retention(uint32_t max_segments, uint32_t max_kb) {
    const mutex_guard guard(cjournal_lock);
    cjournal_writer.retention_max_segments = max_segments;
    cjournal_writer.retention_max_kb = max_kb;
    if (!cjournal_running_locked())
        return -1;
    const bool applied = apply_retention_limit_locked(max_segments);
    return save_index_file_locked() == 0 && applied ? 0 : -1;
}
