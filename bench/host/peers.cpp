// OpenSSL and libsodium through dlopen, so that no 32-bit development package is needed.
#include "bench/host/peers.h"

#include <dlfcn.h>

#include <cstdlib>

namespace {

constexpr int EVP_PKEY_X25519 = 1034;
constexpr int EVP_PKEY_ED25519 = 1087;
constexpr int GET_TAG = 0x10;
constexpr uint32_t SIGNED_BYTES = 32;

/// A function of the library, called with whatever it takes.
template <typename Result>
class function {
public:
    function(void* library, const char* name) : address_(dlsym(library, name)) {
        if (address_ == nullptr)
            abort();
    }
    template <typename... Args>
    Result operator()(Args... args) const {
        return reinterpret_cast<Result (*)(Args...)>(address_)(args...);
    }

private:
    void* address_;
};

void add_openssl_hashes(peer_t& peer, void* lib, const bench_input_t& in) {
    const function<int> init(lib, "EVP_DigestInit_ex"), update(lib, "EVP_DigestUpdate"),
        final(lib, "EVP_DigestFinal_ex");
    void* context = function<void*>(lib, "EVP_MD_CTX_new")();
    const auto hash = [&](const char* algorithm) {
        const function<void*> fetch(lib, "EVP_MD_fetch");
        const void* const nothing = nullptr;
        void* digest = fetch(nothing, algorithm, nothing);
        return [=, &in](uint8_t* out, uint32_t length) {
            init(context, digest, nothing);
            update(context, in.message, length);
            final(context, out, nothing);
        };
    };
    peer.blake2s = hash("BLAKE2S-256");
    peer.sha512 = hash("SHA512");
}

void add_openssl_aead(peer_t& peer, void* lib, const bench_input_t& in) {
    const function<int> init(lib, "EVP_EncryptInit_ex"), update(lib, "EVP_EncryptUpdate"),
        final(lib, "EVP_EncryptFinal_ex"), control(lib, "EVP_CIPHER_CTX_ctrl");
    void* context = function<void*>(lib, "EVP_CIPHER_CTX_new")();
    const void* const nothing = nullptr;
    const void* cipher = function<const void*>(lib, "EVP_chacha20_poly1305")();
    init(context, cipher, nothing, in.seed, in.nonce);
    peer.aead = [=, &in](uint8_t* out, uint32_t length) {
        int written = 0;
        init(context, nothing, nothing, in.seed, in.nonce);
        update(context, out, &written, in.message, length);
        final(context, out + written, &written);
        control(context, GET_TAG, 16, out + length);
    };
}

void add_openssl_curves(peer_t& peer, void* lib, const bench_input_t& in) {
    const function<void*> make_private(lib, "EVP_PKEY_new_raw_private_key"),
        make_public(lib, "EVP_PKEY_new_raw_public_key"), make_context(lib, "EVP_PKEY_CTX_new"),
        make_digest(lib, "EVP_MD_CTX_new");
    const function<int> derive(lib, "EVP_PKEY_derive"), sign(lib, "EVP_DigestSign"),
        verify(lib, "EVP_DigestVerify");
    const void* const nothing = nullptr;
    void* context =
        make_context(make_private(EVP_PKEY_X25519, nothing, in.seed, size_t{32}), nothing);
    function<int>(lib, "EVP_PKEY_derive_init")(context);
    function<int>(lib, "EVP_PKEY_derive_set_peer")(
        context, make_public(EVP_PKEY_X25519, nothing, in.point, size_t{32}));
    peer.x25519 = [=](uint8_t* out) {
        size_t length = 32;
        derive(context, out, &length);
    };

    void* key = make_private(EVP_PKEY_ED25519, nothing, in.seed, size_t{32});
    void *signing = make_digest(), *verifying = make_digest();
    function<int>(lib, "EVP_DigestSignInit")(signing, nothing, nothing, nothing, key);
    function<int>(lib, "EVP_DigestVerifyInit")(verifying, nothing, nothing, nothing, key);
    peer.sign = [=, &in](uint8_t* out) {
        size_t length = 64;
        sign(signing, out, &length, in.message, size_t{SIGNED_BYTES});
    };
    peer.verify = [=, &in](const uint8_t* signature) {
        return verify(verifying, signature, size_t{64}, in.message, size_t{SIGNED_BYTES}) == 1;
    };
}

}  // namespace

peer_t load_openssl(const char* library, const bench_input_t& input) {
    peer_t peer = {"openssl", {}, {}, {}, {}, {}, {}};
    setenv("OPENSSL_ia32cap", "0:0:0:0", 1);
    void* lib = dlopen(library, RTLD_NOW);
    if (lib == nullptr)
        return peer;
    add_openssl_hashes(peer, lib, input);
    add_openssl_aead(peer, lib, input);
    add_openssl_curves(peer, lib, input);
    return peer;
}

peer_t load_libsodium(const char* library, const bench_input_t& input) {
    peer_t peer = {"libsodium", {}, {}, {}, {}, {}, {}};
    void* lib = dlopen(library, RTLD_NOW);
    if (lib == nullptr)
        return peer;
    const function<int> hash(lib, "crypto_hash_sha512"),
        seal(lib, "crypto_aead_chacha20poly1305_ietf_encrypt"),
        multiply(lib, "crypto_scalarmult_curve25519"), sign(lib, "crypto_sign_ed25519_detached"),
        verify(lib, "crypto_sign_ed25519_verify_detached");
    const void* const nothing = nullptr;
    peer.sha512 = [=, &input](uint8_t* out, uint32_t length) {
        hash(out, input.message, uint64_t{length});
    };
    peer.aead = [=, &input](uint8_t* out, uint32_t length) {
        seal(out, nothing, input.message, uint64_t{length}, nothing, uint64_t{0}, nothing,
             input.nonce, input.seed);
    };
    peer.x25519 = [=, &input](uint8_t* out) { multiply(out, input.seed, input.point); };
    static uint8_t public_key[32], secret_key[64];
    function<int>(lib, "crypto_sign_ed25519_seed_keypair")(public_key, secret_key, input.seed);
    peer.sign = [=, &input](uint8_t* out) {
        sign(out, nothing, input.message, uint64_t{SIGNED_BYTES}, secret_key);
    };
    peer.verify = [=, &input](const uint8_t* signature) {
        return verify(signature, input.message, uint64_t{SIGNED_BYTES}, public_key) == 0;
    };
    return peer;
}
