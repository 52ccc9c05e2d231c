#include "kernel/core/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace {

std::vector<uint8_t> counting(int n) {
    std::vector<uint8_t> bytes(static_cast<size_t>(n));
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
}

}  // namespace

// A move whose ranges lie apart, or downwards, is the copy.
TEST(Memory, CopiesMovesAndFillsExactlyTheBytesAskedForAtEveryAlignment) {
    for (const int size : {0, 1, 3, 4, 5, 31, 32, 33, 35, 64, 607, 4099})
        for (const int shift : {0, 1, 2, 3, 4, 5, 40}) {
            const auto n = static_cast<size_t>(size);
            const std::vector<uint8_t> from = counting(size + shift);
            std::vector<uint8_t> to = from, expected = from;
            std::copy_backward(from.begin(), from.begin() + size, expected.end());
            EXPECT_EQ(vorn_memmove(to.data() + shift, to.data(), n), to.data() + shift);
            EXPECT_EQ(to, expected) << size << " up by " << shift;
            std::copy(from.begin() + shift, from.end(), (expected = from).begin());
            EXPECT_EQ(vorn_memmove((to = from).data(), to.data() + shift, n), to.data());
            EXPECT_EQ(to, expected) << size << " down by " << shift;
            std::fill_n((expected = from).begin() + shift, size, uint8_t{0xA5});
            EXPECT_EQ(vorn_memset((to = from).data() + shift, 0x7A5, n), to.data() + shift);
            EXPECT_EQ(to, expected) << size << " at " << shift;
        }
}

TEST(Memory, ComparesAsUnsignedAndStopsAtTheLength) {
    for (size_t at = 0; at < 11; ++at) {
        std::vector<uint8_t> a = counting(11), b = a;
        a[10] = 0;  // a later difference of the other sign decides nothing
        a[at] = 0xFF;
        b[at] = 0x01;
        EXPECT_EQ(vorn_memcmp(a.data(), b.data(), 11), 0xFE);
        EXPECT_EQ(vorn_memcmp(a.data(), b.data(), at), 0);
    }
}

TEST(Text, ComparesFindsAndCopiesUpToTheTerminator) {
    EXPECT_EQ(vorn_strcmp("\xff", "a"), 0xff - 'a');
    EXPECT_EQ(vorn_strncmp("a\0x", "a\0y", 3), 0);
    const char* s = "a/b/aac";
    EXPECT_EQ(vorn_strchr(s, '/'), s + 1);
    EXPECT_EQ(vorn_strrchr(s, '/'), s + 3);
    EXPECT_EQ(vorn_strstr(s, "ac"), s + 5);
    EXPECT_EQ(vorn_strstr("aa", "aaa"), nullptr);
    char buf[] = "#######";
    vorn_strncpy(buf, "ab", 5);
    EXPECT_EQ(std::string(buf, 8), std::string("ab\0\0\0##\0", 8));
    vorn_strncpy(buf, "wxyz", 3);
    EXPECT_STREQ(vorn_strcat(buf, "cd"), "wxycd");
    EXPECT_EQ(string_copy(buf, "0123456789", sizeof buf), 7u);
}

TEST(Numbers, LenientParsersTakeWhatTheyCan) {
    EXPECT_EQ(vorn_atoi("  -42x"), -42);
    EXPECT_EQ(vorn_atoi("-2147483648"), INT32_MIN);
    EXPECT_EQ(parse_tick("T+120"), 120u);
    EXPECT_EQ(parse_tick(nullptr) + parse_tick("+T5") + parse_hex("0x"), 0u);
    EXPECT_EQ(parse_hex("0X123456789Ag"), 0x3456789Au);
    for (const char c : {'/', ':', '@', 'G', '`', 'g', '\0', '\xff'})
        EXPECT_EQ(hexval(c), -1);
}

TEST(Numbers, StrictParsersRefuseTheRestAndLeaveTheResultAlone) {
    int number = -2147483647;
    uint32_t count = UINT32_MAX;
    for (const char* bad : {"", "+", "-", " 1", "1 ", "--1", "++1", "4294967296", "42949672950"}) {
        EXPECT_EQ(safe_atoi(bad, &number), -1) << bad;
        EXPECT_EQ(safe_parse_uint(bad, &count), -1) << bad;
    }
    EXPECT_EQ(safe_atoi("2147483648", &number) + safe_atoi("-2147483648", &number), -2);
    EXPECT_EQ(number + INT32_MAX + 0u, ~count) << "left alone";
    EXPECT_EQ(safe_atoi("-2147483647", &number) + safe_parse_uint("+4294967295", &count), 0);
}

TEST(Numbers, WritesEveryBaseAndKeepsItsTables) {
    char buf[34];
    itoa(INT32_MIN, buf, 10);
    EXPECT_STREQ(buf, "-2147483648");
    itoa(-1, buf, 16);
    EXPECT_STREQ(buf, "ffffffff");
    const uint8_t mac[6] = {0x52, 0x54, 0x00, 0x12, 0x34, 0xFE};
    EXPECT_STREQ(format_mac(buf, mac), "52:54:00:12:34:fe");
    uint32_t state = 1;
    EXPECT_EQ(krng(&state), 16838u);
    EXPECT_EQ(state, 1103527590u);
    EXPECT_STREQ(vorn_strerror(12), "timed out");
    EXPECT_STREQ(vorn_strerror(13), "unknown error");
}
