#include "kernel/graph/cjournal/examine.h"

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"

namespace {

/// Prints a failure of the segment file `path`; always false.
bool fail(const char* what, const char* path) {
    kprintf("[cjournal] verify: %s %s\n", what, path);
    return false;
}

bool check_file(const char* path) {
    struct sys_stat st = {};
    if (blockfs_resolve(path) < 0)
        return fail("missing", path);
    if (blockfs_stat(path, &st) == 0 && st.type == SYS_STAT_FILE)
        return true;
    kprintf("[cjournal] verify: %s is not a file\n", path);
    return false;
}

bool check_header(const char* path, cjournal_header_t* header) {
    if (cjournal_read_file(path, header, sizeof *header, true) != 1)
        return fail("short header read in", path);
    if (!cjournal_header_valid(*header))
        return fail("bad header in", path);
    if (header->event_count >= 1 && header->event_count <= CJOURNAL_SEGMENT_EVENTS)
        return true;
    kprintf("[cjournal] verify: bad event count %u in %s\n", header->event_count, path);
    return false;
}

/// The whole file in memory.
struct loaded_t {
    cjournal_segment_file_t file;
    heap_ptr<uint8_t> bytes;

    uint32_t covered() const { return file.size - file.layout.footer_size; }
    std::span<const uint8_t> stored(uint32_t i) const {
        const uint32_t size = file.layout.event_size;
        return {bytes.get() + CJOURNAL_HEADER_SIZE + i * size, size};
    }
};

bool load_locked(uint32_t segment, const char* path, loaded_t* loaded) REQUIRES(cjournal_lock) {
    if (cjournal_open_segment_locked(segment, &loaded->file) != 0)
        return fail("size mismatch in", path);
    const uint32_t size = loaded->file.size;
    loaded->bytes = heap_ptr<uint8_t>::make(size);
    if (!loaded->bytes || cjournal_read_exact_retry(loaded->file.inode, loaded->bytes.get(), 0,
                                                    size) != static_cast<int>(size))
        return fail("short event read in", path);
    return true;
}

bool convert_records(const char* path, const loaded_t& loaded, cjournal_examined_t* out) {
    const uint32_t count = loaded.file.header.event_count;
    out->records = cjournal_records_t::make(count);
    for (uint32_t i = 0; out->records && i < count; i++) {
        if (!cjournal_convert_record(loaded.stored(i), &out->records[i]))
            return fail("short event read in", path);
    }
    return out->records ? true : fail("short event read in", path);
}

/// Prints what is wrong with a record; always false.
bool fail_record(const cjournal_record_check_t& check, const cjournal_examined_t& examined,
                 const char* path) {
    const cjournal_event_t& record = examined.records[check.position];
    switch (check.fault) {
        case cjournal_fault_t::first_id:
            return fail("first id mismatch in", path);
        case cjournal_fault_t::last_id:
            return fail("last id mismatch in", path);
        case cjournal_fault_t::monotonic:
            kprintf("[cjournal] verify: non-monotonic id at %u in %s\n", check.position, path);
            return false;
        case cjournal_fault_t::parent_count:
            kprintf("[cjournal] verify: bad parent count at event %u in %s\n", check.position,
                    path);
            return false;
        case cjournal_fault_t::type:
            kprintf("[cjournal] verify: bad type %u at event %u in %s\n",
                    static_cast<uint32_t>(record.type), check.position, path);
            return false;
        case cjournal_fault_t::tick:
            kprintf("[cjournal] verify: tick %u out of range at event %u in %s\n",
                    record.wall_ticks, check.position, path);
            return false;
        case cjournal_fault_t::lamport:
            kprintf("[cjournal] verify: lamport out of range at event %u in %s\n", check.position,
                    path);
            return false;
        case cjournal_fault_t::none:
            break;
    }
    return true;
}

/// Checks the link to the segment before; a segment that is gone leaves it unchecked.
bool check_chain_locked(uint32_t segment, uint32_t stored, const cjournal_known_t* before,
                        const char* path, bool* checked) REQUIRES(cjournal_lock) {
    uint32_t expected = 0;
    const bool known = before != nullptr && before->segment + 1 == segment && before->segment != 0;
    if (known)
        expected = before->checksum;
    *checked = segment > 1 && (known || cjournal_segment_checksum_locked(segment - 1, &expected));
    const bool bound = *checked || segment == 1;
    return !bound || stored == expected ? true : fail("bad previous checksum in", path);
}

bool check_footer_locked(uint32_t segment, const cjournal_known_t* before, const loaded_t& loaded,
                         const char* path, cjournal_examined_t* out) REQUIRES(cjournal_lock) {
    const uint32_t size = loaded.file.layout.footer_size;
    const std::span<const uint8_t> footer(loaded.bytes.get() + loaded.covered(), size);
    out->own_checksum = cjournal_checksum({loaded.bytes.get(), loaded.covered()});
    if (!cjournal_check_footer(out->header, segment, loaded.file.layout, footer, out->own_checksum))
        return fail("bad footer in", path);
    out->footer = size != 0;
    out->checksum = size >= sizeof(cjournal_footer_v2_t);
    out->layout = size >= sizeof(cjournal_footer_v3_t);
    if (size < sizeof(cjournal_footer_v4_t))
        return true;
    cjournal_footer_v4_t fields;
    memcpy(&fields, footer.data(), sizeof fields);
    return check_chain_locked(segment, fields.prev_checksum, before, path, &out->chain);
}

bool hash_records(uint32_t version, const cjournal_examined_t& examined,
                  heap_ptr<cjournal_hash_t>* hashes) {
    const uint32_t count = examined.header.event_count;
    *hashes = heap_ptr<cjournal_hash_t>::make(count);
    for (uint32_t i = 0; *hashes && i < count; i++)
        cjournal_record_hash(version, examined.records[i], &(*hashes)[i]);
    return static_cast<bool>(*hashes);
}

/// Puts the hashes of `version` into `own` unless the current ones do; null without memory.
const cjournal_hash_t* hashes_of(uint32_t version, const cjournal_examined_t& examined,
                                 heap_ptr<cjournal_hash_t>* own) {
    if (version == CAUSAL_HASH_VERSION)
        return examined.hashes.get();
    return hash_records(version, examined, own) ? own->get() : nullptr;
}

int sidecar_status(uint32_t segment, cjournal_examined_t* examined) {
    const uint32_t count = examined->header.event_count;
    const uint32_t size = cjournal_sidecar_bytes(count);
    const auto sidecar = heap_ptr<uint8_t>::make(size);
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::sidecar, path);
    const int got = sidecar ? cjournal_read_file(path, sidecar.get(), size) : -1;
    if (got != 1)
        return got;
    cjournal_hash_header_t header;
    memcpy(&header, sidecar.get(), sizeof header);
    if (!cjournal_hash_header_valid(header, segment) ||
        !cjournal_companion_matches(header, examined->header))
        return -1;
    heap_ptr<cjournal_hash_t> own;
    const cjournal_hash_t* hashes = hashes_of(header.version, *examined, &own);
    if (hashes == nullptr ||
        memcmp(sidecar.get() + sizeof header, hashes, count * sizeof *hashes) != 0)
        return -1;
    examined->hash_version = header.version;
    return 1;
}

