// Devices that fail, memory that runs out, and volumes made to do harm.
#include "kernel/core/memory.h"
#include "tests/unit/fs/volume.h"

namespace {

class BlockFsFault : public Volume {
protected:
    static constexpr uint64_t TRIES = 3;
    std::map<std::string, std::vector<bytes_t>> may_hold;  ///< by path

    /// The result tells what the file holds; a failure tells nothing.
    void wrote(const char* path, const bytes_t& data, int count) {
        if (count >= 0)
            may_hold[path] = {{data.begin(), data.begin() + count}};
        else
            may_hold[path].insert(may_hold[path].end(), {data, {}});
    }

    void grew(const char* path, const bytes_t& more, int count) {
        if (count <= 0)
            return;
        for (bytes_t& content : may_hold[path])
            content.insert(content.end(), more.begin(), more.begin() + count);
    }

    /// Everything that writes, over a volume that begins with a file "/f".
    void workload() {
        blockfs_mkdir_p("/d/e");
        for (const size_t size : {3000u, 75000u, 9000u}) {
            const bytes_t data = file_bytes(size, static_cast<uint32_t>(size));
            wrote("/f", data, write("/f", data));
        }
        for (const size_t size : {100u, 63000u, 512u, 70000u}) {
            const bytes_t more = file_bytes(size, 9);
            grew("/f", more, append("/f", more));
        }
        const bytes_t table = file_bytes(7000, 3);
        if (blockfs_replace_file("/t", table.data(), 7000) == 0)
            may_hold["/t"] = {table};
        blockfs_truncate("/t2", 100);
        blockfs_rename("/d/e", "/e");
        blockfs_create("/e/x", BLOCKFS_FILE);
        blockfs_remove_recursive("/e");
        blockfs_remove("/u");
    }

    /// The contents are what the results said.
    void judge(const std::string& when) {
        for (const auto& [path, contents] : may_hold) {
            if (blockfs_resolve(path.c_str()) < 0)
                continue;
            const bytes_t now = read(path.c_str());
            EXPECT_NE(std::find(contents.begin(), contents.end(), now), contents.end())
                << when << ": " << path << " has " << now.size();
        }
    }

    void judge_mount(const std::string& when) {
        ASSERT_EQ(mount(), 0);
        EXPECT_EQ(machine_texts().find("ERROR"), std::string::npos) << when << machine_texts();
        EXPECT_EQ(faults(), "") << when;
    }

    /// Does everything to a volume that may be no such thing.
    static void use_everything() {
        bytes_t data(70000, 1);
        for (const char* path : {"/", "/d", "/d/f", "/d/g", "/d/f/x"}) {
            list(path);
            for (const uint32_t offset : {0u, 6000u, 72000u, 8460000u, 0xFFFFFF00u})
                blockfs_read_file(blockfs_resolve(path), data.data(), offset, 70000);
            append(path, data);
            blockfs_truncate(path, 80000);
            write(path, data);
        }
        blockfs_rename("/d", "/e");
        blockfs_remove("/e/g");
        blockfs_remove_recursive("/e");
        blockfs_fsck_repair();
    }

    disk_image begin() {
        EXPECT_EQ(mount(), 0);
        write("/f", file_bytes(20000));
        write("/u", file_bytes(8000, 4));
        return m.disk.image;
    }

