#include "kernel/core/ring.h"

#include <gtest/gtest.h>

#include "kernel/core/endian.h"

TEST(Ring, HoldsOneLessThanItsSlotsAndDropsTheNewest) {
    ring_t<uint8_t, 8> ring = {};
    uint8_t item = 99;
    for (uint8_t start = 0; start < 20; ++start) {  // so that the full ring lies at every offset
        for (uint8_t i = 0; i < 8; ++i)
            EXPECT_EQ(ring.push(static_cast<uint8_t>(start + i)), i < 7);
        EXPECT_EQ(ring.count(), 7u);
        for (uint8_t i = 0; i < 8; ++i) {
            EXPECT_EQ(ring.pop(&item), i < 7);
            EXPECT_EQ(item, start + std::min<int>(i, 6));
        }
    }
}

TEST(Endian, FieldsReadAndWriteInTheirOrderAtAnyAddress) {
    uint8_t bytes[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(load_be64(bytes + 1), 0x0102030405060708u);
    be16_t port;
    port = 0x1234;
    EXPECT_EQ(port.bytes[0], 0x12);
    EXPECT_EQ(port, 0x1234);
}
