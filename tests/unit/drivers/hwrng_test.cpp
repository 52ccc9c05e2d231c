#include "kernel/drivers/hwrng.h"

#include <set>

#include "kernel/core/interrupt.h"
#include "tests/machine/memory.h"
#include "tests/unit/core/noise_vectors.h"

namespace {

struct sources_t {
    uint64_t tsc = 1ull << 40;
    uint32_t tick = 77, random = 1, seed = 2, timer = 0x1234;
};

/// Channel 0 of the timer, which must be latched before its two bytes are read.
class Hwrng : public testing::Test, public port_device {
protected:
    uint32_t timer = 0, latches = 0, next = 2;

    void SetUp() override {
        machine_reset();
        machine_capture_texts();
        machine_attach(0x40, 0x43, this);
        machine().interrupts_on = true;
    }
    uint32_t read(uint16_t, unsigned) override {
        EXPECT_FALSE(machine().interrupts_on);
        EXPECT_LT(next, 2u);
        return static_cast<uint8_t>(timer >> 8 * next++);
    }
    void write(uint16_t port, uint32_t value, unsigned) override {
        EXPECT_TRUE(port == 0x43 && value == 0);
        ++latches;
        next = 0;
    }
    void feed(const sources_t& from) {
        machine().tsc = from.tsc;
        system_ticks = from.tick;
        timer = from.timer;
        machine().rdrand = [from](uint32_t* word) { return *word = from.random, true; };
        machine().rdseed = [from](uint32_t* word) { return *word = from.seed, true; };
    }
    static bytes_t fill(uint32_t len) {
        bytes_t out(len);
        hwrng_fill(out.data(), len);
        return out;
    }
};

TEST_F(Hwrng, EverySourceGoesIntoTheStartAndIntoEachBlock) {
    std::set<bytes_t> seen;
    const auto is_new = [&](const sources_t& start, const sources_t& later) {
        feed(start);
        hwrng_init();
        feed(later);
        return seen.insert(fill(32)).second && seen.insert(fill(32)).second;
    };
    feed({});
    hwrng_init();
    // By hashlib.blake2s over the pool's layout.
    EXPECT_EQ(hex(fill(33)), "4c97af519732b0473e10cabd463f9cbd653c81d1f35314b95fd49bcebd325e87b1");
    EXPECT_TRUE(is_new({}, {}));
    EXPECT_FALSE(is_new({}, {})) << "there is no other source";
    for (const sources_t& other :
         {sources_t{.tsc = 1}, sources_t{.tsc = (1ull << 40) + 1}, sources_t{.tick = 78},
          sources_t{.random = 3}, sources_t{.seed = 3}, sources_t{.timer = 0x1235},
          sources_t{.timer = 0x1334}}) {
        EXPECT_TRUE(is_new(other, {}));
        EXPECT_TRUE(is_new({}, other));
    }
    EXPECT_EQ(machine_texts().substr(0, 38), "[boot] HW RNG: RDRAND=yes RDSEED=yes\n[");
    EXPECT_TRUE(machine().interrupts_on);
}

TEST_F(Hwrng, RoundsAreCountedAndAFailingInstructionGivesNothing) {
    hwrng_init();
    EXPECT_EQ(machine_texts(),
              "[boot] HW RNG: RDRAND=no RDSEED=no\n"
              "[boot] WARNING: no hardware random source, keys rest on timer jitter\n");
    EXPECT_EQ(latches, HWRNG_START_ROUNDS);
    hwrng_stir();
    EXPECT_EQ(latches, HWRNG_START_ROUNDS + HWRNG_STIR_ROUNDS);
    latches = 0;
    fill(0);
    EXPECT_NE(fill(33), fill(33));
    EXPECT_EQ(latches, 4u);
    const auto with_remains = [&](uint32_t remains) {
        feed({});
        hwrng_init();
        machine().rdrand =
            machine().rdseed = [=](uint32_t* word) { return *word = remains, false; };
        return fill(32);
    };
    EXPECT_EQ(with_remains(0), with_remains(0xBAD));
}

TEST_F(Hwrng, AWordFallsBackToThePoolAfterTenFailures) {
    machine().rdrand = [](uint32_t*) { return false; };
    hwrng_init();
    EXPECT_TRUE(hwrng_has_rdrand() && !hwrng_has_rdseed());
    int attempts = 0;
    machine().rdrand = [&](uint32_t* word) { return *word = 5, ++attempts == 10; };
    EXPECT_EQ(hwrng_u32(), 5u);
    EXPECT_NE(hwrng_u32(), hwrng_u32());
    EXPECT_EQ(attempts, 10 + 11 + 11);  // the round's own among them
}

}  // namespace
