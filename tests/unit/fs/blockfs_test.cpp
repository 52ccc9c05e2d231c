// What VoFS does for its callers on a disk that works.
#include <bit>

#include "tests/unit/fs/volume.h"

namespace {

TEST(VofsFormat, EverySizeGivesAGeometryThatMountsAndNoOtherDoes) {
    vofs_super sb;
    EXPECT_FALSE(vofs_make_super(258, &sb));
    for (uint32_t size = 259; size <= VOFS_SECTORS_MAX; size += size < 30000 ? 1 : 509) {
        ASSERT_TRUE(vofs_make_super(size, &sb));
        ASSERT_TRUE(vofs_super_valid(sb, size)) << size;
        ASSERT_EQ(sb.total_sectors, (size - 258) % 4097 == 0 ? size - 1 : size);
        const uint32_t bits = sb.bitmap_sectors;
        const std::map<size_t, std::vector<uint32_t>> lies = {
            {1, {2}},    {2, {size + 1, ~0u, 0}},          {3, {0, ~0u}}, {4, {~0u}}, {5, {size}},
            {6, {0, 2}}, {7, {0, ~0u, bits - 1, bits + 1}}};
        for (const auto& [word, values] : lies)
            for (const uint32_t value : values) {
                auto words = std::bit_cast<std::array<uint32_t, 128>>(sb);
                words[word] = value;
                ASSERT_FALSE(vofs_super_valid(std::bit_cast<vofs_super>(words), size)) << word;
            }
    }
}

TEST(VofsFormat, Paths) {
    const std::string longest = "/" + std::string(63, 'n');
    for (const char* good : {"/", "/a", "/a/b", "/...", "/.a", "/a..", longest.c_str()})
        EXPECT_TRUE(vofs_path_valid(good)) << good;
    const std::string too_long = longest + "n";
    for (const char* bad :
         {"", "a", "/a/", "//a", "/a//b", "/.", "/..", "/a/./b", "/a/..", too_long.c_str()})
        EXPECT_FALSE(vofs_path_valid(bad)) << bad;
    EXPECT_FALSE(vofs_path_valid(nullptr));
    const std::string deep = longest + longest + longest + longest;
    EXPECT_TRUE(vofs_path_valid(deep.substr(0, 255).c_str()));
    EXPECT_FALSE(vofs_path_valid(deep.c_str()));
}

class BlockFs : public Volume {
protected:
    BlockFs() { EXPECT_EQ(mount(), 0); }
};

TEST_F(BlockFs, ContentsOfEveryLengthAroundTheEdges) {
    // Size, blocks, size, blocks, ...
    constexpr std::array<uint32_t, 24> EDGES = {0,     0,   1,      1,   512,    1,   513,    2,
                                                6144,  12,  6145,   14,  71679,  141, 71680,  141,
                                                71681, 144, 137216, 271, 137217, 273, 512007, 1010};
    for (size_t i = 0; i < EDGES.size(); i += 2) {
        const uint32_t size = EDGES[i], blocks = EDGES[i + 1];
        const bytes_t data = file_bytes(size, size);
        ASSERT_EQ(write("/f", data), static_cast<int>(size));
        EXPECT_EQ(used_blocks(), blocks);
        EXPECT_EQ(read("/f"), data);
        ASSERT_EQ(mount(), 0);
        EXPECT_EQ(read("/f"), data);
        EXPECT_EQ(faults(), "");
    }
}

TEST_F(BlockFs, ReadsAnyPartOfAFragmentedFile) {
    const bytes_t data = file_bytes(400 * 512 + 100);
    write("/a", {});
    write("/b", {});
    for (size_t at = 0; at < data.size(); at += 3000) {
        append("/a", {data.begin() + at, data.begin() + std::min(at + 3000, data.size())});
        append("/b", file_bytes(600));
    }
    const int inode = blockfs_resolve("/a");
    bytes_t buf(data.size());
    for (const uint32_t offset : {0u, 1u, 511u, 6144u, 71000u, 71680u, 137000u, 204899u})
        for (const uint32_t len : {1u, 512u, 1025u, 9000u, 200000u}) {
            const auto want = std::min<size_t>(len, data.size() - offset);
            ASSERT_EQ(blockfs_read_file(inode, buf.data(), offset, len), static_cast<int>(want));
            ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + want, data.begin() + offset));
        }
    EXPECT_EQ(blockfs_read_file(inode, buf.data(), static_cast<uint32_t>(data.size()), 1), 0);
    EXPECT_EQ(blockfs_read_file(inode, buf.data(), 0xFFFFFFFF, 0xFFFFFFFF), 0);
    for (const int none : {-1, 0, 256})
        EXPECT_EQ(blockfs_read_file(none, buf.data(), 0, 1), -1);
}

