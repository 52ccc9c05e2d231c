#include "kernel/drivers/acpi.h"

#include <gtest/gtest.h>

#include <array>
#include <map>

#include "kernel/core/interrupt.h"
#include "kernel/drivers/reset_chord.h"
#include "tests/machine/input.h"

namespace {

using bytes_t = std::vector<uint8_t>;

/// Physical memory in pieces; what lies in none cannot be read.
std::map<uint32_t, bytes_t> memory;

const uint8_t* view(uint32_t address, uint32_t len) {
    auto piece = memory.upper_bound(address);
    if (piece == memory.begin())
        return nullptr;
    --piece;
    const uint64_t at = address - piece->first;
    return at + len <= piece->second.size() ? piece->second.data() + at : nullptr;
}

void put(bytes_t& bytes, size_t at, uint32_t value, size_t count = 4) {
    for (size_t i = 0; i < count; ++i)
        bytes[at + i] = static_cast<uint8_t>(value >> 8 * i);
}

void seal(bytes_t& bytes, size_t checksum_at, size_t length) {
    bytes[checksum_at] = 0;
    uint32_t sum = 0;
    for (size_t i = 0; i < length; ++i)
        sum += bytes[i];
    bytes[checksum_at] = static_cast<uint8_t>(-sum);
}

bytes_t table(const char* signature, uint32_t length) {
    bytes_t bytes(length);
    std::copy_n(signature, 4, bytes.begin());
    put(bytes, 4, length);
    return bytes;
}

constexpr uint32_t LOW = 0x400, EBDA = 0x9FC00, BIOS = 0xE0000;
constexpr uint32_t ROOT = 0x7FE1000, OTHER = 0x7FE2000, FIXED = 0x7FE3000;

/// The memory of a machine as QEMU's PC lays it out.
void make_tables() {
    memory.clear();
    memory[LOW] = bytes_t(256);
    put(memory[LOW], 0x0E, EBDA / 16, 2);
    memory[EBDA] = bytes_t(1024);
    memory[BIOS] = bytes_t(0x20000);
    bytes_t& bios = memory[BIOS];
    std::copy_n("RSD PTR ", 8, bios.begin() + 0x152F0);
    put(bios, 0x152F0 + 16, ROOT);
    bytes_t root = table("RSDT", 36 + 8), fixed = table("FACP", 116);
    put(root, 36, OTHER);
    put(root, 40, FIXED);
    put(fixed, 46, 9, 2);
    put(fixed, 48, 0xB2);
    fixed[52] = 0xF1;
    put(fixed, 56, 0x600);
    put(fixed, 64, 0x604);
    fixed[88] = 4;
    memory[ROOT] = root;
    memory[OTHER] = table("APIC", 60);
    memory[FIXED] = fixed;
}

/// Makes the checksums good again and looks for the button.
acpi_button_t find() {
    for (const uint32_t at : {ROOT, OTHER, FIXED})
        seal(memory[at], 9, memory[at].size());
    bytes_t pointer(memory[BIOS].begin() + 0x152F0, memory[BIOS].begin() + 0x152F0 + 20);
    seal(pointer, 8, 20);
    std::copy(pointer.begin(), pointer.end(), memory[BIOS].begin() + 0x152F0);
    return acpi_find_button(view);
}

TEST(Acpi, FindsTheButtonThroughItsTables) {
    make_tables();
    const acpi_button_t b = find();
    EXPECT_EQ((std::array<int, 6>{b.status_port, b.enable_port, b.control_port, b.command_port,
                                  b.enable_command, b.line}),
              (std::array<int, 6>{0x600, 0x602, 0x604, 0xB2, 0xF1, 9}));
    // The pointer may stand in the extended BIOS data area, too.
    bytes_t& bios = memory[BIOS];
    std::copy_n(bios.begin() + 0x152F0, 20, memory[EBDA].begin() + 1024 - 32);
    bios.assign(bios.size(), 0);
    EXPECT_EQ(acpi_find_button(view).status_port, 0x600);
    put(memory[LOW], 0x0E, 0xA000, 2);
    EXPECT_EQ(acpi_find_button(view).status_port, 0) << "no such area";
}

TEST(Acpi, BelievesNoTableThatDoesNotHoldTogether) {
    // What a field is made to say; the checksums are good again afterwards.
    const auto refuses = [](uint32_t piece, uint32_t at, std::initializer_list<uint32_t> values,
                            size_t bytes = 4) {
        for (const uint32_t value : values) {
            make_tables();
            put(memory[piece], at, value, bytes);
            EXPECT_EQ(find().status_port, 0) << piece << " " << at << " " << value;
        }
    };
    refuses(BIOS, 0x152F0 + 16, {0, ~0u, FIXED});
    refuses(ROOT, 4, {35, 40, 45, ~0u});
    refuses(ROOT, 40, {0xFFFFFFF0});
    refuses(FIXED, 0, {'X'}, 1);
    refuses(FIXED, 4, {115, 200, 0x80000000});
    refuses(FIXED, 46, {16}, 2);
    refuses(FIXED, 48, {0x10000});
    refuses(FIXED, 56, {0, 0xFFFD, 0xFFFFFFFF});
    refuses(FIXED, 64, {0xFFFF});
    refuses(FIXED, 88, {3}, 1);
    refuses(FIXED, 112, {1 << 4, 1 << 20});
    // Every single byte damaged, and the checksum left as it was.
    make_tables();
    find();
    for (const uint32_t at : {ROOT, FIXED}) {
        for (uint8_t& byte : memory[at]) {
            byte ^= 0x10;
            EXPECT_EQ(acpi_find_button(view).status_port, 0) << &byte - memory[at].data();
            byte ^= 0x10;
        }
    }
}

int presses;

/// PM1 registers and the interrupt controllers' masks.
struct pm1_t : port_device {
    std::map<uint16_t, uint32_t> at = {{0x21, 0xE8}, {0xA1, 0xFF}};
    uint32_t read(uint16_t port, unsigned) override { return at[port]; }
    void write(uint16_t port, uint32_t value, unsigned) override {
        if (port == 0xB2)
            at[0x604] |= value == 0xF1;
        else
            at[port] = port == 0x600 ? at[port] & ~value : value;
    }
};

TEST(Acpi, CallsForEachPressAndGivesAStuckLineUp) {
    machine_reset();
    interrupt_init();
    pm1_t pm1;
    for (const uint16_t port : std::initializer_list<uint16_t>{0x21, 0xA1, 0xB2})
        machine_attach(port, port, &pm1);
    machine_attach(0x600, 0x605, &pm1);
    presses = 0;
    const auto pressed = [] { ++presses; };
    EXPECT_EQ(acpi_button_init({}, pressed), -1);
    ASSERT_EQ(acpi_button_init({0x600, 0x602, 0x604, 0xB2, 0xF1, 9}, pressed), 0);
    EXPECT_EQ(pm1.at[0x604], 1u) << "ACPI mode";
    EXPECT_EQ(pm1.at[0x602], 0x100u) << "only the button's event";
    EXPECT_EQ(pm1.at[0xA1], 0xFDu);
    for (int i = 1; i <= 2; ++i) {
        pm1.at[0x600] = 0x101;
        input_ports::interrupt(9);
        EXPECT_EQ(presses, i);
        EXPECT_EQ(pm1.at[0x600], 1u) << "acknowledged, and nothing else";
    }
    for (int i = 0; i < 1000; ++i)
        input_ports::interrupt(9);
    EXPECT_EQ(pm1.at[0xA1], 0xFFu);
    EXPECT_EQ(presses, 2);
}

TEST(ResetChord, NeedsCtrlAltAndDel) {
    const auto resets = [](std::initializer_list<uint8_t> scancodes) {
        reset_chord_t chord = {};
        return std::count_if(scancodes.begin(), scancodes.end(),
                             [&](uint8_t scancode) { return reset_chord_step(&chord, scancode); });
    };
    EXPECT_EQ(resets({0x1D, 0x38, 0xE0, 0x53, 0xE0, 0xD3}), 1);
    EXPECT_EQ(resets({0xE0, 0x38, 0xE0, 0x1D, 0x53}), 1) << "the right ones, the keypad's Del";
    EXPECT_EQ(resets({0x1D, 0xE0, 0x1D, 0x38, 0xE0, 0x9D, 0x53}), 1) << "one of two is still held";
    EXPECT_EQ(resets({0x1D, 0x38, 0x9D, 0x53}) + resets({0x1D, 0x38, 0xB8, 0xE0, 0x53}), 0);
    EXPECT_EQ(resets({0x38, 0x53, 0x1D}) + resets({0x1D, 0x38, 0xD3}), 0);
}

}  // namespace
