#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <tuple>

#include "audit/check/checks.h"
#include "tests/support/installation.h"
#include "tests/support/second_process.h"
#include "tests/support/sqlite.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

const std::string USERDB_IS_RIGHT = "ok|user database|" + USERDB + "|";
const std::string HANDLERS_ARE_RIGHT = "ok|handlers database|" + HANDLERS + "|";

class LocalDatabaseCheckTest : public CheckTest {
protected:
    LocalDatabaseCheckTest() { installMailServer(); }

    static std::string ofUserDatabase() { return resultsOf(audit::checkLocalDatabases).at(0); }
    static std::string ofHandlers() { return resultsOf(audit::checkLocalDatabases).at(1); }

    // A process called "holder" that holds what a script has come to.
    static std::unique_ptr<SecondProcess> holding(const std::string& script) {
        return std::make_unique<SecondProcess>([script](const SecondProcess::Ready& ready) {
            ::prctl(PR_SET_NAME, "holder");
            sqlite3* database = nullptr;
            sqlite3_open(USERDB.c_str(), &database);
            if (sqlite3_exec(database, script.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK)
                ready();
            ::pause();
        });
    }
};

TEST_F(LocalDatabaseCheckTest, WhatTheInstallerLeavesIsRight) {
    EXPECT_THAT(resultsOf(audit::checkLocalDatabases),
                ElementsAre(USERDB_IS_RIGHT, HANDLERS_ARE_RIGHT));
}

TEST_F(LocalDatabaseCheckTest, MissingOnesAreProblemsAndAreNotMade) {
    fs::remove(USERDB);
    fs::remove(HANDLERS);
    EXPECT_THAT(resultsOf(audit::checkLocalDatabases),
                ElementsAre("problem|user database|" + USERDB + " is not there|rebuild it",
                            "problem|handlers database|" + HANDLERS + " is not there|rebuild it"));
    EXPECT_FALSE(exists(USERDB));
    EXPECT_FALSE(exists(HANDLERS));
}

TEST_F(LocalDatabaseCheckTest, MissingTablesColumnsAndKeysAreProblems) {
    const std::string rebuilding =
        "unless somebody is at work on it now, move it away and rebuild it";
    const std::tuple<const char*, std::string, std::string> scripts[] = {
        {"DROP TABLE mailbox_quota", "no such table: mailbox_quota",
         "complete it where it lies: make its table"},
        {"ALTER TABLE mailbox_quota RENAME TO other", "no such table: mailbox_quota", rebuilding},
        {"ALTER TABLE mailbox_quota RENAME quota TO limits",
         "table mailbox_quota has no column named quota", rebuilding},
        {"DROP TABLE mailbox_quota; CREATE TABLE mailbox_quota (domain_name, mailbox_name, quota)",
         "ON CONFLICT clause does not match any PRIMARY KEY or UNIQUE constraint", rebuilding},
    };
    for (const auto& [script, objection, advice] : scripts) {
        sqliteExecute(USERDB, script);
        EXPECT_EQ(ofUserDatabase(), "problem|user database|" + objection + "|" + advice) << script;
        resetSandbox();
        installMailServer();
    }
}

TEST_F(LocalDatabaseCheckTest, OfAnEmptyOneAllThatIsWrongIsNamedAtOnce) {
    writeFile(USERDB, "", 0, 0, 0644);
    const Results results = resultsOf(audit::checkLocalDatabases);
    EXPECT_THAT(results,
                ElementsAre("problem|user database|" + USERDB +
                                " should be popuser:popuser 0644, and is 0:0 0644|set its owner "
                                "and mode",
                            "problem|user database|no such table: mailbox_quota|complete it where "
                            "it lies: make its table",
                            HANDLERS_ARE_RIGHT));
}

TEST_F(LocalDatabaseCheckTest, WhatTheHandlersNeedIsLookedFor) {
    sqliteExecute(HANDLERS, "ALTER TABLE handlers RENAME context TO other");
    EXPECT_EQ(ofHandlers(),
              "problem|handlers database|table handlers has no column named context|"
              "unless somebody is at work on it now, move it away and rebuild it");
}

TEST_F(LocalDatabaseCheckTest, WhatIsNoDatabaseIsAProblem) {
    writeFile(USERDB, "no database, but long enough to be looked at as one", POPUSER_UID,
              POPUSER_GID, 0644);
    EXPECT_EQ(ofUserDatabase(),
              "problem|user database|file is not a database|unless somebody is at work on it now, "
              "move it away and rebuild it");
}

TEST_F(LocalDatabaseCheckTest, OwnersAndModesAreLookedAt) {
    writeFile(USERDB, contentsOf(USERDB), 0, 0, 0644);
    fs::permissions(HANDLERS, fs::perms(0660));
    EXPECT_THAT(resultsOf(audit::checkLocalDatabases),
                ElementsAre("problem|user database|" + USERDB +
                                " should be popuser:popuser 0644, and is 0:0 0644|set its owner "
                                "and mode",
                            "problem|handlers database|" + HANDLERS +
                                " should be root:popuser 0640, and is 0:1032 0660|set its owner "
                                "and mode"));
}

TEST_F(LocalDatabaseCheckTest, AFolderThatOthersMayChangeIsAProblem) {
    const std::string folder = fs::path(USERDB).parent_path();
    chownToPopuser(folder);
    EXPECT_EQ(ofUserDatabase(), "problem|user database|" + folder +
                                    " can be changed by others: 1031:1032 0755|chown root " +
                                    folder + "; chmod go-w " + folder);
}

TEST_F(LocalDatabaseCheckTest, AReadOnlyFolderIsAProblem) {
    const std::string folder = fs::path(USERDB).parent_path();
    const ReadOnlyDisk disk(folder);
    EXPECT_EQ(ofUserDatabase(),
              "problem|user database|" + folder +
                  " is mounted read-only: a run can repair nothing in it|see why (findmnt -T " +
                  folder + "), and mount it anew, writable");
    EXPECT_EQ(ofHandlers(), HANDLERS_ARE_RIGHT);
}

TEST_F(LocalDatabaseCheckTest, AnInterruptedTransactionIsReportedAndStays) {
    writeFile(USERDB + "-journal", "\xd9\xd5\x05\xf9 and so on");
    EXPECT_EQ(ofUserDatabase(), "warning|user database|an interrupted transaction waits in " +
                                    USERDB +
                                    "-journal, and readers fail until it is rolled back|sqlite3 " +
                                    USERDB + " 'BEGIN IMMEDIATE; ROLLBACK;'");
    EXPECT_EQ(contentsOf(USERDB + "-journal"), "\xd9\xd5\x05\xf9 and so on");
}

TEST_F(LocalDatabaseCheckTest, ATransactionUnderWayIsNotCalledInterrupted) {
    const auto other = holding(
        "PRAGMA cache_size=1; BEGIN; INSERT INTO mailbox_quota WITH RECURSIVE n(i) AS "
        "(SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 9999) SELECT 'd', i, '1B' FROM n");
    EXPECT_THAT(ofUserDatabase(),
                MatchesRegex(R"(warning\|user database\|a transaction is under way: process )"
                             R"([0-9]+ \(holder\) holds a lock\|let it end, and check again)"));
}

TEST_F(LocalDatabaseCheckTest, WhoHoldsALockIsNamed) {
    const auto other = holding("BEGIN; SELECT * FROM mailbox_quota");
    EXPECT_THAT(ofUserDatabase(),
                MatchesRegex(R"(warning\|user database\|process [0-9]+ \(holder\) holds a lock, )"
                             R"(and a run waits for it without limit\|let it end, and check )"
                             R"(again)"));
}

TEST_F(LocalDatabaseCheckTest, WalModeIsReportedAndNothingIsMadeForIt) {
    const std::string rest =
        "|user database|in WAL mode: a run refuses it while others have it "
        "open|end who has it open; sqlite3 " +
        USERDB + " 'PRAGMA journal_mode=DELETE'";
    sqliteExecute(USERDB, "PRAGMA journal_mode=WAL");
    EXPECT_EQ(ofUserDatabase(), "warning" + rest);
    EXPECT_FALSE(exists(USERDB + "-shm"));
    const auto other = holding("INSERT INTO mailbox_quota VALUES ('d', 'm', '1B')");
    EXPECT_EQ(ofUserDatabase(), "problem" + rest);
}

TEST_F(LocalDatabaseCheckTest, FurtherTablesOfTheUserDatabaseAreWarnedOf) {
    sqliteExecute(USERDB, "CREATE TABLE other (x)");
    sqliteExecute(HANDLERS, "CREATE TABLE other (x)");
    EXPECT_THAT(resultsOf(audit::checkLocalDatabases),
                ElementsAre("warning|user database|holds 3 tables and indexes in place of 2|unless "
                            "somebody is at work on it now, move it away and rebuild it",
                            HANDLERS_ARE_RIGHT));
}

TEST_F(LocalDatabaseCheckTest, WithoutTheAccountItsOwnerCannotBeRight) {
    removeUser("popuser");
    EXPECT_EQ(ofUserDatabase(),
              "problem|user database|" + USERDB +
                  " should be popuser:popuser 0644, and is 1031:1032 0644|set its owner and mode");
}

}  // namespace
}  // namespace corvo::test
