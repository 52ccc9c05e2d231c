#include "tests/machine/virtio_disk.h"

#include <gtest/gtest.h>

namespace {

TEST(VirtioBlk, SectorsComeBackAsWritten) {
    disk_machine m;
    std::vector<uint8_t> out(2048 * 512), in(out.size());
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<uint8_t>(i * 7 + i / 512);
    ASSERT_EQ(blk_write(131072 - 2048, out.data(), 2048), 0);
    ASSERT_EQ(blk_read(131072 - 2048, in.data(), 2048), 0);
    EXPECT_EQ(in, out);
    EXPECT_EQ(m.disk.image.bytes(131072 - 2048, 2048), out);
}

}  // namespace
