// Arithmetic in GF(2^255 - 19): powers, and encodings in 32 bytes.
#include "kernel/core/noise/field25519.h"

#include "kernel/core/endian.h"
#include "kernel/core/noise/field25519_product.h"

namespace {

struct chain_t {
    gf x11;    // f^11
    gf x_250;  // f^(2^250 - 1)
};

/// The common part of the two long powers. A name x_n stands for f^(2^n - 1).
chain_t power_chain(const gf& f) {
    const gf x2 = gf_sq(f);
    const gf x9 = gf_mul(gf_sq_n(x2, 2), f);
    const gf x11 = gf_mul(x9, x2);
    const gf x_5 = gf_mul(gf_sq(x11), x9);
    const gf x_10 = gf_mul(gf_sq_n(x_5, 5), x_5);
    const gf x_20 = gf_mul(gf_sq_n(x_10, 10), x_10);
    const gf x_40 = gf_mul(gf_sq_n(x_20, 20), x_20);
    const gf x_50 = gf_mul(gf_sq_n(x_40, 10), x_10);
    const gf x_100 = gf_mul(gf_sq_n(x_50, 50), x_50);
    const gf x_200 = gf_mul(gf_sq_n(x_100, 100), x_100);
    return {x11, gf_mul(gf_sq_n(x_200, 50), x_50)};
}

/// Carries with floors from limb `from` up; returns what leaves limb 9.
int32_t carry_up(gf& r) {
    int32_t carry = 0;
    for (size_t i = 0; i < GF_LIMBS; ++i) {
        const int32_t sum = r.limb[i] + carry;
        carry = sum >> gf_width(i);
        r.limb[i] = sum & ((1 << gf_width(i)) - 1);
    }
    return carry;
}

/// The representative in [0, p), with limbs of 26 and 25 bits.
gf canonical(const gf& f) {
    gf r = f;
    // After the first pass the value is above -2^12 or below 2^255 + 2^12, after the third in
    // [0, 2^255).
    for (int pass = 0; pass < 3; ++pass)
        r.limb[0] += 19 * carry_up(r);
    // r + 19 reaches 2^255 exactly when r is not below p.
    gf above = r;
    above.limb[0] += 19;
    r.limb[0] += 19 * carry_up(above);
    carry_up(r);
    return r;
}

}  // namespace

gf gf_mul(const gf& f, const gf& g) { return gf_mul_inline(f, g); }

gf gf_sq(const gf& f) { return gf_sq_inline(f); }

gf gf_sq_n(const gf& f, int n) {
    gf r = gf_sq(f);
    for (int i = 1; i < n; ++i)
        r = gf_sq(r);
    return r;
}

gf gf_inv(const gf& f) {
    const chain_t chain = power_chain(f);
    return gf_mul(gf_sq_n(chain.x_250, 5), chain.x11);  // 2^255 - 21
}

gf gf_pow_p58(const gf& f) {
    return gf_mul(gf_sq_n(power_chain(f).x_250, 2), f);  // 2^252 - 3
}

void gf_pack(uint8_t* out, const gf& f) {
    const gf r = canonical(f);
    uint64_t acc = 0;
    size_t bits = 0;
    for (size_t i = 0; i < GF_LIMBS; ++i) {
        acc |= static_cast<uint64_t>(static_cast<uint32_t>(r.limb[i])) << bits;
        bits += gf_width(i);
        if (bits < 32)
            continue;
        store_le32(out, static_cast<uint32_t>(acc));
        out += 4;
        acc >>= 32;
        bits -= 32;
    }
    store_le32(out, static_cast<uint32_t>(acc));
}

gf gf_unpack(const uint8_t* in) {
    std::array<uint32_t, 8> words;
    for (size_t i = 0; i < words.size(); ++i)
        words[i] = load_le32(in + 4 * i);
    return gf_from_words(words.data());
}

int gf_is_zero(const gf& f) {
    const gf r = canonical(f);
    int32_t any = 0;
    for (const int32_t limb : r.limb)
        any |= limb;
    return static_cast<int>((static_cast<uint32_t>(any) - 1) >> 31);
}

int gf_parity(const gf& f) { return canonical(f).limb[0] & 1; }
