// The check of the whole journal, of one segment, and of what reads well. The mutex is released
// between segments, so that a check does not keep the spill waiting.
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal/examine.h"

namespace {

/// What was counted on the way.
struct tally_t {
    uint32_t failures;
    uint32_t footers, checksums, layouts, links;
    uint32_t segments, edges;
    uint32_t hashed, stored_hashes, roots;
    cjournal_known_t before;
};

/// Counts a failure of a segment and says what it is.
void fail(tally_t* tally, uint32_t segment, const char* what) {
    kprintf("[cjournal] verify: segment %u %s\n", segment, what);
    tally->failures++;
}

bool header_agrees(const cjournal_entry_t& entry, const cjournal_header_t& header) {
    return entry.first_id == header.first_id && entry.last_id == header.last_id &&
           entry.first_tick == header.first_tick && entry.last_tick == header.last_tick &&
           entry.first_lamport == header.first_lamport &&
           entry.last_lamport == header.last_lamport && entry.event_count == header.event_count;
}

/// A bit of the records that the index lacks would hide them from queries.
void check_statistics(const cjournal_entry_t& entry, const cjournal_examined_t& examined,
                      tally_t* tally) {
    cjournal_stats_t stats;
    segment_events_index_stats({examined.records.get(), examined.header.event_count}, &stats);
    const uint32_t segment = entry.segment_num;
    if ((stats.type_bitmap & ~entry.type_bitmap) != 0)
        fail(tally, segment, "type bitmap mismatch");
    if ((stats.subsystem_bitmap & ~entry.subsystem_bitmap) != 0)
        fail(tally, segment, "subsystem bitmap mismatch");
    if ((stats.schema_bitmap & ~entry.schema_bitmap) != 0)
        fail(tally, segment, "schema bitmap mismatch");
    if (stats.parent_edge_count != entry.parent_edge_count ||
        stats.parent_min_id != entry.parent_min_id || stats.parent_max_id != entry.parent_max_id)
        fail(tally, segment, "parent index mismatch");
    tally->edges += stats.parent_edge_count;
}

void check_hashes_locked(cjournal_examined_t* examined, uint32_t segment, tally_t* tally)
    REQUIRES(cjournal_lock) {
    const uint32_t count = examined->header.event_count;
    if (!cjournal_examine_hashes_locked(segment, examined)) {
        kprintf("[cjournal] verify: cannot allocate hash buffer\n");
        tally->failures++;
        return;
    }
    tally->hashed += count;
    if (examined->hash_status < 0)
        fail(tally, segment, "stored hash mismatch");
    tally->stored_hashes += examined->hash_status > 0 ? count : 0;
    if (examined->root_status < 0)
        fail(tally, segment, "epoch root mismatch");
    tally->roots += examined->root_status > 0 ? 1 : 0;
}

void check_entry_locked(const cjournal_entry_t& entry, tally_t* tally) REQUIRES(cjournal_lock) {
    const uint32_t segment = entry.segment_num;
    cjournal_examined_t examined;
    tally->segments++;
    if (!cjournal_examine_locked(segment, &tally->before, &examined)) {
        tally->before = {};
        fail(tally, segment, "FAILED");
        return;
    }
    tally->before = {segment, examined.own_checksum};
    tally->footers += examined.footer ? 1 : 0;
    tally->checksums += examined.checksum ? 1 : 0;
    tally->layouts += examined.layout ? 1 : 0;
    tally->links += examined.chain ? 1 : 0;
    if (!header_agrees(entry, examined.header))
        fail(tally, segment, "index mismatch");
    check_statistics(entry, examined, tally);
    check_hashes_locked(&examined, segment, tally);
}

/// Checks the entry at `position`; false behind the last one.
bool check_next(int32_t position, tally_t* tally) {
    const mutex_guard guard(cjournal_lock);
    if (position >= cjournal.index_count)
        return false;
    if (cjournal.index[position].active)
        check_entry_locked(cjournal.index[position], tally);
    return true;
}

bool header_as_in_memory_locked(const cjournal_index_header_t& header) REQUIRES(cjournal_lock) {
    return header.entry_count == static_cast<uint32_t>(cjournal.index_count) &&
           header.events_spilled == cjournal.events_spilled &&
           header.last_spilled_id == cjournal.last_spilled_id &&
           header.segments_written == cjournal.segments_written;
}

/// The first entry of the file that memory does not hold, or the number of entries.
uint32_t first_difference_locked(const heap_ptr<cjournal_index_entry_t>& entries, uint32_t count)
    REQUIRES(cjournal_lock) {
    uint32_t i = 0;
    for (; i < count; i++) {
        const cjournal_index_entry_t own = cjournal_saved_entry(cjournal.index[i]);
        if (!cjournal.index[i].active || memcmp(&own, &entries[i], sizeof own) != 0)
            break;
    }
    return i;
}

/// The index file says what memory says.
bool check_index_file() {
    const mutex_guard guard(cjournal_lock);
    cjournal_index_header_t header;
    heap_ptr<cjournal_index_entry_t> entries;
    if (!cjournal_read_index_locked(&header, &entries)) {
        kprintf("[cjournal] verify: missing or invalid %s\n", CJOURNAL_INDEX_PATH);
        return false;
    }
    if (!header_as_in_memory_locked(header)) {
        kprintf("[cjournal] verify: index file does not match memory\n");
        return false;
    }
    const uint32_t differs = first_difference_locked(entries, header.entry_count);
    if (differs == header.entry_count)
        return true;
    kprintf("[cjournal] verify: index entry %u mismatch\n", differs);
    return false;
}

void print_success(const tally_t& t) {
    if (t.footers != 0)
        kprintf("[cjournal] verify: footer ok (%u segments)\n", t.footers);
    if (t.checksums != 0)
        kprintf("[cjournal] verify: checksum ok (%u segments)\n", t.checksums);
    if (t.layouts != 0)
        kprintf("[cjournal] verify: layout ok (%u segments)\n", t.layouts);
    if (t.links != 0)
        kprintf("[cjournal] verify: chain ok (%u links)\n", t.links);
    kprintf("[cjournal] verify: subsystem index ok (%u segments)\n", t.segments);
    kprintf("[cjournal] verify: schema index ok (%u segments)\n", t.segments);
    kprintf("[cjournal] verify: parent index ok (%u edges)\n", t.edges);
    if (t.hashed != 0)
        kprintf("[cjournal] verify: event hash ok (%u events, format v%u)\n", t.hashed,
                CAUSAL_HASH_VERSION);
    if (t.stored_hashes != 0)
        kprintf("[cjournal] verify: stored hash ok (%u events, current v%u)\n", t.stored_hashes,
                CAUSAL_HASH_VERSION);
    if (t.roots != 0)
        kprintf("[cjournal] verify: epoch root ok (%u segments)\n", t.roots);
    kprintf("[cjournal] verify: ok (%d segments, %u events)\n", static_cast<int>(t.segments),
            t.hashed);
}

bool is_running() {
    const mutex_guard guard(cjournal_lock);
    return cjournal_running_locked();
}

void judge_locked(uint32_t segment, cjournal_seg_verdict_t* out) REQUIRES(cjournal_lock) {
    cjournal_examined_t examined;
    out->hash_status = -1;
    out->root_status = -1;
    out->indexed = cjournal_find_entry_locked(segment) != nullptr;
    if (!out->indexed || !cjournal_examine_locked(segment, nullptr, &examined))
        return;
    out->footer = examined.footer;
    out->checksum = examined.checksum;
    out->layout = examined.layout;
    out->chain = examined.chain;
    if (!cjournal_examine_hashes_locked(segment, &examined))
        return;
    out->hash_status = examined.hash_status;
    out->hash_version = examined.hash_version;
    out->root_status = examined.root_status;
    out->ok = examined.hash_status >= 0 && examined.root_status >= 0;
}

}  // namespace

