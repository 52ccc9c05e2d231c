#include "kernel/drivers/console.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "arch/x86/vga.h"
#include "kernel/core/assert.h"
#include "tests/machine/machine.h"

using namespace std::string_literals;

namespace {

std::string session_got;
bool session_on;

bool find_session(console_session_t* out) {
    out->write = [](const uint8_t* bytes, uint32_t len, void*) {
        session_got.append(reinterpret_cast<const char*>(bytes), len);
        return 0;
    };
    return session_on;
}

/// The console on a machine whose serial line and cursor registers also see whether interrupts are
/// masked at each access.
struct Console : testing::Test, port_device {
    std::string sent;
    bool high = false;
    int cursor = 0;

    Console() {
        machine_reset();
        console_init();
        machine().interrupts_on = true;
        machine_attach(0x3D4, 0x3FD, this);
        console_set_session_hook(find_session);
        session_on = false;
        session_got.clear();
    }
    ~Console() override { machine_reset(); }
    uint32_t read(uint16_t, unsigned) override {
        EXPECT_TRUE(machine().interrupts_on) << "waits for the transmitter with interrupts masked";
        return 0x20;
    }
    void write(uint16_t port, uint32_t value, unsigned) override {
        if (port == 0x3F8)
            sent += static_cast<char>(value);
        if (port == 0x3D4)
            high = value == 0x0E;
        if (port != 0x3D5)
            return;
        EXPECT_FALSE(machine().interrupts_on) << "moves the cursor with interrupts on";
        cursor = !high ? (cursor & 0xFF00) | int(value) : (cursor & 0xFF) | int(value << 8);
    }
    /// The row's text without trailing blanks.
    static std::string row(int y) {
        std::string text;
        for (int x = 0; x < VGA_COLUMNS; ++x)
            text += static_cast<char>(vga_cells[y * VGA_COLUMNS + x]);
        return text.substr(0, text.find_last_not_of(' ') + 1);
    }
};

}  // namespace

TEST_F(Console, ControlCharactersMoveTheCursorAndGoRawToTheSerialLine) {
    EXPECT_TRUE(std::all_of(vga_cells, vga_cells + VGA_CELLS, [](auto c) { return c == 0x0720; }));
    console_write("\bab\bc\td\re\nf\1\377");
    console_write_len(reinterpret_cast<const uint8_t*>("a\0b"), 3);
    EXPECT_EQ(sent, "\bab\bc\td\re\r\nf\1\377a\0b"s);
    EXPECT_EQ(row(0), "ec      d");
    EXPECT_EQ(row(1), "f\1\377a\0b"s);
    EXPECT_EQ(cursor, VGA_COLUMNS + 6);
    for (const int from : {0, 7, 8, 71, 72, 79}) {
        console_set_cursor(0, from);
        console_putchar('\t');
        EXPECT_EQ(cursor, from / 8 * 8 + 8);
    }
}

TEST_F(Console, WrapsAtColumn79AndScrollsInThePresentColour) {
    console_write("top\nnext");
    console_set_cursor(24, 78);
    console_set_color(15, 1);
    console_write("xy");
    EXPECT_EQ(row(0), "next");
    EXPECT_EQ(vga_cells[23 * VGA_COLUMNS + 79], 0x1F00 | 'y');
    EXPECT_EQ(std::count(vga_cells + 24 * VGA_COLUMNS, vga_cells + VGA_CELLS, 0x1F20), VGA_COLUMNS);
    EXPECT_EQ(cursor, 24 * VGA_COLUMNS);
}

TEST_F(Console, ACursorOffTheScreenWritesNoMemoryAndComesBack) {
    for (const int y : {-1, 3, 1000000, INT32_MAX, INT32_MIN})
        for (const int x : {-1, 3, 80, INT32_MAX, INT32_MIN})
            for (const char* text : {"x", "\n", "\t", "\b"}) {
                console_set_cursor(y, x);
                console_write(text);  // the sanitizer guards the screen's ends
            }
    console_clear();
    console_write("ok");
    EXPECT_EQ(row(0), "ok");
}

TEST_F(Console, ASessionGetsTheTextAndTheSequencesInPlaceOfTheMachine) {
    session_on = true;
    console_write("hi\n");
    console_set_color(15, 0);
    console_set_color(1, 12);
    console_set_cursor(4, 9);
    console_clear();
    EXPECT_EQ(session_got, "hi\n\033[97;40m\033[34;101m\033[5;10H\033[2J\033[H");
    EXPECT_EQ(sent, "") << "nothing of a session reaches the serial line";
    EXPECT_EQ(vga_cells[0], 0xC120) << "the local screen follows colours and clearing";
}

TEST_F(Console, AFullCaptureEndsWithTheNoticeAndHidesEverything) {
    session_on = true;
    const auto capture = [](size_t size, size_t text) {
        std::string buf(size, '#');
        console_start_capture(buf.data(), static_cast<int>(size));
        console_write(std::string(text, 'x').c_str());
        const auto length = static_cast<size_t>(console_stop_capture());
        return buf.at(length) == '\0' ? buf.substr(0, length) : "unterminated";
    };
    EXPECT_EQ(capture(61, 60), std::string(60, 'x'));
    const std::string notice = "\n[...output truncated at 60 bytes...]\n";
    EXPECT_EQ(capture(61, 61), std::string(60 - notice.size(), 'x') + notice);
    EXPECT_EQ(capture(6, 9) + capture(1, 9), "\n[...");
    EXPECT_EQ(console_stop_capture(), 0) << "no capture";
    EXPECT_EQ(sent + session_got, "");
}

TEST_F(Console, AStoppingMachineTalksLocally) {
    char buf[8];
    session_on = true;
    console_start_capture(buf, sizeof buf);
    machine_reset();
    EXPECT_THROW(kassert_fail("ours", "f.cpp", 3), machine_halted);
    EXPECT_EQ(row(0), "[ASSERT] ours f.cpp:3");
}
