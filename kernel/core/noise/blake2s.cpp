// BLAKE2s-256 (RFC 7693), unkeyed.
#include <array>

#include <bit>

#include "kernel/core/endian.h"
#include "kernel/core/noise/secret.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t BLOCK_BYTES = 64;
constexpr uint32_t LAST_BLOCK = 0xFFFFFFFF;
constexpr uint32_t DEAD_STACK_BYTES = 384;  // the frames of compress and its caller, rounded up

// Digest length 32, no key, fanout and depth 1: the only parameter word that is not zero.
constexpr uint32_t PARAMETERS = 0x01010020;

constexpr std::array<uint32_t, 8> IV = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                                        0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};

constexpr uint8_t blake2s_sigma[10][16] = {
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
    {14, 10, 4, 8, 9, 15, 13, 6, 1, 12, 0, 2, 11, 7, 5, 3},
    {11, 8, 12, 0, 5, 2, 15, 13, 10, 14, 3, 6, 7, 1, 9, 4},
    {7, 9, 3, 1, 13, 12, 11, 14, 2, 6, 5, 10, 4, 0, 15, 8},
    {9, 0, 5, 7, 2, 4, 10, 15, 14, 1, 11, 12, 6, 8, 3, 13},
    {2, 12, 6, 10, 0, 11, 8, 3, 4, 13, 7, 5, 15, 14, 1, 9},
    {12, 5, 1, 15, 14, 13, 4, 10, 0, 7, 6, 3, 9, 2, 8, 11},
    {13, 11, 7, 14, 12, 1, 3, 9, 5, 0, 15, 4, 8, 6, 2, 10},
    {6, 15, 14, 9, 11, 3, 0, 8, 12, 2, 13, 7, 1, 4, 10, 5},
    {10, 2, 8, 4, 7, 6, 1, 5, 15, 11, 9, 14, 3, 12, 13, 0},
};

using work_t = std::array<uint32_t, 16>;

/// The quarter round G on words a, b, c, d of `v` with two message words.
template <size_t A, size_t B, size_t C, size_t D>
[[gnu::always_inline]] inline void mix(work_t& v, uint32_t x, uint32_t y) {
    v[A] += v[B] + x;
    v[D] = std::rotr(v[D] ^ v[A], 16);
    v[C] += v[D];
    v[B] = std::rotr(v[B] ^ v[C], 12);
    v[A] += v[B] + y;
    v[D] = std::rotr(v[D] ^ v[A], 8);
    v[C] += v[D];
    v[B] = std::rotr(v[B] ^ v[C], 7);
}

template <size_t ROUND>
[[gnu::always_inline]] inline void round(work_t& v, const uint8_t* block) {
    constexpr const uint8_t* s = blake2s_sigma[ROUND];
    const auto m = [block](uint8_t word) { return load_le32(block + 4 * word); };
    mix<0, 4, 8, 12>(v, m(s[0]), m(s[1]));
    mix<1, 5, 9, 13>(v, m(s[2]), m(s[3]));
    mix<2, 6, 10, 14>(v, m(s[4]), m(s[5]));
    mix<3, 7, 11, 15>(v, m(s[6]), m(s[7]));
    mix<0, 5, 10, 15>(v, m(s[8]), m(s[9]));
    mix<1, 6, 11, 12>(v, m(s[10]), m(s[11]));
    mix<2, 7, 8, 13>(v, m(s[12]), m(s[13]));
    mix<3, 4, 9, 14>(v, m(s[14]), m(s[15]));
}

/// The compression function F; `total` is the number of message bytes up to the block's end. The
/// high word of the counter stays zero, because a length has 32 bits.
[[gnu::noinline]] void compress(uint32_t* h, const uint8_t* block, uint32_t total, uint32_t last) {
    work_t v;
    for (size_t i = 0; i < 8; ++i) {
        v[i] = h[i];
        v[i + 8] = IV[i];
    }
    v[12] ^= total;
    v[14] ^= last;
    round<0>(v, block);
    round<1>(v, block);
    round<2>(v, block);
    round<3>(v, block);
    round<4>(v, block);
    round<5>(v, block);
    round<6>(v, block);
    round<7>(v, block);
    round<8>(v, block);
    round<9>(v, block);
    for (size_t i = 0; i < 8; ++i)
        h[i] ^= v[i] ^ v[i + 8];
}

}  // namespace

void blake2s_start(blake2s_t* hash) {
    *hash = {};
    for (size_t i = 0; i < IV.size(); ++i)
        hash->state[i] = IV[i];
    hash->state[0] ^= PARAMETERS;
}

void blake2s_add(blake2s_t* hash, const void* in, uint32_t inlen) {
    const auto* from = static_cast<const uint8_t*>(in);
    // The last block is compressed as such: a full one waits until more follows.
    while (inlen > 0) {
        if (hash->held == BLOCK_BYTES) {
            hash->total += BLOCK_BYTES;
            compress(hash->state, hash->block, hash->total, 0);
            hash->held = 0;
        }
        if (hash->held == 0 && inlen > BLOCK_BYTES) {
            hash->total += BLOCK_BYTES;
            compress(hash->state, from, hash->total, 0);
            from += BLOCK_BYTES;
            inlen -= BLOCK_BYTES;
            continue;
        }
        const uint32_t room = BLOCK_BYTES - hash->held;
        const uint32_t piece = inlen < room ? inlen : room;
        memcpy(hash->block + hash->held, from, piece);
        hash->held += piece;
        from += piece;
        inlen -= piece;
    }
}

void blake2s_end(blake2s_t* hash, uint8_t* out) {
    memset(hash->block + hash->held, 0, BLOCK_BYTES - hash->held);
    compress(hash->state, hash->block, hash->total + hash->held, LAST_BLOCK);
    for (size_t i = 0; i < IV.size(); ++i)
        store_le32(out + 4 * i, hash->state[i]);
    crypto_wipe(hash, sizeof *hash);
    wipe_dead_stack<DEAD_STACK_BYTES>();
}

void blake2s(uint8_t* out, const void* in, uint32_t inlen) {
    blake2s_t hash;
    blake2s_start(&hash);
    blake2s_add(&hash, in, inlen);
    blake2s_end(&hash, out);
}
