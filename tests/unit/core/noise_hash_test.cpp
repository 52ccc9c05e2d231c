#include <gtest/gtest.h>

#include "tests/unit/core/noise_vectors.h"

namespace {

TEST(Hashes, AgreeWithHashlibOverAllBlockEdges) {
    bytes_t small, large;
    for (uint32_t n = 0; n < 300; ++n) {
        const bytes_t in = pattern(n, n);
        append(small, blake2s_of(in));
        bytes_t digest(SHA512_BYTES);
        sha512(digest.data(), in.data(), n);
        append(large, digest);
    }
    EXPECT_EQ(over(small), "6947b0ab7f46d6d89ae2321231cbd53a8008a63d42cf272f848ff756c8c531a8");
    EXPECT_EQ(over(large), "3ef2d03a070ef9c8316a4a2a5dff2d7dc2d799176daf8958badd4311026626a4");
}

TEST(Hashes, OfPiecesAndInPlaceAreThoseOfTheWhole) {
    bytes_t in = pattern(7, 300);
    const std::string whole = hex(blake2s_of(in));
    for (uint32_t piece : {1u, 63u, 64u, 65u, 128u, 299u}) {
        blake2s_t hash;
        blake2s_start(&hash);
        for (uint32_t at = 0; at < in.size(); at += piece)
            blake2s_add(&hash, &in[at], std::min(piece, static_cast<uint32_t>(in.size()) - at));
        bytes_t digest(BLAKE2S_BYTES);
        blake2s_end(&hash, digest.data());
        EXPECT_EQ(hex(digest), whole) << piece;
    }
    blake2s(in.data(), in.data(), 300);
    EXPECT_EQ(hex(in.data(), BLAKE2S_BYTES), whole);
}

TEST(Helpers, ComparisonSeesEveryBitAndNothingElse) {
    const bytes_t x = pattern(1, 32);
    EXPECT_EQ(crypto_verify_32(x.data(), x.data()), 0);
    for (uint32_t bit = 0; bit < 256; ++bit) {
        bytes_t y = x;
        y[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        EXPECT_EQ(crypto_verify_32(x.data(), y.data()), -1) << bit;
    }
}

}  // namespace