void cjournal_verify_segment_verdict(uint32_t segment, cjournal_seg_verdict_t* out) {
    const mutex_guard guard(cjournal_lock);
    *out = {};
    judge_locked(segment, out);
}

bool cjournal_read_retry_probe(uint32_t segment, cjournal_retry_probe_t* out) {
    const mutex_guard guard(cjournal_lock);
    cjournal_header_t header;
    cjournal_segment_file_t file;
    cjournal_hash_header_t sidecar;
    cjournal_root_header_t root;
    cjournal_index_header_t index;
    heap_ptr<cjournal_index_entry_t> entries;
    char path[CJOURNAL_PATH_SIZE];
    *out = {};
    out->header_ok = read_segment_header_locked(segment, &header) == 0;
    out->footer_ok = out->header_ok && cjournal_open_segment_locked(segment, &file) == 0 &&
                     file.layout.footer_size != 0;
    cjournal_path(segment, cjournal_file_t::sidecar, path);
    out->hash_ok = cjournal_read_file(path, &sidecar, sizeof sidecar, true) == 1 &&
                   cjournal_hash_header_valid(sidecar, segment);
    cjournal_path(segment, cjournal_file_t::root, path);
    out->root_ok = cjournal_read_file(path, &root, sizeof root) == 1 &&
                   root.magic == CJOURNAL_ROOT_MAGIC && root.version == CJOURNAL_ROOT_VERSION &&
                   root.segment_num == segment;
    out->index_ok = cjournal_read_index_locked(&index, &entries);
    return out->header_ok && out->hash_ok && out->root_ok && out->index_ok && out->footer_ok;
}

int cjournal_verify() {
    if (!is_running())
        return -1;
    tally_t tally = {};
    for (int32_t position = 0; check_next(position, &tally); position++) {
    }
    if (!check_index_file())
        tally.failures++;
    if (tally.failures != 0)
        return -1;
    kprintf("[cjournal] verify: index ok (%u entries)\n", tally.segments);
    print_success(tally);
    return 0;
}
