// The random source: pool, generator and detection.
#include "kernel/drivers/hwrng.h"

#include "arch/x86/cpu.h"
#include "arch/x86/ports.h"
#include "kernel/core/endian.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t POOL_BYTES = 64;
constexpr uint32_t FEEDBACK = 32;  // where the previous output stands
constexpr int RDRAND_ATTEMPTS = 10;
constexpr uint32_t CPUID1_ECX_RDRAND = 1u << 30;
constexpr uint32_t CPUID7_EBX_RDSEED = 1u << 18;
constexpr uint16_t PIT_CHANNEL_0 = 0x40;
constexpr uint16_t PIT_COMMAND = 0x43;
constexpr uint8_t PIT_LATCH_0 = 0;

spinlock_t pool_lock;
uint8_t pool[POOL_BYTES] GUARDED_BY(pool_lock);
uint32_t pool_counter GUARDED_BY(pool_lock);
bool _rdrand_ok;
bool _rdseed_ok;

uint32_t timer_count() REQUIRES(pool_lock) {
    outb(PIT_COMMAND, PIT_LATCH_0);
    const uint32_t low = inb(PIT_CHANNEL_0);
    return low | static_cast<uint32_t>(inb(PIT_CHANNEL_0)) << 8;
}

uint32_t hardware_word() {
    uint32_t word = 0, seed = 0;
    if (_rdrand_ok && !cpu_rdrand(&word))
        word = 0;
    if (_rdseed_ok && cpu_rdseed(&seed))
        word ^= seed;
    return word;
}

/// One round: stirs the sources in, hashes the pool and gives out the first `len` (at most 32)
/// bytes of the digest.
void pool_round(uint8_t* out, uint32_t len) {
    spin_guard guard(pool_lock);
    store_le64(pool, cpu_rdtsc());
    store_le32(pool + 8, pool_counter++);
    store_le32(pool + 12, system_ticks);
    store_le32(pool + 16, timer_count());
    store_le32(pool + 20, hardware_word());
    blake2s(pool + FEEDBACK, pool, POOL_BYTES);
    memcpy(out, pool + FEEDBACK, len);
}

void pool_generate(uint8_t* out, uint32_t len) {
    while (len != 0) {
        const uint32_t piece = len < BLAKE2S_BYTES ? len : BLAKE2S_BYTES;
        pool_round(out, piece);
        out += piece;
        len -= piece;
    }
}

void discard_rounds(uint32_t rounds) {
    uint8_t unused[BLAKE2S_BYTES];
    for (uint32_t i = 0; i < rounds; ++i)
        pool_round(unused, sizeof unused);
    crypto_wipe(unused, sizeof unused);
}

void seed_pool() {
    spin_guard guard(pool_lock);
    uint32_t word;
    memset(pool, 0, sizeof pool);
    store_le64(pool, cpu_rdtsc());
    store_le32(pool + 8, system_ticks);
    if (_rdrand_ok && cpu_rdrand(&word))
        store_le32(pool + 12, word);
    if (_rdseed_ok && cpu_rdseed(&word))
        store_le32(pool + 16, word);
    pool_counter = 0;
    blake2s(pool + FEEDBACK, pool, POOL_BYTES);
}

constexpr const char* yes_no(bool yes) { return yes ? "yes" : "no"; }

}  // namespace

void hwrng_init(void) {
    _rdrand_ok = (cpu_cpuid(1, 0).ecx & CPUID1_ECX_RDRAND) != 0;
    _rdseed_ok = (cpu_cpuid(7, 0).ebx & CPUID7_EBX_RDSEED) != 0;
    seed_pool();
    discard_rounds(HWRNG_START_ROUNDS);
    noise_set_random({hwrng_fill, hwrng_stir, _rdrand_ok});
    kprintf("[boot] HW RNG: RDRAND=%s RDSEED=%s\n", yes_no(_rdrand_ok), yes_no(_rdseed_ok));
    if (!_rdrand_ok && !_rdseed_ok)
        kprintf("[boot] WARNING: no hardware random source, keys rest on timer jitter\n");
}

bool hwrng_has_rdrand(void) { return _rdrand_ok; }

bool hwrng_has_rdseed(void) { return _rdseed_ok; }

uint32_t hwrng_u32(void) {
    uint32_t word = 0;
    for (int i = 0; _rdrand_ok && i < RDRAND_ATTEMPTS; ++i)
        if (cpu_rdrand(&word))
            return word;
    uint8_t bytes[sizeof word];
    pool_generate(bytes, sizeof bytes);
    return load_le32(bytes);
}

void hwrng_fill(void* buf, uint32_t len) { pool_generate(static_cast<uint8_t*>(buf), len); }

void hwrng_stir(void) { discard_rounds(HWRNG_STIR_ROUNDS); }
