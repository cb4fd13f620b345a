// What others in the process, who use SQLite for databases of their own, notice of our sessions.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "mail/quota/mail_user_db.h"
#include "mail/sqlite/sqlite_session.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"

namespace corvo::test {
namespace {

using corvo::mail::MailUserDbHelper;
using corvo::mail::SqliteAccess;
using corvo::mail::SqliteSession;
using corvo::mail::SqliteStatement;
using corvo::mail::SqliteStep;

using Rows = std::vector<std::string>;

const std::string OURS = "/var/lib/corvo/mail/userdb/userdb.db";

class SqliteNeighboursTest : public LoggingTest {
protected:
    SqliteNeighboursTest() {
        makeDirectory("/var/lib/corvo/mail/userdb");
        EXPECT_TRUE(helper.initMailUserdb(true));
    }

    static SqliteSession open() { return {OURS.c_str(), SqliteAccess::readWrite}; }

    MailUserDbHelper helper;
};

TEST_F(SqliteNeighboursTest, KeepTheSystemsVfs) {
    EXPECT_STREQ(sqlite3_vfs_find(nullptr)->zName, "unix");
}

TEST_F(SqliteNeighboursTest, CommitTwoDatabasesAtOnce) {
    const TestDatabase both("/var/lib/corvo/one.db");
    both.execute(
        "ATTACH '/var/lib/corvo/two.db' AS two; CREATE TABLE main.a (x); CREATE TABLE two.b (x);"
        "BEGIN; INSERT INTO main.a VALUES (1); INSERT INTO two.b VALUES (2); COMMIT");
    EXPECT_EQ(sqliteRows("/var/lib/corvo/one.db", "SELECT x FROM a"), Rows{"1"});
    EXPECT_EQ(sqliteRows("/var/lib/corvo/two.db", "SELECT x FROM b"), Rows{"2"});
}

/// A database of popuser's that everybody may write, open and with a journal or log.
class Theirs {
public:
    explicit Theirs(const std::string& mode) {
        giveAway(path_);
        database_.execute("PRAGMA journal_mode = " + mode +
                          "; CREATE TABLE IF NOT EXISTS t (a); BEGIN; INSERT INTO t VALUES (1)");
    }

    void expectJournals(const std::vector<std::string>& suffixes) const {
        for (const std::string& suffix : suffixes) {
            EXPECT_EQ(ownerOf(path_ + suffix), popuser()) << suffix;
            EXPECT_EQ(modeOf(path_ + suffix), "0666") << suffix;
        }
    }

private:
    static void giveAway(const std::string& path) {
        ASSERT_EQ(::chown(path.c_str(), POPUSER_UID, POPUSER_GID), 0);
        ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    }

    const std::string path_ = "/var/lib/corvo/theirs.db";
    TestDatabase database_{path_};
};

TEST_F(SqliteNeighboursTest, GiveTheirJournalsTheOwnerAndModeOfTheirDatabases) {
    Theirs("DELETE").expectJournals({"-journal"});
    Theirs("WAL").expectJournals({"-wal", "-shm"});
}

TEST_F(SqliteNeighboursTest, DoSoWhileASessionWritesToo) {
    const SqliteSession session = open();
    EXPECT_TRUE(session.begin());
    EXPECT_EQ(
        SqliteStatement(session, "INSERT INTO mailbox_quota VALUES ('a.com', 'x', '1B')").step(),
        SqliteStep::done);
    Theirs("DELETE").expectJournals({"-journal"});
    EXPECT_EQ(ownerOf(OURS + "-journal"), "0:0");
}

TEST_F(SqliteNeighboursTest, FollowLinksOfAnybody) {
    sqliteExecute("/var/lib/corvo/moved.db", "CREATE TABLE t (a)");
    makeLink("/var/lib/corvo/moved.db", "/var/lib/corvo/link.db", POPUSER_UID);
    EXPECT_EQ(sqliteRows("/var/lib/corvo/link.db", "SELECT name FROM sqlite_master"), Rows{"t"});
}

TEST_F(SqliteNeighboursTest, OpenFilesWithSeveralNames) {
    sqliteExecute("/var/lib/corvo/one.db", "CREATE TABLE t (a)");
    std::filesystem::create_hard_link("/var/lib/corvo/one.db", "/var/lib/corvo/second.db");
    EXPECT_EQ(sqliteRows("/var/lib/corvo/second.db", "SELECT name FROM sqlite_master"), Rows{"t"});
}

TEST_F(SqliteNeighboursTest, LeaveASessionItsDefence) {
    const TestDatabase theirs(OURS);
    theirs.execute("SELECT * FROM mailbox_quota");
    writeFile("/var/lib/corvo/victim", "", 0, 0, 0600);
    chownToPopuser(std::filesystem::path(OURS).parent_path());
    std::filesystem::create_hard_link("/var/lib/corvo/victim", OURS + "-journal");
    EXPECT_FALSE(helper.userdbStoreMboxQuota("a.com", "x", 5));
    expectLogged({"Unable to set quota for 'x@a.com': unable to open database file"});
}

TEST_F(SqliteNeighboursTest, UseSessionsInSeveralThreads) {
    constexpr int THREADS = 4;
    constexpr int WRITES = 50;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread)
        threads.emplace_back([this, domain = std::to_string(thread) + ".com"] {
            for (int i = 0; i < WRITES; ++i)
                EXPECT_TRUE(helper.userdbStoreMboxQuota(domain, std::to_string(i), i));
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(sqliteRows(OURS, "SELECT count(*) FROM mailbox_quota"),
              Rows{std::to_string(THREADS * WRITES)});
    EXPECT_EQ(integrityOf(OURS), "ok");
}

// Where SQLite was not in use before.
TEST_F(SqliteNeighboursTest, KeepTheirMutexesAndMemoryStatistics) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            const SqliteSession session = open();
            const TestDatabase theirs("/var/lib/corvo/theirs.db");
            const bool areKept =
                session && sqlite3_db_mutex(theirs.get()) != nullptr && sqlite3_memory_used() > 0;
            std::exit(areKept ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

int opened = 0;

int countOpened(const char* path, int flags, int mode) {
    ++opened;
    return ::open(path, flags, mode);
}

// In a process of its own, where the library was not in use before.
class SqliteNeighboursFirstTest : public LoggingTest {};

TEST_F(SqliteNeighboursFirstTest, KeepSystemCallsOfTheirOwn) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            sqlite3_vfs* const vfs = sqlite3_vfs_find(nullptr);
            vfs->xSetSystemCall(vfs, "open", reinterpret_cast<sqlite3_syscall_ptr>(countOpened));
            const SqliteSession session("/var/lib/corvo/ours.db", SqliteAccess::readWrite);
            const int before = opened;
            sqliteExecute("/var/lib/corvo/theirs.db", "CREATE TABLE t (a)");
            std::exit(session && opened > before ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace corvo::test
