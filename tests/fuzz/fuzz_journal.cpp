// A journal of two segments on a volume that is nothing but files, each with any bytes changed, and
// lengths too; where the input says so, with the footer's checksum made right again. Everything
// that reads segments runs over it: nothing faults, no lookup gives another event, and a segment
// whose root holds has the records that it was written with.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kernel/core/kprintf.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

cjournal_state_t cjournal;
cjournal_writer_t cjournal_writer;

namespace {

using bytes_t = std::vector<uint8_t>;

constexpr uint32_t SEGMENTS = 2, RECORDS = 5, KINDS = 4;

/// The files of the volume: those of segment 1, then those of segment 2; an inode is an index.
std::array<bytes_t, SEGMENTS * KINDS> files;

void require(bool holds) {
    if (!holds)
        std::abort();
}

template <typename T>
void append(bytes_t* to, const T& what) {
    const auto* from = reinterpret_cast<const uint8_t*>(&what);
    to->insert(to->end(), from, from + sizeof what);
}

bytes_t& file_of(uint32_t segment, cjournal_file_t kind) {
    return files[(segment - 1) * KINDS + static_cast<uint32_t>(kind)];
}

cjournal_event_t make_record(uint32_t id) {
    cjournal_event_t record = {};
    record.id = id;
    record.lamport = id;
    record.wall_ticks = id;
    record.type = 9;
    std::strcpy(record.subsystem, "test");
    std::strcpy(record.desc, "thing");
    record.parents[0] = id - 1;
    record.num_parents = 1;
    record.schema_version = 1;
    return record;
}

void write_segment(uint32_t segment, uint32_t* previous) {
    std::vector<cjournal_event_t> records;
    for (uint32_t i = 1; i <= RECORDS; i++)
        records.push_back(make_record((segment - 1) * RECORDS + i));
    const cjournal_header_t header = cjournal_make_header(records);
    bytes_t file, sidecar;
    std::vector<cjournal_hash_t> hashes(RECORDS);
    append(&file, header);
    append(&sidecar, cjournal_make_hash_header(header, segment));
    for (uint32_t i = 0; i < RECORDS; i++) {
        append(&file, records[i]);
        cjournal_record_hash(CAUSAL_HASH_VERSION, records[i], &hashes[i]);
        append(&sidecar, hashes[i]);
    }
    const uint32_t checksum = cjournal_checksum(file);
    append(&file, cjournal_make_footer(header, segment, checksum, *previous, 0));
    *previous = checksum;
    file_of(segment, cjournal_file_t::segment) = file;
    file_of(segment, cjournal_file_t::sidecar) = sidecar;
    bytes_t& root = file_of(segment, cjournal_file_t::root);
    append(&root, cjournal_make_root(header, segment, cjournal_merkle_root(hashes)));
    file_of(segment, cjournal_file_t::signature).resize(CJOURNAL_SIGNATURE_BYTES);
    cjournal_entry_t& entry = cjournal.index[cjournal.index_count++];
    entry.first_id = header.first_id;
    entry.last_id = header.last_id;
    entry.last_tick = entry.event_count = RECORDS;
    entry.type_bitmap = entry.subsystem_bitmap = entry.schema_bitmap = UINT32_MAX;
    entry.parent_edge_count = entry.parent_max_id = UINT32_MAX;
    entry.segment_num = segment;
    entry.active = true;
}

void write_journal() {
    uint32_t previous = 0;
    files = {};
    cjournal = {};
    cjournal.initialized = cjournal.disk_available = true;
    for (uint32_t segment = 1; segment <= SEGMENTS; segment++)
        write_segment(segment, &previous);
}

void seal(bytes_t* file) {
    if (file->size() < CJOURNAL_HEADER_SIZE + CJOURNAL_FOOTER_SIZE)
        return;
    const size_t covered = file->size() - CJOURNAL_FOOTER_SIZE;
    const uint32_t checksum = cjournal_checksum(std::span(*file).first(covered));
    std::memcpy(&(*file)[covered + sizeof(cjournal_footer_v1_t)], &checksum, sizeof checksum);
}

/// Each four bytes: a file and what to do with it, where, and the new value.
void damage(const uint8_t* input, size_t size) {
    for (size_t at = 0; at + 4 <= size && at < 256; at += 4) {
        bytes_t& file = files[input[at] % files.size()];
        const size_t where = input[at + 1] + 256u * input[at + 2];
        if (input[at] >= 240)
            file.resize(where % 2048);
        else if (!file.empty())
            file[where % file.size()] = input[at + 3];
        if (input[at] % 2 != 0)
            seal(&file_of(1 + input[at] % SEGMENTS, cjournal_file_t::segment));
    }
}

/// The records are those that the segment was written with, in all that their hashes cover.
void require_original(uint32_t segment) {
    std::array<cjournal_event_t, CJOURNAL_SEGMENT_EVENTS> records;
    require(cjournal_query_segment(segment, records.data(), records.size()) == RECORDS);
    for (uint32_t i = 0; i < RECORDS; i++) {
        const cjournal_event_t record = make_record((segment - 1) * RECORDS + 1 + i);
        require(cjournal_event_hash_prefix(&records[i]) == cjournal_event_hash_prefix(&record));
    }
}

void read_all(uint32_t segment, const bytes_t& good_root) {
    static std::array<cjournal_event_t, CJOURNAL_SEGMENT_EVENTS> out;
    cjournal_seg_verdict_t verdict;
    cjournal_retry_probe_t probe;
    cjournal_epoch_proof_t proof;
    uint8_t root[32], signature[64];
    cjournal_verify_segment_verdict(segment, &verdict);
    if (verdict.ok && file_of(segment, cjournal_file_t::root) == good_root)
        require_original(segment);
    (void)cjournal_read_retry_probe(segment, &probe);
    (void)cjournal_segment_signed(segment, root, signature);
    for (const char* event : {"first", "last", "3"}) {
        if (cjournal_segment_proof(segment, event, &proof, nullptr) == 0)
            require(proof.depth <= CJOURNAL_PROOF_DEPTH);
    }
    for (uint32_t id = 1; id <= SEGMENTS * RECORDS; id++)
        require(cjournal_query_by_id_disk(id, out.data()) != 0 || out[0].id == id);
    (void)cjournal_query_children(2, out.data(), CJOURNAL_QUERY_MAX);
    (void)cjournal_query_descendants(1, 16, out.data(), CJOURNAL_QUERY_MAX);
    (void)cjournal_query_text("thing", out.data(), CJOURNAL_QUERY_MAX);
}

/// A snapshot's record, and a file's name, of any bytes.
void check_codec(const uint8_t* input, size_t size) {
    persist_event_t stored = {};
    std::memcpy(&stored, input, size < sizeof stored ? size : sizeof stored);
    cjournal_event_t record;
    if (cjournal_convert_snapshot(stored, &record))
        require(record.num_parents <= CAUSAL_PARENTS_MAX && record.type < CAUSAL_TYPE_COUNT);
    uint32_t segment = 0;
    cjournal_file_t file;
    if (cjournal_parse_name(reinterpret_cast<const char*>(input), static_cast<uint32_t>(size),
                            &segment, &file))
        require(segment != 0 && size >= sizeof "seg-00000001.jnl" - 1);
}

}  // namespace

