// The group of Ed25519: points of -x^2 + y^2 = 1 + d x^2 y^2 over GF(2^255 - 19), in extended
// coordinates (x = X/Z, y = Y/Z, xy = T/Z), where one addition formula holds for all points.
#pragma once

#include <stdint.h>

#include "kernel/core/noise/field25519.h"
#include "kernel/core/noise/scalar25519.h"

/// A point; the coordinates are carried.
struct ed_point {
    gf x, y, z, t;
};

/// The 32-byte encoding: y, with the low bit of x on top. Constant time.
void ed_pack(uint8_t* out, const ed_point& p);

/// The negative of the encoded point. Returns 0; -1 when `in` is not the canonical encoding of a
/// point (RFC 8032, 5.1.3). Time depends on the input.
[[nodiscard]] int ed_unpack_negative(ed_point& out, const uint8_t* in);

/// scalar * B for the base point B and a scalar below 2^255. Constant time.
ed_point ed_scalarbase(const ed_scalar_t& scalar);

/// s * B + k * p for scalars below 2^255. Time depends on the input.
ed_point ed_double_scalarmult(const ed_scalar_t& s, const ed_scalar_t& k, const ed_point& p);
