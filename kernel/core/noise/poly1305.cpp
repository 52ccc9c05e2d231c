// Poly1305 (RFC 8439, 2.5) with 32-bit limbs.
//
// Clamping clears the top four bits of each word of r and the low two bits of all but the first.
// So products of words stay below 2^60 and a column of five fits 64 bits; and 2^130 = 5 modulo the
// prime folds the upper columns back with whole factors 5/4 * r[i].
#include "kernel/core/endian.h"
#include "kernel/core/noise/secret.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t BLOCK_BYTES = 16;
constexpr uint32_t DEAD_STACK_BYTES = 256;  // absorb's frame, rounded up

struct poly_t {
    uint32_t r[4];
    uint32_t fold[4];  // 5/4 * r[i], for i >= 1
    uint32_t h[5];     // below 2^130 plus a little between blocks
};

constexpr uint64_t mul(uint32_t a, uint32_t b) { return static_cast<uint64_t>(a) * b; }

void set_up(poly_t& p, const uint8_t* key) {
    p = {};
    for (size_t i = 0; i < 4; ++i) {
        p.r[i] = load_le32(key + 4 * i) & (i == 0 ? 0x0FFFFFFF : 0x0FFFFFFC);
        p.fold[i] = p.r[i] + (p.r[i] >> 2);
    }
}

/// h = (h + block + top * 2^128) * r modulo 2^130 - 5, partly reduced, for each whole block.
[[gnu::noinline]] void absorb(poly_t& p, const uint8_t* block, uint32_t blocks, uint32_t top) {
    const uint32_t r0 = p.r[0], r1 = p.r[1], r2 = p.r[2], r3 = p.r[3];
    const uint32_t s1 = p.fold[1], s2 = p.fold[2], s3 = p.fold[3];
    for (; blocks != 0; --blocks, block += BLOCK_BYTES) {
        uint64_t sum = static_cast<uint64_t>(p.h[0]) + load_le32(block);
        const auto h0 = static_cast<uint32_t>(sum);
        sum = (sum >> 32) + p.h[1] + load_le32(block + 4);
        const auto h1 = static_cast<uint32_t>(sum);
        sum = (sum >> 32) + p.h[2] + load_le32(block + 8);
        const auto h2 = static_cast<uint32_t>(sum);
        sum = (sum >> 32) + p.h[3] + load_le32(block + 12);
        const auto h3 = static_cast<uint32_t>(sum);
        const uint32_t h4 = p.h[4] + static_cast<uint32_t>(sum >> 32) + top;

        uint64_t d = mul(h0, r0) + mul(h1, s3) + mul(h2, s2) + mul(h3, s1);
        const auto low = static_cast<uint32_t>(d);
        d = (d >> 32) + mul(h0, r1) + mul(h1, r0) + mul(h2, s3) + mul(h3, s2) + mul(h4, s1);
        p.h[1] = static_cast<uint32_t>(d);
        d = (d >> 32) + mul(h0, r2) + mul(h1, r1) + mul(h2, r0) + mul(h3, s3) + mul(h4, s2);
        p.h[2] = static_cast<uint32_t>(d);
        d = (d >> 32) + mul(h0, r3) + mul(h1, r2) + mul(h2, r1) + mul(h3, r0) + mul(h4, s3);
        p.h[3] = static_cast<uint32_t>(d);
        const uint32_t over = static_cast<uint32_t>(d >> 32) + h4 * r0;

        // Bits from 130 up come back five times.
        d = static_cast<uint64_t>(low) + (over >> 2) + (over & ~3u);
        p.h[0] = static_cast<uint32_t>(d);
        d = (d >> 32) + p.h[1];
        p.h[1] = static_cast<uint32_t>(d);
        p.h[4] = over & 3;
        // A further carry waits in the upper words, which have room for it.
        d = (d >> 32) + p.h[2];
        p.h[2] = static_cast<uint32_t>(d);
        d = (d >> 32) + p.h[3];
        p.h[3] = static_cast<uint32_t>(d);
        p.h[4] += static_cast<uint32_t>(d >> 32);
    }
}

/// tag = (h mod 2^130 - 5) + pad modulo 2^128.
void finish(uint8_t* tag, const poly_t& p, const uint8_t* pad) {
    // h + 5 reaches 2^130 exactly when h is not below the prime.
    uint32_t g[4];
    uint64_t carry = 5;
    for (size_t i = 0; i < 4; ++i) {
        carry += p.h[i];
        g[i] = static_cast<uint32_t>(carry);
        carry >>= 32;
    }
    const uint32_t reduced = 0 - ((p.h[4] + static_cast<uint32_t>(carry)) >> 2 & 1);
    carry = 0;
    for (size_t i = 0; i < 4; ++i) {
        carry +=
            static_cast<uint64_t>((g[i] & reduced) | (p.h[i] & ~reduced)) + load_le32(pad + 4 * i);
        store_le32(tag + 4 * i, static_cast<uint32_t>(carry));
        carry >>= 32;
    }
    crypto_wipe(g, sizeof g);
}

}  // namespace

void poly1305_mac(uint8_t* tag, const void* msg, uint32_t len, const uint8_t* key) {
    const auto* from = static_cast<const uint8_t*>(msg);
    wiped<poly_t> p;
    set_up(*p, key);
    const uint32_t blocks = len / BLOCK_BYTES, rest = len % BLOCK_BYTES;
    absorb(*p, from, blocks, 1);
    if (rest != 0) {
        uint8_t last[BLOCK_BYTES] = {};
        memcpy(last, from + blocks * BLOCK_BYTES, rest);
        last[rest] = 1;
        absorb(*p, last, 1, 0);
        crypto_wipe(last, sizeof last);
    }
    finish(tag, *p, key + BLOCK_BYTES);
    wipe_dead_stack<DEAD_STACK_BYTES>();
}
