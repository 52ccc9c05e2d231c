// The `crypto` and `random` commands.
#include "kernel/apps/cmd_crypto.h"

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/drivers/hwrng.h"

namespace {

struct selftest_t {
    int (*run)();
    const char* line;  // up to the outcome
};

constexpr selftest_t SELFTESTS[] = {
    {sha512_selftest, "  SHA-512 (FIPS 180-4 KAT)  "},
    {ed25519_selftest, "  Ed25519 (RFC 8032 KAT)    "},
    {chacha20_selftest, "  ChaCha20 (RFC 8439 KAT)   "},
    {poly1305_selftest, "  Poly1305 (RFC 8439 KAT)   "},
    {chacha20poly1305_selftest, "  ChaCha20-Poly1305 AEAD     "},
    {blake2s_selftest, "  BLAKE2s (RFC 7693 KAT)    "},
    {x25519_selftest, "  X25519 (RFC 7748 KAT)     "},
};
constexpr size_t TESTS = sizeof SELFTESTS / sizeof SELFTESTS[0];

constexpr int WORDS_DEFAULT = 8;
constexpr int WORDS_MAX = 64;
constexpr int WORDS_PER_LINE = 4;

constexpr const char* outcome(bool passed) { return passed ? "PASS" : "FAIL"; }

constexpr const char* yes_no(bool yes) { return yes ? "yes" : "no"; }

}  // namespace

void cmd_crypto(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "selftest") != 0) {
        kprintf("usage: crypto [selftest]\n");
        return;
    }
    bool passed[TESTS], all = true;
    for (size_t i = 0; i < TESTS; ++i) {
        passed[i] = SELFTESTS[i].run() == 0;
        all = all && passed[i];
    }
    kprintf("crypto selftest:\n");
    for (size_t i = 0; i < TESTS; ++i)
        kprintf("%s%s\n", SELFTESTS[i].line, outcome(passed[i]));
    kprintf("crypto selftest: %s\n", outcome(all));
}

void cmd_random(int argc, char** argv) {
    int count = WORDS_DEFAULT;
    if (argc > 1 && safe_atoi(argv[1], &count) != 0) {
        kprintf("usage: random [n]\n");
        return;
    }
    if (count < 1)
        count = 1;
    if (count > WORDS_MAX)
        count = WORDS_MAX;
    kprintf("RDRAND=%s RDSEED=%s\n", yes_no(hwrng_has_rdrand()), yes_no(hwrng_has_rdseed()));
    for (int i = 1; i <= count; ++i)
        kprintf("  %08x%s", hwrng_u32(), i % WORDS_PER_LINE == 0 || i == count ? "\n" : "");
}
