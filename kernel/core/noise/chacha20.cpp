// The ChaCha20 block function and stream cipher (RFC 8439, 2.3 and 2.4).
#include <array>
#include <bit>

#include "kernel/core/endian.h"
#include "kernel/core/noise/secret.h"
#include "kernel/core/string.h"

namespace {

constexpr size_t WORDS = 16;
constexpr size_t COUNTER = 12;  // its place in the state
constexpr int DOUBLE_ROUNDS = 10;
constexpr uint32_t DEAD_STACK_BYTES = 256;  // core's frame, rounded up

using state_t = std::array<uint32_t, WORDS>;

template <size_t A, size_t B, size_t C, size_t D>
[[gnu::always_inline]] inline void quarter_round(state_t& x) {
    x[A] += x[B];
    x[D] = std::rotl(x[D] ^ x[A], 16);
    x[C] += x[D];
    x[B] = std::rotl(x[B] ^ x[C], 12);
    x[A] += x[B];
    x[D] = std::rotl(x[D] ^ x[A], 8);
    x[C] += x[D];
    x[B] = std::rotl(x[B] ^ x[C], 7);
}

[[gnu::noinline]] void core(uint32_t* out, const state_t& in) {
    state_t x = in;
    for (int i = 0; i < DOUBLE_ROUNDS; ++i) {
        quarter_round<0, 4, 8, 12>(x);
        quarter_round<1, 5, 9, 13>(x);
        quarter_round<2, 6, 10, 14>(x);
        quarter_round<3, 7, 11, 15>(x);
        quarter_round<0, 5, 10, 15>(x);
        quarter_round<1, 6, 11, 12>(x);
        quarter_round<2, 7, 8, 13>(x);
        quarter_round<3, 4, 9, 14>(x);
    }
    for (size_t i = 0; i < WORDS; ++i)
        out[i] = x[i] + in[i];
}

/// `key` and `nonce` are read as little-endian words.
void set_up(state_t& state, const void* key, uint32_t counter, const void* nonce) {
    state = {0x61707865, 0x3320646e, 0x79622d32, 0x6b206574};  // "expand 32-byte k"
    memcpy(&state[4], key, CRYPTO_KEY_BYTES);
    state[COUNTER] = counter;
    memcpy(&state[COUNTER + 1], nonce, CRYPTO_NONCE_BYTES);
}

}  // namespace

void chacha20_block(uint32_t* out, const uint32_t* key, uint32_t counter, const uint32_t* nonce) {
    wiped<state_t> state;
    set_up(*state, key, counter, nonce);
    core(out, *state);
    wipe_dead_stack<DEAD_STACK_BYTES>();
}

void chacha20_encrypt(uint8_t* out, const uint8_t* in, uint32_t len, const uint8_t* key,
                      uint32_t counter, const uint8_t* nonce) {
    wiped<state_t> state, stream;
    set_up(*state, key, counter, nonce);
    for (; len >= CHACHA20_BLOCK_BYTES; len -= CHACHA20_BLOCK_BYTES) {
        core(stream->data(), *state);
        ++(*state)[COUNTER];
        for (size_t i = 0; i < WORDS; ++i)
            store_le32(out + 4 * i, load_le32(in + 4 * i) ^ (*stream)[i]);
        in += CHACHA20_BLOCK_BYTES;
        out += CHACHA20_BLOCK_BYTES;
    }
    if (len != 0) {
        core(stream->data(), *state);
        const auto* bytes = reinterpret_cast<const uint8_t*>(stream->data());
        for (uint32_t i = 0; i < len; ++i)
            out[i] = in[i] ^ bytes[i];
    }
    wipe_dead_stack<DEAD_STACK_BYTES>();
}