    void reset(const disk_image& image) {
        m.disk.power_on();
        m.disk.image = image;
        may_hold = {{"/f", {file_bytes(20000)}}, {"/u", {file_bytes(8000, 4)}}};
        ASSERT_EQ(mount(), 0);
    }
};

TEST_F(BlockFsFault, AnyOneRequestFails) {
    const disk_image image = begin();
    reset(image);
    const uint64_t first = m.disk.requests;
    workload();
    const uint64_t requests = m.disk.requests - first;
    EXPECT_GT(requests, 50u);
    for (uint64_t n = 1; n <= requests; ++n) {
        reset(image);
        m.disk.fail_request(n, TRIES);
        workload();
        m.disk.power_on();
        const std::string when = "request " + std::to_string(n);
        const bool listed_lost = machine_texts().find("while freeing") != std::string::npos;
        const std::string said = faults();
        EXPECT_TRUE(listed_lost ? said.find("ERROR") == std::string::npos : said.empty())
            << when << said;
        judge(when);
        judge_mount(when);
        judge(when + ", mounted again");
        reset(image);
        m.disk.fail_request(n, ~0ull - n);  // and all that follow
        workload();
        m.disk.power_on();
        judge_mount(when);
    }
}

TEST_F(BlockFsFault, ABadSectorAnywhereInAFile) {
    ASSERT_EQ(mount(), 0);
    write("/f", file_bytes(76000));
    const disk_image image = m.disk.image;
    for (uint32_t place = 0; place < 300; place += place < 150 ? 1 : 7) {
        m.disk.image = image;
        ASSERT_EQ(mount(), 0);
        m.disk.fail_sectors(258 + place);
        const bytes_t more = file_bytes(70000, 8), data = file_bytes(140000, 2);
        may_hold["/f"] = {file_bytes(76000)};
        grew("/f", more, append("/f", more));
        m.disk.power_on();
        judge("append, bad place " + std::to_string(place));
        m.disk.fail_sectors(258 + place);
        wrote("/f", data, write("/f", data));
        m.disk.power_on();
        judge("bad place " + std::to_string(place));
        judge_mount("bad place " + std::to_string(place));
        judge("bad place, mounted again");
    }
}

TEST_F(BlockFsFault, MountSaysWhatItCannotReadOrWrite) {
    const auto mount_with_bad = [&](uint64_t sector) {
        m.disk.fail_sectors(sector);
        EXPECT_EQ(mount(), -1) << sector;
        EXPECT_FALSE(blockfs_mounted());
        m.disk.power_on();
        return machine_texts().substr(machine_texts().rfind("[vofs]"));
    };
    EXPECT_EQ(mount_with_bad(1), "[vofs] format: bitmap write error at sector 1\n");
    EXPECT_EQ(mount_with_bad(77), "[vofs] format: inode write error at sector 77\n");
    ASSERT_EQ(mount(), 0);
    EXPECT_EQ(mount_with_bad(0), "[vofs] superblock read error\n");
    EXPECT_EQ(mount_with_bad(1), "[vofs] bitmap read error\n");
}

TEST_F(BlockFsFault, AnInodeThatCannotBeReadIsLeftAlone) {
    ASSERT_EQ(mount(), 0);
    blockfs_mkdir_p("/a");
    for (const char* path : {"/a/b", "/c"})
        write(path, file_bytes(700));
    m.disk.fail_sectors(super().inode_start + 2);
    ASSERT_EQ(mount(), 0);
    EXPECT_NE(machine_texts().find("[fsck] ERROR: cannot read inode 2\n"), std::string::npos);
    EXPECT_EQ(list("/"), "a\nc\n");
    EXPECT_EQ(blockfs_df(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(blockfs_create("/d", BLOCKFS_FILE), 4);
    EXPECT_EQ(blockfs_fsck_repair(), -1);
    // It may lie in any directory.
    EXPECT_EQ(blockfs_remove("/a"), -1);
    EXPECT_EQ(blockfs_remove_recursive("/a"), -1);
    m.disk.power_on();
    EXPECT_EQ(read("/a/b"), file_bytes(700));
}

TEST_F(BlockFsFault, MemoryRunsOut) {
    ASSERT_EQ(mount(), 0);
    write("/f", file_bytes(9000));
    const disk_image image = m.disk.image;
    std::vector<void*> taken;
    for (size_t size = 16 << 20; size >= 256;)
        if (void* block = kmalloc(size))
            taken.push_back(block);
        else
            size /= 2;
    EXPECT_EQ(blockfs_truncate("/f", 8000), -1);
    EXPECT_EQ(read("/f"), file_bytes(9000));
    EXPECT_EQ(blockfs_fsck(), 0);
    EXPECT_EQ(blockfs_fsck_repair(), -1);
    EXPECT_EQ(blockfs_init(), -1);  // leaves what was mounted behind
    EXPECT_FALSE(blockfs_mounted());
    EXPECT_EQ(m.disk.image, image);
    for (void* block : taken)
        kfree(block);
    EXPECT_EQ(mount(), 0);
}

TEST_F(BlockFsFault, CheckNamesEachFaultAndNothingDoesHarm) {
    ASSERT_EQ(mount(), 0);
    blockfs_create("/d", BLOCKFS_DIRECTORY);
    write("/d/f", file_bytes(7000));
    write("/d/g", file_bytes(100));
    const disk_image image = m.disk.image;
    // One word (or the name's first) of an inode, its new value, and what the check says of it.
    const struct {
        uint32_t inode, offset, value;
        const char* said;
    } lies[] = {
        {3, 0, 7, "inode 3 bad type 7"},
        {3, 56, 256, "inode 3 parent 256 out of range"},
        {3, 56, 2, "inode 3 parent 2 is not a directory"},
        {3, 60, 'f', "duplicate name 'f' in parent 1 (inodes 2,3)"},
        {3, 8, 257, "inode 3 direct[0] block 257 out of range"},
        {3, 8, 259, "block 259 referenced more than once"},
        {3, 4, 600, "inode 3 size needs 2 data blocks, has 1"},
        {3, 4, ~0u, "inode 3 size 4294967295 exceeds max 8460288"},
        {1, 4, 1, "directory inode 1 has file data"},
        {1, 136, 6, "inode 1 unknown flags 0x6"},
        {2, 4, 6000, "inode 2 has unnecessary indirect block"},
        {2, 124, 9, "inode 2 indirect block 9 out of range"},
        {2, 140, 9, "inode 2 double-indirect block 9 out of range"},
        {2, 140, 9, "inode 2 has unnecessary double-indirect block"},
        {2, 140, 258, "inode 2 double[0] block "},
        {0, 0, 0, "inode 1 parent 0 is not a directory"},
        {1, 56, 1, ""},
        {1, 56, 2, "inode 1 parent 2 is not a directory"},
        {2, 4, BLOCKFS_FILE_BYTES_MAX, "inode 2 size needs 16524 data blocks, has 14"},
    };
    for (const auto& lie : lies) {
        m.disk.image = image;
        auto sector = m.disk.image[2 + lie.inode];
        memcpy(&sector[lie.offset], &lie.value, 4);
        put(2 + lie.inode, sector);
        EXPECT_EQ(mount(), 0);
        const std::string said = faults();
        EXPECT_NE(said.find(lie.said), std::string::npos) << said;
        use_everything();
    }
    m.disk.image = image;
    vofs_inode nameless = inode(3);
    memset(nameless.name, 'n', sizeof nameless.name);
    put_inode(3, nameless);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(faults(), "[fsck] ERROR: inode 3 name not NUL-terminated\n");
    EXPECT_EQ(list("/d"), "f\n" + std::string(64, 'n') + "\n");
}

TEST_F(BlockFsFault, PointerBlocksThatPointAtThemselves) {
    ASSERT_EQ(mount(), 0);
    blockfs_create("/d", BLOCKFS_DIRECTORY);
    write("/d/f", file_bytes(200000));
    const uint32_t root = inode(2).double_indirect_block;
    vofs_pointers loop;
    std::fill(std::begin(loop.at), std::end(loop.at), root);
    put(root, loop);
    ASSERT_EQ(mount(), 0);
    EXPECT_NE(machine_texts().find("further errors are counted only"), std::string::npos);
    use_everything();
}

}  // namespace
