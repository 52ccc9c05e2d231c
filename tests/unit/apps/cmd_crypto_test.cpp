#include "kernel/apps/cmd_crypto.h"

#include <gtest/gtest.h>

#include "kernel/drivers/hwrng.h"
#include "tests/machine/kernel.h"

namespace {

class CmdCrypto : public testing::Test {
protected:
    void SetUp() override {
        boot_kernel();
        machine().rdrand = [](uint32_t* word) { return *word = 0xABC, true; };
        hwrng_init();
    }
};

TEST_F(CmdCrypto, RunsAllSelfTests) {
    const std::string report =
        "crypto selftest:\n"
        "  SHA-512 (FIPS 180-4 KAT)  PASS\n"
        "  Ed25519 (RFC 8032 KAT)    PASS\n"
        "  ChaCha20 (RFC 8439 KAT)   PASS\n"
        "  Poly1305 (RFC 8439 KAT)   PASS\n"
        "  ChaCha20-Poly1305 AEAD     PASS\n"
        "  BLAKE2s (RFC 7693 KAT)    PASS\n"
        "  X25519 (RFC 7748 KAT)     PASS\n"
        "crypto selftest: PASS\n";
    EXPECT_EQ(run(cmd_crypto), report);
    EXPECT_EQ(run(cmd_crypto, {"selftest"}), report);
    EXPECT_EQ(run(cmd_crypto, {"self"}), "usage: crypto [selftest]\n");
}

TEST_F(CmdCrypto, PrintsRandomWordsFourToALine) {
    const std::string word = "  00000abc", head = "RDRAND=yes RDSEED=no\n";
    const std::string line = word + word + word + word + "\n";
    EXPECT_EQ(run(cmd_random), head + line + line);
    EXPECT_EQ(run(cmd_random, {"5"}), head + line + word + "\n");
    EXPECT_EQ(run(cmd_random, {"-3"}), head + word + "\n");
    EXPECT_EQ(run(cmd_random, {"0"}), head + word + "\n");
    std::string most = head;
    for (int i = 0; i < 16; ++i)
        most += line;
    EXPECT_EQ(run(cmd_random, {"65"}), most);
    EXPECT_EQ(run(cmd_random, {"many"}), "usage: random [n]\n");
}

}  // namespace
