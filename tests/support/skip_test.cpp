#include "tests/support/skip.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace corvo::test {
namespace {

using ::testing::AnyOf;
using ::testing::ScopedFakeTestPartResultReporter;
using ::testing::StrEq;

TEST(SkipTest, EndsATestAndNotesItsReason) {
    ::testing::TestPartResultArray results;
    bool hasEnded = false;
    {
        const ScopedFakeTestPartResultReporter reporter(
            ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        try {
            skipTest("there is no server");
        } catch (const ::testing::AssertionException&) {
            hasEnded = true;
        }
    }
    EXPECT_TRUE(hasEnded);
    ASSERT_EQ(results.size(), 1);
    EXPECT_TRUE(results.GetTestPartResult(0).skipped());
    // Newer releases of GoogleTest end the line.
    EXPECT_THAT(results.GetTestPartResult(0).message(),
                AnyOf(StrEq("there is no server"), StrEq("there is no server\n")));
}

}  // namespace
}  // namespace corvo::test
