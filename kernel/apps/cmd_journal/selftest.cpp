// Tests of the formats on the records that the journal holds: a segment's files are read, checked,
// changed in memory and checked again. Nothing on the disk changes.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal_schema.h"

namespace {

const char* detected(bool caught) { return caught ? "detected" : "missed"; }

/// A segment file whole, with its layout and its records in the current form.
struct image_t {
    cjournal_segment_file_t file;
    heap_ptr<uint8_t> bytes;
    cjournal_records_t records;
    uint32_t count;

    std::span<uint8_t> covered() const {
        return {bytes.get(), file.size - file.layout.footer_size};
    }
    std::span<uint8_t> footer() const {
        return {bytes.get() + covered().size(), file.layout.footer_size};
    }
};

bool load_locked(uint32_t segment, image_t* image) REQUIRES(cjournal_lock) {
    if (cjournal_open_segment_locked(segment, &image->file) != 0)
        return false;
    image->count = image->file.header.event_count;
    image->bytes = heap_ptr<uint8_t>::make(image->file.size);
    image->records = cjournal_records_t::make(image->count);
    const int count = static_cast<int>(image->count);
    return image->bytes && image->records &&
           cjournal_read_exact_retry(image->file.inode, image->bytes.get(), 0, image->file.size) ==
               static_cast<int>(image->file.size) &&
           read_segment_events_locked(segment, image->records.get(), count) == count;
}

/// The segment that argv[1] names, or the newest; prints what is wrong otherwise.
bool load(int argc, char** argv, uint32_t* segment, image_t* image) {
    if (!journal_parse_segment(argc, argv, segment))
        return false;
    const mutex_guard guard(cjournal_lock);
    const bool loaded = load_locked(*segment, image);
    if (!loaded)
        kprintf("journal %s: segment %u cannot be read\n", argv[0], *segment);
    return loaded;
}

void print_skip(const char* command, uint32_t segment, const char* why) {
    kprintf("journal %s: SKIP segment=%u %s\n", command, segment, why);
}

// --- checksum-test ---

bool footer_holds(uint32_t segment, const image_t& image) {
    return cjournal_check_footer(image.file.header, segment, image.file.layout, image.footer(),
                                 cjournal_checksum(image.covered()));
}

/// One changed bit of the file is caught; the bit is put back.
bool catches(uint32_t segment, const image_t& image, uint8_t* byte) {
    *byte ^= 1;
    const bool caught = !footer_holds(segment, image);
    *byte ^= 1;
    return caught;
}

// --- hash-sidecar-test and hash-legacy-test ---

/// A sidecar in memory.
struct sidecar_t {
    cjournal_hash_header_t header;
    heap_ptr<cjournal_hash_t> hashes;
};

/// The sidecar agrees with the segment, hash for hash.
bool sidecar_holds(uint32_t segment, const image_t& image, const sidecar_t& sidecar) {
    if (!cjournal_hash_header_valid(sidecar.header, segment) ||
        !cjournal_companion_matches(sidecar.header, image.file.header))
        return false;
    for (uint32_t i = 0; i < image.count; i++) {
        cjournal_hash_t hash;
        cjournal_record_hash(sidecar.header.version, image.records[i], &hash);
        if (memcmp(&hash, &sidecar.hashes[i], sizeof hash) != 0)
            return false;
    }
    return true;
}

bool read_sidecar(uint32_t segment, const image_t& image, sidecar_t* sidecar) {
    const uint32_t size = cjournal_sidecar_bytes(image.count);
    const auto file = heap_ptr<uint8_t>::make(size);
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::sidecar, path);
    sidecar->hashes = heap_ptr<cjournal_hash_t>::make(image.count);
    const mutex_guard guard(cjournal_lock);
    if (!file || !sidecar->hashes || cjournal_read_file(path, file.get(), size) != 1)
        return false;
    memcpy(&sidecar->header, file.get(), sizeof sidecar->header);
    memcpy(sidecar->hashes.get(), file.get() + sizeof sidecar->header,
           size - sizeof sidecar->header);
    return true;
}

/// The sidecar that an older version would have written; false without memory.
bool make_sidecar(uint32_t segment, const image_t& image, uint32_t version, sidecar_t* out) {
    out->header = cjournal_make_hash_header(image.file.header, segment);
    out->header.version = version;
    out->hashes = heap_ptr<cjournal_hash_t>::make(image.count);
    for (uint32_t i = 0; out->hashes && i < image.count; i++)
        cjournal_record_hash(version, image.records[i], &out->hashes[i]);
    return static_cast<bool>(out->hashes);
}

