// The random source: a 64-byte pool that mixes timers and the processor's random instructions and
// hashes itself with BLAKE2s for every 32 bytes it gives out.
//
//     0        8         12      16    18  20         24          32                64
//     | TSC    | counter | ticks | PIT | 0 | hardware | left over | previous output |
//
// Each round runs with interrupts masked under the pool's lock, so that no two callers get the
// same bytes. Any context.
#pragma once

#include <stdint.h>

/// Rounds that one hwrng_stir throws away, and that hwrng_init throws away at start.
constexpr uint32_t HWRNG_STIR_ROUNDS = 8;
constexpr uint32_t HWRNG_START_ROUNDS = 64;

/// Detects RDRAND and RDSEED, seeds the pool anew and makes it the source of keys. Prints
/// "[boot] HW RNG: RDRAND=%s RDSEED=%s", and one WARNING line when the processor has neither.
/// Start-up only.
void hwrng_init(void);

/// Whether the processor has RDRAND / RDSEED, as hwrng_init found.
bool hwrng_has_rdrand(void);
bool hwrng_has_rdseed(void);

/// One random word: the first of at most 10 RDRAND attempts that succeeds, else 4 pool bytes.
uint32_t hwrng_u32(void);

/// Fills `buf` with `len` pool bytes, 32 a round, each round counting once; 0 bytes touch nothing.
void hwrng_fill(void* buf, uint32_t len);

/// Runs HWRNG_STIR_ROUNDS rounds whose output is thrown away: the timers' jitter goes in, and the
/// bytes given out last are no longer the pool's state.
void hwrng_stir(void);
