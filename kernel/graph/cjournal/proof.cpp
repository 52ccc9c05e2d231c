// Which segment holds an event, that it does, and who signed that.
#include "kernel/core/string.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

struct range_t {
    uint32_t first, last;
};

/// The identifiers at both ends of the active segments; zeros when there are none.
range_t archived_range_locked() REQUIRES(cjournal_lock) {
    range_t range = {0, 0};
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        if (!entry.active)
            continue;
        if (range.first == 0 || entry.first_id < range.first)
            range.first = entry.first_id;
        if (entry.last_id > range.last)
            range.last = entry.last_id;
    }
    return range;
}

/// The event that `arg` names in a segment; 0 when it names none.
uint32_t event_in_segment(const char* arg, const cjournal_header_t& header) {
    uint32_t id = 0;
    if (arg == nullptr || strcmp(arg, "first") == 0)
        return header.first_id;
    if (strcmp(arg, "last") == 0)
        return header.last_id;
    return safe_parse_uint(arg, &id) == 0 ? id : 0;
}

/// The position of event `id`, or -1.
int position_of(std::span<const cjournal_event_t> records, uint32_t id) {
    for (size_t i = 0; i < records.size(); i++) {
        if (records[i].id == id)
            return static_cast<int>(i);
    }
    return -1;
}

/// Reads the root file: 0, or an error.
int read_root(uint32_t segment, cjournal_root_header_t* root) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::root, path);
    const int got = cjournal_read_file(path, root, sizeof *root);
    if (got == 0)
        return CJEP_ERR_ROOT_MISSING;
    return got == 1 && cjournal_root_valid(*root, segment) ? 0 : CJEP_ERR_ROOT_INVALID;
}

/// Climbs from the record at `leaf` to the root and compares.
int prove(std::span<const cjournal_event_t> records, uint32_t leaf,
          const cjournal_root_header_t& stored, cjournal_epoch_proof_t* out,
          cjournal_hash_t* siblings) {
    const auto hashes = heap_ptr<cjournal_hash_t>::make(records.size());
    cjournal_hash_t climbed[CJOURNAL_PROOF_DEPTH];
    if (!hashes)
        return CJEP_ERR_MEMORY;
    for (size_t i = 0; i < records.size(); i++) {
        if (!cjournal_record_hash(stored.hash_version, records[i], &hashes[i]))
            return CJEP_ERR_HASH;
    }
    out->leaf_hash_prefix = cjournal_hash_prefix(hashes[leaf]);
    const cjournal_hash_t root =
        cjournal_merkle_proof({hashes.get(), records.size()}, leaf, climbed, &out->depth);
    out->ok = memcmp(&root, &stored.root, sizeof root) == 0;
    out->event_id = records[leaf].id;
    out->leaf_index = leaf;
    out->root_prefix = cjournal_hash_prefix(stored.root);
    out->hash_version = stored.hash_version;
    if (siblings != nullptr)
        memcpy(siblings, climbed, out->depth * sizeof climbed[0]);
    return 0;
}

int compute_segment_epoch_proof_locked(uint32_t segment, const char* event_arg,
                                       cjournal_epoch_proof_t* out, cjournal_hash_t* siblings)
    REQUIRES(cjournal_lock) {
    cjournal_header_t header;
    cjournal_root_header_t root;
    *out = {};
    out->segment_num = segment;
    if (read_segment_header_locked(segment, &header) != 0)
        return CJEP_ERR_SEGMENT;
    const uint32_t id = event_in_segment(event_arg, header);
    if (id == 0)
        return CJEP_ERR_EVENT;
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    if (!records)
        return CJEP_ERR_MEMORY;
    const int count = read_segment_events_locked(segment, records.get(),
                                                 static_cast<int>(CJOURNAL_SEGMENT_EVENTS));
    if (count <= 0 || static_cast<uint32_t>(count) != header.event_count)
        return CJEP_ERR_READ;
    const std::span<const cjournal_event_t> all(records.get(), static_cast<size_t>(count));
    const int leaf = position_of(all, id);
    if (leaf < 0)
        return CJEP_ERR_NOT_IN_SEGMENT;
    const int failed = read_root(segment, &root);
    return failed != 0 ? failed : prove(all, static_cast<uint32_t>(leaf), root, out, siblings);
}

}  // namespace

uint32_t cjournal_segment_event_count(uint32_t segment) {
    const mutex_guard guard(cjournal_lock);
    const cjournal_entry_t* entry = cjournal_find_entry_locked(segment);
    return entry != nullptr ? entry->event_count : 0;
}

int cjournal_segment_for_event(uint32_t event_id, uint32_t* segment_out) {
    const mutex_guard guard(cjournal_lock);
    for (int32_t i = 0; event_id != 0 && i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        if (!entry.active || event_id < entry.first_id || event_id > entry.last_id)
            continue;
        *segment_out = entry.segment_num;
        return 0;
    }
    return -1;
}

uint32_t cjournal_resolve_archived_event_arg(const char* arg) {
    const mutex_guard guard(cjournal_lock);
    const range_t range = archived_range_locked();
    uint32_t id = 0;
    if (arg == nullptr || range.first == 0)
        return 0;
    if (strcmp(arg, "first") == 0)
        return range.first;
    if (strcmp(arg, "last") == 0)
        return range.last;
    return safe_parse_uint(arg, &id) == 0 ? id : 0;
}

int cjournal_query_segment(uint32_t segment, cjournal_event_t* out, int max) {
    const mutex_guard guard(cjournal_lock);
    if (max <= 0 || !cjournal_running_locked())
        return 0;
    const int limit = static_cast<int>(CJOURNAL_SEGMENT_EVENTS);
    const int count = read_segment_events_locked(segment, out, max < limit ? max : limit);
    return count > 0 ? count : 0;
}

int cjournal_segment_proof(uint32_t segment, const char* event_arg, cjournal_epoch_proof_t* out,
                           cjournal_hash_t siblings[CJOURNAL_PROOF_DEPTH]) {
    const mutex_guard guard(cjournal_lock);
    return compute_segment_epoch_proof_locked(segment, event_arg, out, siblings);
}

int cjournal_epoch_segment_proof(uint32_t segment, cjournal_epoch_proof_t* out) {
    return cjournal_segment_proof(segment, nullptr, out, nullptr);
}

int cjournal_epoch_proof(const char* event_arg, cjournal_epoch_proof_t* out) {
    const uint32_t id = cjournal_resolve_archived_event_arg(event_arg);
    uint32_t segment = 0;
    char number[12];
    *out = {};
    if (id == 0)
        return CJEP_ERR_EVENT;
    if (cjournal_segment_for_event(id, &segment) != 0)
        return CJEP_ERR_NOT_IN_SEGMENT;
    ksnprintf(number, sizeof number, "%u", id);
    return cjournal_segment_proof(segment, number, out, nullptr);
}

int cjournal_segment_signed(uint32_t segment, uint8_t root_out[32], uint8_t sig_out[64]) {
    const mutex_guard guard(cjournal_lock);
    cjournal_hash_t root;
    if (!cjournal_running_locked() || !cjournal_read_signature_locked(segment, sig_out) ||
        segment_verified_root_locked(segment, &root) != 0)
        return -1;
    memcpy(root_out, root.bytes, sizeof root.bytes);
    return 0;
}

uint32_t cjournal_event_hash_prefix(const cjournal_event_t* record) {
    cjournal_hash_t hash;
    cjournal_record_hash(CAUSAL_HASH_VERSION, *record, &hash);
    return cjournal_hash_prefix(hash);
}
