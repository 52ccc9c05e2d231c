// The lookup against a table of its own; the system tests read the real one from a backtrace.
#include "kernel/core/ksyms.h"

#include <gtest/gtest.h>

extern "C" {
const ksym_t ksyms_table[] = {
    {0x100000, "first"}, {0x100010, "second"}, {0x100011, "one_byte"}, {0x100020, nullptr}};
const uint32_t ksyms_count = 4;
}

TEST(Ksyms, FindsTheFunctionAndTheOffsetAtEveryBoundary) {
    const struct {
        uint32_t address;
        const char* name;
        uint32_t offset;
    } cases[] = {{0x100000, "first", 0},
                 {0x10000F, "first", 15},
                 {0x100010, "second", 0},
                 {0x100011, "one_byte", 0},
                 {0x10001F, "one_byte", 0x0E}};
    for (const auto& c : cases) {
        uint32_t offset = 99;
        EXPECT_STREQ(ksym_lookup(c.address, &offset), c.name) << std::hex << c.address;
        EXPECT_EQ(offset, c.offset);
    }
    EXPECT_STREQ(ksym_lookup(0x100010, nullptr), "second");
}

TEST(Ksyms, AddressesOutsideTheTextHaveNoName) {
    for (const uint32_t address : {0u, 0xFFFFFu, 0x100020u, 0xFFFFFFFFu}) {
        uint32_t offset = 99;
        EXPECT_EQ(ksym_lookup(address, &offset), nullptr) << std::hex << address;
        EXPECT_EQ(offset, 99u);
    }
}
