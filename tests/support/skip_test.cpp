#include "tests/support/skip.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace corvo::test {
namespace {

using ::testing::ScopedFakeTestPartResultReporter;

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
    EXPECT_STREQ(results.GetTestPartResult(0).message(), "there is no server");
}

}  // namespace
}  // namespace corvo::test
