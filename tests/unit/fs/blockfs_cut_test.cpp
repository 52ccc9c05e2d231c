// The power fails at any sector write: the volume mounts, nothing but the bitmap's count is wrong
// and that is repaired, what was not being changed is as it was, and what was is a prefix or gone.
#include <functional>
#include <optional>

#include "tests/unit/fs/volume.h"

namespace {

using content_t = std::optional<bytes_t>;  // none: no such file
using files_t = std::map<std::string, content_t>;

bool is_prefix(const bytes_t& part, const content_t& whole) {
    return whole && part.size() <= whole->size() &&
           std::equal(part.begin(), part.end(), whole->begin());
}

class BlockFsCut : public Volume {
protected:
    enum class leaves { a_prefix, old_or_new };
    files_t files;  ///< what the volume holds
    uint64_t cuts = 0;

    static bool allowed(const content_t& now, const content_t& before, const content_t& after,
                        leaves what) {
        return now == before || now == after ||
               (what == leaves::a_prefix && before != after && now &&
                (is_prefix(*now, before) || is_prefix(*now, after)));
    }
    files_t present() {
        files_t now = files;
        for (auto& [path, data] : now)
            data = blockfs_resolve(path.c_str()) < 0 ? content_t() : read(path.c_str());
        return now;
    }
    void judge_mount() {
        ASSERT_EQ(mount(), 0) << machine_texts();
        ASSERT_EQ(machine_texts().find("ERROR"), std::string::npos) << machine_texts();
        ASSERT_EQ(faults(), "");
    }
    /// Cuts the power in what the mount itself writes.
    void cut_repairs() {
        const disk_image broken = m.disk.image;
        m.disk.start_log();
        judge_mount();
        const write_log_t repairs = m.disk.writes;
        for (size_t cut = 1; cut < repairs.size(); ++cut, ++cuts) {
            m.disk.image = broken;
            m.disk.image.apply(repairs, cut);
            judge_mount();
        }
    }
    /// Does `action`, then looks at each `every`-th of its prefixes; the first and the last ones
    /// are always among them.
    void step(leaves what, const std::function<void()>& action, size_t every = 1) {
        const disk_image image_before = m.disk.image;
        files_t before = files;
        m.disk.start_log();
        action();
        const write_log_t log = m.disk.writes;
        const disk_image image_after = m.disk.image;
        for (size_t cut = 0; cut <= log.size(); ++cut) {
            if (cut % every != 0 && cut > 10 && cut + 12 < log.size())
                continue;
            m.disk.image = image_before;
            m.disk.image.apply(log, cut);
            cut_repairs();
            const files_t now = present();
            for (const auto& [path, data] : files)
                ASSERT_TRUE(allowed(now.at(path), before[path], data, what))
                    << path << " after " << cut << " of " << log.size();
            if (HasFatalFailure())
                return;
            ++cuts;
        }
        m.disk.image = image_after;
        ASSERT_EQ(mount(), 0);
        ASSERT_EQ(present(), files);
    }
    void write_step(const char* path, size_t size) {
        SCOPED_TRACE("write " + std::to_string(size));
        step(leaves::a_prefix, [&] {
            files[path] = file_bytes(size, static_cast<uint32_t>(size));
            ASSERT_EQ(write(path, *files[path]), static_cast<int>(size));
        });
    }
    void append_step(const char* path, size_t size, size_t every = 1) {
        SCOPED_TRACE("append " + std::to_string(size));
        const auto action = [&] {
            const bytes_t more = file_bytes(size, 77);
            files[path]->insert(files[path]->end(), more.begin(), more.end());
            ASSERT_EQ(append(path, more), static_cast<int>(size));
        };
        step(leaves::a_prefix, action, every);
    }
    void start() {
        ASSERT_EQ(mount(), 0);
        blockfs_mkdir_p("/keep/deep");
        for (const auto& [path, size] :
             std::map<const char*, size_t>{{"/keep/small", 300}, {"/keep/deep/big", 100000}}) {
            files[path] = file_bytes(size);
            write(path, *files[path]);
        }
    }
};

TEST_F(BlockFsCut, FormatIsFinishedAtTheNextStart) {
    // What an old system left on the disk is no part of the new volume.
    ASSERT_EQ(mount(), 0);
    write("/old", file_bytes(5000));
    put(0, sector_t{});
    const disk_image old = m.disk.image;
    m.disk.start_log();
    ASSERT_EQ(mount(), 0);
    const write_log_t log = m.disk.writes;
    EXPECT_EQ(log.back().sector, 0u);
    for (size_t cut = 0; cut <= log.size(); ++cut) {
        m.disk.image = old;
        m.disk.image.apply(log, cut);
        judge_mount();
        EXPECT_EQ(list("/"), "");
        EXPECT_EQ(blockfs_create("/f", BLOCKFS_FILE), 1);
    }
    // A format that began with the superblock.
    m.disk.image = disk_image(SECTORS);
    put(0, *reinterpret_cast<const vofs_super*>(log.back().data.data()));
    judge_mount();
    EXPECT_EQ(inode(0).type, VOFS_DIRECTORY);
    EXPECT_EQ(blockfs_create("/f", BLOCKFS_FILE), 1);
}

TEST_F(BlockFsCut, CreateWriteAndReplace) {
    start();
    step(leaves::a_prefix, [&] {
        files["/new"] = bytes_t{};
        ASSERT_GT(blockfs_create("/new", BLOCKFS_FILE), 0);
    });
    for (const size_t size :
         {1000u, 6144u, 6145u, 71680u, 71681u, 140000u, 700u, 400000u, 90000u, 0u})
        write_step("/new", size);
    for (const size_t size : {100u, 600u, 0u, 72000u, 6145u, 10u})
        step(leaves::old_or_new, [&] {
            files["/table"] = file_bytes(size, 5 + size);
            ASSERT_EQ(blockfs_replace_file("/table", files["/table"]->data(), size), 0);
        });
    EXPECT_GT(cuts, 1600u);
}

TEST_F(BlockFsCut, AppendAcrossTheEdges) {
    start();
    write_step("/log", 5000);
    for (const size_t size :
         {100u, 1000u, 44u, 1u, 512u, 65000u, 36u, 1u, 511u, 66000u, 70000u, 130000u, 70000u})
        append_step("/log", size);
    EXPECT_GT(files["/log"]->size(), 396u * 512);
    EXPECT_GT(cuts, 800u);
}

TEST_F(BlockFsCut, AppendToTheMaximum) {
    m.disk.image = disk_image(20000);
    m.reboot();
    ASSERT_EQ(mount(), 0);
    files["/f"] = file_bytes(BLOCKFS_FILE_BYTES_MAX - 70000);
    ASSERT_GT(write("/f", *files["/f"]), 0);
    append_step("/f", 69000, 10);
    append_step("/f", 1000);
    EXPECT_EQ(append("/f", file_bytes(1)), 0);
    EXPECT_EQ(write("/f", file_bytes(9000000)), static_cast<int>(BLOCKFS_FILE_BYTES_MAX));
    EXPECT_EQ(faults(), "");
}

TEST_F(BlockFsCut, TruncateRenameAndRemove) {
    start();
    write_step("/f", 80000);
    for (const uint32_t size : {72000u, 6100u, 150000u, 0u, 3000u})
        step(leaves::a_prefix, [&] {
            ASSERT_EQ(blockfs_truncate("/f", size), 0);
            files["/f"]->resize(size);
        });
    step(leaves::old_or_new, [&] {
        ASSERT_EQ(blockfs_rename("/f", "/keep/g"), 0);
        files["/keep/g"] = files["/f"];
        files["/f"] = std::nullopt;
    });
    step(leaves::old_or_new, [&] {
        ASSERT_EQ(blockfs_remove("/keep/g"), 0);
        files["/keep/g"] = std::nullopt;
    });
    for (const char* path : {"/tree/a/1", "/tree/a/2", "/tree/3"}) {
        blockfs_mkdir_p("/tree/a");
        files[path] = file_bytes(9000);
        write(path, *files[path]);
    }
    step(leaves::old_or_new, [&] {
        ASSERT_EQ(blockfs_remove_recursive("/tree"), 0);
        for (const char* path : {"/tree/a/1", "/tree/a/2", "/tree/3"})
            files[path] = std::nullopt;
    });
    EXPECT_GT(cuts, 600u);
}

}  // namespace
