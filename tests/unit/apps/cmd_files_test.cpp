#include "kernel/apps/cmd_files.h"

#include <algorithm>

#include "kernel/apps/shell.h"
#include "kernel/drivers/console.h"
#include "kernel/fs/overlay.h"
#include "tests/unit/fs/volume.h"

namespace {

int show(const uint8_t* bytes, uint32_t len, void*) {
    machine_texts().append(reinterpret_cast<const char*>(bytes), len);
    return static_cast<int>(len);
}

class Files : public Volume {
protected:
    void SetUp() override {
        EXPECT_EQ(mount(), 0);
        fs_init();
        shell_init();
        console_set_session_hook([](console_session_t* out) {
            *out = {show, nullptr};
            return true;
        });
    }
    void TearDown() override {
        console_set_session_hook(nullptr);
        Volume::TearDown();
    }
    /// What command lines show.
    template <typename... lines_t>
    static std::string sh(const lines_t&... lines) {
        std::string all;
        const auto one = [&all](const std::string& line) {
            machine_texts().clear();
            shell_exec(line.c_str());
            all += machine_texts().substr(line.size() + 1);
        };
        (one(lines), ...);
        return all;
    }
    /// Lines that end or begin anywhere with respect to the pieces that are read.
    static std::string many_lines(int count) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text +=
                "line " + std::to_string(i) + std::string(static_cast<size_t>(i % 97), 'x') + "\n";
        return text;
    }
    static void fill_ram(const char* path, const std::string& text) {
        EXPECT_EQ(
            overlay_write(path, VORN_ROUTE_RAM, text.data(), static_cast<uint32_t>(text.size())),
            0);
    }
};

TEST_F(Files, WritesGoByThePathAndReadsPreferRam) {
    EXPECT_EQ(sh("write note \"two  words\" more"), "15 bytes written to /note (RAM)\n");
    EXPECT_EQ(sh("write /tmp/../docs/a.txt hello"), "5 bytes written to /docs/a.txt (disk)\n");
    EXPECT_EQ(sh("cat note /docs/a.txt"), "two  words morehello\n");
    EXPECT_EQ(blockfs_resolve("/note"), -1);
    EXPECT_EQ(fs_resolve("/docs"), nullptr);

    EXPECT_EQ(sh("write /etc/motd new"), "3 bytes written to /etc/motd (disk)\n");
    EXPECT_EQ(fs_resolve("/etc/motd"), nullptr);
    EXPECT_EQ(sh("ls /etc"), "motd\nprofile\n");  // both filesystems' entries
    sh("cd etc");
    EXPECT_EQ(sh("write motd newest"), "6 bytes written to /etc/motd (RAM)\n");
    EXPECT_EQ(sh("cat /etc/motd", "ls"), "newest\nmotd\nprofile\n");
    EXPECT_EQ(sh("rm motd", "cat motd"), "new\n");
    EXPECT_EQ(sh("touch /etc/profile motd"), "");  // what is there keeps its contents
    EXPECT_EQ(sh("cat motd", "ls -l /etc /home"),
              "new\n/etc:\nfile        3  disk     motd\nfile      121  ram      profile\n"
              "/home:\nfile      226  ram      demo.sl\n");
}

