#include "kernel/apps/power.h"

#include "kernel/drivers/kbpoll.h"
#include "kernel/drivers/keyboard.h"
#include "tests/machine/input.h"
#include "tests/machine/kernel.h"

namespace {

std::string calls;

void note_shutdown(bool reboot) { calls += reboot ? "reboot " : "halt "; }

class Power : public testing::Test {
protected:
    input_ports ports;

    void SetUp() override {
        boot_kernel();
        ports.attach();
        keyboard_init();
        calls.clear();
        fake_switch.coroutines = true;
        power_init({}, note_shutdown);
        sched_start();
        schedule();
    }
};

TEST_F(Power, CtrlAltDelRestartsInATaskAndOnlyOnce) {
    ports.press({0x1D, 0x38});
    schedule();
    EXPECT_EQ(calls, "");
    ports.press({0xE0, 0x53, 0xE0, 0xD3, 0xE0, 0x53});
    EXPECT_EQ(calls, "") << "not in the interrupt handler";
    schedule();
    EXPECT_EQ(calls, "reboot ");
}

TEST_F(Power, TheChordWorksWhereKeysArePolledOrSuppressed) {
    keyboard_suppress(true);
    ports.press({0x1D, 0x38});
    kbpoll_begin();
    ports.keys = {0xE0, 0x53};
    kbpoll_poll();
    schedule();
    EXPECT_EQ(calls, "reboot ");
}

}  // namespace
