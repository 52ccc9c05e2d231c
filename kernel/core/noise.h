// The kernel's cryptography: BLAKE2s, SHA-512, Ed25519, X25519, ChaCha20, Poly1305 and their AEAD.
//
// The primitives keep no state and are re-entrant; they may be called from any context unless they
// say otherwise. Lengths are bytes; keys, nonces, tags and digests are byte strings in the order
// of their standards. What depends on a secret takes the same instructions and addresses whatever
// the secret is, and is wiped from the stack before return. No events are recorded.
//
// Randomness comes from the pool of the random source, a driver, through a hook installed here.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr uint32_t BLAKE2S_BYTES = 32;
constexpr uint32_t SHA512_BYTES = 64;
constexpr uint32_t CHACHA20_BLOCK_BYTES = 64;
constexpr uint32_t CRYPTO_KEY_BYTES = 32;  ///< ChaCha20, Poly1305, X25519 and Ed25519 public keys
constexpr uint32_t CRYPTO_NONCE_BYTES = 12;
constexpr uint32_t CRYPTO_TAG_BYTES = 16;
constexpr uint32_t ED25519_SECRET_BYTES = 64;  ///< seed, then public key
constexpr uint32_t ED25519_SIGNATURE_BYTES = 64;
constexpr uint32_t ED25519_MESSAGE_MAX = 65536;

// --- Helpers ---

/// Compares two 32-byte strings in constant time: 0 when equal, -1 otherwise.
int crypto_verify_32(const uint8_t* x, const uint8_t* y);

/// Zeroes `len` bytes in a way that the compiler keeps, for secrets that go out of use.
void crypto_wipe(void* buf, size_t len);

// --- Hashes ---

/// BLAKE2s-256 without a key (RFC 7693): `out` receives 32 bytes; it may lie inside `in`.
void blake2s(uint8_t* out, const void* in, uint32_t inlen);

/// BLAKE2s-256 of a message that comes in pieces, of less than 2^32 bytes in all.
struct blake2s_t {
    uint32_t state[8];
    uint32_t total;  ///< bytes compressed
    uint32_t held;   ///< bytes of `block` in use
    uint8_t block[64];
};

void blake2s_start(blake2s_t* hash);
void blake2s_add(blake2s_t* hash, const void* in, uint32_t inlen);

/// Writes the 32 bytes of the digest and wipes `hash`.
void blake2s_end(blake2s_t* hash, uint8_t* out);

/// SHA-512 (FIPS 180-4): `out` receives 64 bytes; it may lie inside `in`.
void sha512(uint8_t* out, const void* in, uint32_t inlen);

// --- ChaCha20-Poly1305 (RFC 8439) ---

/// One keystream block (2.3) as 16 words; `key` is 8 words, `nonce` 3, all read little-endian.
void chacha20_block(uint32_t* out, const uint32_t* key, uint32_t counter, const uint32_t* nonce);

/// XORs `len` bytes with the keystream that starts at block `counter` (2.4); 32-byte key, 12-byte
/// nonce. `out` may equal `in`. The counter grows by one a block and wraps at 2^32.
void chacha20_encrypt(uint8_t* out, const uint8_t* in, uint32_t len, const uint8_t* key,
                      uint32_t counter, const uint8_t* nonce);

/// The 16-byte tag of a message under a 32-byte one-time key (2.5).
void poly1305_mac(uint8_t* tag, const void* msg, uint32_t len, const uint8_t* key);

/// Encrypts `ptlen` bytes into `ct` (may equal `pt`) and authenticates them and `aad` (2.8):
/// 16-byte tag, 32-byte key, 12-byte nonce that is used once. The padded MAC input stands on the
/// stack up to 4096 bytes, else in one heap block; when there is no memory for it, prints
/// "[noise] encrypt: alloc failed", leaves `ct` written and sets the tag to zeros. Task context.
void chacha20poly1305_encrypt(uint8_t* ct, uint8_t* tag, const uint8_t* pt, uint32_t ptlen,
                              const uint8_t* aad, uint32_t aadlen, const uint8_t* key,
                              const uint8_t* nonce);

/// Checks the tag in constant time and then decrypts into `pt` (may equal `ct`). Returns 0; or -1
/// with `pt` untouched when the tag is wrong or there is no memory for a long MAC input.
/// Task context.
[[nodiscard]] int chacha20poly1305_decrypt(uint8_t* pt, const uint8_t* ct, uint32_t ctlen,
                                           const uint8_t* tag, const uint8_t* aad, uint32_t aadlen,
                                           const uint8_t* key, const uint8_t* nonce);

// --- Curve25519 ---

/// X25519 (RFC 7748): the 32-byte u-coordinate of scalar * point. The scalar is clamped on a copy,
/// the point's top bit ignored. A point of small order gives zeros.
void curve25519(uint8_t* out, const uint8_t* scalar, const uint8_t* point);

/// X25519 with the base point u = 9: the public key of `priv`.
void curve25519_base(uint8_t* pub, const uint8_t* priv);

/// Derives an Ed25519 key pair (RFC 8032, 5.1.5) from the seed in sk[0..31]: the public key goes
/// to `pk` (32 bytes) and to sk[32..63].
void ed25519_keypair(uint8_t* pk, uint8_t* sk);

/// Signs (RFC 8032, 5.1.6) with a secret key as ed25519_keypair leaves it: `sig` receives R and S,
/// 64 bytes. Returns 0; -1 when `mlen` exceeds ED25519_MESSAGE_MAX or there is no heap memory for
/// mlen + 64 bytes. Task context.
[[nodiscard]] int ed25519_sign(uint8_t* sig, const void* m, uint32_t mlen, const uint8_t* sk);

/// Verifies a signature (RFC 8032, 5.1.7, without cofactor; S is not compared with the group
/// order). Returns 0 when valid; -1 when invalid, when `pk` is no canonical encoding of a curve
/// point, and where ed25519_sign returns -1. Only for public data: its time depends on them.
/// Task context.
[[nodiscard]] int ed25519_verify(const uint8_t* sig, const void* m, uint32_t mlen,
                                 const uint8_t* pk);

// --- Keys from the random pool ---

/// The random source as this module sees it.
struct noise_random_t {
    void (*fill)(void* buf, uint32_t len);  ///< random bytes
    void (*stir)();                         ///< pool rounds whose output is thrown away
    bool has_rdrand;
};

/// Installs the random source; the driver does so at its init.
void noise_set_random(const noise_random_t& source);

/// Fills `buf` with key material from the pool, which is stirred before and after. Stops the
/// machine when no source is installed: there is nothing to make keys from.
void entropy_get(void* buf, uint32_t len);

/// A fresh X25519 key pair: `priv` is 32 bytes from entropy_get, clamped; `pub` its public key.
void noise_generate_keypair(uint8_t* pub, uint8_t* priv);

/// Prints the start-up line, with " (RDRAND available)" where the random source has it.
void noise_init(void);

// --- Self-tests against published answers: 0 on pass, -1 on fail. Task context. ---

int sha512_selftest(void);
int ed25519_selftest(void);
int chacha20_selftest(void);
int poly1305_selftest(void);
int chacha20poly1305_selftest(void);
int blake2s_selftest(void);
int x25519_selftest(void);
