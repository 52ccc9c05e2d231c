#include "kernel/drivers/kbpoll.h"

#include <gtest/gtest.h>

#include "tests/machine/input.h"

namespace {

class Kbpoll : public ::testing::Test {
protected:
    using keys_t = std::vector<int>;
    input_ports ports;

    void SetUp() override {
        machine_reset();
        machine().log_ports = false;
        ports.attach();
        kbpoll_begin();
    }
    keys_t poll() {
        keys_t keys;
        while (!ports.serial.empty() || !ports.keys.empty())
            keys.push_back(kbpoll_poll());
        return keys;
    }
    keys_t serial(std::string_view bytes) {
        ports.serial.assign(bytes.begin(), bytes.end());
        return poll();
    }
    keys_t ps2(std::deque<uint8_t> scancodes) {
        ports.keys = std::move(scancodes);
        return poll();
    }
};

TEST_F(Kbpoll, TakesTheSerialLineForItself) {
    EXPECT_EQ(ports.serial_interrupts, 0);
    kbpoll_end();
    EXPECT_EQ(ports.serial_interrupts, 1);
    EXPECT_EQ(kbpoll_poll(), -1);
    ports.serial = {3, 'q'};
    EXPECT_EQ(kbpoll_getchar(), 'q');
}

TEST_F(Kbpoll, ReadsSerialKeys) {
    EXPECT_EQ(serial("a~ \x7f\t\n\r"), (keys_t{'a', '~', ' ', 8, 9, 10, 10}));
    EXPECT_EQ(serial("\x07\x08\x11\x13\x19\x1a\x03\xff"),
              (keys_t{0x95, 0x94, 0x91, 0x90, 0x93, 0x92, -1, -1}));
    EXPECT_EQ(serial("\x1b[A\x1b[B\x1b[C\x1b[D\x1b[3~x"),
              (keys_t{0x80, 0x81, 0x83, 0x82, 0x86, 'x'}));
    EXPECT_EQ(serial("\x1bxy"), (keys_t{0x96, 'y'}));
    EXPECT_EQ(serial("\x1b[Zy"), (keys_t{0x96, 'y'}));
    EXPECT_EQ(serial("\x1b["), keys_t{0x96});
}

TEST_F(Kbpoll, ReadsPs2Keys) {
    EXPECT_EQ(ps2({0x1E, 0x9E, 0x2A, 0x1E, 0xAA, 0x1E, 0x36, 0x02, 0xB6, 0x1C, 0x0E}),
              (keys_t{'a', -1, -1, 'A', -1, 'a', -1, '!', -1, 10, 8}));
    EXPECT_EQ(ps2({0x1D, 0x10, 0x15, 0x1F, 0x22, 0x23, 0x2C, 0x1E, 0x01, 0x9D, 0x01, 0x3B}),
              (keys_t{-1, 0x91, 0x93, 0x90, 0x95, 0x94, 0x92, -1, -1, -1, 0x96, -1}));
    EXPECT_EQ(ps2({0xE0, 0x48, 0xE0, 0x4B, 0xE0, 0x4D, 0xE0, 0x50, 0xE0, 0x53}),
              (keys_t{0x80, 0x82, 0x83, 0x81, 0x86}));
    EXPECT_EQ(ps2({0xE0, 0xC8, 0xE0, 0x47, 0xE0, 0x1C, 0xE0}), (keys_t{-1, -1, -1, -1}));
    ps2({0x2A, 0x1D});
    kbpoll_begin();
    EXPECT_EQ(ps2({0x1E}), keys_t{'a'});
}

}  // namespace
