#include "kernel/apps/cmd_system.h"

#include "kernel/apps/shell.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "tests/machine/kernel.h"

namespace {

class CmdSystem : public ::testing::Test {
protected:
    void SetUp() override {
        boot_kernel();
        dmesg_init();
        machine_capture_texts();
    }
    void TearDown() override { system_ticks = 0; }
};

TEST_F(CmdSystem, TellsTimeTerminalAndInterrupts) {
    task_set_term_size(task_current(), 40, 132);
    EXPECT_EQ(run_line(cmd_termsize, "termsize"), "Terminal size: 132x40\n");
    system_ticks = 120 * 6000 + 5999;
    EXPECT_EQ(run_line(cmd_uptime, "uptime"), "Uptime: 120m 59s (725999 ticks)\n");
    irq_counts[0] = 99;
    irq_counts[4] = 7;
    system_ticks = 99;
    EXPECT_EQ(run_line(cmd_irqstat, "irqstat"),
              "IRQ Statistics (uptime: 1 sec)\n"
              "IRQ  COUNT        RATE/s   DEVICE\n"
              "---  -----------  -------  ------\n"
              "  0           99       99  PIT Timer\n"
              "  4            7        7  COM1\n"
              "---  -----------  -------\n"
              "             106      106  TOTAL\n");
}

TEST_F(CmdSystem, TellsWhereMemoryIs) {
    const std::string map = run_line(cmd_memmap, "memmap");
    for (const char* part : {"  0x00100000 - 0x004fffff      4096 KB  K  kernel image\n",
                             "     49152 KB  H  kernel heap\n", "  [LKKHHH"})
        EXPECT_NE(map.find(part), std::string::npos) << map;
    void* kept = kmalloc(100);
    kfree(kmalloc(50));
    char line[80];
    snprintf(line, sizeof line,
             "  0x%08x         100           0     0\n  1 allocations, 100 bytes\n",
             reinterpret_cast<uintptr_t>(kept));
    EXPECT_NE(run_line(cmd_memleak, "memleak").find(line), std::string::npos);
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
    const std::string two = run_line(cmd_hexdump, "hexdump 0x6000000 20");
    EXPECT_EQ(std::count(two.begin(), two.end(), '\n'), 2);
    EXPECT_EQ(two.find("06000000  "), 0u);
    const std::string last = run_line(cmd_hexdump, "hexdump 7fffff8 16");
    EXPECT_EQ(last.find("07fffff8  "), 0u) << last;
    EXPECT_NE(last.find("|\nhexdump: 0x08000000 is not mapped\n"), std::string::npos) << last;
    EXPECT_EQ(run_line(cmd_hexdump, "hexdump ffffffff 4096"),
              "hexdump: 0xffffffff is not mapped\n");
    for (const char* bad :
         {"hexdump", "hexdump \"\"", "hexdump 0x", "hexdump 12g", "hexdump 123456789",
          "hexdump 100000 0", "hexdump 100000 4097", "hexdump 100000 -1", "hexdump 100000 1 2"})
        EXPECT_EQ(run_line(cmd_hexdump, bad), "Usage: hexdump <hex-address> [1..4096]\n") << bad;
}

TEST_F(CmdSystem, ShowsTheEndOfTheLog) {
    char shown[DMESG_BYTES + 1];
    const auto dmesg = [&shown](const char* line) {
        console_start_capture(shown, sizeof shown);
        run_line(cmd_dmesg, line);
        console_stop_capture();
        return std::string(shown);
    };
    EXPECT_EQ(dmesg("dmesg"), "(dmesg buffer empty)\n");
    dmesg_append("one\ntwo\n\nfour", 13);
    EXPECT_EQ(dmesg("dmesg 1"), "four");
    dmesg_append("\n", 1);
    EXPECT_EQ(dmesg("dmesg 1"), "four\n");
    EXPECT_EQ(dmesg("dmesg 3"), "two\n\nfour\n");
    for (const char* all : {"dmesg", "dmesg 99"})
        EXPECT_EQ(dmesg(all), "one\ntwo\n\nfour\n");
    for (const char* bad : {"dmesg 0", "dmesg -1", "dmesg x", "dmesg 1 2"})
        EXPECT_EQ(run_line(cmd_dmesg, bad), "Usage: dmesg [lines]\n") << bad;
}

TEST_F(CmdSystem, ListsTasksAsTheyAre) {
    task_t* deep[12];
    for (int i = 0; i < 12; ++i) {
        deep[i] = task_create(("t" + std::to_string(i)).c_str(), [] {}, 3);
        deep[i]->parent_pid = i;  // t0 (pid 1) is a root
    }
    deep[11]->parent_pid = 99;  // it is gone
    deep[9]->state = TASK_ZOMBIE;
    deep[10]->state = TASK_DEAD;
    const std::string tree = run_line(cmd_ptree, "ptree");
    EXPECT_EQ(tree.find("PID  PPID  STATE  NAME\n0    0     run   boot\n1    0     rdy   t0\n"
                        "  2    1     rdy   t1\n  12   99    rdy   t11\n    3    2     rdy   t2\n"),
              0u)
        << tree;
    EXPECT_NE(tree.find("              8    7     rdy   t7\n"), std::string::npos) << tree;
    EXPECT_EQ(tree.find("t8"), std::string::npos) << tree;
    const std::string ps = run_line(cmd_ps, "ps");
    EXPECT_EQ(ps.find("PID  PRI  STATE    NAME\n---  ---  -------  ----\n"
                      "  0    4  running  boot\n  1    3    ready  t0\n"),
              0u)
        << ps;
    EXPECT_NE(ps.find(" 10    3   zombie  t9\n 12"), std::string::npos) << ps;
    system_ticks = 2 * 360000 + 3 * 6000 + 459;
    const std::string status = run_line(cmd_status, "status");
    EXPECT_NE(status.find("2h 3m 4s (738459 ticks)"), std::string::npos) << status;
    EXPECT_NE(status.find("12 total (1 run, 10 ready, 1 blocked)"), std::string::npos) << status;
    char screen[2048];
    console_start_capture(screen, sizeof screen);
    const std::string top = run_line(cmd_top, "top");
    console_stop_capture();
    EXPECT_NE(top.find("Tasks: 13  (R:1  W:10  B:0)\n"), std::string::npos) << top;
    EXPECT_EQ(run_line(cmd_cpu, "cpu"),
              "Per-CPU scheduler snapshot\n"
              "CPU 0: active=Y  current=boot(0)  switches=0  [busy]\n");
}

}  // namespace
