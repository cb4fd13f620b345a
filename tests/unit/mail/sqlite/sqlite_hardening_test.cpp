#include "mail/sqlite/sqlite_hardening.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "mail/quota/mail_user_db.h"
#include "mail/sqlite/sqlite_session.h"
#include "tests/support/files.h"
#include "tests/support/lease_holder.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

using corvo::mail::HARDENED_VFS;
using corvo::mail::MailUserDbHelper;
using corvo::mail::registerHardenedVfs;
using corvo::mail::SqliteAccess;
using corvo::mail::SqliteSession;
using corvo::mail::SqliteStatement;
using corvo::mail::SqliteStep;

using Rows = std::vector<std::string>;

const std::string FOLDER = "/var/lib/corvo/mail/userdb";
const std::string FILE_PATH = FOLDER + "/userdb.db";
const std::string JOURNAL = FILE_PATH + "-journal";
const std::string WAL = FILE_PATH + "-wal";
const std::string SHM = FILE_PATH + "-shm";

const std::string INSERT = "INSERT INTO mailbox_quota VALUES ('a.com', 'half', '1B')";
const std::string REPLACE =
    "REPLACE INTO mailbox_quota (domain_name, mailbox_name, quota) VALUES (?, ?, ?)";

void giveToPopuser(const std::string& path) {
    ASSERT_EQ(::chown(path.c_str(), POPUSER_UID, POPUSER_GID), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
}

/// Leaves behind what a run leaves that is killed when it has written half of its transaction.
void dieHalfway() {
    const ProcessResult child = runForked([&] {
        const TestDatabase database(FILE_PATH);
        database.execute(
            "PRAGMA cache_size = 1; BEGIN; INSERT INTO mailbox_quota "
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000) "
            "SELECT 'half.com', i, '1B' FROM n");
        ::_exit(0);
    });
    ASSERT_EQ(child.status, 0) << child.err;
    ASSERT_NE(contentsOf(FILE_PATH).find("half.com"), std::string::npos);
    ASSERT_TRUE(exists(JOURNAL));
}

std::string bigEndian(std::size_t number) {
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U})
        bytes += static_cast<char>(number >> shift & 0xff);
    return bytes;
}

/// What makes a journal name a super-journal.
std::string superJournalRecord(const std::string& name) {
    std::size_t sum = 0;
    for (const char letter : name)
        sum += static_cast<unsigned char>(letter);
    return bigEndian(1) + name + bigEndian(name.size()) + bigEndian(sum) +
           "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
}

// A database that popuser owns and lets everybody write.
class SqliteHardeningTest : public LoggingTest {
protected:
    SqliteHardeningTest() {
        makeDirectory(FOLDER);
        EXPECT_TRUE(helper.initMailUserdb(false));
        EXPECT_EQ(::chmod(FILE_PATH.c_str(), 0666), 0);
    }

    bool store() const { return helper.userdbStoreMboxQuota("a.com", "x", 5); }
    static Rows rows() { return sqliteRows(FILE_PATH, "SELECT * FROM mailbox_quota"); }
    static SqliteSession open() { return {FILE_PATH.c_str(), SqliteAccess::readWrite}; }
    /// Puts other tables in the place of ours, past the code under test.
    static void replaceTable(const std::string& script) {
        sqliteExecute(FILE_PATH, "DROP TABLE mailbox_quota;" + script);
    }

    MailUserDbHelper helper;
};

// What stands in place of a file.

TEST_F(SqliteHardeningTest, LinkOfPopuserIsRefused) {
    const std::string victim = "/var/lib/corvo/victim.db";
    std::filesystem::copy_file(FILE_PATH, victim);
    for (const std::string& target : {victim, std::string("/var/lib/corvo/none.db")}) {
        std::filesystem::remove(FILE_PATH);
        makeLink(target, FILE_PATH, POPUSER_UID);
        EXPECT_FALSE(store());
        expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
    }
    EXPECT_EQ(sqliteRows(victim, "SELECT * FROM mailbox_quota"), Rows{});
    EXPECT_FALSE(exists("/var/lib/corvo/none.db"));
}

TEST_F(SqliteHardeningTest, LinkOfRootIsFollowed) {
    std::filesystem::rename(FILE_PATH, "/var/lib/corvo/moved.db");
    makeLink("../../moved.db", FILE_PATH);
    EXPECT_TRUE(store());
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
    EXPECT_TRUE(std::filesystem::is_symlink(FILE_PATH));
}

TEST_F(SqliteHardeningTest, LinkOfRootWithASecondNameIsRefused) {
    const std::string elsewhere = "/var/lib/corvo/moved.db";
    std::filesystem::rename(FILE_PATH, elsewhere);
    makeLink(elsewhere, FILE_PATH);
    std::filesystem::create_hard_link(FILE_PATH, FOLDER + "/second");
    chownToPopuser(FOLDER);
    EXPECT_FALSE(store());
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
}

