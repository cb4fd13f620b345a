#include "utils/system_error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <vector>

namespace corvo::test {
namespace {

TEST(SystemErrorTest, SaysMessageAndSystemText) {
    const SystemError error("open", 13);
    EXPECT_STREQ(error.what(), "open: Permission denied");
    EXPECT_EQ(error.code(), 13);
}

TEST(SystemErrorTest, SaysTheSystemTextAloneWithoutAMessage) {
    EXPECT_STREQ(SystemError("", 13).what(), "Permission denied");
}

TEST(SystemErrorTest, TakesErrnoWhenItIsBuilt) {
    errno = ENOENT;
    const SystemError error("open");
    errno = EACCES;
    EXPECT_STREQ(error.what(), "open: No such file or directory");
    EXPECT_EQ(error.code(), ENOENT);
}

TEST(SystemErrorTest, SaysTheSameEachTime) {
    const SystemError error("open", 13);
    const char* first = error.what();
    EXPECT_EQ(error.what(), first);
    EXPECT_STREQ(first, "open: Permission denied");
}

TEST(SystemErrorTest, SaysTheSameAfterCopying) {
    const SystemError error("open", 13);
    const std::vector<SystemError> before(1, error);
    EXPECT_STREQ(error.what(), "open: Permission denied");
    const std::vector<SystemError> after(1, error);
    EXPECT_STREQ(before.front().what(), "open: Permission denied");
    EXPECT_STREQ(after.front().what(), "open: Permission denied");
    EXPECT_EQ(after.front().code(), 13);
}

TEST(SystemErrorTest, IsCaughtAsARuntimeError) {
    try {
        throw SystemError("open", 13);
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "open: Permission denied");
    }
}

}  // namespace
}  // namespace corvo::test
