// The ChaCha20-Poly1305 AEAD (RFC 8439, 2.8).
#include "kernel/core/endian.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/noise/secret.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t STACK_MAC_BYTES = 4096;
constexpr uint32_t PAD_TO = 16;
constexpr uint32_t PAYLOAD_COUNTER = 1;

struct text_t {
    const uint8_t* bytes;
    uint32_t length;
};

constexpr uint64_t padded(uint32_t length) {
    return (static_cast<uint64_t>(length) + PAD_TO - 1) / PAD_TO * PAD_TO;
}

/// Copies `text` and its zero padding; returns where they end.
uint8_t* put_padded(uint8_t* to, text_t text) {
    if (text.length != 0)
        memcpy(to, text.bytes, text.length);
    const auto end = static_cast<uint32_t>(padded(text.length));
    memset(to + text.length, 0, end - text.length);
    return to + end;
}

/// Assembles the MAC input in `buffer`, which has room for it, and computes the tag.
void authenticate(uint8_t* tag, uint8_t* buffer, text_t aad, text_t ct, const uint8_t* key,
                  const uint8_t* nonce) {
    wiped<uint8_t[CHACHA20_BLOCK_BYTES]> one_time_key;
    memset(*one_time_key, 0, CHACHA20_BLOCK_BYTES);
    chacha20_encrypt(*one_time_key, *one_time_key, CHACHA20_BLOCK_BYTES, key, 0, nonce);

    uint8_t* end = put_padded(put_padded(buffer, aad), ct);
    store_le64(end, aad.length);
    store_le64(end + 8, ct.length);
    poly1305_mac(tag, buffer, static_cast<uint32_t>(end + 16 - buffer), *one_time_key);
}

[[gnu::noinline]] void authenticate_on_stack(uint8_t* tag, text_t aad, text_t ct,
                                             const uint8_t* key, const uint8_t* nonce) {
    uint8_t buffer[STACK_MAC_BYTES];
    authenticate(tag, buffer, aad, ct, key, nonce);
}

/// The tag over aad and ciphertext. Returns 0, or -1 when there is no memory for the MAC input.
[[nodiscard]] int compute_tag(uint8_t* tag, text_t aad, text_t ct, const uint8_t* key,
                              const uint8_t* nonce) {
    const uint64_t size = padded(aad.length) + padded(ct.length) + 16;
    if (size <= STACK_MAC_BYTES) {
        authenticate_on_stack(tag, aad, ct, key, nonce);
        return 0;
    }
    if (size > HEAP_BYTES)
        return -1;
    const auto buffer = heap_ptr<uint8_t>::make(static_cast<size_t>(size));
    if (!buffer)
        return -1;
    authenticate(tag, buffer.get(), aad, ct, key, nonce);
    return 0;
}

}  // namespace

void chacha20poly1305_encrypt(uint8_t* ct, uint8_t* tag, const uint8_t* pt, uint32_t ptlen,
                              const uint8_t* aad, uint32_t aadlen, const uint8_t* key,
                              const uint8_t* nonce) {
    chacha20_encrypt(ct, pt, ptlen, key, PAYLOAD_COUNTER, nonce);
    if (compute_tag(tag, {aad, aadlen}, {ct, ptlen}, key, nonce) == 0)
        return;
    kprintf("[noise] encrypt: alloc failed\n");
    memset(tag, 0, CRYPTO_TAG_BYTES);
}

int chacha20poly1305_decrypt(uint8_t* pt, const uint8_t* ct, uint32_t ctlen, const uint8_t* tag,
                             const uint8_t* aad, uint32_t aadlen, const uint8_t* key,
                             const uint8_t* nonce) {
    wiped<uint8_t[CRYPTO_TAG_BYTES]> expected;
    if (compute_tag(*expected, {aad, aadlen}, {ct, ctlen}, key, nonce) != 0)
        return -1;
    uint32_t differ = 0;
    for (size_t i = 0; i < CRYPTO_TAG_BYTES; ++i)
        differ |= static_cast<uint32_t>((*expected)[i] ^ tag[i]);
    if (differ != 0)
        return -1;
    chacha20_encrypt(pt, ct, ctlen, key, PAYLOAD_COUNTER, nonce);
    return 0;
}
