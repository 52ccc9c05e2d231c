#include <gtest/gtest.h>

#include "kernel/core/noise/field25519.h"
#include "tests/unit/core/noise_vectors.h"

namespace {

std::string packed(const gf& f) {
    uint8_t out[32];
    gf_pack(out, f);
    return hex(out, sizeof out);
}

gf times(const gf& f, int n) {
    gf sum = f;
    for (int i = 1; i < n; ++i)
        sum = gf_add(sum, f);
    return sum;
}

TEST(Field25519, PackingReducesFullyAtBothEnds) {
    const std::string middle(60, 'f'), zeros(62, '0');
    bytes_t prime(32, 0xFF);
    prime[31] = 0x7F;
    for (int above = 0; above < 19; ++above) {
        prime[0] = static_cast<uint8_t>(0xED + above);
        const bytes_t low = {static_cast<uint8_t>(above)};
        EXPECT_EQ(packed(gf_unpack(prime.data())), hex(low) + zeros);
    }
    EXPECT_EQ(packed(gf_small(-1)), "ec" + middle + "7f");
    gf all_of_it = gf_0();
    all_of_it.limb[9] = -(1 << 25);  // -2^255
    EXPECT_EQ(packed(all_of_it), "da" + middle + "7f");
}

// The sanitizer sees a sum that leaves its 64 bits.
TEST(Field25519, ProductsHoldUpToTheOperandsLimits) {
    for (const int sign : {1, -1}) {
        gf most;
        for (size_t i = 0; i < GF_LIMBS; ++i)
            most.limb[i] = i % 2 == 0 ? sign * (11 << 25) / 10 : 1 << 25;
        const gf carried = gf_mul(most, gf_small(1));
        const std::string eighteen = packed(times(gf_sq(carried), 18));
        EXPECT_EQ(packed(gf_mul(times(most, 6), times(most, 3))), eighteen);
        EXPECT_EQ(packed(times(gf_sq(times(most, 3)), 2)), eighteen);
    }
}

}  // namespace
