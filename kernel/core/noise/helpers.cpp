// Comparison in constant time and wiping.
#include "kernel/core/noise.h"
#include "kernel/core/string.h"

int crypto_verify_32(const uint8_t* x, const uint8_t* y) {
    uint32_t differ = 0;
    for (size_t i = 0; i < 32; ++i)
        differ |= static_cast<uint32_t>(x[i] ^ y[i]);
    // differ - 1 borrows only from 0: bit 8 is set when all bytes were equal.
    return static_cast<int>((differ - 1) >> 8 & 1) - 1;
}

void crypto_wipe(void* buf, size_t len) {
    memset(buf, 0, len);
    // The compiler must assume that this reads the zeros.
    asm volatile("" : : "r"(buf) : "memory");
}
