#include "kernel/apps/cmd_crypto.h"

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

TEST_F(CmdCrypto, RunsTheSelfTests) {
    const std::string report = run(cmd_crypto);
    EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 9) << report;
    EXPECT_TRUE(report.ends_with("\ncrypto selftest: PASS\n") &&
                report.find("FAIL") > report.size());
    EXPECT_EQ(run(cmd_crypto, {"selftest"}), report);
    EXPECT_EQ(run(cmd_crypto, {"self"}), "usage: crypto [selftest]\n");
}

TEST_F(CmdCrypto, PrintsRandomWordsFourToALine) {
    const std::string word = "  00000abc", head = "RDRAND=yes RDSEED=no\n";
    const std::string line = word + word + word + word + "\n";
    EXPECT_EQ(run(cmd_random), head + line + line);
    EXPECT_EQ(run(cmd_random, {"5"}), head + line + word + "\n");
    for (const char* least : {"-3", "0"})
        EXPECT_EQ(run(cmd_random, {least}), head + word + "\n");
    EXPECT_EQ(run(cmd_random, {"65"}).size(), head.size() + 16 * line.size());
    EXPECT_EQ(run(cmd_random, {"many"}), "usage: random [n]\n");
}

}  // namespace
