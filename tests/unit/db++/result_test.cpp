#include "lib/db++/result.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tests/unit/db++/database_test.h"

namespace corvo::mysql::test {
namespace {

class ResultTest : public DatabaseTest {
protected:
    Result rowsOf(const std::string& statement) { return connection << statement << Query::fetch; }

    Result::row_t row;
};

TEST_F(ResultTest, GivesRowsInTheirOrder) {
    Result result = rowsOf("SELECT 'one' AS name, 1 AS number UNION ALL SELECT 'two', 2");

    ASSERT_TRUE(result.fetch(&row));
    EXPECT_EQ(row["name"].value, "one");
    EXPECT_EQ(row["number"].value, "1");
    ASSERT_TRUE(result.fetch(&row));
    EXPECT_EQ(row["name"].value, "two");
    EXPECT_EQ(row["number"].value, "2");
    EXPECT_FALSE(result.fetch(&row));
}

TEST_F(ResultTest, LeavesTheRowUntouchedAtTheEnd) {
    Result result = rowsOf("SELECT 'last' AS v");
    ASSERT_TRUE(result.fetch(&row));

    EXPECT_FALSE(result.fetch(&row));
    EXPECT_FALSE(result.fetch(&row));

    EXPECT_EQ(row["v"].value, "last");
}

TEST_F(ResultTest, HasNoRowsForAnEmptyTable) {
    Result result = rowsOf("SELECT id FROM domains");
    EXPECT_FALSE(result.fetch(&row));
    EXPECT_EQ(row.size(), 0U);
}

TEST_F(ResultTest, TellsNullFromEmpty) {
    Result result = rowsOf("SELECT NULL AS nothing, '' AS empty");
    ASSERT_TRUE(result.fetch(&row));
    EXPECT_TRUE(row["nothing"].null);
    EXPECT_EQ(row["nothing"].value, "");
    EXPECT_FALSE(row["empty"].null);
    EXPECT_EQ(row["empty"].value, "");
}

TEST_F(ResultTest, KeepsZeroBytes) {
    Result result = rowsOf("SELECT x'610062' AS v");
    ASSERT_TRUE(result.fetch(&row));
    EXPECT_EQ(row["v"].value, std::string("a\0b", 3));
}

TEST_F(ResultTest, ForgetsTheRowBefore) {
    Result numbers = rowsOf("SELECT 1 AS a, 2 AS b");
    ASSERT_TRUE(numbers.fetch(&row));
    Result words = rowsOf("SELECT 'x' AS c");
    ASSERT_TRUE(words.fetch(&row));

    EXPECT_EQ(row.size(), 1U);
    EXPECT_EQ(failureOf([&] { row["a"]; }), "No field named a in result set");
}

TEST_F(ResultTest, RefusesTwoColumnsOfOneNameAtTheFetch) {
    Result result = rowsOf("SELECT 1 AS a, 2 AS b, 3 AS a");
    EXPECT_EQ(failureOf([&] { result.fetch(&row); }), "duplicated field a in query");
}

TEST_F(ResultTest, GoesOnAfterAFailedFetch) {
    Result result = rowsOf("SELECT 1 AS a, 2 AS a UNION ALL SELECT 3, 4");
    EXPECT_THROW(result.fetch(&row), mError);
    EXPECT_THROW(result.fetch(&row), mError);
    EXPECT_FALSE(result.fetch(&row));
}

TEST_F(ResultTest, RefusesAColumnThatIsNotThere) {
    Result result = rowsOf("SELECT 'kept' AS v");
    ASSERT_TRUE(result.fetch(&row));

    EXPECT_EQ(failureOf([&] { row["V"]; }), "No field named V in result set");
    EXPECT_EQ(failureOf([&] { std::as_const(row)["w"]; }), "No field named w in result set");

    EXPECT_EQ(row.size(), 1U);
    EXPECT_EQ(std::as_const(row)["v"].value, "kept");
}

TEST_F(ResultTest, TellsItsColumnsInTheOrderOfTheirNames) {
    Result result = rowsOf("SELECT '2' AS b, NULL AS c, '1' AS a");
    ASSERT_TRUE(result.fetch(&row));

    std::string columns;
    for (const auto& [name, field] : std::as_const(row))
        columns += name + "=" + (field.null ? "NULL" : field.value) + ";";

    EXPECT_EQ(columns, "a=1;b=2;c=NULL;");
    EXPECT_TRUE(row.contains("c"));
    EXPECT_FALSE(row.contains("d"));
}

TEST_F(ResultTest, ReadsOnInItsNewPlaceAfterAMove) {
    Result first = rowsOf("SELECT 1 AS v UNION ALL SELECT 2");
    ASSERT_TRUE(first.fetch(&row));
    Result second = std::move(first);
    ASSERT_TRUE(second.fetch(&row));
    EXPECT_EQ(row["v"].value, "2");
}

}  // namespace
}  // namespace corvo::mysql::test
