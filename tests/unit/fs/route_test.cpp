#include "kernel/fs/route.h"

#include <gtest/gtest.h>

namespace {

TEST(Route, TmpAndRelativePathsGoToRam) {
    for (const char* path : {"x", "", "tmp", "../docs/x", "/tmp", "/tmp/", "/tmp/x"})
        EXPECT_EQ(vorn_route_for_write(path), VORN_ROUTE_RAM) << path;
    EXPECT_EQ(vorn_route_for_write(nullptr), VORN_ROUTE_RAM);
    for (const char* path : {"/", "/tmpx", "/tm", "/etc/motd", "//tmp"})
        EXPECT_EQ(vorn_route_for_write(path), VORN_ROUTE_BLOCK) << path;
}

}  // namespace
