// A segment's root, checked against its records.
#include "kernel/core/string.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

/// The Merkle root over the records' hashes of `version`; false without memory.
bool compute_root(uint32_t version, std::span<const cjournal_event_t> records,
                  cjournal_hash_t* out) {
    const auto hashes = heap_ptr<cjournal_hash_t>::make(records.size());
    if (!hashes)
        return false;
    for (size_t i = 0; i < records.size(); i++)
        cjournal_record_hash(version, records[i], &hashes[i]);
    *out = cjournal_merkle_root({hashes.get(), records.size()});
    return true;
}

}  // namespace

int verify_segment_epoch_root_locked(uint32_t segment, const cjournal_header_t& header,
                                     std::span<const cjournal_event_t> records,
                                     cjournal_hash_t* out_root) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_root_header_t stored;
    cjournal_path(segment, cjournal_file_t::root, path);
    const int got = cjournal_read_file(path, &stored, sizeof stored);
    if (got != 1)
        return got;
    cjournal_hash_t root;
    if (!cjournal_root_valid(stored, segment) || !cjournal_companion_matches(stored, header) ||
        header.event_count == 0 || header.event_count > CJOURNAL_SEGMENT_EVENTS ||
        !compute_root(stored.hash_version, records, &root) ||
        memcmp(&root, &stored.root, sizeof root) != 0)
        return -1;
    *out_root = root;
    return 1;
}

int segment_verified_root_locked(uint32_t segment, cjournal_hash_t* out_root) {
    cjournal_header_t header;
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    if (!records || read_segment_header_locked(segment, &header) != 0)
        return -1;
    const int count = read_segment_events_locked(segment, records.get(),
                                                 static_cast<int>(CJOURNAL_SEGMENT_EVENTS));
    if (count < 0 || static_cast<uint32_t>(count) != header.event_count)
        return -1;
    const int status = verify_segment_epoch_root_locked(
        segment, header, {records.get(), header.event_count}, out_root);
    return status == 1 ? 0 : -1;
}
