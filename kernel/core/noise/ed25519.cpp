// Ed25519 signatures (RFC 8032, 5.1).
#include "kernel/core/endian.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/noise/edwards25519.h"
#include "kernel/core/noise/secret.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t HALF = 32;
constexpr uint32_t DEAD_STACK_BYTES = 3328;  // the deepest chain below sign, rounded up

/// What a seed stands for.
struct expanded_t {
    uint8_t scalar[HALF];  // clamped
    uint8_t prefix[HALF];  // of the nonce's hash
};
static_assert(sizeof(expanded_t) == SHA512_BYTES);

void expand(expanded_t& out, const uint8_t* seed) {
    sha512(out.scalar, seed, HALF);
    out.scalar[0] &= 248;
    out.scalar[31] &= 127;
    out.scalar[31] |= 64;
}

/// SHA-512 of the bytes, modulo the group order.
ed_scalar_t hash_to_scalar(const uint8_t* in, uint32_t length) {
    wiped<uint8_t[SHA512_BYTES]> digest;
    sha512(*digest, in, length);
    return ed_reduce(*digest);
}

[[gnu::noinline]] void derive_public(uint8_t* pk, const uint8_t* seed) {
    wiped<expanded_t> key;
    wiped<ed_scalar_t> a;
    expand(*key, seed);
    *a = ed_load_scalar(key->scalar);
    ed_pack(pk, ed_scalarbase(*a));
}

/// `buffer` holds 64 bytes to fill, then the message.
[[gnu::noinline]] void sign(uint8_t* sig, uint8_t* buffer, uint32_t mlen, const uint8_t* sk) {
    wiped<expanded_t> key;
    wiped<ed_scalar_t> a, r;
    expand(*key, sk);
    *a = ed_load_scalar(key->scalar);
    memcpy(buffer + HALF, key->prefix, HALF);
    *r = hash_to_scalar(buffer + HALF, mlen + HALF);

    ed_pack(buffer, ed_scalarbase(*r));
    memcpy(buffer + HALF, sk + HALF, HALF);
    const ed_scalar_t k = hash_to_scalar(buffer, mlen + 2 * HALF);
    memcpy(sig, buffer, HALF);
    ed_store_scalar(sig + HALF, ed_mul_add(k, *a, *r));
}

/// A heap buffer of 64 bytes and the message; empty when it is too long or there is no memory.
heap_ptr<uint8_t> make_buffer(const void* m, uint32_t mlen) {
    if (mlen > ED25519_MESSAGE_MAX)
        return {};
    auto buffer = heap_ptr<uint8_t>::make(mlen + 2 * HALF);
    if (buffer && mlen != 0)
        memcpy(buffer.get() + 2 * HALF, m, mlen);
    return buffer;
}

}  // namespace

// What handles secrets stands in functions of its own, so that its whole frame is wiped.

void ed25519_keypair(uint8_t* pk, uint8_t* sk) {
    derive_public(pk, sk);
    memcpy(sk + HALF, pk, HALF);
    wipe_dead_stack<DEAD_STACK_BYTES>();
}

int ed25519_sign(uint8_t* sig, const void* m, uint32_t mlen, const uint8_t* sk) {
    const auto buffer = make_buffer(m, mlen);
    if (!buffer)
        return -1;
    sign(sig, buffer.get(), mlen, sk);
    wipe_dead_stack<DEAD_STACK_BYTES>();
    return 0;
}

int ed25519_verify(const uint8_t* sig, const void* m, uint32_t mlen, const uint8_t* pk) {
    ed_point minus_a;
    if (ed_unpack_negative(minus_a, pk) != 0)
        return -1;
    const auto buffer = make_buffer(m, mlen);
    if (!buffer)
        return -1;
    memcpy(buffer.get(), sig, HALF);
    memcpy(buffer.get() + HALF, pk, HALF);
    const ed_scalar_t k = hash_to_scalar(buffer.get(), mlen + 2 * HALF);
    uint8_t r[HALF];
    // B has order L, so that S may stand reduced.
    std::array<uint32_t, 16> s = {};
    for (size_t i = 0; i < 8; ++i)
        s[i] = load_le32(sig + HALF + 4 * i);
    ed_pack(r, ed_double_scalarmult(ed_modL(s), k, minus_a));
    return crypto_verify_32(r, sig);
}
