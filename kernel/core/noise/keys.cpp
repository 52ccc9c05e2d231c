// Key material from the random source, and the start-up line.
#include "kernel/core/assert.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"

namespace {

noise_random_t random_source;

}  // namespace

void noise_set_random(const noise_random_t& source) { random_source = source; }

void entropy_get(void* buf, uint32_t len) {
    KASSERT(random_source.fill != nullptr && random_source.stir != nullptr);
    random_source.stir();
    random_source.fill(buf, len);
    random_source.stir();
}

void noise_generate_keypair(uint8_t* pub, uint8_t* priv) {
    entropy_get(priv, CRYPTO_KEY_BYTES);
    priv[0] &= 248;
    priv[31] &= 127;
    priv[31] |= 64;
    curve25519_base(pub, priv);
}

void noise_init(void) {
    kprintf("[boot] Noise crypto primitives initialized%s\n",
            random_source.has_rdrand ? " (RDRAND available)" : "");
}
