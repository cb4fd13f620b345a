#include "restore/rows.h"

#include <gtest/gtest.h>

#include "restore/stage.h"
#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

using corvo::mail::restore::CycleLabel;
using corvo::mail::restore::isDebug;
using corvo::mail::restore::Row;
using corvo::mail::restore::Rows;
using corvo::mysql::Connection;

class RowsTest : public WalkTest {
protected:
    void TearDown() override { isDebug = false; }

    Connection connection{true};
    Row row;
};

// Two columns of one name make every fetch fail.
const std::string UNFETCHABLE = "SELECT 1 AS a, 2 AS a UNION ALL SELECT 3, 4";

TEST_F(RowsTest, RowsComeOneByOne) {
    Rows rows(connection, "SELECT 1 AS a UNION ALL SELECT 2", {"counting"});
    ASSERT_TRUE(rows.next(row));
    EXPECT_EQ(row["a"].value, "1");
    ASSERT_TRUE(rows.next(row));
    EXPECT_EQ(row["a"].value, "2");
    EXPECT_FALSE(rows.next(row));
}

TEST_F(RowsTest, StatementThatFailsIsAWarningAndHasNoRows) {
    StreamCapture capture;
    Rows rows(connection, "SELECT nothing FROM nowhere", {"counting"});
    const std::string line =
        "Warning: MySQL Query error on counting: " + errorOf("SELECT nothing FROM nowhere") +
        ", ignored\n";
    EXPECT_EQ(capture.err(), line);
    EXPECT_EQ(capture.out(), line);
    EXPECT_FALSE(rows.next(row));
    EXPECT_FALSE(rows.fetchOnce(row));
}

TEST_F(RowsTest, RowsThatCannotBeFetchedArePassedOverEachWithAWarning) {
    const struct {
        const char* separator;
        const char* line;
    } cases[] = {
        {"",
         "Warning: MySQL Fetch Row Error on countingduplicated field a in query, row "
         "ignored\n"},
        {": ",
         "Warning: MySQL Fetch Row Error on counting: duplicated field a in query, row "
         "ignored\n"},
    };
    for (const auto& [separator, line] : cases) {
        Rows rows(connection, UNFETCHABLE, {"counting", separator});
        StreamCapture capture;
        EXPECT_FALSE(rows.next(row));
        EXPECT_EQ(capture.err(), std::string(line) + line);
        EXPECT_EQ(capture.out(), std::string(line) + line);
    }
}

TEST_F(RowsTest, SkipMarkIsWrittenInDebugModeOnly) {
    const std::string line =
        "Warning: MySQL Fetch Row Error on countingduplicated field a in query, row ignored\n";
    const CycleLabel label{.name = "counting", .skipMark = "!"};
    StreamCapture capture;
    Rows quiet(connection, UNFETCHABLE, label);
    EXPECT_FALSE(quiet.fetchOnce(row));
    EXPECT_EQ(capture.err(), line);
    isDebug = true;
    Rows telling(connection, UNFETCHABLE, label);
    EXPECT_FALSE(telling.fetchOnce(row));
    EXPECT_EQ(capture.err(), line + "!");
    EXPECT_EQ(capture.out(), line + line);
}

TEST_F(RowsTest, FetchOnceLooksAtOneRowOnly) {
    Rows rows(connection, UNFETCHABLE, {"counting"});
    StreamCapture capture;
    EXPECT_FALSE(rows.fetchOnce(row));
    const std::string line =
        "Warning: MySQL Fetch Row Error on countingduplicated field a in query, row ignored\n";
    EXPECT_EQ(capture.err(), line);
    EXPECT_EQ(capture.out(), line);
}

TEST_F(RowsTest, FetchOnceGivesTheFirstRow) {
    Rows rows(connection, "SELECT 1 AS a UNION ALL SELECT 2", {"counting"});
    ASSERT_TRUE(rows.fetchOnce(row));
    EXPECT_EQ(row["a"].value, "1");
}

}  // namespace
}  // namespace corvo::test