/// Whether a change of `record`, which is undone, shows in its hash of `version`.
template <typename change_fn>
bool hash_covers(uint32_t version, const cjournal_event_t& record, change_fn change) {
    cjournal_event_t changed = record;
    cjournal_hash_t before;
    cjournal_hash_t after;
    change(&changed);
    cjournal_record_hash(version, record, &before);
    cjournal_record_hash(version, changed, &after);
    return memcmp(&before, &after, sizeof before) != 0;
}

/// A version covers what it must of a record, and nothing else: texts always, the payload from 3
/// on, the schema from 4 on, the number of children never.
bool covers_its_fields(uint32_t version, const cjournal_event_t& record) {
    return hash_covers(version, record, [](cjournal_event_t* r) { r->desc[0] ^= 1; }) &&
           hash_covers(version, record, [](cjournal_event_t* r) { r->payload_len ^= 1; }) ==
               (version >= 3) &&
           hash_covers(version, record,
                       [](cjournal_event_t* r) {
                           r->schema_version = 1;
                           r->schema_id ^= 1;
                       }) == (version >= 4) &&
           !hash_covers(version, record, [](cjournal_event_t* r) { r->child_count ^= 1; });
}

/// A sidecar of `version` holds, and does not pass for one of the next version.
bool version_holds(uint32_t segment, const image_t& image, uint32_t version) {
    sidecar_t sidecar;
    if (!make_sidecar(segment, image, version, &sidecar) ||
        !sidecar_holds(segment, image, sidecar) || !covers_its_fields(version, image.records[0]))
        return false;
    sidecar.header.version = version % CAUSAL_HASH_VERSION + 1;
    return !sidecar_holds(segment, image, sidecar);
}

// --- record-compat-test ---

constexpr uint32_t COMPAT_RECORDS = 3;  // so few that no size fits two layouts
constexpr uint32_t FOOTER_SIZES[] = {0, 24, 28, 40, 44, 48};

/// A segment file in an older layout, of the first few records of a segment.
struct old_file_t {
    uint8_t
        bytes[CJOURNAL_HEADER_SIZE + COMPAT_RECORDS * CJOURNAL_EVENT_SIZE + CJOURNAL_FOOTER_SIZE];
    cjournal_header_t header;
    uint32_t size;
};

/// `version` is the footer's; 0: none.
void make_old_file(std::span<const cjournal_event_t> records, uint32_t segment, uint32_t event_size,
                   uint32_t version, old_file_t* out) {
    out->header = cjournal_make_header(records);
    memcpy(out->bytes, &out->header, sizeof out->header);
    out->size = sizeof out->header;
    for (const cjournal_event_t& record : records) {
        memcpy(out->bytes + out->size, &record, event_size);
        out->size += event_size;
    }
    cjournal_footer_t footer = cjournal_make_footer(
        out->header, segment, cjournal_checksum({out->bytes, out->size}), 0, 0);
    footer.version = version;
    footer.event_size = event_size;
    footer.footer_size = FOOTER_SIZES[version];
    memcpy(out->bytes + out->size, &footer, FOOTER_SIZES[version]);
    out->size += FOOTER_SIZES[version];
}

/// A record that was cut to `size` bytes came back with what that kept and what is inferred.
bool came_back(const cjournal_event_t& record, const cjournal_event_t& back, uint32_t size) {
    if (memcmp(&record, &back, size) != 0)
        return false;
    if (size == CJOURNAL_EVENT_SIZE)
        return true;
    causal_event_t ev;
    cjournal_expand_event(record, &ev);
    causal_event_assign_schema(&ev);
    const bool inferred =
        back.schema_id == ev.schema_id && back.schema_version == ev.schema_version;
    return inferred && (size == CJOURNAL_EVENT_V3_SIZE || back.payload_len == 0);
}

/// The file is recognised, its footer holds, its records come back.
bool layout_holds(std::span<const cjournal_event_t> records, uint32_t segment, uint32_t event_size,
                  uint32_t version, old_file_t* file) {
    make_old_file(records, segment, event_size, version, file);
    const std::span<const uint8_t> all(file->bytes, file->size);
    const size_t tail = all.size() < CJOURNAL_FOOTER_SIZE ? all.size() : CJOURNAL_FOOTER_SIZE;
    cjournal_layout_t layout;
    if (!cjournal_recognise(file->header, segment, file->size, all.last(tail), &layout) ||
        layout.event_size != event_size || layout.footer_size != FOOTER_SIZES[version])
        return false;
    const auto covered = all.first(all.size() - layout.footer_size);
    if (!cjournal_check_footer(file->header, segment, layout, all.last(layout.footer_size),
                               cjournal_checksum(covered)))
        return false;
    for (size_t i = 0; i < records.size(); i++) {
        cjournal_event_t back;
        const auto stored = all.subspan(CJOURNAL_HEADER_SIZE + i * event_size, event_size);
        if (!cjournal_convert_record(stored, &back) || !came_back(records[i], back, event_size))
            return false;
    }
    return true;
}

