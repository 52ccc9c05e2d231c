#include "kernel/apps/cmd_disk.h"

#include <algorithm>

#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "tests/unit/fs/volume.h"

namespace {

class CmdDisk : public Volume {
protected:
    std::vector<char> shown_ = std::vector<char>(1 << 20);

    void SetUp() override {
        task_init();
        shell_init();
        console_init();
        ASSERT_EQ(mount(), 0);
    }
    void TearDown() override {
        kprintf_set_console(nullptr);
        Volume::TearDown();
    }
    /// What a command line shows on the console.
    std::string run(std::string line) {
        char* argv[SHELL_ARGS_MAX];
        const int argc = parse_args(line.data(), argv);
        console_start_capture(shown_.data(), static_cast<int>(shown_.size()));
        EXPECT_EQ(dispatch(argc, argv), 1) << line;
        console_stop_capture();
        return shown_.data();
    }
    void run_all(std::initializer_list<const char*> lines) {
        for (const char* line : lines)
            EXPECT_EQ(run(line), "") << line;
    }
    static void put(const char* path, const std::string& text) {
        EXPECT_EQ(write(path, {text.begin(), text.end()}), static_cast<int>(text.size()));
    }
    static std::string get(const char* path) {
        const bytes_t data = read(path);
        return {data.begin(), data.end()};
    }
};

/// The disk commands, by their names in the table.
std::vector<std::string> disk_commands() {
    std::vector<std::string> names;
    for (const command_t* command = commands; command->name != nullptr; ++command) {
        const std::string name = command->name;
        if (name.starts_with("disk") || name == "fsck")
            names.push_back(name);
    }
    return names;
}

TEST(DiskPath, IsResolvedInItsText) {
    char out[16];
    const auto join = [&](const char* cwd, const char* name) {
        EXPECT_EQ(disk_path_join(cwd, name, out, sizeof out), 0) << name;
        return std::string(out);
    };
    EXPECT_EQ(join("/", ""), "/");
    EXPECT_EQ(join("/a/b", "c"), "/a/b/c");
    EXPECT_EQ(join("/a", "/x//y/"), "/x/y");
    EXPECT_EQ(join("/a", "b/../../c"), "/c");
    EXPECT_EQ(disk_path_join("/1234567890", "abc", out, sizeof out), 0);
    EXPECT_EQ(disk_path_join("/1234567890", "abcd", out, sizeof out), -1);
    EXPECT_EQ(disk_path_join("/", "x", out, 2), -1);
}

TEST_F(CmdDisk, AskForTheirArgumentsAndForADisk) {
    for (const char* line :
         {"diskcat",       "diskhead -n", "diskhead -n x a",   "disktail -c",
          "diskcp a",      "diskwrite",   "diskappend a",      "diskfill a",
          "diskfill a 1G", "diskmkdir",   "diskfill a 1 \"\"", "disktruncate a -1",
          "diskpwd x",     "diskdf x",    "diskcd x y",        "diskgrep -z a b",
          "diskrm -r",     "diskcmp a",   "diskrgrep",         "diskcache now",
          "fsck now",      "diskfind",    "diskls -x"})
        EXPECT_EQ(run(line).find("Usage: "), 0u) << line;
    blockfs_forget();
    for (const std::string& name : disk_commands())
        EXPECT_EQ(run(name), name + ": the disk holds no volume\n");
    pci_device_count = 0;
    EXPECT_EQ(blk_init(), -1);
    for (const std::string& name : disk_commands())
        EXPECT_EQ(run(name + " a b"), name + ": no disk\n");
}

TEST_F(CmdDisk, ShowEndsOfFilesAcrossPieces) {
    std::string text;
    for (int i = 1; i <= 3000; ++i)
        text += "line " + std::to_string(i) + "\n";
    put("/t", text);
    EXPECT_EQ(run("diskcat t"), text);
    EXPECT_EQ(run("diskhead -n 2 t"), "line 1\nline 2\n");
    EXPECT_EQ(run("diskhead -1500 t"), text.substr(0, text.find("line 1501\n")));
    EXPECT_EQ(run("disktail -n1500 t"), text.substr(text.find("line 1501\n")));
    EXPECT_EQ(run("disktail -n 9999 t"), text);
    EXPECT_EQ(run("disktail -n 0 t"), "");
    EXPECT_EQ(run("diskhead -c 5000 t"), text.substr(0, 5000) + (text[4999] == '\n' ? "" : "\n"));
    EXPECT_EQ(run("disktail -c 5 t"), "3000\n");
    EXPECT_EQ(run("diskwc t"), "    3000     6000    " + std::to_string(text.size()) + "  t\n");
    put("/open", "a\nb");
    put("/empty", "");
    EXPECT_EQ(run("disktail -n 1 open"), "b\n");
    EXPECT_EQ(run("diskhead open empty"), "==> open <==\na\nb\n==> empty <==\n");
}

TEST_F(CmdDisk, FindTextInLinesOfAnyLength) {
    const std::string far(9000, 'x');
    put("/f", "ababc\n" + far + "needle" + far + "\nNeedle\nlast ne\nedle");
    EXPECT_EQ(run("diskgrep abc f"), "ababc\n") << "the text begins anew inside a false start";
    EXPECT_EQ(run("diskgrep needle f"), far + "needle" + far + "\n");
    EXPECT_EQ(run("diskgrep -ci NEEDLE f"), "2\n");
    EXPECT_EQ(run("diskgrep -vn x f"), "1:ababc\n3:Needle\n4:last ne\n5:edle\n");
    EXPECT_EQ(run("diskgrep -c \"\" f"), "5\n");
    run_all({"diskmkdir -p d/e", "diskwrite d/e/g Needle\\n"});
    EXPECT_EQ(run("diskrgrep -n Needle"), "/d/e/g:1:Needle\n/f:3:Needle\n");
    // A text across the border of two pieces.
    put("/g", std::string(4094, '.') + "needle\n");
    EXPECT_EQ(run("diskgrep -c needle g"), "1\n");
}

TEST_F(CmdDisk, HashAndCompareLargeFiles) {
    run_all({"diskfill big 512K", "diskcp big copy"});
    // hashlib.blake2s(b"Vorn\n" over and over, cut to 512 KiB)
    EXPECT_EQ(run("diskhash big"),
              "52235c36d5bbc0b2d9dfc2573460d74b0e10b96495b2efd894fee9811e45e95b  big\n");
    EXPECT_EQ(run("diskcmp big copy"), "big copy are the same: 524288 bytes\n");
    run_all({"disktruncate copy 5000", "diskappend copy x"});
    EXPECT_EQ(run("diskcmp big copy"), "big copy differ: byte 5001, line 1001\n");
    run_all({"disktruncate copy 5000"});
    EXPECT_EQ(run("diskcmp big copy"), "diskcmp: EOF on copy after byte 5000\n");
    EXPECT_EQ(run("diskfill big 8460289"), "diskfill: a file has at most 8460288 bytes\n");
    EXPECT_EQ(run("diskfill big 8M").find("diskfill: big: 1"), 0u) << "the disk is smaller";
    EXPECT_EQ(faults(), "");
}

TEST_F(CmdDisk, WriteCopyAndMoveAsTheirNamesakesDo) {
    run_all({"diskwrite a one two", "diskappend a \\n\\tthree\\\\n", "diskmkdir d", "diskcp a d"});
    EXPECT_EQ(get("/d/a"), "one two\n\tthree\\n");
    run_all({"diskwrite b bee", "diskcp b d/a", "diskmv b d/a", "diskcd d"});
    EXPECT_EQ(get("/d/a"), "bee");
    EXPECT_EQ(run("diskls .."), "a\nd/\n");
    EXPECT_EQ(run("diskpwd"), "/d\n");
    run_all({"diskmv ../a c", "disktouch e f", "diskmv c e f ..", "diskmv ../f f"});
    EXPECT_EQ(run("disktree /"),
              "/\n|-- c\n|-- d/\n|   |-- a\n|   `-- f\n`-- e\n1 directories, 4 files\n");
    EXPECT_EQ(run("diskdu /"), "       512  /d\n      1024  /\n");
    EXPECT_EQ(run("diskfind / c"), "/c\n");
    EXPECT_EQ(run("diskfind / ?"), "/c\n/d\n/d/a\n/d/f\n/e\n");
    EXPECT_EQ(run("diskfind *a*a"), "");
    EXPECT_EQ(run("diskls -l f"), "- rw        0          1  f\n");
    run_all({"diskro f", "diskrw f", "diskrm f /c", "diskrm -r /d"});
    EXPECT_EQ(list("/"), "e\n");
}

TEST_F(CmdDisk, SayWhatIsWrongInOneLine) {
    run_all({"diskmkdir d", "diskwrite f x", "diskwrite d/ro x", "diskro d/ro"});
    const std::string longest(64, 'n');
    struct {
        std::string line, said;
    } const cases[] = {
        {"diskcat nope", "diskcat: nope: no such file or directory"},
        {"diskcat d", "diskcat: d: is a directory"},
        {"diskcd f", "diskcd: f: not a directory"},
        {"diskmkdir d", "diskmkdir: d: exists"},
        {"diskmkdir no/such", "diskmkdir: no/such: no such directory"},
        {"diskwrite f/x y", "diskwrite: f/x: a file stands where a directory should be"},
        {"diskwrite d y", "diskwrite: d: is a directory"},
        {"diskwrite d/ro y", "diskwrite: d/ro: read-only"},
        {"disktouch " + longest, "disktouch: " + longest + ": name too long"},
        {"diskrm d", "diskrm: d: directory not empty (-r removes all of it)"},
        {"diskrm /", "diskrm: /: the root stays"},
        {"diskrm -r \"\"", "diskrm: \"\": no such file or directory"},
        {"diskrm -r d", "diskrm: d: it or something in it is read-only, or the disk fails"},
        {"diskmv d d/x", "diskmv: d: cannot go below itself"},
        {"diskmv f d/ro", "diskmv: /d/ro: read-only"},
        {"diskmv d/ro f", "diskmv: /f: what is to be moved is read-only"},
        {"diskmv d f", "diskmv: /f: a file is in the way"},
        {"diskcp f ./f", "diskcp: /f and /f are the same"},
        {"diskcp f d/ro", "diskcp: /d/ro: read-only"},
        {"diskcp f d f", "diskcp: f: not a directory"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(run(one.line), one.said + "\n") << one.line;
    EXPECT_EQ(get("/f") + get("/d/ro"), "xx") << "nothing was changed";
    EXPECT_EQ(faults(), "");
}

TEST_F(CmdDisk, ACopyLeavesTheFileAloneThatGetsItsInodeMeanwhile) {
    put("/from", std::string(70000, 'x'));
    blockfs_set_change_hook([](int op, const char*, const void*, uint32_t) {
        if (op != BLOCKFS_OP_APPEND)
            return;
        blockfs_set_change_hook(nullptr);
        blockfs_remove("/to");
        put("/other", "mine");
    });
    EXPECT_EQ(run("diskcp from to"),
              "diskcp: /to: 65536 of 70000 bytes written: changed by another task meanwhile\n");
    EXPECT_EQ(get("/other"), "mine");
}

TEST_F(CmdDisk, WalkAsDeepAsPathsGoAndFillDirectories) {
    std::string deepest;
    for (int i = 0; i < 127; ++i)
        deepest += "/d";
    EXPECT_EQ(run("diskmkdir -p " + deepest), "");
    EXPECT_NE(run("disktree").find("127 directories, 0 files\n"), std::string::npos);
    EXPECT_EQ(run("disktouch " + deepest + "/x"), "disktouch: " + deepest + "/x: name too long\n");
    for (int i = 0; i < 128; ++i)
        run("disktouch " + std::string(60, 'n') + std::to_string(i));
    EXPECT_EQ(std::ranges::count(run("diskls"), '\n'), 129);
    EXPECT_EQ(run("disktouch one-more"), "disktouch: one-more: no inode is free\n");
    EXPECT_EQ(run("diskrm -r d"), "");
}

TEST_F(CmdDisk, AreNotLedAstrayByDamagedNames) {
    run_all({"diskmkdir -p d/e/f", "disktouch d/g d/e/h d/e/f/i r s"});
    const char* const names[] = {"d", "e/f", "..", "g\ng", "h", "", "", "s\n"};
    for (uint32_t n = 1; n <= 8; ++n) {
        vofs_inode one = inode(n);
        strcpy(one.name, names[n - 1]);
        put_inode(n, one);
    }
    ASSERT_EQ(mount(), 0);
    for (const char* line : {"disktree", "diskdu", "diskfind / g", "diskrgrep x", "diskls -l d"})
        EXPECT_LT(std::ranges::count(run(line), '\n'), 12) << line;
}

TEST_F(CmdDisk, ReportADiskThatFailsAtAnyRequest) {
    run_all({"diskfill a 20000", "diskmkdir d"});
    constexpr const char* LINES[] = {"diskcat a",       "diskcp a d", "diskgrep -c V a",
                                     "diskls -l",       "diskhash a", "disktree",
                                     "diskwrite d/w x", "diskdf",     "diskfill d/f 9K",
                                     "diskmv a d/b",    "diskrm -r d"};
    for (uint64_t n = 1; n < 60; n += 2) {
        ASSERT_EQ(mount(), 0);
        m.disk.fail_request(n, 3);
        for (const char* line : LINES)
            run(line);
        m.disk.power_on();
        for (const char* line : {"diskrm -r d", "diskfill a 20000", "diskmkdir d"})
            run(line);
        EXPECT_EQ(run("diskhash a").size(), 68u) << n;
    }
    ASSERT_EQ(mount(), 0);
    EXPECT_EQ(faults(), "");
}

}  // namespace
