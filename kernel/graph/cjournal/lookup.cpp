// Archived events by number and by parent: what the store asks for. Identifiers of a segment run
// without gaps, so that the place of a record is known and it alone is read; where it is not found
// there (an imported segment, a damaged one), the whole segment is.
#include "kernel/graph/cjournal/internal.h"

namespace {

/// Reads an entry's segment into `records`; its number of records, 0 when it cannot be read.
int read_entry_locked(const cjournal_entry_t& entry, const cjournal_records_t& records)
    REQUIRES(cjournal_lock) {
    const int count = read_segment_events_locked(entry.segment_num, records.get(),
                                                 static_cast<int>(CJOURNAL_SEGMENT_EVENTS));
    return count > 0 ? count : 0;
}

/// Looks where the record stands when no identifier is missing before it.
bool find_in_place_locked(const cjournal_entry_t& entry, uint32_t id, cjournal_event_t* out)
    REQUIRES(cjournal_lock) {
    cjournal_segment_file_t file;
    if (cjournal_open_segment_locked(entry.segment_num, &file) != 0 || id < file.header.first_id)
        return false;
    return read_segment_event_locked(file, id - file.header.first_id, out) == 0 && out->id == id;
}

bool find_in_entry_locked(const cjournal_entry_t& entry, uint32_t id, cjournal_records_t* records,
                          cjournal_event_t* out) REQUIRES(cjournal_lock) {
    if (find_in_place_locked(entry, id, out))
        return true;
    if (!*records)
        *records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    const int count = *records ? read_entry_locked(entry, *records) : 0;
    for (int i = 0; i < count; i++) {
        const cjournal_event_t& record = (*records)[static_cast<size_t>(i)];
        if (record.id != id)
            continue;
        *out = record;
        return true;
    }
    return false;
}

/// One of the two passes: live segments, or imported ones.
bool find_locked(uint32_t id, bool imported, cjournal_records_t* records, cjournal_event_t* out)
    REQUIRES(cjournal_lock) {
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        if (!entry.active || ((entry.flags & CJOURNAL_FLAG_IMPORTED) != 0) != imported ||
            id < entry.first_id || id > entry.last_id)
            continue;
        if (find_in_entry_locked(entry, id, records, out))
            return true;
    }
    return false;
}

bool names_parent(const cjournal_event_t& record, uint32_t id) {
    for (uint32_t i = 0; i < record.num_parents && i < CAUSAL_PARENTS_MAX; i++) {
        if (record.parents[i] == id)
            return true;
    }
    return false;
}

/// Records of the entry may name `id`: it is older than the newest of them, and in their range.
bool may_name_parent(const cjournal_entry_t& entry, uint32_t id) {
    if (!entry.active || entry.last_id <= id)
        return false;
    return entry.parent_edge_count == CJOURNAL_STATS_UNKNOWN.parent_edge_count ||
           (id >= entry.parent_min_id && id <= entry.parent_max_id);
}

int children_locked(uint32_t id, cjournal_event_t* out, int max) REQUIRES(cjournal_lock) {
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    int found = 0;
    for (int32_t at = 0; records && at < cjournal.index_count; at++) {
        if (!may_name_parent(cjournal.index[at], id))
            continue;
        const int count = read_entry_locked(cjournal.index[at], records);
        for (int i = 0; i < count && found < max; i++) {
            const cjournal_event_t& record = records[static_cast<size_t>(i)];
            if (names_parent(record, id))
                out[found++] = record;
        }
    }
    return found;
}

}  // namespace

int cjournal_query_by_id_disk(uint32_t id, cjournal_event_t* out) {
    const mutex_guard guard(cjournal_lock);
    if (id == 0 || !cjournal_running_locked())
        return -1;
    cjournal_records_t records;
    return find_locked(id, false, &records, out) || find_locked(id, true, &records, out) ? 0 : -1;
}

int cjournal_query_by_id(uint32_t id, cjournal_event_t* out) {
    return cjournal_ring_record(id, out) ? 0 : cjournal_query_by_id_disk(id, out);
}

int cjournal_query_children(uint32_t id, cjournal_event_t* out, int max) {
    const mutex_guard guard(cjournal_lock);
    if (id == 0 || max <= 0 || !cjournal_running_locked())
        return 0;
    return children_locked(id, out, max < CJOURNAL_QUERY_MAX ? max : CJOURNAL_QUERY_MAX);
}

int cjournal_next_segment(uint32_t from, uint32_t* segment, uint32_t* first, uint32_t* last) {
    const mutex_guard guard(cjournal_lock);
    int found = -1;
    for (int32_t i = 0; cjournal_running_locked() && i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        const uint32_t start = entry.first_id > from ? entry.first_id : from;
        if (!entry.active || entry.last_id < from || (found == 0 && start >= *first))
            continue;
        *segment = entry.segment_num;
        *first = start;
        *last = entry.last_id;
        found = 0;
    }
    return found;
}
