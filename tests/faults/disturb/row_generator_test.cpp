#include "tests/faults/disturb/row_generator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace corvo::faults {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

const std::size_t COUNT = 5000;

std::vector<HostileRow> allRows() {
    std::vector<HostileRow> rows;
    for (const Batch& batch : hostileBatches(COUNT, {"example.com"}))
        rows.insert(rows.end(), batch.rows.begin(), batch.rows.end());
    return rows;
}

// The values that a column is given, NULL as "NULL".
std::map<std::string, std::set<std::string>> valuesByColumn() {
    std::map<std::string, std::set<std::string>> values;
    for (const HostileRow& row : allRows())
        for (const auto& [column, value] : row.changes)
            values[column.table + "." + column.name].insert(value.value_or("NULL"));
    return values;
}

HostileRow domainWithStatus(const Cell& status) {
    return {1, {{{"DomainServices", "status"}, status}}};
}

std::string statementsOf(const HostileRow& row) {
    std::string script;
    for (const Row& each : row.rows())
        script += insertStatement(each) + "\n";
    return script;
}

TEST(RowGenerator, MakesAsManyRowsAsAreAskedFor) {
    EXPECT_GE(allRows().size(), COUNT);
}

TEST(RowGenerator, GivesEveryColumnNull) {
    const auto values = valuesByColumn();
    for (const Column& column : columnsThatARunReads())
        EXPECT_THAT(values.at(column.table + "." + column.name), Contains("NULL")) << column.name;
}

TEST(RowGenerator, PutsEveryByteIntoNamesAndAddresses) {
    const auto values = valuesByColumn();
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_THAT(values.at("domains.name"), Contains(text + ".hostile.example"));
        EXPECT_THAT(values.at("mail.mail_name"), Contains("info" + text));
        EXPECT_THAT(values.at("mail_redir.address"), Contains("somebody@" + text + "example.org"));
    }
}

TEST(RowGenerator, MakesTheSameRowsEveryTime) {
    const auto describeAll = [] {
        std::string text;
        for (const HostileRow& row : allRows())
            text += row.describe() + "\n";
        return text;
    };
    EXPECT_EQ(describeAll(), describeAll());
}

TEST(RowGenerator, NamesNoBatchTwice) {
    std::set<std::string> names;
    const std::vector<Batch> batches = hostileBatches(COUNT, {});
    for (const Batch& batch : batches)
        names.insert(batch.name);
    EXPECT_EQ(names.size(), batches.size());
}

TEST(RowGenerator, LeavesARowThatEndsTheWalkAlone) {
    for (const Batch& batch : hostileBatches(COUNT, {})) {
        const bool endsTheWalk = std::any_of(batch.rows.begin(), batch.rows.end(),
                                             std::mem_fn(&HostileRow::endsTheWalk));
        EXPECT_TRUE(!endsTheWalk || batch.rows.size() == 1) << batch.name;
    }
}

TEST(RowGenerator, KnowsAStatusThatEndsTheWalk) {
    for (const std::string status : {"", "1e9", " 1", "1 ", "--1", "+-1", "9223372036854775808"})
        EXPECT_TRUE(domainWithStatus(status).endsTheWalk()) << status;
    EXPECT_TRUE(domainWithStatus(std::nullopt).endsTheWalk());
    for (const std::string status : {"0", "-1", "+5", "007", "9223372036854775807"})
        EXPECT_FALSE(domainWithStatus(status).endsTheWalk()) << status;
}

TEST(RowGenerator, KeepsRowsConnectedWhenTheirKeyIsHostile) {
    const HostileRow row = {7, {{{"mail", "id"}, "\xff"}}};

    EXPECT_THAT(statementsOf(row),
                HasSubstr("INSERT INTO mail_redir (mn_id,address) VALUES (x'ff'"));
    EXPECT_THAT(row.describe(), HasSubstr("mail.id=\"\\xff\" (1 bytes)"));
}

// The database reads a text as the number that it begins with; honest keys are below a million.
TEST(RowGenerator, GivesNoKeyThatBeginsAsAnHonestOne) {
    for (const Cell& value : knownValues(Meaning::key)) {
        const double number = std::strtod(value.value_or("").c_str(), nullptr);
        EXPECT_TRUE(number < 1 || number >= 1e6) << printable(*value);
    }
}

TEST(RowGenerator, AddsSettingsOnlyWhereTheyAreMeant) {
    const HostileRow name = {1, {{{"domains", "name"}, ""}}};
    const HostileRow setting = {1, {{{"misc", "val"}, std::nullopt}}};

    EXPECT_THAT(statementsOf(name), Not(HasSubstr("INTO misc")));
    EXPECT_THAT(statementsOf(setting), HasSubstr("INTO misc (param,val) VALUES (x'"));
    EXPECT_THAT(statementsOf(setting), HasSubstr("',NULL);"));
}

TEST(RowGenerator, PrintsNoControlCharacters) {
    EXPECT_EQ(printable("a\"\\\x1b\xff"), "a\\x22\\x5c\\x1b\\xff");
    EXPECT_THAT(printable(std::string(65536, 'a')), ::testing::MatchesRegex("a+\\.\\.\\."));
}

}  // namespace
}  // namespace corvo::faults