TEST_F(BlockFs, AFullDiskKeepsAPrefixAndMarksNothingElse) {
    const uint32_t total = 4096 - 258;
    const bytes_t big = file_bytes(total * 512);
    const int stored = write("/big", big);
    EXPECT_EQ(stored, 3807 * 512);  // 3838 blocks less indirect, double-indirect and 29 leaves
    EXPECT_EQ(faults(), "");
    EXPECT_EQ(read("/big"), bytes_t(big.begin(), big.begin() + stored));
    EXPECT_EQ(append("/big", file_bytes(1)), 0);
    EXPECT_EQ(write("/other", file_bytes(1)), 0);
    EXPECT_EQ(blockfs_replace_file("/other", "x", 1), -1);
    // With any room left: what only a pointer block would take stays free.
    for (uint32_t spare = 3; spare < 180; spare += spare < 20 ? 1 : 40) {
        write("/other", {});
        ASSERT_EQ(blockfs_truncate("/big", (3807 - 200) * 512), 0);
        while (total - used_blocks() > spare)
            append("/other", file_bytes((total - used_blocks() - spare + 1) / 2 * 512));
        const uint32_t left = total - used_blocks();
        blockfs_create("/third", BLOCKFS_FILE);
        const int count = write("/third", file_bytes(400 * 512));
        EXPECT_EQ(count, static_cast<int>(vofs_blocks_within(left) * 512)) << left;
        ASSERT_EQ(faults(), "");
        blockfs_remove("/third");
    }
}

TEST_F(BlockFs, EntriesLiveInATree) {
    for (const char* path : {"/a/b/c", "/a/b/c", "/"})
        EXPECT_EQ(blockfs_mkdir_p(path), 0);
    write("/a/b/f", file_bytes(10));
    EXPECT_EQ(blockfs_mkdir_p("/a/b/f/x"), -1);
    for (const char* path : {"/a/b/f", "/x/y", "/a/b/f/g"})
        EXPECT_EQ(blockfs_create(path, BLOCKFS_FILE), -1);
    EXPECT_EQ(blockfs_create("/t", 3), -1);
    EXPECT_EQ(list("/"), "a\n");
    EXPECT_EQ(list("/a/b"), "c\nf\n");
    char few[5];
    EXPECT_EQ(blockfs_list("/a/b", few, 5), 1);
    EXPECT_STREQ(few, "c\n");
    EXPECT_EQ(blockfs_list("/a/b/f", few, 5), -1);
    EXPECT_EQ(blockfs_rename("/a", "/a/b/c/d"), -1);
    EXPECT_EQ(blockfs_rename("/a/b", "/a/b"), 0);
    EXPECT_EQ(blockfs_rename("/a/b", "/new"), 0);
    EXPECT_EQ(blockfs_resolve("/a/b/f"), -1);
    EXPECT_EQ(read("/new/f"), file_bytes(10));
    EXPECT_EQ(blockfs_remove("/new"), -1);
    EXPECT_EQ(blockfs_remove("/"), -1);
    EXPECT_EQ(blockfs_remove("/a"), 0);
    EXPECT_EQ(blockfs_remove_recursive("/new"), 0);
    EXPECT_EQ(list("/"), "");
    EXPECT_EQ(used_blocks(), 0u);
    EXPECT_EQ(faults(), "");
}

