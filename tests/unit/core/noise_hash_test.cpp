#include <gtest/gtest.h>

#include "tests/unit/core/noise_vectors.h"

namespace {

TEST(Blake2s, AgreesWithHashlibOverAllBlockEdges) {
    bytes_t outputs;
    for (uint32_t n = 0; n < 300; ++n)
        append(outputs, blake2s_of(pattern(n, n)));
    EXPECT_EQ(hex(blake2s_of(outputs)),
              "6947b0ab7f46d6d89ae2321231cbd53a8008a63d42cf272f848ff756c8c531a8");
}

TEST(Blake2s, AnswersTheStandardAndMayHashInPlace) {
    bytes_t text = {'a', 'b', 'c'};
    text.resize(32);
    blake2s(text.data(), text.data(), 3);
    EXPECT_EQ(hex(text), "508c5e8c327c14e2e1a72ba34eeb452f37458b209ed63a294d999b4c86675982");
    blake2s(text.data(), nullptr, 0);
    EXPECT_EQ(hex(text), "69217a3079908094e11121d042354a7c1f55b6482ca1a51e1b250dfd1ed0eef9");
}

}  // namespace
