// Names, checksums, headers, footers and layouts.
#include "kernel/graph/cjournal/format.h"

#include <array>

#include "kernel/core/string.h"

namespace {

constexpr uint32_t FNV_PRIME = 16777619;
constexpr uint32_t SUBSYSTEM_BITS = 32;

constexpr std::array<const char*, 4> SUFFIXES = {"jnl", "hsh", "ert", "sig"};

struct known_footer_t {
    uint32_t version;
    uint32_t size;
};

/// Footers that carry their own size, newest first.
constexpr std::array<known_footer_t, 3> SIZED_FOOTERS = {{{5, 48}, {4, 44}, {3, 40}}};
constexpr std::array<known_footer_t, 5> FOOTERS = {{{5, 48}, {4, 44}, {3, 40}, {2, 28}, {1, 24}}};
constexpr std::array<uint32_t, 3> EVENT_SIZES = {CJOURNAL_EVENT_SIZE, CJOURNAL_EVENT_V3_SIZE,
                                                 CJOURNAL_EVENT_V1_SIZE};
constexpr std::array<uint32_t, 6> FOOTER_SIZES = {0, 48, 44, 40, 28, 24};

/// What the bytes of a footer hold of the current footer's fields; the rest is zero.
cjournal_footer_t read_footer(std::span<const uint8_t> bytes) {
    cjournal_footer_t footer = {};
    memcpy(&footer, bytes.data(), bytes.size() < sizeof footer ? bytes.size() : sizeof footer);
    return footer;
}

bool names_segment(const cjournal_footer_t& footer, const known_footer_t& known,
                   const cjournal_header_t& header, uint32_t segment) {
    return footer.magic == CJOURNAL_FOOTER_MAGIC && footer.version == known.version &&
           footer.segment_num == segment && footer.event_count == header.event_count &&
           footer.first_id == header.first_id && footer.last_id == header.last_id;
}

bool layout_fits(const cjournal_header_t& header, const cjournal_layout_t& layout,
                 uint32_t file_size) {
    const uint64_t size = CJOURNAL_HEADER_SIZE + uint64_t{header.event_count} * layout.event_size +
                          layout.footer_size;
    return size == file_size;
}

/// Takes the record size from a footer that says it.
bool recognise_sized(const cjournal_header_t& header, uint32_t segment, uint32_t file_size,
                     std::span<const uint8_t> tail, const known_footer_t& known,
                     cjournal_layout_t* layout) {
    if (file_size < known.size || tail.size() < known.size)
        return false;
    const cjournal_footer_t footer = read_footer(tail.last(known.size));
    const cjournal_layout_t said = {footer.event_size, known.size};
    if (!names_segment(footer, known, header, segment) || footer.footer_size != known.size ||
        footer.event_size == 0 || !layout_fits(header, said, file_size))
        return false;
    *layout = said;
    return true;
}

cjournal_fault_t check_record(const cjournal_header_t& header, const cjournal_event_t& record) {
    if (record.num_parents > CAUSAL_PARENTS_MAX)
        return cjournal_fault_t::parent_count;
    if (record.type >= CAUSAL_TYPE_COUNT)
        return cjournal_fault_t::type;
    if (record.wall_ticks < header.first_tick || record.wall_ticks > header.last_tick)
        return cjournal_fault_t::tick;
    if (record.lamport < header.first_lamport || record.lamport > header.last_lamport)
        return cjournal_fault_t::lamport;
    return cjournal_fault_t::none;
}

}  // namespace

void cjournal_path(uint32_t segment, cjournal_file_t file, char* path) {
    ksnprintf(path, CJOURNAL_PATH_SIZE, "%s/seg-%08u.%s", CJOURNAL_DIR, segment,
              SUFFIXES[static_cast<size_t>(file)]);
}

bool cjournal_parse_name(const char* name, uint32_t length, uint32_t* segment,
                         cjournal_file_t* file) {
    constexpr uint32_t NUMBER_AT = sizeof "seg-" - 1;
    constexpr uint32_t DIGITS_MAX = 10;
    uint64_t number = 0;
    for (uint32_t i = NUMBER_AT; i < length && i < NUMBER_AT + DIGITS_MAX; i++) {
        if (name[i] < '0' || name[i] > '9')
            break;
        number = number * 10 + static_cast<uint32_t>(name[i] - '0');
    }
    if (number == 0 || number > UINT32_MAX)
        return false;
    const uint32_t directory = static_cast<uint32_t>(strlen(CJOURNAL_DIR)) + 1;
    char path[CJOURNAL_PATH_SIZE];
    for (size_t i = 0; i < SUFFIXES.size(); i++) {
        cjournal_path(static_cast<uint32_t>(number), static_cast<cjournal_file_t>(i), path);
        if (strlen(path) != directory + length || memcmp(path + directory, name, length) != 0)
            continue;
        *segment = static_cast<uint32_t>(number);
        *file = static_cast<cjournal_file_t>(i);
        return true;
    }
    return false;
}

uint32_t cjournal_fnv(std::span<const uint8_t> bytes, uint32_t state) {
    for (const uint8_t byte : bytes)
        state = (state ^ byte) * FNV_PRIME;
    return state;
}

