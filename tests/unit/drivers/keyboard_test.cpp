#include "kernel/drivers/keyboard.h"

#include "tests/machine/input.h"
#include "tests/machine/kernel.h"

namespace {

constexpr uint8_t CTRL = 0x1D, SHIFT = 0x2A, CAPS = 0x3A, KEY_A = 0x1E, UP = 0x80;

std::string received;

void read_three_keys() {
    for (int i = 0; i < 3; ++i)
        received += keyboard_getchar();
}

class Keyboard : public ::testing::Test {
protected:
    input_ports ports;

    void SetUp() override {
        boot_kernel();
        ports.attach();
        keyboard_init();
        received.clear();
    }
    /// All keys that wait, without blocking for more.
    static std::string keys() {
        std::string all;
        while (keyboard_has_input())
            all += keyboard_getchar();
        return all;
    }
};

TEST_F(Keyboard, ProgramsTheControllerIfThereIsOne) {
    EXPECT_EQ(ports.config, 0x61);
    EXPECT_EQ(ports.serial_interrupts, 1);
    machine_reset();
    keyboard_init();
    keyboard_flush();
    input_ports::interrupt(1);
    input_ports::interrupt(4);
    EXPECT_EQ(keyboard_poll_scancode(), -1);
    EXPECT_FALSE(keyboard_has_input());
}

TEST_F(Keyboard, AnswersTheUsLayout) {
    std::string plain, shifted;
    for (uint8_t code = 1; code < 0x54; ++code) {
        if (code == CTRL || code == SHIFT || code == 0x36 || code == CAPS)
            continue;
        ports.press({code, static_cast<uint8_t>(code | UP)});
        plain += keys();
        ports.press({0x36, code, 0xB6});
        shifted += keys();
    }
    EXPECT_EQ(plain,
              "\x1b"
              "1234567890-=\b\tqwertyuiop[]\nasdfghjkl;'`\\zxcvbnm,./* ");
    EXPECT_EQ(shifted, "\x1b!@#$%^&*()_+\b\tQWERTYUIOP{}\nASDFGHJKL:\"~|ZXCVBNM<>?* ");
}

TEST_F(Keyboard, CombinesCtrlShiftAndCapsLock) {
    std::string letters;
    for (const bool caps : {false, true}) {
        if (caps)
            ports.press({CAPS, CAPS | UP});
        ports.press({KEY_A, SHIFT, KEY_A, SHIFT | UP, CTRL, KEY_A, SHIFT, KEY_A});
        ports.press({SHIFT | UP, CTRL | UP});
        letters += keys();
    }
    EXPECT_EQ(letters,
              "aA\x01\x41"
              "Aa\x01\x01");
    ports.press({0x02, SHIFT, 0x02});  // no letter: Caps Lock leaves it alone
    EXPECT_EQ(keys(), "1!");
}

TEST_F(Keyboard, ExtendedKeysGiveCodesAndTouchNoModifier) {
    ports.press({0xE0, 0x47, 0xE0, 0x48, 0xE0, 0x49, 0xE0, 0x4B, 0xE0, 0x4D});
    ports.press({0xE0, 0x4F, 0xE0, 0x50, 0xE0, 0x51, 0xE0, 0x53});
    EXPECT_EQ(keys(), "\x84\x80\x87\x82\x83\x85\x81\x88\x86");
    ports.press({0xE0, 0x52, 0xE0, CTRL, 0xE0, 0x1C, 0xE0, 0x48});  // Insert, right Ctrl, Enter
    EXPECT_EQ(keys(), "\x80");
    ports.press({SHIFT, 0xE0, SHIFT | UP, KEY_A, SHIFT | UP, 0x45, 0x46, KEY_A});
    EXPECT_EQ(keys(), "Aa");
}

TEST_F(Keyboard, RingsDropTheNewest) {
    ports.press({0x30});
    for (int i = 1; i < 255; ++i)
        ports.press({KEY_A});
    const uint32_t events = causal_total_events();
    ports.press({0x10});
    EXPECT_EQ(causal_total_events(), events);  // a dropped key did not happen
    EXPECT_EQ(keys(), "b" + std::string(254, 'a'));
    int scancodes = 0;
    while (keyboard_poll_scancode() >= 0)
        ++scancodes;
    EXPECT_EQ(scancodes, 63);
}

TEST_F(Keyboard, RawScancodesAreKeptInjectedPolledFlushedAndSuppressed) {
    ports.press({0xE0, 0x48, 0xC8});
    keyboard_inject_scancode(0x77);
    for (const int expected : {0xE0, 0x48, 0xC8, 0x77, -1})
        EXPECT_EQ(keyboard_poll_scancode(), expected);
    keyboard_flush();
    ports.keys = {KEY_A};  // polled before its interrupt arrives
    EXPECT_EQ(keyboard_poll_scancode(), KEY_A);
    input_ports::interrupt(1);
    EXPECT_EQ(keys(), "a");
    ports.press({KEY_A});
    ports.keys = {1, 2, 3};
    keyboard_flush();
    EXPECT_TRUE(ports.keys.empty());
    EXPECT_EQ(keyboard_poll_scancode(), -1);
    EXPECT_FALSE(keyboard_has_input());
    keyboard_suppress(true);
    ports.press({KEY_A, SHIFT});
    keyboard_suppress(false);
    EXPECT_EQ(keyboard_poll_scancode(), -1);
    ports.press({KEY_A});
    EXPECT_EQ(keys(), "a");
}

TEST_F(Keyboard, ParsesTheSerialLine) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"\x1b[A\x1b[B\x1b[C\x1b[D\x1b[H\x1b[F", "\x80\x81\x83\x82\x84\x85"},
        {"\x1b[3~x\x1b[3x\x1b[3\x1b[A", "\x86x\x86x\x86\x80"},
        {"~\x1bx\x1b[Z~\r\x7f\b\t\n\x1b\r", "~x~\n\b\b\t\n\n"},
    };
    for (const auto& [bytes, expected] : cases) {
        ports.type(bytes);
        EXPECT_EQ(keys(), expected);
        for (const char byte : bytes)  // the same, cut at each byte
            ports.type({&byte, 1});
        EXPECT_EQ(keys(), expected);
    }
    ports.type(std::string_view("a\0b", 3));
    EXPECT_EQ(keys(), "ab");
    ports.type(std::string(300, 'x'));  // beyond the bound of one interrupt, which comes again
    EXPECT_EQ(ports.serial.size(), 44u);
    EXPECT_EQ(ports.line_raised, 1);
}

