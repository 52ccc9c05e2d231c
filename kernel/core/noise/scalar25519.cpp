// Arithmetic modulo the group order: Barrett's reduction in base 2^32.
#include "kernel/core/noise/scalar25519.h"

#include <stddef.h>

#include "kernel/core/endian.h"

namespace {

constexpr size_t WORDS = 8;

// L, and floor(2^512 / L), which has one word more.
constexpr std::array<uint32_t, WORDS + 1> ORDER = {0x5cf5d3ed, 0x5812631a, 0xa2f79cd6,
                                                   0x14def9de, 0x00000000, 0x00000000,
                                                   0x00000000, 0x10000000, 0x00000000};
constexpr std::array<uint32_t, WORDS + 1> RECIPROCAL = {0x0a2c131b, 0xed9ce5a3, 0x086329a7,
                                                        0x2106215d, 0xffffffeb, 0xffffffff,
                                                        0xffffffff, 0xffffffff, 0x0000000f};

/// out = a * b, all N + M words of it.
template <size_t N, size_t M>
void multiply(std::array<uint32_t, N + M>& out, const std::array<uint32_t, N>& a,
              const std::array<uint32_t, M>& b) {
    out = {};
    for (size_t i = 0; i < N; ++i) {
        uint64_t carry = 0;
        for (size_t j = 0; j < M; ++j) {
            carry += static_cast<uint64_t>(a[i]) * b[j] + out[i + j];
            out[i + j] = static_cast<uint32_t>(carry);
            carry >>= 32;
        }
        out[i + M] = static_cast<uint32_t>(carry);
    }
}

using residue_t = std::array<uint32_t, WORDS + 1>;

/// a - b modulo 2^288; `borrow` becomes all ones when b is greater, else 0.
residue_t subtract(const residue_t& a, const residue_t& b, uint32_t& borrow) {
    residue_t r;
    uint64_t difference = 0;
    for (size_t i = 0; i < r.size(); ++i) {
        difference = static_cast<uint64_t>(a[i]) - b[i] - (difference >> 63);
        r[i] = static_cast<uint32_t>(difference);
    }
    borrow = static_cast<uint32_t>(difference >> 32);
    return r;
}

void subtract_order_if_reached(residue_t& r) {
    uint32_t borrow;
    const residue_t less = subtract(r, ORDER, borrow);
    for (size_t i = 0; i < r.size(); ++i)
        r[i] = (r[i] & borrow) | (less[i] & ~borrow);
}

}  // namespace

ed_scalar_t ed_load_scalar(const uint8_t* in) {
    ed_scalar_t scalar;
    for (size_t i = 0; i < WORDS; ++i)
        scalar[i] = load_le32(in + 4 * i);
    return scalar;
}

void ed_store_scalar(uint8_t* out, const ed_scalar_t& scalar) {
    for (size_t i = 0; i < WORDS; ++i)
        store_le32(out + 4 * i, scalar[i]);
}

ed_scalar_t ed_modL(const std::array<uint32_t, 2 * WORDS>& x) {
    // The quotient estimate from the upper nine words is at most two too small.
    residue_t upper, quotient, r;
    std::array<uint32_t, 2 * (WORDS + 1)> product;
    for (size_t i = 0; i < upper.size(); ++i)
        upper[i] = x[WORDS - 1 + i];
    multiply(product, upper, RECIPROCAL);
    for (size_t i = 0; i < quotient.size(); ++i)
        quotient[i] = product[WORDS + 1 + i];

    multiply(product, quotient, ORDER);
    residue_t low, taken;
    for (size_t i = 0; i < low.size(); ++i) {
        low[i] = x[i];
        taken[i] = product[i];
    }
    uint32_t borrow;
    r = subtract(low, taken, borrow);
    subtract_order_if_reached(r);
    subtract_order_if_reached(r);
    ed_scalar_t out;
    for (size_t i = 0; i < WORDS; ++i)
        out[i] = r[i];
    return out;
}

ed_scalar_t ed_reduce(const uint8_t* in) {
    std::array<uint32_t, 2 * WORDS> x;
    for (size_t i = 0; i < x.size(); ++i)
        x[i] = load_le32(in + 4 * i);
    return ed_modL(x);
}

ed_scalar_t ed_mul_add(const ed_scalar_t& a, const ed_scalar_t& b, const ed_scalar_t& c) {
    std::array<uint32_t, 2 * WORDS> x;
    multiply(x, a, b);
    uint64_t carry = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        carry += static_cast<uint64_t>(x[i]) + (i < WORDS ? c[i] : 0);
        x[i] = static_cast<uint32_t>(carry);
        carry >>= 32;
    }
    return ed_modL(x);
}
