// X25519 (RFC 7748): the Montgomery ladder on curve25519.
#include "kernel/core/noise/field25519_product.h"
#include "kernel/core/noise/secret.h"
#include "kernel/core/string.h"

namespace {

constexpr int32_t A24 = 121665;              // (486662 - 2) / 4
constexpr uint32_t DEAD_STACK_BYTES = 2304;  // ladder with the inversion below it, rounded up
constexpr uint8_t basepoint[CRYPTO_KEY_BYTES] = {9};

/// The point (x : z) that the ladder carries, and the one that is ahead of it by the input point.
struct ladder_t {
    gf x2, z2, x3, z3;
};

/// Doubles the first point and adds it to the second; `x1` is their difference.
void ladder_step(ladder_t& p, const gf& x1) {
    const gf a = gf_add(p.x2, p.z2), b = gf_sub(p.x2, p.z2);
    const gf c = gf_add(p.x3, p.z3), d = gf_sub(p.x3, p.z3);
    const gf aa = gf_sq_inline(a), bb = gf_sq_inline(b);
    const gf da = gf_mul_inline(d, a), cb = gf_mul_inline(c, b);
    const gf e = gf_sub(aa, bb);
    p.x3 = gf_sq_inline(gf_add(da, cb));
    p.z3 = gf_mul_inline(x1, gf_sq_inline(gf_sub(da, cb)));
    p.x2 = gf_mul_inline(aa, bb);
    p.z2 = gf_mul_inline(e, gf_add(aa, gf_mul_small(e, A24)));
}

[[gnu::noinline]] void ladder(uint8_t* out, const uint8_t* clamped, const uint8_t* point) {
    const gf x1 = gf_unpack(point);
    ladder_t p = {gf_small(1), gf_small(0), x1, gf_small(1)};
    int32_t swapped = 0;
    for (int i = 254; i >= 0; --i) {
        const int32_t bit = clamped[i / 8] >> (i % 8) & 1;
        gf_cswap(p.x2, p.x3, -(swapped ^ bit));
        gf_cswap(p.z2, p.z3, -(swapped ^ bit));
        swapped = bit;
        ladder_step(p, x1);
    }
    gf_cswap(p.x2, p.x3, -swapped);
    gf_cswap(p.z2, p.z3, -swapped);
    gf_pack(out, gf_mul(p.x2, gf_inv(p.z2)));
}

}  // namespace

void curve25519(uint8_t* out, const uint8_t* scalar, const uint8_t* point) {
    wiped<uint8_t[CRYPTO_KEY_BYTES]> clamped;
    memcpy(*clamped, scalar, CRYPTO_KEY_BYTES);
    (*clamped)[0] &= 248;
    (*clamped)[31] &= 127;
    (*clamped)[31] |= 64;
    ladder(out, *clamped, point);
    wipe_dead_stack<DEAD_STACK_BYTES>();
}

void curve25519_base(uint8_t* pub, const uint8_t* priv) { curve25519(pub, priv, basepoint); }
