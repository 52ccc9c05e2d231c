// The way to the fixed description table. Everything read is outside bytes: a table is looked at
// only when its length and its checksum hold.
#include <string_view>

#include "kernel/core/endian.h"
#include "kernel/drivers/acpi.h"

namespace {

// The root pointer stands on a 16-byte boundary of the first KiB of the extended BIOS data area,
// whose segment low memory names, or of the BIOS's own area (ACPI 6.5, 5.2.5.1).
constexpr uint32_t EBDA_SEGMENT_AT = 0x40E;
constexpr uint32_t EBDA_BYTES = 1024;
constexpr uint32_t EBDA_LOWEST = 0x400;
constexpr uint32_t EBDA_HIGHEST = 0xA0000 - EBDA_BYTES;
constexpr uint32_t BIOS_START = 0xE0000;
constexpr uint32_t BIOS_BYTES = 0x20000;
constexpr uint32_t POINTER_STEP = 16;
constexpr uint32_t POINTER_BYTES = 20;
constexpr std::string_view POINTER_SIGNATURE = "RSD PTR ";
constexpr uint32_t POINTER_ROOT_TABLE = 16;

constexpr uint32_t HEADER_BYTES = 36;
constexpr uint32_t HEADER_LENGTH = 4;
constexpr uint32_t TABLE_BYTES_MAX = 65536;
constexpr std::string_view ROOT_SIGNATURE = "RSDT";
constexpr std::string_view FIXED_SIGNATURE = "FACP";

// The fixed description table (5.2.9); version 1 ends after the flags.
constexpr uint32_t FIXED_BYTES_MIN = 116;
constexpr uint32_t FIXED_SCI_LINE = 46;
constexpr uint32_t FIXED_COMMAND_PORT = 48;
constexpr uint32_t FIXED_ENABLE_COMMAND = 52;
constexpr uint32_t FIXED_EVENT_BLOCK = 56;
constexpr uint32_t FIXED_CONTROL_BLOCK = 64;
constexpr uint32_t FIXED_EVENT_LENGTH = 88;
constexpr uint32_t FIXED_FLAGS = 112;
constexpr uint32_t FLAG_BUTTON_IS_DEVICE = 1u << 4;  // not a fixed one
constexpr uint32_t FLAG_REDUCED = 1u << 20;          // no fixed hardware at all

constexpr uint32_t PORT_MAX = 0xFFFF;
constexpr uint32_t LINES = 16;

/// A table whose header, length and checksum hold.
struct table_t {
    const uint8_t* bytes;  ///< null: none
    uint32_t length;
};

bool sums_to_zero(const uint8_t* bytes, uint32_t length) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < length; ++i)
        sum += bytes[i];
    return (sum & 0xFF) == 0;
}

bool begins_with(const uint8_t* bytes, std::string_view signature) {
    return __builtin_memcmp(bytes, signature.data(), signature.size()) == 0;
}

/// `length` bytes at `address` that do not wrap around the end of memory.
const uint8_t* view(acpi_memory_fn memory, uint32_t address, uint32_t length) {
    return address != 0 && address + length > address ? memory(address, length) : nullptr;
}

/// The root table's address from a pointer in an area; 0 when there is none.
uint32_t search(acpi_memory_fn memory, uint32_t start, uint32_t length) {
    const uint8_t* area = view(memory, start, length);
    if (area == nullptr)
        return 0;
    for (uint32_t at = 0; at + POINTER_BYTES <= length; at += POINTER_STEP) {
        if (begins_with(area + at, POINTER_SIGNATURE) && sums_to_zero(area + at, POINTER_BYTES))
            return load_le32(area + at + POINTER_ROOT_TABLE);
    }
    return 0;
}

uint32_t find_root_table(acpi_memory_fn memory) {
    const uint8_t* segment = view(memory, EBDA_SEGMENT_AT, 2);
    const uint32_t ebda = segment == nullptr ? 0 : load_le16(segment) * 16u;
    uint32_t root = 0;
    if (ebda >= EBDA_LOWEST && ebda <= EBDA_HIGHEST)
        root = search(memory, ebda, EBDA_BYTES);
    return root != 0 ? root : search(memory, BIOS_START, BIOS_BYTES);
}

table_t read_table(acpi_memory_fn memory, uint32_t address, std::string_view signature) {
    const uint8_t* header = view(memory, address, HEADER_BYTES);
    if (header == nullptr || !begins_with(header, signature))
        return {};
    const uint32_t length = load_le32(header + HEADER_LENGTH);
    if (length < HEADER_BYTES || length > TABLE_BYTES_MAX)
        return {};
    const uint8_t* bytes = view(memory, address, length);
    if (bytes == nullptr || !sums_to_zero(bytes, length))
        return {};
    return {bytes, length};
}

table_t find_fixed_table(acpi_memory_fn memory) {
    const table_t root = read_table(memory, find_root_table(memory), ROOT_SIGNATURE);
    for (uint32_t at = HEADER_BYTES; at + 4 <= root.length; at += 4) {
        const table_t fixed = read_table(memory, load_le32(root.bytes + at), FIXED_SIGNATURE);
        if (fixed.bytes != nullptr)
            return fixed;
    }
    return {};
}

}  // namespace

acpi_button_t acpi_find_button(acpi_memory_fn memory) {
    const table_t fixed = find_fixed_table(memory);
    if (fixed.bytes == nullptr || fixed.length < FIXED_BYTES_MIN)
        return {};
    const uint32_t events = load_le32(fixed.bytes + FIXED_EVENT_BLOCK);
    const uint32_t control = load_le32(fixed.bytes + FIXED_CONTROL_BLOCK);
    const uint32_t command = load_le32(fixed.bytes + FIXED_COMMAND_PORT);
    const uint32_t line = load_le16(fixed.bytes + FIXED_SCI_LINE);
    // The event block is two registers of the same width, status and enable.
    const uint32_t width = fixed.bytes[FIXED_EVENT_LENGTH] / 2u;
    const uint32_t flags = load_le32(fixed.bytes + FIXED_FLAGS);
    if ((flags & (FLAG_BUTTON_IS_DEVICE | FLAG_REDUCED)) != 0 || line >= LINES || events == 0 ||
        width < 2 || events > PORT_MAX - (2 * width - 1) || control > PORT_MAX - 1 ||
        command > PORT_MAX)
        return {};
    return {static_cast<uint16_t>(events),     static_cast<uint16_t>(events + width),
            static_cast<uint16_t>(control),    static_cast<uint16_t>(command),
            fixed.bytes[FIXED_ENABLE_COMMAND], static_cast<uint8_t>(line)};
}
