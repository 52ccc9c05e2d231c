// A machine with a disk that VoFS stands on, and what its tests ask of a volume.
#pragma once

#include <map>

#include "kernel/core/heap_ptr.h"
#include "kernel/fs/blockfs.h"
#include "kernel/fs/blockfs/format.h"
#include "tests/machine/kernel.h"
#include "tests/machine/virtio_disk.h"

using bytes_t = std::vector<uint8_t>;

/// Bytes that tell where they stand, different for each `seed`.
inline bytes_t file_bytes(size_t size, uint32_t seed = 1) {
    bytes_t data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<uint8_t>((i + seed) * 2654435761u >> 13 ^ seed);
    return data;
}

class Volume : public testing::Test {
protected:
    static constexpr uint64_t SECTORS = 4096;
    disk_machine m{SECTORS};

    void TearDown() override { blockfs_forget(); }

    /// As after switching on: the volume is mounted anew. The texts are those of the mount.
    int mount() {
        blockfs_forget();
        machine_texts().clear();
        return blockfs_init();
    }

    static int write(const char* path, const bytes_t& data) {
        int inode = blockfs_resolve(path);
        if (inode < 0)
            inode = blockfs_create(path, BLOCKFS_FILE);
        return with_data(blockfs_write_file, inode, data);
    }

    static int append(const char* path, const bytes_t& data) {
        return with_data(blockfs_append_file, blockfs_resolve(path), data);
    }

    /// Hands data over as most of the kernel does, in memory that the device reaches; very short
    /// and very long ones stay where it does not.
    static int with_data(int (*call)(int, const void*, uint32_t), int inode, const bytes_t& data) {
        constexpr size_t SHORT = 4096, LONG = 100000;
        heap_ptr<uint8_t> copy;
        if (data.size() > SHORT && data.size() < LONG)
            copy = heap_ptr<uint8_t>::make(data.size());
        if (copy)
            memcpy(copy.get(), data.data(), data.size());
        return call(inode, copy ? copy.get() : data.data(), static_cast<uint32_t>(data.size()));
    }

    /// The whole file; what the stat record says of its size is what can be read.
    static bytes_t read(const char* path) {
        sys_stat st = {};
        if (blockfs_stat(path, &st) != 0)
            return {};
        bytes_t data(st.size + 600);
        const int count = blockfs_read_file(static_cast<int>(st.inode), data.data(), 0,
                                            static_cast<uint32_t>(data.size()));
        EXPECT_EQ(count, static_cast<int>(st.size)) << path;
        data.resize(count < 0 ? 0 : static_cast<size_t>(count));
        return data;
    }

    static std::string list(const char* path) {
        std::string names(16641, '\0');
        blockfs_list(path, names.data(), static_cast<int>(names.size()));
        return names.c_str();
    }

    static uint32_t used_blocks() {
        uint32_t used = 0;
        EXPECT_EQ(blockfs_df(nullptr, &used, nullptr, nullptr, nullptr, nullptr), 0);
        return used;
    }

    /// The lines of a check, without the one of figures; empty for a sound volume.
    static std::string faults() {
        machine_texts().clear();
        blockfs_fsck();
        const std::string said = machine_texts();
        return said.substr(0, said.rfind("[fsck]", said.size() - 1));
    }

    vofs_super super() const { return record<vofs_super>(0); }
    template <typename T>
    T record(uint64_t sector) const {
        T out;
        m.disk.image.read(sector, &out);
        return out;
    }
    template <typename T>
    void put(uint64_t sector, const T& in) {
        m.disk.image.write(sector, &in);
    }
    vofs_inode inode(uint32_t n) const { return record<vofs_inode>(super().inode_start + n); }
    void put_inode(uint32_t n, const vofs_inode& in) { put(super().inode_start + n, in); }
};
