#include "kernel/core/kprintf.h"

#include <gtest/gtest.h>

#include "kernel/core/assert.h"
#include "tests/machine/machine.h"

namespace {

std::string shown, logged;

void start() {
    machine_reset();
    kprintf_set_console([](const char* text) { shown += text; });
    kprintf_set_log([](const char*, int length) {
        logged = shown.substr(0, logged.size() + static_cast<size_t>(length));
    });
    shown = logged = "";
}

}  // namespace

TEST(Kprintf, ShowsThenLogsAndCutsAFormattedTextAt511AndAPlainOneNever) {
    start();
    const std::string text = std::string(600, 'x') + "%s" + std::string(600, 'y');
    EXPECT_EQ(kprintf("%s", text.c_str()), 511);
    kprint_text(text.c_str());
    EXPECT_EQ(logged, text.substr(0, 511) + text);
}

TEST(Kprintf, AFailedAssertionSaysWhereAndHaltsWithInterruptsMasked) {
    start();
    machine().interrupts_on = true;
    KASSERT(shown.empty());
    // The way out may fail an assertion of its own: that one is printed, and nothing recurs.
    kassert_set_output_hook([] { KASSERT(logged == "never"); });
    EXPECT_THROW(kassert_fail("a == b", "kernel/x.cpp", 12), machine_halted);
    EXPECT_EQ(shown.rfind("[ASSERT] logged == \"never\" tests/unit/", 0), 0u) << shown;
    EXPECT_FALSE(machine().interrupts_on);
}
