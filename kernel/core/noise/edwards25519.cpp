// The group of Ed25519.
//
// Formulas: Hisil, Wong, Carter and Dawson, "Twisted Edwards curves revisited" (2008), 3.1 and 3.3.
// Both end in four factors e, f, g and h with X = ef, Y = gh, Z = fg and T = eh. Where a factor is
// a sum of more than three carried elements it stands on the left of its products.
#include "kernel/core/noise/edwards25519.h"

#include "kernel/core/endian.h"
#include "kernel/core/noise/secret.h"

namespace {

constexpr size_t ROWS = 8;
constexpr size_t MULTIPLES = 8;
constexpr size_t DIGITS = 64;
constexpr size_t DIGITS_PER_ROW = DIGITS / ROWS;
constexpr size_t POINT_WORDS = 3 * 8;  // of a table entry

constexpr uint32_t D_WORDS[] = {0x135978a3, 0x75eb4dca, 0x4141d8ab, 0x00700a4d,
                                0x7779e898, 0x8cc74079, 0x2b6ffe73, 0x52036cee};
constexpr uint32_t D2_WORDS[] = {0x26b2f159, 0xebd69b94, 0x8283b156, 0x00e0149a,
                                 0xeef3d130, 0x198e80f2, 0x56dffce7, 0x2406d9dc};
constexpr uint32_t I_WORDS[] = {0x4a0ea0b0, 0xc4ee1b27, 0xad2fe478, 0x2f431806,
                                0x3dfbd7a7, 0x2b4d0099, 0x4fc1df0b, 0x2b832480};
constexpr gf ED_D = gf_from_words(D_WORDS);
constexpr gf ED_D2 = gf_from_words(D2_WORDS);  // 2d
constexpr gf ED_I = gf_from_words(I_WORDS);    // sqrt(-1)

/// Row r: j * 16^(8r) * B for j = 1..8; written by tools/ed25519_table.py.
constexpr uint32_t BASE_MULTIPLES[ROWS][MULTIPLES][3][8] = {
#include "kernel/core/noise/ed25519_table.inc"
};

/// A point made ready as the second operand of an addition.
struct addend_t {
    gf y_plus_x, y_minus_x, t2d, z2;
};

/// The same of a point with z = 1.
struct affine_t {
    gf y_plus_x, y_minus_x, xy2d;
};

struct factors_t {
    gf e, f, g, h;
};

addend_t make_addend(const ed_point& p) {
    return {gf_add(p.y, p.x), gf_sub(p.y, p.x), gf_mul(p.t, ED_D2), gf_add(p.z, p.z)};
}

/// From (y1-x1)(y2-x2), (y1+x1)(y2+x2), 2d t1 t2 and 2 z1 z2.
factors_t addition_factors(const gf& a, const gf& b, const gf& c, const gf& d) {
    return {gf_sub(b, a), gf_sub(d, c), gf_add(d, c), gf_add(b, a)};
}

factors_t ed_add(const ed_point& p, const addend_t& q) {
    return addition_factors(gf_mul(gf_sub(p.y, p.x), q.y_minus_x),
                            gf_mul(gf_add(p.y, p.x), q.y_plus_x), gf_mul(p.t, q.t2d),
                            gf_mul(p.z, q.z2));
}

factors_t ed_add_affine(const ed_point& p, const affine_t& q) {
    return addition_factors(gf_mul(gf_sub(p.y, p.x), q.y_minus_x),
                            gf_mul(gf_add(p.y, p.x), q.y_plus_x), gf_mul(p.t, q.xy2d),
                            gf_add(p.z, p.z));
}

factors_t ed_double(const ed_point& p) {
    const gf xx = gf_sq(p.x), yy = gf_sq(p.y), zz = gf_sq(p.z);
    const gf h = gf_add(yy, xx), g = gf_sub(yy, xx);
    return {gf_sub(gf_sq(gf_add(p.x, p.y)), h), gf_sub(gf_add(zz, zz), g), g, h};
}

/// Sets X, Y and Z, which are enough before a doubling.
void settle(ed_point& p, const factors_t& from) {
    p.x = gf_mul(from.f, from.e);
    p.y = gf_mul(from.h, from.g);
    p.z = gf_mul(from.f, from.g);
}

void settle_with_t(ed_point& p, const factors_t& from) {
    settle(p, from);
    p.t = gf_mul(from.h, from.e);
}

constexpr ed_point identity() { return {gf_small(0), gf_small(1), gf_small(1), gf_small(0)}; }

using digits_t = std::array<int8_t, DIGITS>;

/// Signed digits in base 16, from -8 to 7; the last one, of a scalar below 2^255, from 0 to 8.
digits_t base16_digits(const ed_scalar_t& scalar) {
    digits_t digits;
    int32_t carry = 0;
    for (size_t i = 0; i < DIGITS; ++i) {
        const int32_t digit = static_cast<int32_t>(scalar[i / 8] >> (4 * (i % 8)) & 15) + carry;
        carry = i + 1 < DIGITS ? (digit + 8) >> 4 : 0;
        digits[i] = static_cast<int8_t>(digit - (carry << 4));
    }
    return digits;
}

void load_affine(affine_t& out, const uint32_t (&words)[3][8]) {
    out.y_plus_x = gf_from_words(words[0]);
    out.y_minus_x = gf_from_words(words[1]);
    out.xy2d = gf_from_words(words[2]);
}

/// Negates when `mask` is all ones.
void negate_affine(affine_t& p, int32_t mask) {
    gf_cswap(p.y_plus_x, p.y_minus_x, mask);
    for (int32_t& limb : p.xy2d.limb)
        limb = (limb ^ mask) - mask;
}

/// digit * 16^(8 * row) * B, |digit| <= 8; reads the whole row whatever the digit is.
void select(affine_t& out, size_t row, int32_t digit) {
    const int32_t negative = digit >> 31;
    const auto wanted = static_cast<uint32_t>((digit ^ negative) - negative);
    uint32_t words[3][8] = {};
    words[0][0] = words[1][0] = (wanted - 1) >> 31;  // the identity for digit 0
    for (uint32_t j = 0; j < MULTIPLES; ++j) {
        const uint32_t differ = wanted ^ (j + 1);
        const uint32_t mask = 0 - ((differ - 1) >> 31);
        const uint32_t* entry = &BASE_MULTIPLES[row][j][0][0];
        for (size_t i = 0; i < POINT_WORDS; ++i)
            words[i / 8][i % 8] |= entry[i] & mask;
    }
    load_affine(out, words);
    negate_affine(out, negative);
}

/// Adds digit * 16^(8 * row) * B in variable time.
void add_multiple(ed_point& p, size_t row, int32_t digit) {
    if (digit == 0)
        return;
    const auto multiple = static_cast<size_t>(digit < 0 ? -digit : digit);
    affine_t q;
    load_affine(q, BASE_MULTIPLES[row][multiple - 1]);
    negate_affine(q, digit < 0 ? -1 : 0);
    settle_with_t(p, ed_add_affine(p, q));
}

constexpr size_t NAF_BITS = 256;
constexpr int NAF_WINDOW = 5;
constexpr size_t ODD_MULTIPLES = 8;  // 1, 3, .. 15

using naf_t = std::array<int8_t, NAF_BITS>;

/// Digits that are 0 or odd in -15..15, at least four zeros after each other one; for a scalar
/// below 2^255.
naf_t non_adjacent_form(const ed_scalar_t& scalar) {
    naf_t naf = {};
    const auto bit = [&scalar](size_t i) {
        return i < NAF_BITS ? static_cast<int32_t>(scalar[i / 32] >> (i % 32) & 1) : 0;
    };
    int32_t carry = 0;
    for (size_t i = 0; i < NAF_BITS;) {
        if (bit(i) == carry) {
            ++i;
            continue;
        }
        int32_t window = carry;
        for (int b = 0; b < NAF_WINDOW; ++b)
            window += bit(i + static_cast<size_t>(b)) << b;
        carry = window >> (NAF_WINDOW - 1);
        naf[i] = static_cast<int8_t>(window - (carry << NAF_WINDOW));
        i += NAF_WINDOW;
    }
    return naf;
}

using odd_multiples_t = std::array<addend_t, ODD_MULTIPLES>;

void make_odd_multiples(odd_multiples_t& out, const ed_point& p) {
    ed_point twice, next = p;
    settle_with_t(twice, ed_double(p));
    const addend_t step = make_addend(twice);
    out[0] = make_addend(p);
    for (size_t i = 1; i < ODD_MULTIPLES; ++i) {
        settle_with_t(next, ed_add(next, step));
        out[i] = make_addend(next);
    }
}

void add_odd_multiple(ed_point& p, const odd_multiples_t& multiples, int32_t digit) {
    const addend_t& q = multiples[static_cast<size_t>(digit < 0 ? -digit : digit) / 2];
    if (digit > 0) {
        settle_with_t(p, ed_add(p, q));
        return;
    }
    const addend_t negative = {q.y_minus_x, q.y_plus_x, gf_sub(gf_0(), q.t2d), q.z2};
    settle_with_t(p, ed_add(p, negative));
}

}  // namespace

