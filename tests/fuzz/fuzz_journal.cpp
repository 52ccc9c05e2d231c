// The journal's codec under any bytes: as a segment file, as a snapshot record, as a file's name.
// What it accepts must be whole: layouts fill the file, converted records hash.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernel/graph/cjournal/format.h"

namespace {

constexpr size_t TAIL = 48;

void require(bool holds) {
    if (!holds)
        std::abort();
}

void check_records(const cjournal_header_t& header, const std::vector<cjournal_event_t>& records) {
    cjournal_stats_t stats;
    segment_events_index_stats(records, &stats);
    std::vector<cjournal_hash_t> hashes(records.size());
    for (size_t i = 0; i < records.size(); i++)
        require(cjournal_record_hash(1 + i % 4, records[i], &hashes[i]));
    (void)cjournal_merkle_root(hashes);
    const cjournal_record_check_t check = cjournal_check_records(header, records);
    require(check.position < records.size());
    if (check.fault == cjournal_fault_t::none)
        require(records.front().id == header.first_id && records.back().id == header.last_id);
}

void check_segment(const std::vector<uint8_t>& file) {
    cjournal_header_t header;
    if (file.size() < sizeof header)
        return;
    std::memcpy(&header, file.data(), sizeof header);
    cjournal_layout_t layout;
    const size_t tail = file.size() < TAIL ? file.size() : TAIL;
    if (!cjournal_recognise(header, 1, static_cast<uint32_t>(file.size()),
                            std::span(file).last(tail), &layout))
        return;
    const size_t body = sizeof header + size_t{header.event_count} * layout.event_size;
    require(body + layout.footer_size == file.size() && header.event_count <= 512);
    (void)cjournal_check_footer(header, 1, layout, std::span(file).subspan(body),
                                cjournal_checksum(std::span(file).first(body)));
    std::vector<cjournal_event_t> records(header.event_count);
    for (size_t i = 0; i < records.size(); i++) {
        const auto stored =
            std::span(file).subspan(sizeof header + i * layout.event_size, layout.event_size);
        if (!cjournal_convert_record(stored, &records[i]))
            return;
    }
    check_records(header, records);
}

void check_snapshot(const std::vector<uint8_t>& bytes) {
    persist_event_t stored = {};
    std::memcpy(&stored, bytes.data(), bytes.size() < sizeof stored ? bytes.size() : sizeof stored);
    cjournal_event_t record;
    if (cjournal_convert_snapshot(stored, &record))
        require(record.num_parents <= CAUSAL_PARENTS_MAX && record.type < CAUSAL_TYPE_COUNT);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> bytes(data, data + size);
    if (bytes.empty())
        return 0;
    check_segment(bytes);
    check_snapshot(bytes);
    uint32_t segment = 0;
    cjournal_file_t file;
    if (cjournal_parse_name(reinterpret_cast<const char*>(bytes.data()),
                            static_cast<uint32_t>(size), &segment, &file))
        require(segment != 0 && size >= sizeof "seg-00000001.jnl" - 1);
    return 0;
}
