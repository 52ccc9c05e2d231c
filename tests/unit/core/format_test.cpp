#include <gtest/gtest.h>
#include <stdio.h>

#include <random>
#include <vector>

#include "kernel/core/string.h"

namespace {

// Not under the printf attribute: these tests want formats that the compiler would refuse.
int (*const format_call)(char*, size_t, const char*, ...) = ksnprintf;

template <typename... Args>
std::string format_in(size_t size, const char* fmt, Args... args) {
    std::vector<char> buf(size);  // its end is guarded
    const int length = format_call(buf.data(), size, fmt, args...);
    EXPECT_EQ(static_cast<size_t>(length), strlen(buf.data())) << fmt;
    return buf.data();
}

template <typename... Args>
std::string format(const char* fmt, Args... args) {
    return format_in(100, fmt, args...);
}

}  // namespace

TEST(Format, AgreesWithTheCLibraryWhereBothMeanTheSame) {
    std::mt19937_64 random(20);
    for (int i = 0; i < 4000; ++i) {
        const uint64_t value = random() >> (random() % 64);
        char expected[64];
        for (const char* fmt : {"%u", "%x", "%X", "%08x", "%-12u|", "%012u", "%lu"}) {
            snprintf(expected, sizeof expected, fmt, static_cast<uint32_t>(value));
            ASSERT_EQ(format(fmt, static_cast<uint32_t>(value)), expected) << fmt;
        }
        for (const char* fmt : {"%llu", "%llx", "%30lld", "%-30llu|", "%030llu"}) {
            snprintf(expected, sizeof expected, fmt, value);
            ASSERT_EQ(format(fmt, value), expected) << fmt;
        }
    }
    EXPECT_EQ(format("%llu %llu %llu", 0ull, ~0ull, 1ull << 40),
              "0 18446744073709551615 1099511627776");
}

TEST(Format, TheSignStandsAfterThePaddingAndPrecisionIsAZeroPaddedWidth) {
    EXPECT_EQ(format("%05d %-05d|", -42, -42), "00-42 -42  |");
    EXPECT_EQ(format("%d %lld", INT32_MIN, INT64_MIN), "-2147483648 -9223372036854775808");
    EXPECT_EQ(format("%8.3d", -7), "0-7");
    EXPECT_EQ(format("%-.3d|", 7), "7  |");
}

TEST(Format, TextsPointersAndCharacters) {
    const char* none = nullptr;
    EXPECT_EQ(format("%05s|%-5s|", "ab", "ab"), "   ab|ab   |");
    EXPECT_EQ(format("[%.0s%.s]", "abc", "abc"), "[]");
    EXPECT_EQ(format("%s %.3s", none, none), "(null) (nu");
    // A precision above 0 is the width too, here as for numbers.
    EXPECT_EQ(format("%6.4s", "ab"), "  ab");
    EXPECT_EQ(format("%-20p", 0x1000), "0x00001000");
}

TEST(Format, UnknownAndUnfinishedConversionsAreWrittenAsTheyStand) {
    EXPECT_EQ(format("%y %lq %5k 100%%"), "%y %q %k 100%");
    EXPECT_EQ(format("%0-5d %+d"), "%-5d %+d");
    EXPECT_EQ(format("a%") + format("b%-05.3ll"), "a%b%");
}

TEST(Format, CutsAtTheBufferWhereverTheTextStands) {
    EXPECT_EQ(format_in(8, "%s", "abcdefghij"), "abcdefg");
    EXPECT_EQ(format_in(4, "%10d", -5), "   ");
    EXPECT_EQ(format_in(4, "ab%y"), "ab");
    EXPECT_EQ(format_in(3, "%p", 0x12) + format_in(4, "%p", 0x12), "000x0");
    EXPECT_EQ(format_in(6, "%999999999999d%.999999999999u", 1, 1u), "     ");
}