void ed_pack(uint8_t* out, const ed_point& p) {
    const gf inverse = gf_inv(p.z);
    gf_pack(out, gf_mul(p.y, inverse));
    out[31] ^= static_cast<uint8_t>(gf_parity(gf_mul(p.x, inverse)) << 7);
}

int ed_unpack_negative(ed_point& out, const uint8_t* in) {
    const int sign = in[31] >> 7;
    out.y = gf_unpack(in);
    uint8_t again[CRYPTO_KEY_BYTES];
    gf_pack(again, out.y);
    again[31] |= static_cast<uint8_t>(sign << 7);
    if (crypto_verify_32(again, in) != 0)
        return -1;

    // x^2 = u / v; the candidate u v^3 (u v^7)^((p-5)/8) is a root of u/v or of -u/v, if any.
    const gf yy = gf_sq(out.y), one = gf_small(1);
    const gf u = gf_sub(yy, one), v = gf_add(gf_mul(yy, ED_D), one);
    const gf v3 = gf_mul(gf_sq(v), v);
    const gf uv7 = gf_mul(gf_mul(gf_sq(v3), v), u);
    out.x = gf_mul(gf_mul(gf_pow_p58(uv7), v3), u);
    const gf vxx = gf_mul(gf_sq(out.x), v);
    if (!gf_is_zero(gf_sub(vxx, u))) {
        if (!gf_is_zero(gf_add(vxx, u)))
            return -1;
        out.x = gf_mul(out.x, ED_I);
    }
    if (gf_is_zero(out.x) && sign != 0)
        return -1;
    if (gf_parity(out.x) == sign)
        out.x = gf_sub(gf_0(), out.x);
    out.z = one;
    out.t = gf_mul(out.x, out.y);
    return 0;
}

