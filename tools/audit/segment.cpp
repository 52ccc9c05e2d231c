#include "tools/audit/segment.h"

#include <algorithm>
#include <cstring>

#include "kernel/core/noise.h"

namespace {

using view_t = std::span<const uint8_t>;

void require(bool condition, const std::string& what) {
    if (!condition)
        throw fault_t{what};
}

void require_in(bool condition, const char* what, size_t record) {
    if (!condition)
        throw fault_t{std::string(what) + " in record " + std::to_string(record)};
}

const bytes_t* find(const files_t& files, uint32_t segment, cjournal_file_t file) {
    const auto at = files.find(segment_file_name(segment, file));
    return at != files.end() ? &at->second : nullptr;
}

template <typename record_t>
record_t take(view_t bytes) {
    record_t record;
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

// --- Records ---

template <size_t size>
bool is_canonical(const char (&field)[size]) {
    const size_t length = strnlen(field, size);
    return length < size &&
           std::all_of(field + length, field + size, [](char c) { return c == '\0'; });
}

void check_canonical(const cjournal_event_t& r, size_t at) {
    require_in(r.id != 0, "the number 0", at);
    require_in(is_canonical(r.subsystem) && is_canonical(r.desc), "a text not filled with zeros",
               at);
    for (uint32_t i = r.num_parents; i < CAUSAL_PARENTS_MAX; ++i)
        require_in(r.parents[i] == 0, "an unused parent that is not 0", at);
    require_in(r.payload_len <= CAUSAL_PAYLOAD_MAX, "a payload too long", at);
    const bool no_hash = std::all_of(std::begin(r.payload_hash), std::end(r.payload_hash),
                                     [](uint8_t byte) { return byte == 0; });
    require_in(r.schema_version != 0, "no schema", at);
    require_in(r.payload_len != 0 || no_hash, "the hash of a payload that is not there", at);
}

const char* word_for(cjournal_fault_t fault) {
    switch (fault) {
        case cjournal_fault_t::first_id:
        case cjournal_fault_t::last_id:
            return "a number that is not the header's";
        case cjournal_fault_t::monotonic:
            return "numbers that do not rise";
        case cjournal_fault_t::parent_count:
            return "too many parents";
        case cjournal_fault_t::type:
            return "an unknown type";
        case cjournal_fault_t::tick:
            return "a tick out of range";
        case cjournal_fault_t::lamport:
            return "a Lamport time out of range";
        case cjournal_fault_t::none:
            break;
    }
    return "";
}

/// The bounds in the header are the records' own, not merely wide enough.
void check_bounds(const segment_t& s) {
    const cjournal_header_t real = cjournal_make_header(s.records);
    require(
        real.first_lamport == s.header.first_lamport && real.last_lamport == s.header.last_lamport,
        "Lamport bounds that are not the records'");
    require(real.first_tick == s.header.first_tick && real.last_tick == s.header.last_tick,
            "tick bounds that are not the records'");
}

void check_records(const segment_t& s) {
    const cjournal_record_check_t check = cjournal_check_records(s.header, s.records);
    require_in(check.fault == cjournal_fault_t::none, word_for(check.fault), check.position);
    for (size_t i = 0; i < s.records.size(); ++i)
        check_canonical(s.records[i], i);
    check_bounds(s);
}

/// The older snapshot had neither payloads nor children.
void check_imported(const segment_t& s) {
    for (size_t i = 0; i < s.records.size() && s.imported(); ++i)
        require_in(s.records[i].payload_len == 0 && s.records[i].child_count == 0,
                   "what no imported event has", i);
}

// --- The segment file ---

void take_header(view_t file, uint32_t number, segment_t* s) {
    require(file.size() >= CJOURNAL_HEADER_SIZE, "no header");
    s->header = take<cjournal_header_t>(file);
    require(cjournal_header_valid(s->header), "a bad header");
    require(s->header.event_count >= 1 && s->header.event_count <= CJOURNAL_SEGMENT_EVENTS,
            "a bad count of events");
    const view_t tail = file.last(std::min<size_t>(file.size(), CJOURNAL_FOOTER_SIZE));
    require(
        cjournal_recognise(s->header, number, static_cast<uint32_t>(file.size()), tail, &s->layout),
        "a size that does not fit its header");
    // Nobody ever wrote these; somebody may have cut a footer off, and with it the chain.
    require(!s->current_layout() || s->layout.footer_size == CJOURNAL_FOOTER_SIZE,
            "records of today without today's footer");
}

void take_records(view_t file, segment_t* s) {
    s->records.resize(s->header.event_count);
    view_t rest = file.subspan(CJOURNAL_HEADER_SIZE);
    for (size_t i = 0; i < s->records.size(); ++i) {
        require_in(cjournal_convert_record(rest.first(s->layout.event_size), &s->records[i]),
                   "an unknown layout", i);
        rest = rest.subspan(s->layout.event_size);
    }
}

void take_footer(view_t file, segment_t* s) {
    const view_t footer = file.last(s->layout.footer_size);
    s->checksum = cjournal_checksum(file.first(file.size() - footer.size()));
    s->footer = {};
    std::memcpy(&s->footer, footer.data(), footer.size());
}

void check_footer(view_t file, uint32_t number, const segment_t& s) {
    const view_t footer = file.last(s.layout.footer_size);
    require(cjournal_check_footer(s.header, number, s.layout, footer, s.checksum), "a bad footer");
    require((s.footer.flags & ~CJOURNAL_FLAG_IMPORTED) == 0, "unknown flags");
    require(number != 1 || s.footer.prev_checksum == 0, "a previous checksum in segment 1");
}

// --- Companions ---

void hash_records(uint32_t version, const segment_t& s, std::vector<cjournal_hash_t>* hashes) {
    hashes->resize(s.records.size());
    for (size_t i = 0; i < s.records.size(); ++i)
        require_in(cjournal_record_hash(version, s.records[i], &(*hashes)[i]),
                   "an unknown hash version", i);
}

cjournal_hash_t root_of(std::vector<cjournal_hash_t> hashes) {
    return cjournal_merkle_root(hashes);
}

bool same(const void* bytes, const void* others, size_t size) {
    return std::memcmp(bytes, others, size) == 0;
}

void check_sidecar(const bytes_t& file, uint32_t number, const segment_t& s) {
    const size_t count = s.records.size();
    require(file.size() == cjournal_sidecar_bytes(static_cast<uint32_t>(count)),
            "a sidecar of another size");
    const auto header = take<cjournal_hash_header_t>(file);
    require(
        cjournal_hash_header_valid(header, number) && cjournal_companion_matches(header, s.header),
        "a sidecar of another segment");
    require(!s.current_layout() || header.version == CAUSAL_HASH_VERSION,
            "a sidecar of an old version");
    std::vector<cjournal_hash_t> hashes = s.hashes;
    if (header.version != CAUSAL_HASH_VERSION)
        hash_records(header.version, s, &hashes);
    const uint8_t* stored = file.data() + sizeof header;
    for (size_t i = 0; i < count; ++i)
        require_in(same(stored + i * sizeof hashes[i], &hashes[i], sizeof hashes[i]),
                   "an event hash that differs from the sidecar's", i);
}

void check_root(const bytes_t& file, uint32_t number, segment_t* s) {
    require(file.size() == sizeof(cjournal_root_header_t), "a root file of another size");
    const auto stored = take<cjournal_root_header_t>(file);
    require(cjournal_root_valid(stored, number) && cjournal_companion_matches(stored, s->header),
            "a root of another segment");
    require(!s->current_layout() || stored.hash_version == CAUSAL_HASH_VERSION,
            "a root of an old version");
    std::vector<cjournal_hash_t> hashes = s->hashes;
    if (stored.hash_version != CAUSAL_HASH_VERSION)
        hash_records(stored.hash_version, *s, &hashes);
    s->root = root_of(hashes);
    require(same(&s->root, &stored.root, sizeof s->root), "a root that is not its records'");
}

/// Whether the root is signed; a signature that does not verify is a fault.
bool check_signature(const bytes_t* signature, const segment_t& s,
                     const std::optional<key_t32>& key) {
    if (signature == nullptr || signature->size() != CJOURNAL_SIGNATURE_BYTES)
        return false;
    require(key.has_value(), "a signature, but there is no key to check it with");
    require(ed25519_verify(signature->data(), s.root.bytes, sizeof s.root.bytes, key->data()) == 0,
            "a signature that does not verify");
    return true;
}

}  // namespace

bool segment_t::current_layout() const { return layout.event_size == CJOURNAL_EVENT_SIZE; }

bool segment_t::has_chain() const { return layout.footer_size >= sizeof(cjournal_footer_v4_t); }

std::string segment_file_name(uint32_t segment, cjournal_file_t file) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, file, path);
    return std::strrchr(path, '/') + 1;
}

segment_t check_segment(uint32_t number, const files_t& files, const std::optional<key_t32>& key) {
    segment_t s = {};
    const bytes_t& file = *find(files, number, cjournal_file_t::segment);
    take_header(file, number, &s);
    take_records(file, &s);
    take_footer(file, &s);
    check_records(s);
    hash_records(CAUSAL_HASH_VERSION, s, &s.hashes);
    s.root = root_of(s.hashes);
    const bytes_t* sidecar = find(files, number, cjournal_file_t::sidecar);
    const bytes_t* root = find(files, number, cjournal_file_t::root);
    require(sidecar != nullptr || !s.current_layout(), "no sidecar");
    require(root != nullptr || !s.current_layout(), "no root file");
    if (sidecar != nullptr)
        check_sidecar(*sidecar, number, s);
    if (root != nullptr)
        check_root(*root, number, &s);
    // After the hashes, which tell what record was changed, as the checksum cannot.
    check_footer(file, number, s);
    check_imported(s);
    s.is_signed =
        root != nullptr && check_signature(find(files, number, cjournal_file_t::signature), s, key);
    return s;
}
