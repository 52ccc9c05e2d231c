// Arithmetic modulo L = 2^252 + 27742317777372353535851937790883648493, the order of the Ed25519
// base point. Scalars are eight 32-bit words, little end first. Constant time.
#pragma once

#include <stdint.h>

#include <array>

using ed_scalar_t = std::array<uint32_t, 8>;

/// The number of 32 little-endian bytes as it stands.
ed_scalar_t ed_load_scalar(const uint8_t* in);

/// Its 32 bytes.
void ed_store_scalar(uint8_t* out, const ed_scalar_t& scalar);

/// A number below 2^512, as 16 words, modulo L.
ed_scalar_t ed_modL(const std::array<uint32_t, 16>& x);

/// The number of 64 little-endian bytes modulo L.
ed_scalar_t ed_reduce(const uint8_t* in);

/// (a * b + c) modulo L, for any 256-bit a, b and c.
ed_scalar_t ed_mul_add(const ed_scalar_t& a, const ed_scalar_t& b, const ed_scalar_t& c);