TEST_F(BlockFs, ReadOnlyEntriesRefuseEveryChange) {
    blockfs_mkdir_p("/d/e");
    const int f = blockfs_create("/d/e/f", BLOCKFS_FILE);
    ASSERT_EQ(blockfs_set_flags("/d/e/f", 0xFFFFFFFF), 0);
    EXPECT_EQ(inode(static_cast<uint32_t>(f)).flags, 1u);
    for (const int result : {blockfs_write_file(f, "x", 1), blockfs_append_file(f, "x", 1),
                             blockfs_truncate_file(f, 1), blockfs_replace_file("/d/e/f", "x", 1),
                             blockfs_touch("/d/e/f"), blockfs_remove("/d/e/f"),
                             blockfs_rename("/d/e/f", "/g"), blockfs_remove_recursive("/d")})
        EXPECT_EQ(result, -1);
    ASSERT_EQ(blockfs_set_flags("/d/e/f", 0), 0);
    ASSERT_EQ(blockfs_set_flags("/d/e", 1), 0);
    for (const int result : {blockfs_create("/d/e/g", BLOCKFS_FILE), blockfs_remove("/d/e/f"),
                             blockfs_rename("/d/e/f", "/g"), blockfs_rename("/d", "/d/e/d")})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(blockfs_write_file(f, "x", 1), 1);
    ASSERT_EQ(blockfs_set_flags("/d/e", 0), 0);
    EXPECT_EQ(blockfs_remove_recursive("/d"), 0);
}

TEST_F(BlockFs, AllInodesUsed) {
    for (int i = 1; i < 256; ++i)
        ASSERT_EQ(blockfs_create(("/file-" + std::to_string(i)).c_str(), BLOCKFS_FILE), i);
    EXPECT_EQ(blockfs_create("/more", BLOCKFS_FILE), -1);
    EXPECT_EQ(blockfs_replace_file("/more", "x", 1), -1);
    EXPECT_EQ(used_blocks(), 0u);
    EXPECT_EQ(blockfs_remove("/file-100"), 0);
    EXPECT_EQ(blockfs_create("/more", BLOCKFS_FILE), 100);
    uint32_t free = 1;
    EXPECT_EQ(blockfs_df(nullptr, nullptr, nullptr, nullptr, nullptr, &free), 0);
    EXPECT_EQ(free, 0u);
}

std::vector<std::string> told;

void tell(int op, const char* path, const void* data, uint32_t len) {
    told.push_back(std::to_string(op) + " " + path + " " +
                   std::string(static_cast<const char*>(data), len));
    char names[64];
    EXPECT_GE(blockfs_list("/", names, sizeof names), 0);  // the lock is free
}

TEST_F(BlockFs, ChangesAreTold) {
    blockfs_set_change_hook(tell);
    told.clear();
    blockfs_mkdir_p("/d/e");
    const int f = blockfs_create("/d/e/f", BLOCKFS_FILE);
    blockfs_write_file(f, "abc", 3);
    blockfs_append_file(f, "de", 2);
    blockfs_truncate_file(f, 4);
    blockfs_set_flags("/d/e/f", 0);
    blockfs_touch("/d/e/f");
    blockfs_touch("/t");
    EXPECT_EQ(blockfs_replace_file("/r", "new", 3), 0);
    blockfs_rename("/d/e", "/m");
    blockfs_remove("/t");
    blockfs_remove("/none");
    blockfs_remove_recursive("/m");
    blockfs_set_change_hook(nullptr);
    const std::vector<std::string> expected = {
        "4 /d ", "4 /d/e ",  "1 /d/e/f ", "2 /d/e/f abc", "5 /d/e/f de", "2 /d/e/f abcd", "1 /t ",
        "1 /r ", "2 /r new", "4 /m ",     "3 /d/e ",      "3 /t ",       "3 /m "};
    EXPECT_EQ(told, expected);
}

TEST_F(BlockFs, CacheCountsSectorsReallyRead) {
    write("/f", file_bytes(40 * 512));
    const int f = blockfs_resolve("/f");
    bytes_t buf(8 * 512);
    const auto expect = [](uint32_t hits, uint32_t misses, uint32_t writes, uint32_t invalid) {
        blockfs_cache_stats_t is;
        blockfs_cache_stats(&is);
        EXPECT_EQ((std::array{is.hits, is.misses, is.writes, is.invalidations}),
                  (std::array{hits, misses, writes, invalid}));
    };
    blockfs_cache_clear();
    for (uint32_t block = 0; block < 12; ++block)
        blockfs_read_file(f, buf.data(), block * 512, 1);
    expect(11, 13, 0, 0);                          // the inode each time
    blockfs_read_file(f, buf.data(), 0, 8 * 512);  // passes the cache by
    expect(12, 13, 0, 0);
    blockfs_write_file(f, buf.data(), 8 * 512);  // inode, bitmap, the same data sectors, inode
    expect(13, 14, 4, 8);
}

}  // namespace
