#include "mail/sqlite/sqlite_state.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"
#include "tests/support/sqlite.h"

namespace corvo::test {
namespace {

using mail::lookAtSqlite;
using mail::SqliteState;

const std::string FOLDER = "/var/lib/corvo/state";
const std::string DATABASE = FOLDER + "/some.db";

// Runs a script in a process of its own, which holds what it has come to.
std::unique_ptr<SecondProcess> holding(const std::string& script) {
    return std::make_unique<SecondProcess>([script](const SecondProcess::Ready& ready) {
        sqlite3* database = nullptr;
        sqlite3_open(DATABASE.c_str(), &database);
        if (sqlite3_exec(database, script.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK)
            ready();
        ::pause();
    });
}

SqliteState lookAt(const std::string& path) {
    SqliteState state;
    EXPECT_TRUE(lookAtSqlite(path.c_str(), state)) << errno;
    return state;
}

class SqliteStateTest : public SandboxTest {
protected:
    SqliteStateTest() {
        makeDirectory(FOLDER);
        sqliteExecute(DATABASE, "CREATE TABLE t (x)");
    }
};

TEST_F(SqliteStateTest, OneThatNobodyUsesIsQuiet) {
    const SqliteState state = lookAt(DATABASE);
    EXPECT_TRUE(state.isQuiet());
    EXPECT_FALSE(state.isLocked);
    EXPECT_EQ(state.database.st_size, static_cast<off_t>(contentsOf(DATABASE).size()));
}

TEST_F(SqliteStateTest, AMissingOneIsNotLookedAt) {
    SqliteState state;
    EXPECT_FALSE(lookAtSqlite((FOLDER + "/other.db").c_str(), state));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SqliteStateTest, AJournalThatWaitsIsSeen) {
    writeFile(DATABASE + "-journal", "\xd9\xd5");
    EXPECT_TRUE(lookAt(DATABASE).journal);
    EXPECT_FALSE(lookAt(DATABASE).isQuiet());
}

TEST_F(SqliteStateTest, AJournalThatHasDoneItsWorkIsNone) {
    for (const std::string& done : {std::string(), std::string(28, '\0')}) {
        writeFile(DATABASE + "-journal", done);
        EXPECT_FALSE(lookAt(DATABASE).journal) << done.size() << " bytes";
    }
}

TEST_F(SqliteStateTest, AJournalThatCannotBeReadCountsAsOneThatWaits) {
    makeLink("/nowhere", DATABASE + "-journal", POPUSER_UID);
    EXPECT_TRUE(lookAt(DATABASE).journal);
}

TEST_F(SqliteStateTest, WalModeIsSeenWithoutALog) {
    sqliteExecute(DATABASE, "PRAGMA journal_mode=WAL; INSERT INTO t VALUES (1)");
    ASSERT_FALSE(exists(DATABASE + "-wal"));
    EXPECT_TRUE(lookAt(DATABASE).wal);
    EXPECT_FALSE(lookAt(DATABASE).sharedMemory);
}

TEST_F(SqliteStateTest, ALogInUseHasSharedMemory) {
    const auto other = holding("PRAGMA journal_mode=WAL; INSERT INTO t VALUES (1)");
    EXPECT_TRUE(lookAt(DATABASE).wal);
    EXPECT_TRUE(lookAt(DATABASE).sharedMemory);
}

TEST_F(SqliteStateTest, EachLockOfAnotherProcessIsSeenWithItsHolder) {
    for (const std::string script :
         {"BEGIN; SELECT * FROM t", "BEGIN IMMEDIATE", "BEGIN EXCLUSIVE"}) {
        const auto other = holding(script);
        const SqliteState state = lookAt(DATABASE);
        EXPECT_TRUE(state.isLocked) << script;
        EXPECT_GT(state.holder, 0) << script;
        EXPECT_NE(state.holder, ::getpid()) << script;
    }
}

TEST_F(SqliteStateTest, WhatLiesBesideIsSoughtWhereLinksLead) {
    makeLink(DATABASE, FOLDER + "/link.db");
    writeFile(DATABASE + "-journal", "\xd9");
    EXPECT_TRUE(lookAt(FOLDER + "/link.db").journal);
}

TEST_F(SqliteStateTest, LookingChangesNothing) {
    writeFile(DATABASE + "-journal", "\xd9\xd5");
    const std::string before = fingerprint(FOLDER);
    (void)lookAt(DATABASE);
    EXPECT_EQ(fingerprint(FOLDER), before);
}

}  // namespace
}  // namespace corvo::test
