
#include "tests/machine/memory.h"
#include "tests/unit/core/noise_vectors.h"

namespace {

bytes_t x25519(const bytes_t& scalar, const bytes_t& point) {
    bytes_t out(32);
    curve25519(out.data(), scalar.data(), point.data());
    return out;
}

TEST(X25519, AgreesWithAnIndependentImplementation) {
    std::vector<bytes_t> points;
    for (uint32_t n = 1; n < 60; ++n)
        points.push_back(pattern(n, 32));
    points.push_back(bytes_t(32, 0xFF));  // above the prime
    points.push_back(bytes_t(32, 0xFF));
    points.back()[0] = 0xF0;
    bytes_t outputs;
    for (uint32_t n = 0; n < points.size(); ++n) {
        const bytes_t scalar = pattern(n + 100, 32);
        bytes_t pub(32);
        curve25519_base(pub.data(), scalar.data());
        append(outputs, x25519(scalar, points[n]));
        append(outputs, pub);
    }
    EXPECT_EQ(over(outputs), "9e0ed3ef0a76bb565539e96e58001cc52e7895a8ff83b3ed4df39ac3413add36");
}

TEST(X25519, SmallOrderGivesZerosAndTheTopBitIsIgnored) {
    const bytes_t scalar = pattern(3, 32);
    bytes_t point(32);
    for (const uint8_t u : bytes_t{0, 1})
        EXPECT_EQ(x25519(scalar, (point[0] = u, point)), bytes_t(32));
    point[0] = 9;
    const bytes_t plain = x25519(scalar, point);
    point[31] = 0x80;
    EXPECT_EQ(x25519(scalar, point), plain);
}

struct signer_t {
    explicit signer_t(const bytes_t& seed) : pk(32), sk(seed), sig(64) {
        sk.resize(64);
        ed25519_keypair(pk.data(), sk.data());
    }
    int sign(const bytes_t& m) {
        return ed25519_sign(sig.data(), m.data(), static_cast<uint32_t>(m.size()), sk.data());
    }
    int verify(const bytes_t& m) const {
        return ed25519_verify(sig.data(), m.data(), static_cast<uint32_t>(m.size()), pk.data());
    }
    bytes_t pk, sk, sig;
};

class Ed25519 : public testing::Test {
protected:
    void SetUp() override { machine_boot_memory(); }
};

// Together the scalars of so many signatures use every entry of the base-point table.
TEST_F(Ed25519, AgreesWithAnIndependentImplementationAndVerifies) {
    bytes_t outputs;
    const uint32_t before = heap_used();
    for (uint32_t i = 0; i <= 100; ++i) {
        const uint32_t n = i < 100 ? i : ED25519_MESSAGE_MAX;
        signer_t signer(pattern(n & 0xFF, 32));
        const bytes_t message = pattern(n & 0xFF, n);
        ASSERT_EQ(signer.sign(message), 0);
        EXPECT_EQ(signer.verify(message), 0) << n;
        append(outputs, signer.pk);
        append(outputs, signer.sig);
        EXPECT_EQ(hex(signer.sk.data() + 32, 32), hex(signer.pk));
    }
    EXPECT_EQ(over(outputs), "5f268ce9786ee2038c24d22600072d01d77bda6c73f85b6136db61990c8cb7ff");
    EXPECT_EQ(heap_used(), before);
}

TEST_F(Ed25519, RefusesEveryChangedBit) {
    const bytes_t message = pattern(1, 20);
    signer_t signer(pattern(2, 32));
    ASSERT_EQ(signer.sign(message), 0);
    for (bytes_t* changed : {&signer.sig, &signer.pk})
        for (size_t bit = 0; bit < changed->size() * 8; ++bit) {
            (*changed)[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
            EXPECT_EQ(signer.verify(message), -1) << bit;
            (*changed)[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        }
    bytes_t other = message;
    other[19] ^= 1;
    EXPECT_EQ(signer.verify(other), -1);
    EXPECT_EQ(signer.verify(message), 0);
}

TEST_F(Ed25519, DoesNotCompareSWithTheOrder) {
    const bytes_t order = unhex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
    const bytes_t message = pattern(1, 20);
    signer_t signer(pattern(2, 32));
    ASSERT_EQ(signer.sign(message), 0);
    // The last sum that fits 256 bits has all digits of its top row in use.
    for (int times = 0; times < 15; ++times) {
        uint32_t carry = 0;
        for (size_t i = 0; i < 32; ++i) {
            carry += signer.sig[32 + i] + order[i];
            signer.sig[32 + i] = static_cast<uint8_t>(carry);
            carry >>= 8;
        }
        if (carry != 0)
            break;
        EXPECT_EQ(signer.verify(message), 0) << times;
    }
}

TEST_F(Ed25519, RefusesWhatIsNoPoint) {
    const char* const encodings[] = {
        "0200000000000000000000000000000000000000000000000000000000000000",   // no x for this y
        "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",   // y = p + 1
        "0100000000000000000000000000000000000000000000000000000000000080"};  // x = 0, odd
    // With the identity as key and R, and S = 0, the equation holds for any message.
    signer_t signer(pattern(2, 32));
    signer.pk = unhex("0100000000000000000000000000000000000000000000000000000000000000");
    signer.sig = bytes_t(64);
    signer.sig[0] = 1;
    EXPECT_EQ(signer.verify({}), 0);
    for (const char* encoding : encodings) {
        signer.pk = unhex(encoding);
        EXPECT_EQ(signer.verify({}), -1) << encoding;
    }
}

TEST_F(Ed25519, RefusesLongMessagesAndLackOfMemory) {
    bytes_t message = pattern(1, ED25519_MESSAGE_MAX + 1);
    signer_t signer(pattern(2, 32));
    EXPECT_EQ(signer.sign(message), -1);
    EXPECT_EQ(signer.verify(message), -1);
    message.pop_back();
    ASSERT_EQ(signer.sign(message), 0);
    const auto rest = take_heap_but(1024);
    EXPECT_EQ(signer.sign(message), -1);
    EXPECT_EQ(signer.verify(message), -1);
}

std::vector<std::string> calls;

TEST(Keys, ComeFromAStirredPoolAndAreClamped) {
    uint8_t pub[32], priv[32];
    noise_set_random({nullptr, nullptr, false});
    EXPECT_THROW(noise_generate_keypair(pub, priv), machine_halted);
    calls.clear();
    noise_set_random({[](void* buf, uint32_t len) {
                          calls.push_back("fill " + std::to_string(len));
                          memset(buf, 0xFF, len);
                      },
                      [] { calls.push_back("stir"); }, true});
    noise_generate_keypair(pub, priv);
    EXPECT_EQ(calls, (std::vector<std::string>{"stir", "fill 32", "stir"}));
    bytes_t clamped(32, 0xFF), base(32);
    clamped[0] = 0xF8;
    clamped[31] = 0x7F;
    base[0] = 9;
    EXPECT_EQ(hex(priv, 32), hex(clamped));
    EXPECT_EQ(hex(pub, 32), hex(x25519(clamped, base)));
}

}  // namespace