/// How many of the footers go with records of `event_size` bytes.
uint32_t count_layouts(std::span<const cjournal_event_t> records, uint32_t segment,
                       uint32_t event_size, old_file_t* file) {
    uint32_t good = 0;
    for (uint32_t version = 0; version <= CJOURNAL_FOOTER_VERSION; version++)
        good += layout_holds(records, segment, event_size, version, file) ? 1 : 0;
    return good;
}

}  // namespace

void journal_checksum_test(int argc, char** argv) {
    uint32_t segment;
    image_t image;
    if (!load(argc, argv, &segment, &image))
        return;
    if (image.file.layout.footer_size < sizeof(cjournal_footer_v2_t)) {
        print_skip(argv[0], segment, "its footer has no checksum");
        return;
    }
    const bool match = footer_holds(segment, image);
    const bool header = catches(segment, image, image.bytes.get());
    const bool record = catches(segment, image, image.bytes.get() + CJOURNAL_HEADER_SIZE);
    const bool last = catches(segment, image, &image.covered().back());
    // The checksum follows the first footer's fields.
    const bool footer = catches(segment, image, &image.footer()[sizeof(cjournal_footer_v1_t)]);
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(segment, journal_pass_fail(match && header && record && last && footer));
    line.add_yes("match", match).add("header_tamper", "%s", detected(header));
    line.add("record_tamper", "%s", detected(record && last));
    line.add("footer_tamper", "%s", detected(footer)).end();
}

void journal_hash_sidecar_test(int argc, char** argv) {
    uint32_t segment;
    image_t image;
    sidecar_t sidecar;
    if (!load(argc, argv, &segment, &image))
        return;
    if (!read_sidecar(segment, image, &sidecar)) {
        print_skip(argv[0], segment, "it has no sidecar of its size");
        return;
    }
    const uint32_t last = image.count - 1;
    const bool match = sidecar_holds(segment, image, sidecar);
    sidecar.hashes[last].bytes[CAUSAL_HASH_SIZE - 1] ^= 1;
    const bool hash = !sidecar_holds(segment, image, sidecar);
    sidecar.hashes[last].bytes[CAUSAL_HASH_SIZE - 1] ^= 1;
    image.records[last].desc[0] ^= 1;
    const bool record = !sidecar_holds(segment, image, sidecar);
    image.records[last].desc[0] ^= 1;
    sidecar.header.first_id ^= 1;
    const bool header = !sidecar_holds(segment, image, sidecar);
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(segment, journal_pass_fail(match && hash && record && header));
    line.add_number("events", image.count).add_yes("match", match);
    line.add("hash_tamper", "%s", detected(hash)).add("record_tamper", "%s", detected(record));
    line.add("header_tamper", "%s", detected(header)).end();
}

void journal_hash_legacy_test(int argc, char** argv) {
    uint32_t segment;
    image_t image;
    bool good[CAUSAL_HASH_VERSION + 1];
    bool all = true;
    if (!load(argc, argv, &segment, &image))
        return;
    for (uint32_t version = 1; version <= CAUSAL_HASH_VERSION; version++) {
        good[version] = version_holds(segment, image, version);
        all = all && good[version];
    }
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(segment, journal_pass_fail(all)).add_number("events", image.count);
    line.add_yes("v1", good[1]).add_yes("v2", good[2]).add_yes("v3", good[3]);
    line.add_yes("v4", good[4]).end();
}

void journal_record_compat_test(int argc, char** argv) {
    uint32_t segment;
    image_t image;
    const auto file = heap_ptr<old_file_t>::make();
    if (!file || !load(argc, argv, &segment, &image))
        return;
    const uint32_t count = image.count < COMPAT_RECORDS ? image.count : COMPAT_RECORDS;
    const std::span<const cjournal_event_t> records(image.records.get(), count);
    constexpr uint32_t FOOTERS = CJOURNAL_FOOTER_VERSION + 1;
    const uint32_t v1 = count_layouts(records, segment, CJOURNAL_EVENT_V1_SIZE, file.get());
    const uint32_t v3 = count_layouts(records, segment, CJOURNAL_EVENT_V3_SIZE, file.get());
    const uint32_t current = count_layouts(records, segment, CJOURNAL_EVENT_SIZE, file.get());
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(segment, journal_pass_fail(v1 + v3 + current == 3 * FOOTERS));
    line.add_number("records", count).add("v1", "%u/%u", v1, FOOTERS);
    line.add("v3", "%u/%u", v3, FOOTERS).add("current", "%u/%u", current, FOOTERS).end();
}
