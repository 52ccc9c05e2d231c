#include "kernel/fs/path.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Path, IsMadeNormalInItsOwnBuffer) {
    const auto normal = [](std::string path) {
        path_normalize(path.data());
        return std::string(path.c_str());
    };
    for (const char* root : {"/", "//", "/.", "/..", "/../..", "/a/..", "/a/../", "/./a/.././/.."})
        EXPECT_EQ(normal(root), "/") << root;
    for (const auto& [path, wanted] : {std::pair{"/a//b/./c/", "/a/b/c"},
                                       {"/a/b/../c", "/a/c"},
                                       {"/../a/../../b", "/b"},
                                       {"/.a/..b/c../...", "/.a/..b/c../..."}})
        EXPECT_EQ(normal(path), wanted);
}

TEST(Path, PartsAndJoins) {
    char text[PATH_BYTES];
    for (const auto& [path, wanted] : {std::pair{"/", "/"}, {"/a", "/"}, {"/a/b", "/a"}}) {
        path_parent(path, text);
        EXPECT_STREQ(text, wanted);
    }
    EXPECT_STREQ(path_name("/a/b"), "b");
    EXPECT_STREQ(path_name("/"), "");

    char path[8] = "/";
    EXPECT_TRUE(path_append(path, "ab", sizeof path));
    EXPECT_FALSE(path_append(path, "cdef", sizeof path));
    EXPECT_TRUE(path_append(path, "cde", sizeof path));
    EXPECT_STREQ(path, "/ab/cde");
    EXPECT_TRUE(path_is_below("/ab/cde", "/ab") && path_is_below("/ab", "/"));
    EXPECT_FALSE(path_is_below("/abc", "/ab") || path_is_below("/ab", "/ab") ||
                 path_is_below("/", "/"));
}

}  // namespace