int root_status(uint32_t segment, const cjournal_examined_t& examined) {
    cjournal_root_header_t stored;
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::root, path);
    const int got = cjournal_read_file(path, &stored, sizeof stored);
    if (got != 1)
        return got;
    if (!cjournal_root_valid(stored, segment) ||
        !cjournal_companion_matches(stored, examined.header))
        return -1;
    heap_ptr<cjournal_hash_t> own;
    const cjournal_hash_t* hashes = hashes_of(stored.hash_version, examined, &own);
    const uint32_t count = examined.header.event_count;
    const auto tree = heap_ptr<cjournal_hash_t>::make(count);
    if (hashes == nullptr || !tree)
        return -1;
    memcpy(tree.get(), hashes, count * sizeof *hashes);
    const cjournal_hash_t root = cjournal_merkle_root({tree.get(), count});
    return memcmp(&root, &stored.root, sizeof root) == 0 ? 1 : -1;
}

}  // namespace

bool cjournal_examine_locked(uint32_t segment, const cjournal_known_t* before,
                             cjournal_examined_t* out) {
    char path[CJOURNAL_PATH_SIZE];
    loaded_t loaded;
    *out = {};
    cjournal_path(segment, cjournal_file_t::segment, path);
    if (!check_file(path) || !check_header(path, &out->header) ||
        !load_locked(segment, path, &loaded) || !convert_records(path, loaded, out))
        return false;
    const cjournal_record_check_t check =
        cjournal_check_records(out->header, {out->records.get(), out->header.event_count});
    return fail_record(check, *out, path) &&
           check_footer_locked(segment, before, loaded, path, out);
}

bool cjournal_examine_hashes_locked(uint32_t segment, cjournal_examined_t* examined) {
    if (!hash_records(CAUSAL_HASH_VERSION, *examined, &examined->hashes))
        return false;
    examined->hash_status = sidecar_status(segment, examined);
    examined->root_status = root_status(segment, *examined);
    return true;
}