TEST_F(Files, EveryErrorIsOneLine) {
    fill_ram("/tmp/f", "text");
    sh("write /docs/a text");
    const std::string longest(64, 'n');
    const std::pair<std::string, std::string> cases[] = {
        {"cat", "Usage: cat <file...>\n"},
        {"cat /tmp", "cat: /tmp: is a directory\n"},
        {"cat /tmp/f/x", "cat: /tmp/f/x: no such file or directory\n"},
        {"cat \"\"", "cat: \"\": no such file or directory\n"},
        {"head -n x /tmp/f", "Usage: head [-n lines] <file...>\n"},
        {"wc -q /tmp/f", "Usage: wc [-l] [-w] [-c] <file...>\n"},
        {"ls none", "ls: none: no such file or directory\n"},
        {"cd /tmp/f", "cd: /tmp/f: not a directory\n"},
        {"cd /docs", "cd: /docs: is on the disk only (diskcd goes there)\n"},
        {"mkdir /tmp", "mkdir: /tmp: file exists\n"},
        {"mkdir /none/x", "mkdir: /none/x: no such file or directory\n"},
        {"mkdir -p /tmp/f/x/y", "mkdir: /tmp/f/x/y: file exists\n"},
        {"write /tmp x", "write: /tmp: is a directory\n"},
        {"write /tmp/f/x/y z", "write: /tmp/f/x/y: not a directory\n"},
        {"write /etc/motd/x y", "write: /etc/motd/x: not a directory\n"},
        {"write docs/a y",
         "write: docs/a: its directory is on the disk; an absolute path writes "
         "there\n"},
        {"write " + longest + " x", "write: " + longest + ": name too long\n"},
        {"write /docs/" + longest + " x", "write: /docs/" + longest + ": name too long\n"},
        {"touch /none/../tmp/none/x", "touch: /none/../tmp/none/x: no such file or directory\n"},
        {"rm /tmp", "rm: /tmp: directory not empty\n"},
        {"rm /docs none", "rm: /docs: directory not empty\nrm: none: no such file or directory\n"},
        {"rm -rf / none", "rm: /: is the root of the tree\n"},
        {"cp /tmp/f", "Usage: cp [-r] <from...> <to>\n"},
        {"cp /etc /tmp", "cp: /etc: is a directory\n"},
        {"cp -r /etc /etc/x", "cp: /etc: cannot be put into itself\n"},
        {"cp /tmp/f tmp/../tmp", "cp: /tmp/f: source and destination are the same\n"},
        {"cp /tmp/f /docs/a /tmp/f", "cp: /tmp/f: not a directory\n"},
        {"mv /docs /tmp",
         "mv: /tmp/docs: cannot move a directory to the other filesystem (cp -r copies it)\n"},
        {"mv none .", "mv: /none: no such file or directory\n"},
        {"mv /etc etc/x", "mv: /etc: cannot be put into itself\n"},
    };
    for (const auto& [line, wanted] : cases)
        EXPECT_EQ(sh(line), wanted) << line;
    EXPECT_EQ(sh("cat /tmp/f /docs/a"), "texttext\n");
    EXPECT_EQ(faults(), "");
}

TEST_F(Files, WithoutADiskItSaysSo) {
    blockfs_forget();
    for (const char* line :
         {"write /x y", "touch /x", "mkdir /x", "cp /etc/motd /x", "mv /etc/motd /x"})
        EXPECT_TRUE(sh(line).ends_with(": /x: no disk\n")) << line;
    EXPECT_EQ(sh("write /tmp/x y", "cat /tmp/x", "ls"),
              "1 bytes written to /tmp/x (RAM)\ny\nbin/\netc/\nhome/\ntmp/\n");
}

TEST_F(Files, ShowsPartsOfLargeFiles) {
    const std::string text = many_lines(5000);
    fill_ram("/tmp/large", text);
    sh("cp /tmp/large /large");
    const auto from_line = [&](int line) {
        return text.substr(text.find("line " + std::to_string(line)));
    };
    EXPECT_TRUE(sh("cat /large") == text);
    EXPECT_TRUE(sh("head -n 300 /large") == text.substr(0, text.size() - from_line(300).size()));
    EXPECT_TRUE(sh("head -n 9999 /large") == text);
    EXPECT_TRUE(sh("tail -700 /large") == from_line(4300));
    EXPECT_TRUE(sh("tail -n 9999 /large") == text);
    EXPECT_EQ(sh("tail -n 0 /large", "head -n0 /large"), "");
    EXPECT_EQ(sh("wc -l -c /large"), "    5000  " + std::to_string(text.size()) + " /large\n");
    EXPECT_EQ(sh("grep -c \"LINE 4\" /large"), "0\n");
    EXPECT_EQ(sh("grep -ci \"LINE 4\" /large"), "1111\n");
    EXPECT_EQ(sh("grep -n \"line 4095x\" /large /etc/motd"),
              "/large:4096:" + from_line(4095).substr(0, from_line(4095).find('\n') + 1));
    const std::string line = std::string(9000, 'l') + "nneedLe";
    fill_ram("/tmp/line", "needle\n" + line + "\nx");
    EXPECT_EQ(sh("grep -in needle /tmp/line"), "1:needle\n2:" + line + "\n");
    fill_ram("/tmp/open", "a\nb\n\nlast");
    EXPECT_EQ(sh("tail -2 /tmp/open", "grep -v a /tmp/open"), "\nlast\nb\n\n");
    EXPECT_EQ(sh("wc /tmp/open /home"),
              "       3       3       9 /tmp/open\n"
              "wc: /home: is a directory\n       3       3       9 total\n");
    EXPECT_EQ(sh("head -n 1 /tmp/open /etc/motd").substr(0, 42),
              "==> /tmp/open <==\na\n\n==> /etc/motd <==\nTry");
}

