#include "kernel/fs/ramfs.h"

#include <algorithm>

#include "tests/unit/graph/causal_fixture.h"

namespace {

class RamFs : public causal_fixture {
protected:
    void SetUp() override {
        causal_fixture::SetUp();
        fs_init();
    }
    static std::string names(const char* path, size_t size = FS_LIST_BYTES) {
        std::string text(size, '#');
        return fs_list_names(path, text.data(), size) < 0 ? "none" : std::string(text.c_str());
    }
    static std::string contents(fs_node_t* node) {
        std::string text(node->size, '#');
        EXPECT_EQ(fs_read(node, text.data(), text.size() + 9, 0), static_cast<int>(text.size()));
        return text;
    }
};

TEST_F(RamFs, BeginsWithItsDirectoriesAndFiles) {
    EXPECT_EQ(names("/"), "home\ntmp\netc\nbin\n");
    EXPECT_EQ(names("etc/"), "profile\nmotd\n");
    EXPECT_EQ(contents(fs_resolve("/etc/motd")),
              "Try: programs, dmesg 5, events, status, showcase");
    const std::string demo = contents(fs_resolve("/home/demo.sl"));
    EXPECT_TRUE(demo.starts_with("# Vorn demo script\necho Hello from vorsh!\nset count 0\n"));
    EXPECT_EQ(std::count(demo.begin(), demo.end(), '\n'), 13);
    EXPECT_EQ(newest(), "write profile (121 bytes)");
}

TEST_F(RamFs, ResolvesOnlyWhatIsThere) {
    EXPECT_EQ(fs_resolve("/"), fs_root());
    EXPECT_EQ(fs_resolve("tmp"), fs_resolve("/tmp/"));
    EXPECT_STREQ(fs_resolve("home/demo.sl")->name, "demo.sl");
    for (const char* path : {"", "//", "//tmp", "/tmp//", "/TMP", "/tm", "/tmp2", "/tmp/.", "/..",
                             "/etc/motd/x", "/none/x"})
        EXPECT_EQ(fs_resolve(path), nullptr) << path;
    EXPECT_EQ(fs_resolve(nullptr), nullptr);
}

TEST_F(RamFs, CreatesWhereADirectoryIs) {
    fs_node_t* file = fs_create_file("top");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(newest(), "create top");
    EXPECT_EQ(fs_write(file, "kept", 4), 0);
    const std::string longest(63, 'n');
    EXPECT_NE(fs_create_file(("/tmp/" + longest).c_str()), nullptr);
    const uint32_t events = causal_total_events();
    for (const std::string path : {"/top", "/none/x", "/etc/motd/x", "/tmp/", "", "/"})
        EXPECT_TRUE(!fs_create_file(path.c_str()) && !fs_create_dir(path.c_str())) << path;
    EXPECT_EQ(fs_create_file(("/tmp/" + longest + "n").c_str()), nullptr);
    EXPECT_EQ(fs_create_file((std::string(256, 'x') + "/y").c_str()), nullptr);
    EXPECT_EQ(causal_total_events(), events);
    EXPECT_EQ(contents(file), "kept");
}

TEST_F(RamFs, ContentsGrowInStepsAndNeverShrink) {
    fs_node_t* file = fs_create_file("/tmp/f");
    const std::string text(300, 't');
    const auto written = [&](size_t size) {
        EXPECT_EQ(fs_write(file, text.data(), size), 0);
        EXPECT_EQ(file->size, size);
        return file->capacity;
    };
    for (const auto& [size, capacity] :
         {std::pair{0, 0u}, {1, 256}, {256, 256}, {257, 512}, {10, 512}})
        EXPECT_EQ(written(static_cast<size_t>(size)), capacity);
    EXPECT_EQ(fs_append(file, std::string(502, 'a').data(), 502), 0);
    EXPECT_EQ(newest(), "append f (502 bytes)");
    EXPECT_EQ(file->capacity, 512u);
    // The data may be the file's own.
    EXPECT_EQ(fs_append(file, file->data + 9, 2), 0);
    EXPECT_EQ(file->capacity, 768u);
    EXPECT_EQ(contents(file), std::string(10, 't') + std::string(502, 'a') + "ta");

    char byte = '#';
    EXPECT_EQ(fs_read(file, &byte, 1, 514) + fs_read(file, &byte, 1, 0xFFFFFFFF), 0);
    EXPECT_EQ(fs_read(file, &byte, 9, 513), 1);
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(fs_read(fs_root(), &byte, 1, 0) + fs_read(nullptr, &byte, 1, 0), -2);
    EXPECT_EQ(fs_write(fs_root(), "", 0), -1);
}

TEST_F(RamFs, KeepsTheOldContentsWhenMemoryIsOut) {
    fs_node_t* file = fs_create_file("/tmp/f");
    EXPECT_EQ(fs_write(file, "old", 3), 0);
    for (const int result : {fs_reserve(file, HEAP_BYTES), fs_reserve(file, 0xFFFFFFFF),
                             fs_append(file, "", 0xFFFFFFFF), fs_write(file, "", HEAP_BYTES)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(contents(file), "old");
    EXPECT_EQ(fs_reserve(file, 5000), 0);
    const uint8_t* buffer = file->data;
    EXPECT_EQ(fs_append(file, std::string(4997, 'x').data(), 4997), 0);
    EXPECT_EQ(file->data, buffer);
}

TEST_F(RamFs, ARemovedNodeRefusesEverythingAndLeaksNothing) {
    const uint32_t used = heap_used();
    fs_node_t* dir = fs_create_dir("/tmp/d");
    fs_node_t* file = fs_create_file("/tmp/d/f");
    EXPECT_EQ(fs_write(file, "text", 4), 0);
    for (const char* path : {"/tmp/d", "/", "/none", ""})
        EXPECT_EQ(fs_remove(path), -1);
    EXPECT_EQ(fs_remove("tmp/d/f"), 0);
    EXPECT_EQ(newest(), "delete tmp/d/f");
    EXPECT_EQ(heap_used(), used);
    char byte;
    EXPECT_EQ(fs_read(file, &byte, 1, 0) + fs_write(file, "x", 1) + fs_append(file, "x", 1), -3);
    EXPECT_EQ(fs_remove("/tmp/d"), 0);
    EXPECT_EQ(dir->parent, nullptr);
    EXPECT_EQ(names("/tmp"), "");
}

TEST_F(RamFs, SlotsAreNeverUsedTwice) {
    for (int i = 8; i < FS_NODES_MAX; ++i) {
        ASSERT_NE(fs_create_file("/tmp/again"), nullptr) << i;
        ASSERT_EQ(fs_remove("/tmp/again"), 0);
    }
    EXPECT_EQ(fs_create_file("/tmp/again"), nullptr);
    EXPECT_EQ(fs_create_dir("/more"), nullptr);
    EXPECT_EQ(fs_rename("/etc/motd", "/tmp/motd"), 0);  // takes none
    fs_init();
    EXPECT_NE(fs_create_file("/tmp/again"), nullptr);
}

TEST_F(RamFs, RenamesWithoutLosingTheNode) {
    fs_node_t* motd = fs_resolve("/etc/motd");
    EXPECT_EQ(fs_rename("/etc/motd", "/tmp/m"), 0);
    EXPECT_EQ(newest(), "rename /etc/motd -> /tmp/m");
    EXPECT_EQ(fs_resolve("/tmp/m"), motd);
    EXPECT_EQ(names("/etc") + names("/tmp"), "profile\nm\n");
    EXPECT_EQ(fs_rename("/etc", "/tmp/etc"), 0);
    EXPECT_NE(fs_resolve("/tmp/etc/profile"), nullptr);
    for (const auto& [from, to] : {std::pair{"/tmp", "/tmp/etc/x"},
                                   {"/", "/x"},
                                   {"/none", "/x"},
                                   {"/tmp/m", "/home"},
                                   {"/tmp/m", "/none/m"},
                                   {"/tmp", "/tmp/"}})
        EXPECT_EQ(fs_rename(from, to), -1) << from << " " << to;
}

TEST_F(RamFs, StatsAndListsWithinTheBuffer) {
    sys_stat st = {};
    EXPECT_EQ(fs_stat("/etc/motd", &st), 0);
    EXPECT_EQ((std::vector<uint32_t>{st.size, st.type, st.inode, st.blocks, st.flags}),
              (std::vector<uint32_t>{48, SYS_STAT_FILE, 6, 0, 0}));
    EXPECT_EQ(fs_stat("/", &st), 0);
    EXPECT_EQ(st.type, SYS_STAT_DIRECTORY);
    EXPECT_EQ(fs_stat("/none", &st), -1);
    EXPECT_EQ(names("/", 11), "home\ntmp\n");
    EXPECT_EQ(names("/", 10), "home\n");
    EXPECT_EQ(names("/etc/motd"), "none");
    char one = '#';
    EXPECT_EQ(fs_list_names("/", &one, 1), 0);
    EXPECT_EQ(one, '\0');
}

}  // namespace
