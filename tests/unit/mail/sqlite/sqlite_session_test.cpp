#include "mail/sqlite/sqlite_session.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"

namespace {

// The sleeps that were asked for, in nanoseconds; none is slept while this is set.
std::vector<long>* noted = nullptr;
// How many of them succeed.
std::size_t allowed = 0;

}  // namespace

// In place of the C library's.
extern "C" int nanosleep(const timespec* span, timespec* left) {
    if (noted == nullptr)
        return ::clock_nanosleep(CLOCK_REALTIME, 0, span, left) == 0 ? 0 : -1;
    noted->push_back(span->tv_sec * 1'000'000'000 + span->tv_nsec);
    if (noted->size() <= allowed)
        return 0;
    errno = EINTR;
    return -1;
}

namespace corvo::test {
namespace {

using corvo::mail::SqliteAccess;
using corvo::mail::SqliteSession;
using corvo::mail::SqliteStatement;
using corvo::mail::SqliteStep;
using corvo::mail::SqliteText;

using Rows = std::vector<std::string>;

const std::string FOLDER = "/var/lib/corvo/test";
const std::string FILE_PATH = FOLDER + "/test.db";

class SqliteSessionTest : public LoggingTest {
protected:
    SqliteSessionTest() { makeDirectory(FOLDER); }

    static SqliteSession open() { return {FILE_PATH.c_str(), SqliteAccess::readWrite}; }
    static SqliteSession openForReading() { return {FILE_PATH.c_str(), SqliteAccess::readOnly}; }
    static SqliteSession borrow(const TestDatabase& database) {
        return {database.get(), FILE_PATH.c_str(), SqliteAccess::readWrite};
    }
};

/// Notes sleeps instead of sleeping; the one after the first `count` fails.
class SleepsNoted {
public:
    explicit SleepsNoted(std::size_t count) {
        noted = &sleeps;
        allowed = count;
    }
    ~SleepsNoted() { noted = nullptr; }
    SleepsNoted(const SleepsNoted&) = delete;
    SleepsNoted& operator=(const SleepsNoted&) = delete;

    std::vector<long> sleeps;
};

/// Counts how often a connection found the file locked, and does not let SQLite wait.
int countLocks(void* count, int /*times*/) {
    ++*static_cast<int*>(count);
    return 0;
}

// A database with one table, locked by one connection and used by another one.
class LockedSqliteTest : public SqliteSessionTest {
protected:
    LockedSqliteTest() {
        holder.execute("CREATE TABLE t (a); INSERT INTO t VALUES (1)");
        user.execute("SELECT * FROM t");  // it knows the schema from now on
        sqlite3_busy_handler(user.get(), countLocks, &attempts);
        holder.execute("BEGIN EXCLUSIVE");
    }

    TestDatabase holder{FILE_PATH};
    TestDatabase user{FILE_PATH};
    int attempts = 0;
};

// Opening and closing.

TEST_F(SqliteSessionTest, CreatesMissingFileForWriting) {
    const SqliteSession session = open();
    EXPECT_TRUE(session);
    EXPECT_NE(session.handle(), nullptr);
    EXPECT_TRUE(exists(FILE_PATH));
}

TEST_F(SqliteSessionTest, CreatesNothingForReading) {
    EXPECT_FALSE(openForReading());
    expectLogged(
        {"Unable to open database(readonly) " + FILE_PATH + ": unable to open database file"});
    EXPECT_FALSE(exists(FILE_PATH));
}

TEST_F(SqliteSessionTest, ReportsFileThatCannotBeOpened) {
    makeDirectory(FILE_PATH);
    EXPECT_FALSE(open());
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
}

TEST_F(SqliteSessionTest, ReportsMissingMemory) {
    {
        const NoSqliteMemory none;
        EXPECT_FALSE(open());
        EXPECT_FALSE(openForReading());
    }
    expectLogged({"Unable to open database " + FILE_PATH + ": general DB errror",
                  "Unable to open database(readonly) " + FILE_PATH + ": general DB errror"});
}

TEST_F(SqliteSessionTest, ClosesWhatItOpened) {
    const int before = openDescriptors();
    {
        const SqliteSession session = open();
        EXPECT_TRUE(session.begin());
        EXPECT_GT(openDescriptors(), before);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SqliteSessionTest, LeavesBorrowedDatabaseOpen) {
    const TestDatabase database(FILE_PATH);
    EXPECT_EQ(borrow(database).handle(), database.get());
    database.execute("CREATE TABLE t (a)");
}

TEST_F(SqliteSessionTest, SetsBusyTimeout) {
    const SqliteSession session = open();
    SqliteStatement timeout(session, "PRAGMA busy_timeout");
    EXPECT_EQ(timeout.step(), SqliteStep::row);
    EXPECT_EQ(timeout.integer(0), 50);
}

TEST_F(SqliteSessionTest, HasNoMutex) {
    EXPECT_EQ(sqlite3_db_mutex(open().handle()), nullptr);
    EXPECT_EQ(sqlite3_db_mutex(openForReading().handle()), nullptr);
}

TEST_F(SqliteSessionTest, TrustsNoSchema) {
    const SqliteSession session = open();
    SqliteStatement trusted(session, "PRAGMA trusted_schema");
    EXPECT_EQ(trusted.step(), SqliteStep::row);
    EXPECT_EQ(trusted.integer(0), 0);
}

TEST_F(SqliteSessionTest, NothingCanBeDoneInSessionThatIsNotOpen) {
    makeDirectory(FILE_PATH);
    const SqliteSession session = open();
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
    EXPECT_FALSE(SqliteStatement(session, "SELECT 1"));
    EXPECT_FALSE(session.begin());
    EXPECT_FALSE(session.end());
}

// Statements.

TEST_F(SqliteSessionTest, ReportsStatementThatCannotBePrepared) {
    const SqliteSession session = open();
    EXPECT_FALSE(SqliteStatement(session, "SELECT a FROM t WHERE b = '%s'"));
    expectLogged(
        {"Unable to prepare SQL statement for query 'SELECT a FROM t WHERE b = '%s'': no "
         "such table: t"});
}

TEST_F(SqliteSessionTest, BindsInOrderAndReadsBack) {
    const SqliteSession session = open();
    SqliteStatement select(session, "SELECT ?, ?, ?, ?");
    EXPECT_TRUE(select.bind(-7));
    EXPECT_TRUE(select.bind("text"));
    EXPECT_TRUE(select.bind(static_cast<const char*>(nullptr)));
    EXPECT_TRUE(select.bind(std::string_view("four", 3)));
    ASSERT_EQ(select.step(), SqliteStep::row);
    EXPECT_EQ(select.integer(0), -7);
    EXPECT_STREQ(select.text(1), "text");
    EXPECT_EQ(select.text(2), nullptr);
    EXPECT_STREQ(select.text(3), "fou");
    EXPECT_EQ(select.step(), SqliteStep::done);
}

TEST_F(SqliteSessionTest, EmptyTextIsNotNull) {
    const SqliteSession session = open();
    SqliteStatement select(session, "SELECT ? IS NULL");
    EXPECT_TRUE(select.bind(""));
    ASSERT_EQ(select.step(), SqliteStep::row);
    EXPECT_EQ(select.integer(0), 0);
}

TEST_F(SqliteSessionTest, RewoundStatementRunsAgain) {
    const SqliteSession session = open();
    SqliteStatement select(session, "SELECT ?");
    for (const int value : {1, 2}) {
        EXPECT_TRUE(select.bind(value));
        ASSERT_EQ(select.step(), SqliteStep::row);
        EXPECT_EQ(select.integer(0), value);
        select.rewind();
    }
}

TEST_F(SqliteSessionTest, BindingTooManyFails) {
    const SqliteSession session = open();
    SqliteStatement select(session, "SELECT ?");
    EXPECT_TRUE(select.bind(1));
    EXPECT_FALSE(select.bind(2));
    EXPECT_FALSE(select.bind("3"));
    EXPECT_STREQ(select.error(), "column index out of range");
}

TEST_F(SqliteSessionTest, FailedStepHasItsReason) {
    sqliteExecute(FILE_PATH, "CREATE TABLE t (a UNIQUE); INSERT INTO t VALUES (1)");
    const SqliteSession session = open();
    SqliteStatement insert(session, "INSERT INTO t VALUES (1)");
    EXPECT_EQ(insert.step(), SqliteStep::failed);
    EXPECT_STREQ(insert.error(), "UNIQUE constraint failed: t.a");
}

// Transactions.

TEST_F(SqliteSessionTest, TransactionIsKeptOnlyWhenEnded) {
    sqliteExecute(FILE_PATH, "CREATE TABLE t (a)");
    for (const bool ended : {false, true}) {
        const SqliteSession session = open();
        EXPECT_TRUE(session.begin());
        EXPECT_EQ(SqliteStatement(session, "INSERT INTO t VALUES (1)").step(), SqliteStep::done);
        EXPECT_EQ(ended && session.end(), ended);
    }
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT count(*) FROM t"), Rows{"1"});
}

TEST_F(SqliteSessionTest, ReportsTransactionWithinTransaction) {
    const SqliteSession session = open();
    EXPECT_TRUE(session.begin());
    EXPECT_FALSE(session.begin());
    expectLogged(
        {"Unable to begin sqlite transaction: cannot start a transaction within a "
         "transaction"});
}

TEST_F(SqliteSessionTest, ReportsEndWithoutBegin) {
    const SqliteSession session = open();
    EXPECT_FALSE(session.end());
    expectLogged({"Unable to end sqlite transaction: cannot commit - no transaction is active"});
}

TEST_F(SqliteSessionTest, ReportsTransactionStatementsThatCannotBePrepared) {
    const ConnectionHook hook(refuseTransactionStatements);
    const SqliteSession session = open();
    EXPECT_FALSE(session.begin());
    EXPECT_FALSE(session.end());
    expectLogged({"Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': not authorized",
                  "Unable to prepare SQL statement for query 'END TRANSACTION;': not authorized"});
}

// Scripts.

TEST_F(SqliteSessionTest, RunsScript) {
    SqliteText error;
    EXPECT_TRUE(open().execute("CREATE TABLE t (a);INSERT INTO t VALUES (1);", error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT a FROM t"), Rows{"1"});
}

TEST_F(SqliteSessionTest, FailedScriptGivesItsReason) {
    SqliteText error;
    EXPECT_FALSE(open().execute("BEGIN;CREATE TABLE t (a);nonsense;COMMIT;", error));
    EXPECT_STREQ(error.get(), "near \"nonsense\": syntax error");
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT name FROM sqlite_master"), Rows());
}

TEST_F(SqliteSessionTest, FailedScriptWithoutMemoryGivesNoReason) {
    const SqliteSession session = open();
    SqliteText error;
    const NoSqliteMemory none;
    EXPECT_FALSE(session.execute("CREATE TABLE t (a);", error));
    EXPECT_EQ(error, nullptr);
}

// Locks.

TEST_F(LockedSqliteTest, SleepsGrowAfterAnImmediateRepetition) {
    const SqliteSession session = borrow(user);
    SqliteStatement insert(session, "INSERT INTO t VALUES (2)");
    const SleepsNoted clock(3);
    EXPECT_EQ(insert.step(), SqliteStep::failed);
    EXPECT_EQ(clock.sleeps, (std::vector<long>{10'000, 20'000, 30'000, 40'000}));
    EXPECT_EQ(attempts, 5);
    EXPECT_STREQ(insert.error(), "database is locked");
}

TEST_F(LockedSqliteTest, SleepsOfMoreThanOneSecondAreWholeSleeps) {
    const SqliteSession session = borrow(user);
    SqliteStatement insert(session, "INSERT INTO t VALUES (2)");
    const SleepsNoted clock(100'010);
    EXPECT_EQ(insert.step(), SqliteStep::failed);
    EXPECT_EQ(clock.sleeps.back(), 1'000'110'000);
}

TEST_F(LockedSqliteTest, FailingSleepEndsPreparing) {
    const TestDatabase newcomer(FILE_PATH);
    sqlite3_busy_handler(newcomer.get(), countLocks, &attempts);
    const SqliteSession session = borrow(newcomer);
    const SleepsNoted clock(0);
    EXPECT_FALSE(SqliteStatement(session, "INSERT INTO t VALUES (2)"));
    expectLogged(
        {"Unable to prepare SQL statement for query 'INSERT INTO t VALUES (2)': database "
         "is locked"});
    EXPECT_EQ(attempts, 2);
}

TEST_F(LockedSqliteTest, FailingSleepEndsEndOfTransaction) {
    holder.execute("ROLLBACK");
    const SqliteSession session = borrow(user);
    EXPECT_TRUE(session.begin());
    EXPECT_EQ(SqliteStatement(session, "INSERT INTO t VALUES (2)").step(), SqliteStep::done);
    holder.execute("BEGIN; SELECT * FROM t");
    const SleepsNoted clock(0);
    EXPECT_FALSE(session.end());
    expectLogged({"Unable to end sqlite transaction: database is locked"});
}

TEST_F(LockedSqliteTest, FailingSleepEndsScriptOutsideOfTransaction) {
    const SqliteSession session = borrow(user);
    SqliteText error;
    const SleepsNoted clock(5);
    EXPECT_FALSE(session.execute("BEGIN;INSERT INTO t VALUES (2);COMMIT;", error));
    EXPECT_STREQ(error.get(), "database is locked");
    EXPECT_NE(sqlite3_get_autocommit(session.handle()), 0);
}

TEST_F(LockedSqliteTest, FailingSleepEndsScriptWithoutTransaction) {
    SqliteText error;
    const SleepsNoted clock(0);
    EXPECT_FALSE(borrow(user).execute("INSERT INTO t VALUES (2)", error));
    EXPECT_STREQ(error.get(), "database is locked");
    EXPECT_EQ(attempts, 2);
}

TEST_F(LockedSqliteTest, FailingSleepEndsClosing) {
    sqlite3_stmt* left = nullptr;
    sqlite3* database = nullptr;
    {
        const SleepsNoted clock(0);
        const SqliteSession session = open();
        database = session.handle();
        // Newer releases of SQLite would look into the locked file for "SELECT 1".
        sqlite3_prepare_v2(database, "PRAGMA foreign_keys", -1, &left, nullptr);
    }
    EXPECT_EQ(sqlite3_step(left), SQLITE_ROW);
    sqlite3_finalize(left);
    EXPECT_EQ(sqlite3_close(database), SQLITE_OK);
}

TEST_F(SqliteSessionTest, WaitsForAnotherProcess) {
    sqliteExecute(FILE_PATH, "CREATE TABLE t (a)");
    const LockedByAnother lock(FILE_PATH, 200'000);
    const SqliteSession session = open();
    EXPECT_TRUE(session.begin());
    EXPECT_EQ(SqliteStatement(session, "INSERT INTO t VALUES (1)").step(), SqliteStep::done);
    EXPECT_TRUE(session.end());
}

TEST_F(SqliteSessionTest, ScriptThatMetLockRunsOnce) {
    sqliteExecute(FILE_PATH, "CREATE TABLE t (a)");
    const LockedByAnother lock(FILE_PATH, 200'000);
    SqliteText error;
    EXPECT_TRUE(open().execute("BEGIN;INSERT INTO t VALUES (1);COMMIT;", error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT a FROM t"), Rows{"1"});
}

/// Ends the reader's transaction, too late for this attempt.
int endReading(void* reader, int /*times*/) {
    static_cast<TestDatabase*>(reader)->execute("COMMIT");
    return 0;
}

TEST_F(LockedSqliteTest, ScriptThatMetReaderAtItsEndRunsOnce) {
    holder.execute("ROLLBACK; BEGIN; SELECT * FROM t");
    sqlite3_busy_handler(user.get(), endReading, &holder);
    SqliteText error;
    EXPECT_TRUE(borrow(user).execute("BEGIN;INSERT INTO t VALUES (2);COMMIT;", error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT a FROM t"), (Rows{"1", "2"}));
}

}  // namespace
}  // namespace corvo::test