TEST_F(Files, CopiesAndMovesWithinAndBetweenTheFilesystems) {
    const std::string text = many_lines(3000);
    fill_ram("/tmp/r", text);
    EXPECT_EQ(sh("cp /tmp/r /d", "cp /d /tmp/copy", "mv /d /e", "mv /tmp/r /tmp/s"), "");
    EXPECT_TRUE(sh("cat /e") == text);
    EXPECT_EQ(sh("cat /tmp/copy"), text);
    EXPECT_EQ(sh("mv /e /tmp/copy", "mv /tmp/s /home"), "");  // over a file, to the disk
    EXPECT_EQ(sh("cat /tmp/copy", "ls /home /tmp"), text + "/home:\ndemo.sl\ns\n/tmp:\ncopy\n");
    EXPECT_EQ(blockfs_resolve("/e"), -1);
    sh("mkdir -p t/a/b");
    sh("write t/a/b/f deep");
    sh("write /t/onlydisk x");
    EXPECT_EQ(sh("cp -r t /u", "cat /u/a/b/f /u/onlydisk"), "deepx\n");
    EXPECT_EQ(sh("mv /u/a /v", "rm -r /u t"), "");
    EXPECT_EQ(sh("ls /v/b", "ls /"), "f\nbin/\netc/\nhome/\nt/\ntmp/\nv/\n");
    EXPECT_EQ(sh("cat t/onlydisk"), "x\n");
    EXPECT_EQ(faults(), "");
}

TEST_F(Files, ADirectoryOfAnyLengthIsListedAndCopiedWhole) {
    vofs_super sb = super();
    sb.inode_count = 1500;
    sb.data_start = sb.inode_start + sb.inode_count;
    put(0, sb);
    ASSERT_EQ(mount(), 0);
    sh("mkdir /d");
    for (int i = 0; i < 600; ++i)
        sh("touch /d/" + std::string(60, 'n') + std::to_string(i));
    EXPECT_EQ(sh("cp -r /d /e"), "");
    EXPECT_EQ(std::ranges::count(sh("ls /e"), '\n'), 600);
}

TEST_F(Files, AFullDiskOrTreeEndsACopyWithALine) {
    fill_ram("/tmp/r", std::string(1500000, 'r'));
    EXPECT_EQ(sh("cp /tmp/r /one"), "");
    EXPECT_EQ(sh("cp /tmp/r /two"), "cp: /two: no space left on the disk\n");
    EXPECT_EQ(sh("rm /two", "write /small x") + faults(), "1 bytes written to /small (disk)\n");
    ASSERT_EQ(blockfs_set_flags("/one", BLOCKFS_READ_ONLY), 0);
    EXPECT_NE(sh("mv /one /small"), "");
    EXPECT_EQ(sh("cat /small"), "x\n");
    ASSERT_EQ(blockfs_set_flags("/one", 0), 0);
    EXPECT_EQ(sh("mv /one /small", "mv /small /one"), "");  // takes no room
    EXPECT_EQ(sh("wc -c /one", "write /small x"),
              " 1500000 /one\n1 bytes written to /small (disk)\n");
    for (int i = 0; i < FS_NODES_MAX; ++i)
        fs_create_file(("/tmp/" + std::to_string(i)).c_str());
    EXPECT_EQ(sh("touch new"),
              "touch: new: the RAM filesystem has no entries left until the next start\n");
    EXPECT_EQ(sh("rm -r /tmp", "ls /"), "bin/\netc/\nhome/\none\nsmall\n");
}

TEST_F(Files, AFileThatGoesWhileItIsReadIsNoOtherFile) {
    sh("write /a first");
    overlay_file_t file;
    char byte = '#';
    ASSERT_EQ(overlay_open("/a", &file), 0);
    sh("rm /a");
    sh("write /b second");  // takes the inode number
    ASSERT_EQ(blockfs_resolve("/b"), file.inode);
    EXPECT_EQ(overlay_read(&file, &byte, 0, 1), OVERLAY_CHANGED);
    EXPECT_EQ(overlay_append(&file, "x", 1), OVERLAY_CHANGED);
    ASSERT_EQ(overlay_open("/etc/motd", &file), 0);
    EXPECT_EQ(fs_remove("/etc/motd"), 0);
    EXPECT_EQ(overlay_read(&file, &byte, 0, 1), OVERLAY_CHANGED);
}

TEST_F(Files, CdResolvesDotsItself) {
    const auto cd = [](const std::string& to) { return sh("cd " + to, "pwd"); };
    for (const auto& [to, wanted] : {std::pair{"home/../etc/.", "/etc\n"},
                                     {"..", "/\n"},
                                     {"../..", "/\n"},
                                     {"tmp/", "/tmp\n"}})
        EXPECT_EQ(cd(to), wanted);
    EXPECT_EQ(cd("none"), "cd: none: no such file or directory\n/tmp\n");
    EXPECT_EQ(cd(""), "/\n");
}

}  // namespace
