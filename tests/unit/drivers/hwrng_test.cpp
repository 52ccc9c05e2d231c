#include "kernel/drivers/hwrng.h"

#include <gtest/gtest.h>

#include <cstring>

#include "kernel/core/interrupt.h"
#include "tests/machine/machine.h"
#include "tests/machine/memory.h"
#include "tests/unit/core/noise_vectors.h"

namespace {

/// Channel 0 counts one down at each latch; a read of an unlatched byte shows as a wrong count.
class timer_device : public port_device {
public:
    uint16_t count = 0x1234;
    uint32_t read(uint16_t, unsigned) override {
        EXPECT_FALSE(machine().interrupts_on);
        EXPECT_LT(next_, 2);
        return static_cast<uint8_t>(latched_ >> 8 * next_++);
    }
    void write(uint16_t port, uint32_t value, unsigned) override {
        EXPECT_EQ(port, 0x43);
        EXPECT_EQ(value, 0u);
        latched_ = --count;
        next_ = 0;
    }

private:
    uint16_t latched_ = 0;
    int next_ = 2;
};

/// The pool as its layout says, fed by the machine's sources as they stand.
struct model_t {
    uint8_t pool[64] = {};
    uint32_t counter = 0;
    uint64_t tsc;
    uint16_t timer;
    void put(size_t at, uint64_t value, size_t bytes) { memcpy(pool + at, &value, bytes); }
    void hash() { blake2s(pool + 32, pool, 64); }
    bytes_t round(uint32_t hardware) {
        put(0, ++tsc, 8);
        put(8, counter++, 4);
        put(12, system_ticks, 4);
        put(16, --timer, 4);
        put(20, hardware, 4);
        hash();
        return bytes_t(pool + 32, pool + 64);
    }
};

class Hwrng : public testing::Test {
protected:
    void SetUp() override {
        machine_reset();
        machine_capture_texts();
        machine_attach(0x40, 0x43, &timer_);
        system_ticks = 77;
        machine().tsc = 0x123456789ABC;
        machine().interrupts_on = true;
    }
    /// A model that has gone through hwrng_init with these hardware words.
    model_t started(uint32_t random, uint32_t seed) {
        model_t m;
        m.tsc = machine().tsc + 1;
        m.timer = timer_.count;
        m.put(0, m.tsc, 8);
        m.put(8, system_ticks, 4);
        m.put(12, random, 4);
        m.put(16, seed, 4);
        m.hash();
        for (uint32_t i = 0; i < HWRNG_START_ROUNDS; ++i)
            m.round(random ^ seed);
        return m;
    }
    bytes_t fill(uint32_t len) {
        bytes_t out(len);
        hwrng_fill(out.data(), len);
        return out;
    }
    timer_device timer_;
};

TEST_F(Hwrng, PoolFollowsItsLayoutWithoutHardware) {
    model_t m = started(0, 0);
    hwrng_init();
    EXPECT_EQ(machine_texts(),
              "[boot] HW RNG: RDRAND=no RDSEED=no\n"
              "[boot] WARNING: no hardware random source, keys rest on timer jitter\n");
    EXPECT_TRUE(machine().interrupts_on);
    fill(0);  // touches nothing
    bytes_t expected = m.round(0);
    expected.push_back(m.round(0)[0]);
    EXPECT_EQ(fill(33), expected);
    EXPECT_EQ(m.counter, HWRNG_START_ROUNDS + 2);
    hwrng_stir();
    for (uint32_t i = 0; i < HWRNG_STIR_ROUNDS; ++i)
        m.round(0);
    EXPECT_EQ(fill(32), m.round(0));
    uint32_t word;
    memcpy(&word, m.round(0).data(), sizeof word);
    EXPECT_EQ(hwrng_u32(), word);
}

TEST_F(Hwrng, HardwareWordsGoIn) {
    machine().rdrand = [](uint32_t* word) { return *word = 0x11111111, true; };
    machine().rdseed = [](uint32_t* word) { return *word = 0x40404040, true; };
    model_t m = started(0x11111111, 0x40404040);
    hwrng_init();
    EXPECT_EQ(machine_texts(), "[boot] HW RNG: RDRAND=yes RDSEED=yes\n");
    EXPECT_EQ(fill(32), m.round(0x51515151));
    EXPECT_EQ(hwrng_u32(), 0x11111111u);
    // A failing instruction contributes nothing, whatever it leaves behind.
    machine().rdrand = machine().rdseed = [](uint32_t* word) { return *word = 0xBAD, false; };
    EXPECT_EQ(fill(32), m.round(0));
}

TEST_F(Hwrng, WordFallsBackToThePoolAfterTenFailures) {
    machine().rdrand = [](uint32_t*) { return false; };
    model_t m = started(0, 0);
    hwrng_init();
    EXPECT_TRUE(hwrng_has_rdrand());
    EXPECT_FALSE(hwrng_has_rdseed());
    int attempts = 0;
    machine().rdrand = [&](uint32_t* word) { return *word = 5, ++attempts == 10; };
    EXPECT_EQ(hwrng_u32(), 5u);
    machine().rdrand = [&](uint32_t*) { return ++attempts, false; };
    uint32_t word;
    memcpy(&word, m.round(0).data(), sizeof word);
    EXPECT_EQ(hwrng_u32(), word);
    EXPECT_EQ(attempts, 21);  // ten, ten, and the round's own
}

}  // namespace
