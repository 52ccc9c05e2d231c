// The lookup against a table of its own; the system tests read the real one from a backtrace.
#include "kernel/core/ksyms.h"

#include <gtest/gtest.h>

extern "C" {
const ksym_t ksyms_table[] = {
    {0x100000, "first"}, {0x100010, "second"}, {0x100011, "one_byte"}, {0x100020, nullptr}};
const uint32_t ksyms_count = 4;
}

TEST(Ksyms, FindsTheFunctionAndTheOffsetAtEveryBoundary) {
    const auto at = [](uint32_t address) {
        uint32_t offset = 99;
        const char* name = ksym_lookup(address, &offset);
        return std::string(name != nullptr ? name : "none") + "+" + std::to_string(offset);
    };
    EXPECT_EQ(at(0x100000), "first+0");
    EXPECT_EQ(at(0x10000F), "first+15");
    EXPECT_EQ(at(0x100010), "second+0");
    EXPECT_EQ(at(0x10001F), "one_byte+14");
    for (const uint32_t outside : {0u, 0xFFFFFu, 0x100020u, 0xFFFFFFFFu})
        EXPECT_EQ(at(outside), "none+99");
    EXPECT_STREQ(ksym_lookup(0x100010, nullptr), "second");
}