// --- What the journal needs of the system around it ----------------------------------------------

int blockfs_resolve(const char* path) {
    uint32_t segment = 0;
    cjournal_file_t kind;
    const std::string name = path + std::strlen("/causal/");
    if (!cjournal_parse_name(name.c_str(), static_cast<uint32_t>(name.size()), &segment, &kind) ||
        segment > SEGMENTS || file_of(segment, kind).empty())
        return -1;
    return static_cast<int>(&file_of(segment, kind) - files.data());
}

int blockfs_stat(const char* path, struct sys_stat* st) {
    const int inode = blockfs_resolve(path);
    if (inode < 0)
        return -1;
    *st = {};
    st->type = BLOCKFS_FILE;
    st->inode = static_cast<uint32_t>(inode);
    st->size = static_cast<uint32_t>(files[st->inode].size());
    return 0;
}

int blockfs_read_file(int inode, void* buf, uint32_t offset, uint32_t len) {
    const bytes_t& file = files[static_cast<uint32_t>(inode)];
    if (offset >= file.size())
        return 0;
    const size_t count = std::min<size_t>(len, file.size() - offset);
    std::memcpy(buf, &file[offset], count);
    return static_cast<int>(count);
}

cjournal_entry_t* cjournal_find_entry_locked(uint32_t segment) {
    return segment >= 1 && segment <= SEGMENTS ? &cjournal.index[segment - 1] : nullptr;
}
bool cjournal_read_index_locked(cjournal_index_header_t*, heap_ptr<cjournal_index_entry_t>*) {
    return false;
}
cjournal_index_entry_t cjournal_saved_entry(const cjournal_entry_t&) { return {}; }
bool cjournal_ring_record(uint32_t, cjournal_event_t*) { return false; }
const char* causal_type_name(uint32_t) { return "?"; }
void* kmalloc(size_t size) { return size < HEAP_BYTES ? malloc(size) : nullptr; }
void kfree(void* ptr) { free(ptr); }
int kprintf(const char*, ...) { return 0; }
void mutex_lock(mutex_t&) {}
void mutex_unlock(mutex_t&) {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    check_codec(input, size);
    write_journal();
    const bytes_t roots[] = {file_of(1, cjournal_file_t::root), file_of(2, cjournal_file_t::root)};
    damage(input, size);
    for (uint32_t segment = 1; segment <= SEGMENTS; segment++)
        read_all(segment, roots[segment - 1]);
    require(cjournal_verify() != 0);
    return 0;
}
