// The libraries that the cryptography is measured beside, as 32-bit shared objects: OpenSSL held
// to plain integer code by OPENSSL_ia32cap, and libsodium without sodium_init, which would choose
// vector code. Their operations have the shape of ours; each is empty where the library is absent.
#pragma once

#include <cstdint>
#include <functional>

/// One key and one message for all figures.
struct bench_input_t {
    uint8_t seed[32], point[32], nonce[12];
    uint8_t message[8192];
};

/// The operations of one library; each writes its result into `out`, 4112 bytes.
struct peer_t {
    const char* name;
    std::function<void(uint8_t*out, uint32_t length)> blake2s, sha512;
    std::function<void(uint8_t* out, uint32_t length)> aead;  ///< ciphertext, then tag
    std::function<void(uint8_t*out)> x25519, sign;            ///< sign: 32 bytes of message
    std::function<bool(const uint8_t* signature)> verify;
};

/// Loads OpenSSL's libcrypto (as `library` names it) for `input`, which must stay.
peer_t load_openssl(const char* library, const bench_input_t& input);

/// Loads libsodium.
peer_t load_libsodium(const char* library, const bench_input_t& input);