ed_point ed_scalarbase(const ed_scalar_t& scalar) {
    wiped<digits_t> digits;
    *digits = base16_digits(scalar);
    ed_point p = identity();
    wiped<affine_t> addend;
    for (size_t column = DIGITS_PER_ROW; column-- > 0;) {
        for (size_t row = 0; row < ROWS; ++row) {
            select(*addend, row, (*digits)[row * DIGITS_PER_ROW + column]);
            settle_with_t(p, ed_add_affine(p, *addend));
        }
        if (column == 0)
            break;
        settle(p, ed_double(p));
        settle(p, ed_double(p));
        settle(p, ed_double(p));
        settle_with_t(p, ed_double(p));
    }
    return p;
}

ed_point ed_double_scalarmult(const ed_scalar_t& s, const ed_scalar_t& k, const ed_point& p) {
    odd_multiples_t multiples;
    make_odd_multiples(multiples, p);
    const naf_t naf = non_adjacent_form(k);
    // The digits of s go in where four more doublings a column are still to come.
    const digits_t digits = base16_digits(s);
    ed_point r = identity();
    for (size_t i = NAF_BITS; i-- > 0;) {
        const bool adds_base = i % 4 == 0 && i / 4 < DIGITS_PER_ROW;
        const factors_t doubled = ed_double(r);
        if (naf[i] == 0 && !adds_base) {
            settle(r, doubled);
            continue;
        }
        settle_with_t(r, doubled);
        if (naf[i] != 0)
            add_odd_multiple(r, multiples, naf[i]);
        if (!adds_base)
            continue;
        for (size_t row = 0; row < ROWS; ++row)
            add_multiple(r, row, digits[row * DIGITS_PER_ROW + i / 4]);
    }
    return r;
}
