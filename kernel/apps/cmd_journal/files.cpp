// The files of one segment, field by field: its footer, its sidecar, its root.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/string.h"

namespace {

/// A footer, with zeros for what its version lacks.
struct footer_t {
    uint32_t size;  ///< 0: the segment has none
    bool good;
    cjournal_footer_t fields;
};

bool read_footer_locked(uint32_t segment, footer_t* out) REQUIRES(cjournal_lock) {
    cjournal_segment_file_t file;
    uint32_t checksum = 0;
    *out = {};
    if (cjournal_open_segment_locked(segment, &file) != 0)
        return false;
    const uint32_t size = file.layout.footer_size;
    auto* bytes = reinterpret_cast<uint8_t*>(&out->fields);
    if (cjournal_read_exact_retry(file.inode, bytes, file.size - size, size) !=
            static_cast<int>(size) ||
        !cjournal_segment_checksum_locked(segment, &checksum))
        return false;
    out->size = size;
    out->good = cjournal_check_footer(file.header, segment, file.layout, {bytes, size}, checksum);
    return true;
}

bool read_footer(uint32_t segment, footer_t* out) {
    const mutex_guard guard(cjournal_lock);
    return read_footer_locked(segment, out);
}

/// A companion, and how it stands to its segment.
struct sidecar_t {
    int found;  ///< 1, 0 missing, -1 bad
    cjournal_hash_header_t header;
    heap_ptr<cjournal_hash_t> hashes;  ///< header.event_count of them
};

/// Reads a sidecar whose header holds; its size says how many hashes it has.
void read_sidecar(uint32_t segment, sidecar_t* out) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::sidecar, path);
    const mutex_guard guard(cjournal_lock);
    out->found = cjournal_read_file(path, &out->header, sizeof out->header, true);
    if (out->found != 1)
        return;
    out->found = -1;
    const uint32_t count = out->header.event_count;
    if (!cjournal_hash_header_valid(out->header, segment) || count == 0 ||
        count > CJOURNAL_SEGMENT_EVENTS)
        return;
    const auto file = heap_ptr<uint8_t>::make(cjournal_sidecar_bytes(count));
    out->hashes = heap_ptr<cjournal_hash_t>::make(count);
    if (!file || !out->hashes ||
        cjournal_read_file(path, file.get(), cjournal_sidecar_bytes(count)) != 1)
        return;
    memcpy(out->hashes.get(), file.get() + sizeof out->header, count * sizeof(cjournal_hash_t));
    out->found = 1;
}

void print_hashes(journal_form_t form, uint32_t segment, const sidecar_t& sidecar) {
    for (uint32_t i = 0; i < sidecar.header.event_count; i++) {
        journal_line_t line(form, "hash-sidecar", "stored_hash");
        line.add_number("segment", segment).add_number("position", i);
        line.add_hash("hash", sidecar.hashes[i].bytes).end();
    }
}

/// Prints that a companion is missing or not valid.
void print_absent(const char* command, uint32_t segment, const char* what, int found) {
    kprintf("journal %s: segment %u has %s %s\n", command, segment, found == 0 ? "no" : "a bad",
            what);
}

}  // namespace

void journal_footer(journal_form_t form, int argc, char** argv) {
    uint32_t segment;
    footer_t footer;
    if (!journal_parse_segment(argc, argv, &segment))
        return;
    if (!read_footer(segment, &footer)) {
        kprintf("journal footer: segment %u cannot be read\n", segment);
        return;
    }
    if (footer.size == 0) {
        kprintf("journal footer: segment %u has no footer\n", segment);
        return;
    }
    const cjournal_footer_t& f = footer.fields;
    journal_line_t line(form, "footer", "segment_footer");
    line.verdict(segment, journal_pass_fail(footer.good)).add_number("version", f.version);
    line.add_number("size", footer.size).add_number("events", f.event_count);
    line.add_number("first", f.first_id).add_number("last", f.last_id);
    if (footer.size >= sizeof(cjournal_footer_v2_t))
        line.add("checksum", "0x%08x", f.checksum);
    if (footer.size >= sizeof(cjournal_footer_v3_t))
        line.add_number("header_size", f.header_size).add_number("event_size", f.event_size);
    if (footer.size >= sizeof(cjournal_footer_v4_t))
        line.add("prev_checksum", "0x%08x", f.prev_checksum);
    if (footer.size == sizeof f)
        line.add("flags", "%s", (f.flags & CJOURNAL_FLAG_IMPORTED) != 0 ? "imported" : "none");
    line.end();
}

void journal_hash_sidecar(journal_form_t form, int argc, char** argv) {
    uint32_t segment;
    bool full;
    sidecar_t sidecar;
    cjournal_seg_verdict_t verdict;
    if (!journal_parse_segment(argc, argv, &segment) || !journal_parse_full(argc, argv, 2, &full))
        return;
    read_sidecar(segment, &sidecar);
    if (sidecar.found != 1) {
        print_absent("hash-sidecar", segment, "sidecar", sidecar.found);
        return;
    }
    cjournal_verify_segment_verdict(segment, &verdict);
    const cjournal_hash_header_t& header = sidecar.header;
    journal_line_t line(form, "hash-sidecar", "hash_sidecar");
    line.verdict(segment, journal_pass_fail(verdict.hash_status == 1));
    line.add_number("hashv", header.version).add_number("events", header.event_count);
    line.add_number("first", header.first_id).add_number("last", header.last_id);
    line.add("first_hash", "0x%x", cjournal_hash_prefix(sidecar.hashes[0]));
    const uint32_t last = header.event_count - 1;
    line.add("last_hash", "0x%x", cjournal_hash_prefix(sidecar.hashes[last])).end();
    if (full || form == journal_form_t::full)
        print_hashes(form, segment, sidecar);
}

void journal_epoch_root(journal_form_t form, int argc, char** argv) {
    uint32_t segment;
    bool full;
    char path[CJOURNAL_PATH_SIZE];
    uint8_t signature[CJOURNAL_SIGNATURE_BYTES];
    cjournal_root_header_t root = {};
    cjournal_hash_t computed;
    if (!journal_parse_segment(argc, argv, &segment) || !journal_parse_full(argc, argv, 2, &full))
        return;
    cjournal_path(segment, cjournal_file_t::root, path);
    const mutex_guard guard(cjournal_lock);
    int found = cjournal_read_file(path, &root, sizeof root);
    if (found == 1 && !cjournal_root_valid(root, segment))
        found = -1;
    if (found != 1) {
        print_absent("epoch-root", segment, "root", found);
        return;
    }
    const bool good = segment_verified_root_locked(segment, &computed) == 0;
    journal_line_t line(form, "epoch-root", "epoch_root");
    line.verdict(segment, journal_pass_fail(good)).add_number("hashv", root.hash_version);
    line.add_number("events", root.event_count).add_number("first", root.first_id);
    line.add_number("last", root.last_id);
    line.add_yes("signed", cjournal_read_signature_locked(segment, signature));
    if (full || form == journal_form_t::full)
        line.add_hash("root", root.root.bytes).end();
    else
        line.add("root", "0x%x", cjournal_hash_prefix(root.root)).end();
}