TEST_F(Keyboard, ATaskBlocksUntilAKeyComesAndStandsBehindIt) {
    fake_switch.coroutines = true;
    task_t* reader = task_create("reader", read_three_keys, 2);
    task_t* other = task_create("other", read_three_keys, 2);
    sched_start();
    schedule();
    EXPECT_EQ(reader->state, TASK_BLOCKED);
    EXPECT_TRUE(other->waiting_for_input);
    ports.press({KEY_A});
    EXPECT_FALSE(reader->waiting_for_input || other->waiting_for_input);

    // The key is a root; the wake-up joins it with what the task did before.
    const causal_event_t* wake = causal_get(reader->causal_ctx);
    const std::string unblock = "unblock pid=" + std::to_string(reader->pid) + " reason=input";
    EXPECT_EQ(wake->desc, unblock);
    ASSERT_EQ(wake->num_parents, 2);
    const causal_event_t* key = causal_get(std::max(wake->parents[0], wake->parents[1]));
    EXPECT_STREQ(key->desc, "key pressed scancode=0x1e");
    EXPECT_EQ(key->num_parents, 0);

    schedule();
    EXPECT_EQ(received, "a");  // one got it, both wait again
    EXPECT_TRUE(reader->waiting_for_input && other->waiting_for_input);
    const uint32_t events = causal_total_events();
    ports.type("bcde");
    EXPECT_EQ(causal_total_events(), events + 2);  // two wake-ups, no key
    schedule();
    // Whoever looks for input is no cause of what comes.
    causal_emit(CAUSAL_USER, "test", "looking", nullptr, 0);
    ports.serial = {'f'};
    EXPECT_TRUE(keyboard_has_input());
    EXPECT_EQ(causal_get(other->causal_ctx)->num_parents, 1);
    schedule();
    EXPECT_EQ(received, "abcdef");
}

}  // namespace
