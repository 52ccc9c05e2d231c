// The older whole-ring snapshot, taken over once as segments with the imported flag. All or
// nothing: what a failed import wrote is removed, newest first, and what a cut left of one is
// removed at the next start-up, because the index does not name it.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr int IMPORT_FAILED = -1;
constexpr int RENAME_PENDING = -2;
constexpr uint32_t BYTES_PER_KB = 1024;

/// The snapshot's records in the current form.
struct import_t {
    heap_ptr<cjournal_event_t> records;
    uint32_t count = 0;

    std::span<const cjournal_event_t> all() const { return {records.get(), count}; }
};

/// Reads and converts the snapshot; false unless every record is one that a segment may hold, and
/// identifiers increase.
bool read_snapshot(import_t* import) {
    persist_header_t header;
    if (cjournal_read_file(CJOURNAL_SNAPSHOT_PATH, &header, sizeof header, true) != 1 ||
        !cjournal_snapshot_valid(header))
        return false;
    import->records = heap_ptr<cjournal_event_t>::make(header.event_count);
    const auto stored = heap_ptr<persist_event_t>::make(header.event_count);
    const auto bytes = static_cast<uint32_t>(header.event_count * sizeof(persist_event_t));
    if (!import->records || !stored ||
        cjournal_read_exact_retry(blockfs_resolve(CJOURNAL_SNAPSHOT_PATH), stored.get(),
                                  sizeof header, bytes) != static_cast<int>(bytes))
        return false;
    for (uint32_t i = 0; i < header.event_count; i++) {
        if (!cjournal_convert_snapshot(stored[i], &import->records[i]) ||
            (i > 0 && import->records[i].id <= import->records[i - 1].id))
            return false;
    }
    import->count = header.event_count;
    return true;
}

/// How many records from `from` on may share a segment: Lamport time must not step back.
uint32_t run_length(const import_t& import, uint32_t from) {
    uint32_t end = from + 1;
    while (end < import.count && end - from < CJOURNAL_SEGMENT_EVENTS &&
           import.records[end].lamport >= import.records[end - 1].lamport)
        end++;
    return end - from;
}

uint32_t count_runs(const import_t& import) {
    uint32_t runs = 0;
    for (uint32_t at = 0; at < import.count; at += run_length(import, at))
        runs++;
    return runs;
}

/// The imported segments between the snapshot's first and last identifier hold as many records.
bool imported_before_locked(const import_t& import) REQUIRES(cjournal_lock) {
    const uint32_t first = import.all().front().id;
    const uint32_t last = import.all().back().id;
    uint32_t held = 0;
    bool begins = false;
    bool ends = false;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        if (!entry.active || (entry.flags & CJOURNAL_FLAG_IMPORTED) == 0 ||
            entry.first_id < first || entry.last_id > last)
            continue;
        begins = begins || entry.first_id == first;
        ends = ends || entry.last_id == last;
        held += entry.event_count;
    }
    return begins && ends && held == import.count;
}

/// There is room without evicting anything, which could not be undone.
bool has_room_locked(const import_t& import) REQUIRES(cjournal_lock) {
    const uint32_t segments = count_runs(import) + static_cast<uint32_t>(cjournal.index_count);
    const uint32_t events = cjournal_indexed_events_locked() + import.count;
    const uint32_t max_kb = cjournal_writer.retention_max_kb;
    return segments <= cjournal_writer.retention_max_segments &&
           (max_kb == 0 || events * CJOURNAL_EVENT_SIZE / BYTES_PER_KB <= max_kb);
}

bool write_runs_locked(const import_t& import) REQUIRES(cjournal_lock) {
    const auto draft = heap_ptr<cjournal_draft_t>::make();
    uint32_t at = 0;
    while (draft && at < import.count) {
        draft->count = run_length(import, at);
        memcpy(draft->records(), &import.records[at], draft->count * CJOURNAL_EVENT_SIZE);
        const uint32_t segment = cjournal.segments_written + 1;
        if (segment == 0 || write_segment_locked(segment, draft.get(), CJOURNAL_FLAG_IMPORTED) != 0)
            return false;
        index_add_segment_locked(segment, draft.get(), CJOURNAL_FLAG_IMPORTED);
        at += draft->count;
    }
    return at == import.count && save_index_file_locked() == 0;
}

/// What a failed import puts back.
struct before_t {
    uint32_t segments_written, events_spilled, last_spilled_id;
    int32_t index_count;
};

void roll_back_locked(const before_t& before) REQUIRES(cjournal_lock) {
    for (; cjournal.segments_written > before.segments_written; cjournal.segments_written--)
        cjournal_remove_segment_locked(cjournal.segments_written);
    for (; cjournal.index_count > before.index_count; cjournal.index_count--)
        cjournal.index[cjournal.index_count - 1] = {};
    cjournal.events_spilled = before.events_spilled;
    cjournal.last_spilled_id = before.last_spilled_id;
}

int finish(const import_t& import) {
    if (blockfs_resolve(CJOURNAL_MIGRATED_PATH) >= 0)
        blockfs_remove(CJOURNAL_MIGRATED_PATH);
    const int renamed = blockfs_rename(CJOURNAL_SNAPSHOT_PATH, CJOURNAL_MIGRATED_PATH);
    return renamed == 0 ? static_cast<int>(import.count) : RENAME_PENDING;
}

int import_locked() REQUIRES(cjournal_lock) {
    if (!cjournal_running_locked())
        return IMPORT_FAILED;
    if (blockfs_resolve(CJOURNAL_SNAPSHOT_PATH) < 0)
        return 0;
    import_t import;
    if (!read_snapshot(&import))
        return IMPORT_FAILED;
    if (imported_before_locked(import))
        return finish(import);
    if (!has_room_locked(import))
        return IMPORT_FAILED;
    const before_t before = {cjournal.segments_written, cjournal.events_spilled,
                             cjournal.last_spilled_id, cjournal.index_count};
    if (write_runs_locked(import))
        return finish(import);
    roll_back_locked(before);
    return IMPORT_FAILED;
}

}  // namespace

int cjournal_import_legacy() {
    const mutex_guard guard(cjournal_lock);
    return import_locked();
}
