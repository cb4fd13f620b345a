#include "lib/db++/error.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "tests/unit/db++/database_test.h"

namespace corvo::mysql::test {
namespace {

TEST(MErrorTest, SaysWhatItWasTold) {
    EXPECT_STREQ(mError("connection failed").what(), "connection failed");
}

TEST(MErrorTest, IsOfTheStandardFamily) {
    EXPECT_TRUE((std::is_base_of_v<std::exception, mError>));
}

TEST(MErrorTest, KeepsItsTextInACopy) {
    const mError original("kept");
    const mError copy = original;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_STREQ(copy.what(), "kept");
}

TEST(MErrorTest, WithoutAnErrorNumberIsUnknown) {
    EXPECT_STREQ(mError(nullptr, " executing query: SELECT 1").what(),
                 "Unknown error\n executing query: SELECT 1");
}

class MErrorFromServerTest : public DatabaseTest {};

TEST_F(MErrorFromServerTest, NamesNumberTextAndContext) {
    EXPECT_EQ(failureOf([&] { connection << "SELECT v FROM nowhere" << Query::fetch; }),
              "MySQL error 1146: Table '" + panel.name() +
                  ".nowhere' doesn't exist executing query: SELECT v FROM nowhere");
}

}  // namespace
}  // namespace corvo::mysql::test
