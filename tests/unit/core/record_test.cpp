#include "kernel/core/record.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string received;

uint32_t receive(uint8_t type, const char* subsystem, const char* fmt, va_list args) {
    char text[64];
    vsnprintf(text, sizeof text, fmt, args);
    received = std::to_string(type) + "/" + subsystem + "/" + text;
    return 7;
}

TEST(Record, EventsReachTheHookOnceItIsInstalled) {
    record_set_hook(nullptr);
    EXPECT_EQ(record_event(CAUSAL_MEM, "mem", "lost %d", 1), 0u);
    record_set_hook(receive);
    EXPECT_EQ(record_event(CAUSAL_MEM, "mem", "kept %d", 2), 7u);
    EXPECT_EQ(received, "1/mem/kept 2");
    record_set_hook(nullptr);
}

}  // namespace
