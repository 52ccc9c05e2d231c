#include "kernel/apps/cmd_system.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "kernel/apps/shell.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "tests/machine/machine.h"
#include "tests/machine/memory.h"

namespace {

class CmdSystem : public ::testing::Test {
protected:
    void SetUp() override {
        machine_reset();
        machine_boot_memory();
        interrupt_init();
        task_init();
        dmesg_init();
        machine_capture_texts();
        system_ticks = 0;
    }
    void TearDown() override { system_ticks = 0; }

    static std::string run(command_fn command, std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        machine_texts().clear();
        command(static_cast<int>(argv.size()), argv.data());
        return machine_texts();
    }
};

TEST_F(CmdSystem, TellsNameTimeAndTerminal) {
    EXPECT_EQ(run(cmd_uname, {"uname"}),
              "Vorn 0.1.0 (A Causal Graph-Native Operating System) — i686 x86\n");
    EXPECT_EQ(run(cmd_termsize, {"termsize"}), "Terminal size: 80x25\n");
    task_set_term_size(task_current(), 40, 132);
    EXPECT_EQ(run(cmd_termsize, {"termsize"}), "Terminal size: 132x40\n");
    EXPECT_EQ(run(cmd_uptime, {"uptime"}), "Uptime: 0m 0s (0 ticks)\n");
    system_ticks = 120 * 6000 + 5999;
    EXPECT_EQ(run(cmd_uptime, {"uptime"}), "Uptime: 120m 59s (725999 ticks)\n");
}

TEST_F(CmdSystem, CountsInterruptsByLine) {
    irq_counts[0] = 99;
    irq_counts[4] = 7;
    system_ticks = 99;
    EXPECT_EQ(run(cmd_irqstat, {"irqstat"}),
              "IRQ Statistics (uptime: 1 sec)\n"
              "IRQ  COUNT        RATE/s   DEVICE\n"
              "---  -----------  -------  ------\n"
              "  0           99       99  PIT Timer\n"
              "  4            7        7  COM1\n"
              "---  -----------  -------\n"
              "             106      106  TOTAL\n");
    system_ticks = 1099;
    EXPECT_NE(run(cmd_irqstat, {"irqstat"}).find("  4            7        0  COM1\n"),
              std::string::npos);
}

TEST_F(CmdSystem, AddsMemoryUp) {
    const uint32_t total = pmm_total_frames(), used = pmm_used_frames();
    char expected[200];
    snprintf(expected, sizeof expected,
             "Physical memory:\n  Total:  %u KB (%u frames)\n  Used:   %u KB (%u frames)\n"
             "  Free:   %u KB (%u frames)\n",
             total * 4, total, used * 4, used, (total - used) * 4, total - used);
    EXPECT_EQ(run(cmd_free, {"free"}), expected);
    const std::string map = run(cmd_memmap, {"memmap"});
    EXPECT_NE(map.find("  0x00100000 - 0x004fffff      4096 KB  K  kernel image\n"),
              std::string::npos)
        << map;
    EXPECT_NE(map.find("     49152 KB  H  kernel heap\n"), std::string::npos) << map;
    EXPECT_NE(map.find("  [LKKHHH"), std::string::npos) << map;
}

TEST_F(CmdSystem, ListsWhatWasNotFreed) {
    void* kept = kmalloc(100);
    kfree(kmalloc(50));
    char line[40];
    snprintf(line, sizeof line, "  0x%08x         100", reinterpret_cast<uintptr_t>(kept));
    const std::string list = run(cmd_memleak, {"memleak"});
    EXPECT_NE(list.find(line), std::string::npos) << list;
    EXPECT_NE(list.find("  1 allocations, 100 bytes\n"), std::string::npos) << list;
    kfree(kept);
    EXPECT_NE(run(cmd_memleak, {"memleak"}).find("  0 allocations, 0 bytes\n"), std::string::npos);
    EXPECT_NE(run(cmd_heap, {"heap"}).find("Heap Diagnostics:\n"), std::string::npos);
    EXPECT_NE(run(cmd_heap, {"heap", "selftest"}).find("PASS"), std::string::npos);
    EXPECT_EQ(run(cmd_heap, {"heap", "x"}), "Usage: heap [selftest]\n");
}

TEST_F(CmdSystem, DumpsMemoryInLines) {
    char line[HEXDUMP_LINE_BYTES];
    const uint8_t bytes[16] = {0, 'A', '~', 127, 255, ' ', 6, 7, 8, 9, 10, 11, 12, 13, 14, '0'};
    hexdump_line(line, 0xABCDE, bytes, 16);
    EXPECT_STREQ(line,
                 "000abcde  00 41 7e 7f ff 20 06 07  08 09 0a 0b 0c 0d 0e 30  |.A~.. .........0|");
    hexdump_line(line, 0, bytes, 3);
    EXPECT_STREQ(line, ("00000000  00 41 7e" + std::string(42, ' ') + "|.A~|").c_str());
}

TEST_F(CmdSystem, DumpsOnlyWhatIsMapped) {
    const std::string two = run(cmd_hexdump, {"hexdump", "0x6000000", "20"});
    EXPECT_EQ(std::count(two.begin(), two.end(), '\n'), 2);
    EXPECT_EQ(two.find("06000000  "), 0u);
    const std::string last = run(cmd_hexdump, {"hexdump", "7fffff8", "16"});
    EXPECT_EQ(last.find("07fffff8  "), 0u) << last;
    EXPECT_NE(last.find("|\nhexdump: 0x08000000 is not mapped\n"), std::string::npos) << last;
    EXPECT_EQ(run(cmd_hexdump, {"hexdump", "ffffffff", "4096"}),
              "hexdump: 0xffffffff is not mapped\n");
    const std::string usage = "Usage: hexdump <hex-address> [1..4096]\n";
    for (const auto& words : std::vector<std::vector<std::string>>{{"hexdump"},
                                                                   {"hexdump", ""},
                                                                   {"hexdump", "0x"},
                                                                   {"hexdump", "12g"},
                                                                   {"hexdump", "123456789"},
                                                                   {"hexdump", "100000", "0"},
                                                                   {"hexdump", "100000", "4097"},
                                                                   {"hexdump", "100000", "-1"},
                                                                   {"hexdump", "100000", "1", "2"}})
        EXPECT_EQ(run(cmd_hexdump, words), usage) << words.back();
}

TEST_F(CmdSystem, ShowsTheEndOfTheLog) {
    char shown[DMESG_BYTES + 1];
    const auto dmesg = [&shown](std::vector<std::string> words) {
        console_start_capture(shown, sizeof shown);
        run(cmd_dmesg, words);
        console_stop_capture();
        return std::string(shown);
    };
    EXPECT_EQ(dmesg({"dmesg"}), "(dmesg buffer empty)\n");
    dmesg_append("one\ntwo\n\nfour", 13);
    EXPECT_EQ(dmesg({"dmesg"}), "one\ntwo\n\nfour");
    EXPECT_EQ(dmesg({"dmesg", "1"}), "four");
    dmesg_append("\n", 1);
    EXPECT_EQ(dmesg({"dmesg", "1"}), "four\n");
    EXPECT_EQ(dmesg({"dmesg", "3"}), "two\n\nfour\n");
    EXPECT_EQ(dmesg({"dmesg", "99"}), "one\ntwo\n\nfour\n");
    for (const char* bad : {"0", "-1", "x", ""})
        EXPECT_EQ(run(cmd_dmesg, {"dmesg", bad}), "Usage: dmesg [lines]\n") << bad;
}

TEST_F(CmdSystem, CrashesOnlyWhenToldHow) {
    for (const auto& words :
         std::vector<std::vector<std::string>>{{"crash"}, {"crash", "x"}, {"crash", "div0", "now"}})
        EXPECT_EQ(run(cmd_crash, words).find("Usage: crash <kind>\n  div0     divide error\n"), 0u);
    for (const char* kind : {"div0", "break", "opcode", "gpf", "page"})
        EXPECT_THROW(run(cmd_crash, {"crash", kind}), machine_halted) << kind;
}

}  // namespace
