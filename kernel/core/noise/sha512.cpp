// SHA-512 (FIPS 180-4).
//
// The sums of rotations work on 32-bit halves with plain shifts: a 64-bit rotation would become
// two double shifts, which many processors execute slowly.
#include <array>

#include "kernel/core/endian.h"
#include "kernel/core/noise/secret.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t BLOCK_BYTES = 128;
constexpr uint32_t LENGTH_BYTES = 16;  // the message length in bits, at the end of the last block
constexpr size_t ROUNDS = 80;
constexpr uint32_t DEAD_STACK_BYTES = 1536;  // compress's frame, rounded up

constexpr std::array<uint64_t, 8> IV = {0x6a09e667f3bcc908, 0xbb67ae8584caa73b, 0x3c6ef372fe94f82b,
                                        0xa54ff53a5f1d36f1, 0x510e527fade682d1, 0x9b05688c2b3e6c1f,
                                        0x1f83d9abfb41bd6b, 0x5be0cd19137e2179};

constexpr uint64_t sha512_k[ROUNDS] = {
    0x428a2f98d728ae22, 0x7137449123ef65cd, 0xb5c0fbcfec4d3b2f, 0xe9b5dba58189dbbc,
    0x3956c25bf348b538, 0x59f111f1b605d019, 0x923f82a4af194f9b, 0xab1c5ed5da6d8118,
    0xd807aa98a3030242, 0x12835b0145706fbe, 0x243185be4ee4b28c, 0x550c7dc3d5ffb4e2,
    0x72be5d74f27b896f, 0x80deb1fe3b1696b1, 0x9bdc06a725c71235, 0xc19bf174cf692694,
    0xe49b69c19ef14ad2, 0xefbe4786384f25e3, 0x0fc19dc68b8cd5b5, 0x240ca1cc77ac9c65,
    0x2de92c6f592b0275, 0x4a7484aa6ea6e483, 0x5cb0a9dcbd41fbd4, 0x76f988da831153b5,
    0x983e5152ee66dfab, 0xa831c66d2db43210, 0xb00327c898fb213f, 0xbf597fc7beef0ee4,
    0xc6e00bf33da88fc2, 0xd5a79147930aa725, 0x06ca6351e003826f, 0x142929670a0e6e70,
    0x27b70a8546d22ffc, 0x2e1b21385c26c926, 0x4d2c6dfc5ac42aed, 0x53380d139d95b3df,
    0x650a73548baf63de, 0x766a0abb3c77b2a8, 0x81c2c92e47edaee6, 0x92722c851482353b,
    0xa2bfe8a14cf10364, 0xa81a664bbc423001, 0xc24b8b70d0f89791, 0xc76c51a30654be30,
    0xd192e819d6ef5218, 0xd69906245565a910, 0xf40e35855771202a, 0x106aa07032bbd1b8,
    0x19a4c116b8d2d0c8, 0x1e376c085141ab53, 0x2748774cdf8eeb99, 0x34b0bcb5e19b48a8,
    0x391c0cb3c5c95a63, 0x4ed8aa4ae3418acb, 0x5b9cca4f7763e373, 0x682e6ff3d6b2b8a3,
    0x748f82ee5defb2fc, 0x78a5636f43172f60, 0x84c87814a1f0ab72, 0x8cc702081a6439ec,
    0x90befffa23631e28, 0xa4506cebde82bde9, 0xbef9a3f7b2c67915, 0xc67178f2e372532b,
    0xca273eceea26619c, 0xd186b8c721c0c207, 0xeada7dd6cde0eb1e, 0xf57d4f7fee6ed178,
    0x06f067aa72176fba, 0x0a637dc5a2c898a6, 0x113f9804bef90dae, 0x1b710b35131c471b,
    0x28db77f523047d84, 0x32caab7b40c72493, 0x3c9ebe0a15c9bebc, 0x431d67c49c100d4c,
    0x4cc5d4becb3e42b6, 0x597f299cfc657e2a, 0x5fcb6fab3ad6faec, 0x6c44198c4a475817,
};

using state_t = std::array<uint64_t, 8>;

constexpr uint32_t low(uint64_t x) { return static_cast<uint32_t>(x); }
constexpr uint32_t high(uint64_t x) { return static_cast<uint32_t>(x >> 32); }
constexpr uint64_t join(uint32_t high, uint32_t low) {
    return static_cast<uint64_t>(high) << 32 | low;
}