TEST_F(SqliteHardeningTest, FurtherNamesInAFolderOfRootsDoNotMatter) {
    const std::string elsewhere = "/var/lib/corvo/moved.db";
    ASSERT_EQ(::chown(FILE_PATH.c_str(), 0, 0), 0);
    std::filesystem::create_hard_link(FILE_PATH, "/var/lib/corvo/backup");
    EXPECT_TRUE(store());
    std::filesystem::rename(FILE_PATH, elsewhere);
    makeLink(elsewhere, FILE_PATH);
    std::filesystem::create_hard_link(FILE_PATH, "/var/lib/corvo/link");
    EXPECT_TRUE(store());
    EXPECT_EQ(sqliteRows(elsewhere, "SELECT * FROM mailbox_quota"), Rows{"a.com|x|5B"});
}

TEST_F(SqliteHardeningTest, FileOfRootUnderASecondNameIsRefused) {
    const std::string victim = "/var/lib/corvo/mail/victim";
    const auto expectRefusal = [&](const std::string& name, const std::string& contents) {
        SCOPED_TRACE(name);
        writeFile(victim, contents, 0, 0, 0600);
        std::filesystem::remove(name);
        chownToPopuser(FOLDER);
        std::filesystem::create_hard_link(victim, name);
        EXPECT_FALSE(store());
        EXPECT_EQ(contentsOf(victim), contents);
        EXPECT_EQ(modeOf(victim), "0600");
        std::filesystem::remove(name);
    };
    const std::string database = contentsOf(FILE_PATH);
    expectRefusal(JOURNAL, "");
    expectLogged({"Unable to set quota for 'x@a.com': unable to open database file"});
    sqliteExecute(FILE_PATH, "PRAGMA journal_mode = WAL");
    expectRefusal(WAL, "another's");
    expectLogged({"Unable to prepare SQL statement for query '" + REPLACE +
                  "': unable to open database file"});
    expectRefusal(FILE_PATH, database);
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
}

// Journals.

TEST_F(SqliteHardeningTest, JournalIsWritableByItsMakerAlone) {
    for (const mode_t mask : {022U, 0U}) {
        const corvo::UmaskGuard guard(mask);
        const SqliteSession session = open();
        EXPECT_TRUE(session.begin());
        EXPECT_EQ(SqliteStatement(session, INSERT.c_str()).step(), SqliteStep::done);
        EXPECT_EQ(ownerOf(JOURNAL), "0:0");
        EXPECT_EQ(modeOf(JOURNAL), "0644");
    }
}

TEST_F(SqliteHardeningTest, JournalIsNoMoreReadableThanTheDatabase) {
    EXPECT_EQ(::chmod(FILE_PATH.c_str(), 0660), 0);
    const SqliteSession session = open();
    EXPECT_TRUE(session.begin());
    EXPECT_EQ(SqliteStatement(session, INSERT.c_str()).step(), SqliteStep::done);
    EXPECT_EQ(modeOf(JOURNAL), "0640");
}

TEST_F(SqliteHardeningTest, WhatAKilledRunLeftIsRolledBack) {
    dieHalfway();
    EXPECT_TRUE(store());
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
    EXPECT_FALSE(exists(JOURNAL));
}

TEST_F(SqliteHardeningTest, SuperJournalNamedInForgedJournalIsNotDeleted) {
    const std::string victim = "/var/lib/corvo/victim";
    writeFile(victim, "dear");
    dieHalfway();
    writeFile(JOURNAL, contentsOf(JOURNAL) + superJournalRecord(victim));
    giveToPopuser(JOURNAL);
    EXPECT_FALSE(helper.userdbRemoveMboxQuota("a.com", "x"));
    expectLogged(
        {"Unable to prepare SQL statement for query 'DELETE FROM mailbox_quota WHERE domain_name = "
         "? AND mailbox_name = ?': unable to open database file"});
    EXPECT_EQ(contentsOf(victim), "dear");
    EXPECT_FALSE(exists(JOURNAL));
    EXPECT_TRUE(store());
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
}

TEST_F(SqliteHardeningTest, ForgedJournalFailsTheLookBeforeAStoreAndNoMore) {
    const std::string victim = "/var/lib/corvo/victim";
    writeFile(victim, "dear");
    dieHalfway();
    writeFile(JOURNAL, contentsOf(JOURNAL) + superJournalRecord(victim));
    giveToPopuser(JOURNAL);
    EXPECT_TRUE(store());
    EXPECT_EQ(contentsOf(victim), "dear");
    EXPECT_FALSE(exists(JOURNAL));
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
}

TEST_F(SqliteHardeningTest, PipeInPlaceOfTheJournalDoesNotBlock) {
    ASSERT_EQ(::mkfifo(JOURNAL.c_str(), 0666), 0);
    const ProcessResult child = runForked([this] { ::_exit(store() ? 0 : 1); }, 20);
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.err,
              "Unable to prepare SQL statement for query '" + REPLACE + "': disk I/O error\n");
}

