// Arithmetic in GF(2^255 - 19).
//
// An element is ten signed limbs of 26 and 25 bits in turn; limb i stands at bit ceil(25.5 * i).
// Products are carried: even limbs within 1.1 * 2^25 of 0, odd ones in [0, 2^25]. Sums and
// differences are not, so the operands of a product have a limit: a sum of at most three carried
// elements on the right side or under a square (19 times a limb has to fit 32 bits), of at most six
// on the left side. Nothing here branches or indexes on a value.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>

constexpr size_t GF_LIMBS = 10;

struct gf {
    std::array<int32_t, GF_LIMBS> limb;
};

/// Bits of limb `i`, and the bit it stands at.
constexpr size_t gf_width(size_t i) { return i % 2 == 0 ? 26 : 25; }
constexpr size_t gf_offset(size_t i) { return (51 * i + 1) / 2; }

/// The small constant `n` as an element.
constexpr gf gf_small(int32_t n) { return {{n}}; }

inline gf gf_0() { return gf_small(0); }

inline gf gf_add(const gf& a, const gf& b) {
    gf r;
    for (size_t i = 0; i < GF_LIMBS; ++i)
        r.limb[i] = a.limb[i] + b.limb[i];
    return r;
}

inline gf gf_sub(const gf& a, const gf& b) {
    gf r;
    for (size_t i = 0; i < GF_LIMBS; ++i)
        r.limb[i] = a.limb[i] - b.limb[i];
    return r;
}

/// Swaps `a` and `b` when `mask` is all ones, leaves them when it is 0.
inline void gf_cswap(gf& a, gf& b, int32_t mask) {
    for (size_t i = 0; i < GF_LIMBS; ++i) {
        const int32_t differ = mask & (a.limb[i] ^ b.limb[i]);
        a.limb[i] ^= differ;
        b.limb[i] ^= differ;
    }
}

/// The element of 255 bits in eight words, little end first; the top bit is ignored.
constexpr gf gf_from_words(const uint32_t* words) {
    gf r = {};
    for (size_t i = 0; i < GF_LIMBS; ++i) {
        const size_t word = gf_offset(i) / 32, shift = gf_offset(i) % 32;
        uint32_t bits = words[word] >> shift;
        if (shift + gf_width(i) > 32)
            bits |= words[word + 1] << (32 - shift);
        r.limb[i] = static_cast<int32_t>(bits & ((1u << gf_width(i)) - 1));
    }
    return r;
}

gf gf_mul(const gf& f, const gf& g);
gf gf_sq(const gf& f);
/// `n` successive squarings, n >= 1.
gf gf_sq_n(const gf& f, int n);
/// 1 / f; 0 for 0.
gf gf_inv(const gf& f);
/// f to the power (p - 5) / 8, for square roots.
gf gf_pow_p58(const gf& f);

/// The 32-byte little-endian encoding of the one representative below p.
void gf_pack(uint8_t* out, const gf& f);
/// The element of 32 bytes, top bit ignored; a value from p up is taken modulo p.
gf gf_unpack(const uint8_t* in);
/// 1 if f is 0 modulo p, else 0.
int gf_is_zero(const gf& f);
/// Bit 0 of the packed form.
int gf_parity(const gf& f);
