// The product and the square in GF(2^255 - 19), for inlining where every call counts; gf_mul and
// gf_sq are the same behind a call.
//
// A product is summed column by column, low end first, in one 64-bit accumulator. Limbs i and j
// meet in column i + j, doubled when both are odd because the odd limbs stand half a bit high;
// columns from 10 up come back 19 times, since 2^255 = 19.
#pragma once

#include <utility>

#include "kernel/core/noise/field25519.h"

namespace gf_product {

inline constexpr auto ALL_LIMBS = std::make_index_sequence<GF_LIMBS>();

constexpr int64_t wide(int32_t a, int32_t b) { return static_cast<int64_t>(a) * b; }

/// Takes limb K off the accumulator and leaves the carry: even limbs rounded to the nearest, odd
/// ones, which have a bit more room, with a floor.
template <size_t K>
[[gnu::always_inline]] inline int32_t take(int64_t& acc) {
    constexpr size_t BITS = gf_width(K);
    const auto low = static_cast<uint32_t>(acc);
    if constexpr (K % 2 == 1) {
        acc >>= BITS;
        return static_cast<int32_t>(low & ((1u << BITS) - 1));
    } else {
        acc = (acc + (1 << (BITS - 1))) >> BITS;
        return static_cast<int32_t>(low - (static_cast<uint32_t>(acc) << BITS));
    }
}

/// Brings the carry out of limb 9 back to limb 0.
[[gnu::always_inline]] inline void wrap(gf& r, int64_t acc) {
    acc = acc * 19 + r.limb[0];
    r.limb[0] = take<0>(acc);
    r.limb[1] += static_cast<int32_t>(acc);
}

struct factors_t {
    const int32_t *f, *f2;   // and doubled
    const int32_t *g, *g19;  // and 19 times
};

template <size_t K, size_t I>
[[gnu::always_inline]] inline int64_t term(const factors_t& x) {
    constexpr size_t J = (K + GF_LIMBS - I) % GF_LIMBS;
    constexpr bool BOTH_ODD = I % 2 == 1 && J % 2 == 1;
    return wide(BOTH_ODD ? x.f2[I] : x.f[I], I > K ? x.g19[J] : x.g[J]);
}

template <size_t K, size_t... I>
[[gnu::always_inline]] inline int64_t column(const factors_t& x, std::index_sequence<I...>) {
    return (term<K, I>(x) + ...);
}

template <size_t... K>
[[gnu::always_inline]] inline gf product(const factors_t& x, std::index_sequence<K...>) {
    gf r;
    int64_t acc = 0;
    ((acc += column<K>(x, ALL_LIMBS), r.limb[K] = take<K>(acc)), ...);
    wrap(r, acc);
    return r;
}

struct powers_t {
    const int32_t *f, *f2, *f4;  // and twice, and four times
    const int32_t* f19;          // 19 times, for the limbs from 5 up
};

/// The pair of limbs I <= J of column K in a square: counted twice unless I = J.
template <size_t K, size_t I>
[[gnu::always_inline]] inline int64_t square_term(const powers_t& x) {
    constexpr size_t J = (K + GF_LIMBS - I) % GF_LIMBS;
    constexpr bool BOTH_ODD = I % 2 == 1 && J % 2 == 1;
    constexpr bool WRAPS = I + J >= GF_LIMBS;
    constexpr int TIMES = (I == J ? 1 : 2) * (BOTH_ODD ? 2 : 1);
    if constexpr (I > J)
        return 0;
    else
        return wide((TIMES == 1 ? x.f : TIMES == 2 ? x.f2 : x.f4)[I], WRAPS ? x.f19[J] : x.f[J]);
}

template <size_t K, size_t... I>
[[gnu::always_inline]] inline int64_t square_column(const powers_t& x, std::index_sequence<I...>) {
    return (square_term<K, I>(x) + ...);
}

template <size_t... K>
[[gnu::always_inline]] inline gf square(const powers_t& x, std::index_sequence<K...>) {
    gf r;
    int64_t acc = 0;
    ((acc += square_column<K>(x, ALL_LIMBS), r.limb[K] = take<K>(acc)), ...);
    wrap(r, acc);
    return r;
}

template <size_t... K>
[[gnu::always_inline]] inline gf scaled(const gf& f, int32_t n, std::index_sequence<K...>) {
    gf r;
    int64_t acc = 0;
    ((acc += wide(f.limb[K], n), r.limb[K] = take<K>(acc)), ...);
    wrap(r, acc);
    return r;
}

}  // namespace gf_product

[[gnu::always_inline]] inline gf gf_mul_inline(const gf& f, const gf& g) {
    std::array<int32_t, GF_LIMBS> f2, g19;
    for (size_t i = 1; i < GF_LIMBS; ++i) {
        f2[i] = 2 * f.limb[i];
        g19[i] = 19 * g.limb[i];
    }
    return gf_product::product({f.limb.data(), f2.data(), g.limb.data(), g19.data()},
                               gf_product::ALL_LIMBS);
}

[[gnu::always_inline]] inline gf gf_sq_inline(const gf& f) {
    std::array<int32_t, GF_LIMBS> f2, f4, f19;
    for (size_t i = 0; i < GF_LIMBS; ++i) {
        f2[i] = 2 * f.limb[i];
        f4[i] = 4 * f.limb[i];
    }
    for (size_t i = GF_LIMBS / 2; i < GF_LIMBS; ++i)
        f19[i] = 19 * f.limb[i];
    return gf_product::square({f.limb.data(), f2.data(), f4.data(), f19.data()},
                              gf_product::ALL_LIMBS);
}

/// f * n for 0 <= n < 2^18.
[[gnu::always_inline]] inline gf gf_mul_small(const gf& f, int32_t n) {
    return gf_product::scaled(f, n, gf_product::ALL_LIMBS);
}
