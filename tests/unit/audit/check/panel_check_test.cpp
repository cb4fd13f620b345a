#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "audit/check/panel_tables.h"
#include "restore/walker.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/recorder.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

class PanelCheckTest : public CheckTest {
protected:
    static Results results() {
        return resultsOf([](const auto& sink) {
            if (const auto connection = audit::checkConnection(sink, /*mayTry=*/true))
                audit::checkPanel(sink, *connection);
        });
    }

    PanelDatabase panel;
};

TEST_F(PanelCheckTest, SaysWhichDatabaseItIsAndHowMuchIsInIt) {
    loadSample(panel);
    EXPECT_THAT(results(),
                ElementsAre("ok|panel database|" + panel.name() + " as " + panel.user() +
                                "@localhost, server " + panel.query("SELECT VERSION()").at(0) + "|",
                            "ok|panel tables|all tables and columns can be read|",
                            "ok|panel contents|mail domains: 3, mail names: 7|"));
}

TEST_F(PanelCheckTest, ADatabaseWithoutMailNamesIsWarnedOf) {
    panel.domain("example.com");
    EXPECT_EQ(results().at(2),
              "warning|panel contents|mail domains: 1, mail names: 0|"
              "see that it is the right panel database: nothing is restored");
}

TEST_F(PanelCheckTest, EachTableThatCannotBeReadIsAProblem) {
    panel.execute("DROP TABLE misc; ALTER TABLE mail_redir CHANGE address target TEXT");
    const Results found = results();
    ASSERT_EQ(found.size(), 4U);
    // The server's words go between the two.
    EXPECT_THAT(found[1],
                AllOf(StartsWith("problem|panel tables|MySQL error 1054: Unknown column 'address'"),
                      EndsWith(" executing query: SELECT mn_id, address FROM mail_redir LIMIT "
                               "0|see that the table is there and may be read")));
    EXPECT_EQ(found[2], "problem|panel tables|MySQL error 1146: Table '" + panel.name() +
                            ".misc' doesn't exist executing query: SELECT param, val FROM misc "
                            "LIMIT 0|see that the table is there and may be read");
}

TEST_F(PanelCheckTest, AServerThatIsNotReachedIsTheOnlyProblem) {
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    const Results found = results();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_THAT(found[0], StartsWith("problem|panel database|Unable to connect to Corvo Database: "
                                     "Can't connect to local server through socket "
                                     "'/etc/vhc/mysql.sock' (2)|see to the server, its socket and "
                                     "the credentials"));
}

// The list is whole: a panel that has these columns and no others is walked without a word.
TEST_F(PanelCheckTest, TheWalkReadsNoOtherColumns) {
    loadSample(panel);
    for (const auto& [name, columns] : audit::PANEL_TABLES)
        panel.execute("CREATE TABLE kept AS SELECT " + std::string(columns) + " FROM " + name +
                      "; DROP TABLE " + name + "; RENAME TABLE kept TO " + name);
    Recorder recorder;
    recorder.bindAll();
    mail::restore::walkMailServerEntities(recorder.callbacks);
    EXPECT_FALSE(recorder.lines().empty());
}

}  // namespace
}  // namespace corvo::test
