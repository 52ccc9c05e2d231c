// The search for the power button in any memory: whatever address a table names shows the input,
// with a checksum that holds, so that lengths and fields are what is tried.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernel/drivers/acpi.h"

namespace {

const uint8_t* input;
size_t input_size;
std::vector<std::vector<uint8_t>> windows;  // of exact sizes, so that a read past one is seen

void seal(uint8_t* bytes, size_t checksum_at, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (i != checksum_at)
            bytes[checksum_at] = static_cast<uint8_t>(bytes[checksum_at] - bytes[i]);
}

const uint8_t* view(uint32_t address, uint32_t len) {
    constexpr uint32_t BIOS = 0xE0000, BIOS_BYTES = 0x20000, CHECKSUM = 9;
    if (len > input_size && len != BIOS_BYTES)
        return nullptr;
    std::vector<uint8_t>& window = windows.emplace_back(len);
    for (size_t i = 0; i < len && i < input_size; ++i)
        window[i] = input[(address + i) % input_size];
    if (address == BIOS) {
        std::memcpy(window.data(), "RSD PTR ", 8);
        window[8] = 0;
        seal(window.data(), 8, 20);
    } else if (len > CHECKSUM) {
        window[CHECKSUM] = 0;
        seal(window.data(), CHECKSUM, len);
    }
    return window.data();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    input = data;
    input_size = size;
    windows.clear();
    const acpi_button_t button = acpi_find_button(view);
    if (button.status_port != 0 && (button.line > 15 || button.enable_port <= button.status_port))
        std::abort();
    return 0;
}
