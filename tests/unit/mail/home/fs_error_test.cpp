#include "mail/home/fs_error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <system_error>

namespace corvo::test {
namespace {

using mail::FSError;

TEST(FSErrorTest, CarriesPathsAndErrnoInTheSystemCategory) {
    const FSError one("chown", "/a", EPERM);
    EXPECT_EQ(one.code(), std::error_code(EPERM, std::system_category()));
    EXPECT_EQ(one.path1(), "/a");
    EXPECT_EQ(one.path2(), "");
    const FSError two("rename", "/a", "/b", ENOENT);
    EXPECT_EQ(two.code(), std::error_code(ENOENT, std::system_category()));
    EXPECT_EQ(two.path2(), "/b");
    EXPECT_STREQ(two.what(), "filesystem error: rename: No such file or directory [/a] [/b]");
}

}  // namespace
}  // namespace corvo::test