TEST_F(SqliteHardeningTest, PipeInPlaceOfTheFolderDoesNotBlock) {
    const ProcessResult child = runForked(
        [] {
            const SqliteSession session = open();
            EXPECT_TRUE(session.begin());
            EXPECT_EQ(SqliteStatement(session, INSERT.c_str()).step(), SqliteStep::done);
            std::filesystem::rename(FOLDER, FOLDER + ".away");
            ASSERT_EQ(::mkfifo(FOLDER.c_str(), 0666), 0);
            (void)session.end();
        },
        20);
    EXPECT_FALSE(child.timedOut);
}

// Leases.

TEST_F(SqliteHardeningTest, DatabaseUnderALeaseIsWaitedFor) {
    LeaseHolder holder(FILE_PATH);
    EXPECT_TRUE(store());
    EXPECT_TRUE(holder.gaveWay());
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
}

// Write-ahead logs.

TEST_F(SqliteHardeningTest, LogAndItsSharedMemoryAreWritableByTheirMakerAlone) {
    sqliteExecute(FILE_PATH, "PRAGMA journal_mode = WAL");
    const SqliteSession session = open();
    EXPECT_EQ(SqliteStatement(session, INSERT.c_str()).step(), SqliteStep::done);
    for (const std::string& file : {WAL, SHM}) {
        EXPECT_EQ(ownerOf(file), "0:0") << file;
        EXPECT_EQ(modeOf(file), "0644") << file;
    }
}

TEST_F(SqliteHardeningTest, StoresIntoDatabaseWithLog) {
    sqliteExecute(FILE_PATH, "PRAGMA journal_mode = WAL");
    EXPECT_TRUE(store());
    EXPECT_EQ(namesIn(FOLDER), Rows{"userdb.db"});
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
}

TEST_F(SqliteHardeningTest, SharedMemoryThatOthersCanCutIsRefused) {
    const struct {
        uid_t owner;
        mode_t mode;
    } planted[] = {{POPUSER_UID, 0600}, {POPUSER_UID, 0666}, {0, 0666}, {0, 0620}};
    sqliteExecute(FILE_PATH, "PRAGMA journal_mode = WAL");
    for (const auto& [owner, mode] : planted) {
        writeFile(SHM, "", owner, 0, mode);
        EXPECT_FALSE(store());
        expectLogged({"Unable to prepare SQL statement for query '" + REPLACE +
                      "': unable to open database file"});
    }
    EXPECT_EQ(contentsOf(SHM), "");
}

// What a schema may hold.

const std::string ENDLESS =
    "(WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT count(*) FROM n)";

TEST_F(SqliteHardeningTest, TriggersDoNotRun) {
    sqliteExecute(FILE_PATH, "CREATE TRIGGER hang BEFORE INSERT ON mailbox_quota BEGIN SELECT " +
                                 ENDLESS + "; END");
    EXPECT_TRUE(store());
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
}

TEST_F(SqliteHardeningTest, ViewsAreNotRead) {
    replaceTable(
        "CREATE VIEW mailbox_quota AS SELECT 'a.com' AS domain_name, 'x' AS mailbox_name, " +
        ENDLESS + " AS quota");
    EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), -1);
    expectLogged(
        {"Unable to prepare SQL statement for query 'SELECT quota FROM mailbox_quota WHERE "
         "domain_name = ? AND mailbox_name = ?': access to view \"mailbox_quota\" prohibited"});
}

TEST_F(SqliteHardeningTest, VirtualTablesAreNotRead) {
    replaceTable("CREATE VIRTUAL TABLE mailbox_quota USING fts4(domain_name, mailbox_name, quota)");
    EXPECT_FALSE(store());
    expectLogged(
        {"Unable to prepare SQL statement for query '" + REPLACE + "': no such module: fts4"});
}

TEST_F(SqliteHardeningTest, ValuesEndAtOneMebibyte) {
    const SqliteSession session = open();
    for (const int size : {1 << 20, (1 << 20) + 1}) {
        const std::string text(static_cast<std::size_t>(size), 'x');
        SqliteStatement select(session, "SELECT ?");
        EXPECT_EQ(select.bind(text), size == 1 << 20) << size;
    }
}

TEST_F(SqliteHardeningTest, SchemaCannotBeWrittenPastItsStatements) {
    const SqliteSession session = open();
    corvo::mail::SqliteText error;
    EXPECT_FALSE(session.execute("PRAGMA writable_schema = ON; DELETE FROM sqlite_master", error));
    EXPECT_STREQ(error.get(), "table sqlite_master may not be modified");
}

// The whole process.

TEST_F(SqliteHardeningTest, HardeningTwiceIsHardeningOnce) {
    EXPECT_TRUE(registerHardenedVfs());
    const sqlite3_vfs* const first = sqlite3_vfs_find(HARDENED_VFS);
    const sqlite3_vfs* const usual = sqlite3_vfs_find(nullptr);
    EXPECT_TRUE(registerHardenedVfs());
    EXPECT_EQ(sqlite3_vfs_find(HARDENED_VFS), first);
    EXPECT_EQ(sqlite3_vfs_find(nullptr), usual);
}

}  // namespace
}  // namespace corvo::test
