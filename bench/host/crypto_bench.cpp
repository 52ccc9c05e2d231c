// Measures the kernel's cryptography, compiled as the image has it, beside OpenSSL and libsodium,
// all 32-bit and without vector code. One line a figure:
//
//     NAME  MEDIAN UNIT (MIN..MAX)  RATIOx of PEER (ITS MEDIAN), ...
//
// The libraries take turns within each run, so that a change of the machine's pace meets all.
#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/host/peers.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/noise.h"

// What the cryptography takes from the rest of the kernel.

void* kmalloc(size_t size) { return malloc(size); }

void kfree(void* block) { free(block); }

int kprintf(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int length = vprintf(fmt, args);
    va_end(args);
    return length;
}

void kassert_fail(const char* expr, const char*, int) {
    puts(expr);
    abort();
}

namespace {

constexpr int RUNS = 15;
constexpr double RUN_SECONDS = 0.02;
constexpr uint32_t OUTPUT_BYTES = 4096 + CRYPTO_TAG_BYTES;

bench_input_t input;
uint8_t public_key[32], secret_key[ED25519_SECRET_BYTES];

peer_t our_operations() {
    peer_t ours = {"vorn", {}, {}, {}, {}, {}, {}};
    memcpy(secret_key, input.seed, sizeof input.seed);
    ed25519_keypair(public_key, secret_key);
    ours.blake2s = [](uint8_t* out, uint32_t n) { blake2s(out, input.message, n); };
    ours.sha512 = [](uint8_t* out, uint32_t n) { sha512(out, input.message, n); };
    ours.aead = [](uint8_t* out, uint32_t n) {
        chacha20poly1305_encrypt(out, out + n, input.message, n, nullptr, 0, input.seed,
                                 input.nonce);
    };
    ours.x25519 = [](uint8_t* out) { curve25519(out, input.seed, input.point); };
    ours.sign = [](uint8_t* out) { (void)ed25519_sign(out, input.message, 32, secret_key); };
    ours.verify = [](const uint8_t* signature) {
        return ed25519_verify(signature, input.message, 32, public_key) == 0;
    };
    return ours;
}

double seconds() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

/// How many calls fill one run.
uint32_t calls_a_run(const std::function<void()>& call) {
    for (uint32_t calls = 1;; calls *= 2) {
        const double start = seconds();
        for (uint32_t i = 0; i < calls; ++i)
            call();
        if (seconds() - start >= RUN_SECONDS)
            return calls;
    }
}

/// One library's share of a figure.
struct contender_t {
    const char* name;
    std::function<void()> call;
    uint32_t calls = 0;
    std::vector<double> rates = {};
    double median() const { return rates[rates.size() / 2]; }
};

/// Measures the contenders, ours first, and prints their figure; `scale` turns calls a second into
/// `unit`.
void print_figure(const char* name, const char* unit, double scale,
                  std::vector<contender_t> contenders) {
    for (contender_t& one : contenders)
        one.calls = calls_a_run(one.call);
    for (int run = 0; run < RUNS; ++run)
        for (contender_t& one : contenders) {
            const double start = seconds();
            for (uint32_t i = 0; i < one.calls; ++i)
                one.call();
            one.rates.push_back(one.calls * scale / (seconds() - start));
        }
    for (contender_t& one : contenders)
        std::sort(one.rates.begin(), one.rates.end());
    const contender_t& ours = contenders.front();
    printf("%-26s %10.0f %-13s (%.0f..%.0f) ", name, ours.median(), unit, ours.rates.front(),
           ours.rates.back());
    const char* before = " ";
    for (size_t i = 1; i < contenders.size(); ++i, before = ", ")
        printf("%s%.2fx of %s (%.0f)", before, ours.median() / contenders[i].median(),
               contenders[i].name, contenders[i].median());
    printf("\n");
}

void check_same(const char* name, const peer_t& peer, const uint8_t* ours, const uint8_t* theirs,
                uint32_t length) {
    if (memcmp(ours, theirs, length) == 0)
        return;
    printf("%s: we and %s disagree\n", name, peer.name);
    exit(1);
}

uint8_t our_output[OUTPUT_BYTES], peer_output[OUTPUT_BYTES];

/// A figure of an operation that writes `result` bytes; `operation` gives a peer's call, or nothing
/// where it has none.
template <typename Operation>
void measure(const char* name, const char* unit, double scale, uint32_t result,
             const std::vector<peer_t>& peers, Operation operation) {
    std::vector<contender_t> contenders;
    for (const peer_t& peer : peers) {
        uint8_t* out = contenders.empty() ? our_output : peer_output;
        std::function<void()> call = operation(peer, out);
        if (!call)
            continue;
        call();
        if (!contenders.empty())
            check_same(name, peer, our_output, peer_output, result);
        contenders.push_back({peer.name, call});
    }
    print_figure(name, unit, scale, contenders);
}

using hash_t = std::function<void(uint8_t*, uint32_t)>;

void measure_bulk(const char* name, const char* unit, double scale, uint32_t length,
                  uint32_t result, const std::vector<peer_t>& peers, hash_t peer_t::*which) {
    measure(name, unit, scale, result, peers,
            [=](const peer_t& peer, uint8_t* out) -> std::function<void()> {
                const hash_t& operation = peer.*which;
                if (!operation)
                    return {};
                return [=] { operation(out, length); };
            });
}

void measure_curve(const char* name, uint32_t result, const std::vector<peer_t>& peers,
                   std::function<void(uint8_t*)> peer_t::*which) {
    measure(name, "/s", 1, result, peers,
            [=](const peer_t& peer, uint8_t* out) -> std::function<void()> {
                const auto& operation = peer.*which;
                if (!operation)
                    return {};
                return [=] { operation(out); };
            });
}

void measure_verify(const std::vector<peer_t>& peers) {
    peers.front().sign(our_output);
    measure("ed25519-verify", "/s", 1, 0, peers,
            [](const peer_t& peer, uint8_t*) -> std::function<void()> {
                if (!peer.verify)
                    return {};
                return [verify = peer.verify] {
                    if (!verify(our_output))
                        abort();
                };
            });
}

}  // namespace

int main() {
    for (size_t i = 0; i < sizeof input.message; ++i)
        input.message[i] = static_cast<uint8_t>(i * 7 + i / 256);
    memset(input.seed, 0x42, sizeof input.seed);
    memset(input.nonce, 0x24, sizeof input.nonce);
    input.point[0] = 9;
    const char* folder = getenv("VORN_PEERS");
    const std::string at = folder != nullptr ? folder : VORN_PEERS_FOLDER;
    const std::vector<peer_t> peers = {our_operations(),
                                       load_openssl((at + "/libcrypto.so.3").c_str(), input),
                                       load_libsodium((at + "/libsodium.so.23").c_str(), input)};
    measure_bulk("blake2s-8192", "MB/s", 8192 / 1e6, 8192, 32, peers, &peer_t::blake2s);
    measure_bulk("blake2s-192", "/s", 1, 192, 32, peers, &peer_t::blake2s);
    measure_bulk("sha512-8192", "MB/s", 8192 / 1e6, 8192, 64, peers, &peer_t::sha512);
    measure_bulk("chacha20poly1305-4096", "MB/s", 4096 / 1e6, 4096, OUTPUT_BYTES, peers,
                 &peer_t::aead);
    measure_curve("x25519", 32, peers, &peer_t::x25519);
    measure_curve("ed25519-sign", 64, peers, &peer_t::sign);
    measure_verify(peers);
    return 0;
}