uint32_t cjournal_checksum(std::span<const uint8_t> header_and_records) {
    const uint32_t value = cjournal_fnv(header_and_records);
    return value != 0 ? value : 1;
}

uint32_t cjournal_subsystem_bit(const char* subsystem) {
    uint32_t length = 0;
    while (subsystem != nullptr && length < CAUSAL_SUBSYSTEM_SIZE && subsystem[length] != '\0')
        length++;
    if (length == 0)
        return 0;
    return cjournal_fnv({reinterpret_cast<const uint8_t*>(subsystem), length}) % SUBSYSTEM_BITS;
}

cjournal_header_t cjournal_make_header(std::span<const cjournal_event_t> records) {
    const cjournal_event_t& first = records.front();
    const cjournal_event_t& last = records.back();
    cjournal_header_t header = {CJOURNAL_SEGMENT_MAGIC,
                                CJOURNAL_SEGMENT_VERSION,
                                static_cast<uint32_t>(records.size()),
                                first.id,
                                last.id,
                                first.lamport,
                                last.lamport,
                                first.wall_ticks,
                                first.wall_ticks};
    for (const cjournal_event_t& record : records) {
        if (record.wall_ticks < header.first_tick)
            header.first_tick = record.wall_ticks;
        if (record.wall_ticks > header.last_tick)
            header.last_tick = record.wall_ticks;
    }
    return header;
}

bool cjournal_header_valid(const cjournal_header_t& header) {
    return header.magic == CJOURNAL_SEGMENT_MAGIC && header.version == CJOURNAL_SEGMENT_VERSION;
}

bool cjournal_may_follow(const cjournal_event_t& last, const cjournal_event_t& next) {
    return next.id == last.id + 1 && next.lamport >= last.lamport;
}

bool cjournal_recognise(const cjournal_header_t& header, uint32_t segment, uint32_t file_size,
                        std::span<const uint8_t> tail, cjournal_layout_t* layout) {
    if (header.event_count == 0 || header.event_count > CJOURNAL_SEGMENT_EVENTS)
        return false;
    for (const known_footer_t& known : SIZED_FOOTERS) {
        if (recognise_sized(header, segment, file_size, tail, known, layout))
            return true;
    }
    for (const uint32_t event_size : EVENT_SIZES) {
        for (const uint32_t footer_size : FOOTER_SIZES) {
            const cjournal_layout_t guess = {event_size, footer_size};
            if (!layout_fits(header, guess, file_size))
                continue;
            *layout = guess;
            return true;
        }
    }
    return false;
}

cjournal_record_check_t cjournal_check_records(const cjournal_header_t& header,
                                               std::span<const cjournal_event_t> records) {
    uint32_t position = 0;
    for (const cjournal_event_t& record : records) {
        if (position == 0 && record.id != header.first_id)
            return {cjournal_fault_t::first_id, position};
        if (position != 0 && record.id <= records[position - 1].id)
            return {cjournal_fault_t::monotonic, position};
        if (position == records.size() - 1 && record.id != header.last_id)
            return {cjournal_fault_t::last_id, position};
        const cjournal_fault_t fault = check_record(header, record);
        if (fault != cjournal_fault_t::none)
            return {fault, position};
        position++;
    }
    return {cjournal_fault_t::none, 0};
}

bool cjournal_check_footer(const cjournal_header_t& header, uint32_t segment,
                           const cjournal_layout_t& layout, std::span<const uint8_t> footer,
                           uint32_t checksum) {
    if (layout.footer_size == 0)
        return true;
    for (const known_footer_t& known : FOOTERS) {
        if (known.size != layout.footer_size || footer.size() < known.size)
            continue;
        const cjournal_footer_t said = read_footer(footer.first(known.size));
        if (!names_segment(said, known, header, segment))
            return false;
        if (known.size >= sizeof(cjournal_footer_v2_t) && said.checksum != checksum)
            return false;
        return known.size < sizeof(cjournal_footer_v3_t) ||
               (said.header_size == CJOURNAL_HEADER_SIZE && said.event_size == layout.event_size &&
                said.footer_size == known.size);
    }
    return false;
}

cjournal_footer_t cjournal_make_footer(const cjournal_header_t& header, uint32_t segment,
                                       uint32_t checksum, uint32_t prev_checksum, uint32_t flags) {
    cjournal_footer_t footer = {};
    footer.magic = CJOURNAL_FOOTER_MAGIC;
    footer.version = CJOURNAL_FOOTER_VERSION;
    footer.segment_num = segment;
    footer.event_count = header.event_count;
    footer.first_id = header.first_id;
    footer.last_id = header.last_id;
    footer.checksum = checksum;
    footer.header_size = CJOURNAL_HEADER_SIZE;
    footer.event_size = CJOURNAL_EVENT_SIZE;
    footer.footer_size = CJOURNAL_FOOTER_SIZE;
    footer.prev_checksum = prev_checksum;
    footer.flags = flags;
    return footer;
}

bool cjournal_index_valid(const cjournal_index_header_t& header, uint32_t file_size) {
    return header.magic == CJOURNAL_INDEX_MAGIC && header.version == CJOURNAL_INDEX_VERSION &&
           header.entry_count <= CJOURNAL_SEGMENTS_MAX &&
           file_size == cjournal_index_bytes(header.entry_count);
}