// Each half of a XOR of three rotations, or of two and a shift, is two chains: one of the right
// shifts, one of the left shifts.

constexpr uint64_t big_sigma0(uint64_t x) {  // rotations by 28, 34 and 39
    const auto half = [](uint32_t near, uint32_t far) {
        return ((near >> 21 ^ far) >> 5 ^ far) >> 2 ^ ((near << 5 ^ near) << 21 ^ far) << 4;
    };
    return join(half(high(x), low(x)), half(low(x), high(x)));
}

constexpr uint64_t big_sigma1(uint64_t x) {  // rotations by 14, 18 and 41
    const auto half = [](uint32_t near, uint32_t far) {
        return ((near >> 4 ^ near) >> 5 ^ far) >> 9 ^ ((near << 5 ^ far) << 4 ^ far) << 14;
    };
    return join(half(high(x), low(x)), half(low(x), high(x)));
}

constexpr uint64_t small_sigma0(uint64_t x) {  // rotations by 1 and 8, shift by 7
    const uint32_t h = high(x), l = low(x);
    return join(((h >> 1 ^ h) >> 6 ^ h) >> 1 ^ (l << 7 ^ l) << 24,
                ((l >> 1 ^ l) >> 6 ^ l) >> 1 ^ ((h << 6 ^ h) << 1 ^ h) << 24);
}

constexpr uint64_t small_sigma1(uint64_t x) {  // rotations by 19 and 61, shift by 6
    const uint32_t h = high(x), l = low(x);
    return join(((l >> 10 ^ h) >> 13 ^ h) >> 6 ^ (l << 10 ^ h) << 3,
                ((h >> 10 ^ l) >> 13 ^ l) >> 6 ^ ((h << 13 ^ h) << 10 ^ l) << 3);
}

/// The schedule of one block: the message words and what they expand to.
void expand(uint64_t* w, const uint8_t* block) {
    for (size_t t = 0; t < 16; ++t)
        w[t] = load_be64(block + 8 * t);
    for (size_t t = 16; t < ROUNDS; ++t)
        w[t] = small_sigma1(w[t - 2]) + w[t - 7] + small_sigma0(w[t - 15]) + w[t - 16];
}

// The working variables a..h are eight neighbours in memory. A round turns d into the next e where
// it stands and writes the next a before a, so the eight move down by one place without copying.
[[gnu::noinline]] void compress(state_t& state, const uint8_t* block) {
    uint64_t w[ROUNDS];
    uint64_t window[ROUNDS + 8];
    expand(w, block);
    uint64_t* v = window + ROUNDS;
    for (size_t i = 0; i < 8; ++i)
        v[i] = state[i];
    for (size_t t = 0; t < ROUNDS; ++t, --v) {
        const uint64_t sum =
            v[7] + w[t] + sha512_k[t] + (v[6] ^ (v[4] & (v[5] ^ v[6]))) + big_sigma1(v[4]);
        v[3] += sum;
        // Keeps the compiler from holding on to words that no register has room for.
        asm volatile("" ::: "memory");
        v[-1] = sum + big_sigma0(v[0]) + (v[1] ^ ((v[0] ^ v[1]) & (v[1] ^ v[2])));
    }
    for (size_t i = 0; i < 8; ++i)
        state[i] += v[i];
}

}  // namespace

void sha512(uint8_t* out, const void* in, uint32_t inlen) {
    const auto* from = static_cast<const uint8_t*>(in);
    wiped<state_t> state;
    *state = IV;
    uint32_t left = inlen;
    for (; left >= BLOCK_BYTES; left -= BLOCK_BYTES, from += BLOCK_BYTES)
        compress(*state, from);

    uint8_t last[2 * BLOCK_BYTES] = {};
    if (left != 0)
        memcpy(last, from, left);
    last[left] = 0x80;
    const uint32_t padded = left + 1 + LENGTH_BYTES <= BLOCK_BYTES ? BLOCK_BYTES : 2 * BLOCK_BYTES;
    store_be64(last + padded - 8, static_cast<uint64_t>(inlen) * 8);
    compress(*state, last);
    if (padded > BLOCK_BYTES)
        compress(*state, last + BLOCK_BYTES);
    crypto_wipe(last, sizeof last);
    for (size_t i = 0; i < state->size(); ++i)
        store_be64(out + 8 * i, (*state)[i]);
    wipe_dead_stack<DEAD_STACK_BYTES>();
}
