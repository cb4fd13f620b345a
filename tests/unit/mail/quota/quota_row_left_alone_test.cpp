// A quota's row that is as it should be, and those that are not.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "mail/quota/mail_user_db.h"
#include "mail/quota/quota_row.h"
#include "tests/support/capture.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"
#include "tests/support/second_process.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"

namespace corvo::test {
namespace {

using corvo::mail::MailUserDbHelper;
using corvo::mail::quotaRow;
using corvo::mail::QuotaRowLook;
using corvo::mail::RowDifferences;
using corvo::mail::SqliteAccess;
using corvo::mail::SqliteSession;
using corvo::mail::SqliteUse;

const std::string FOLDER = "/var/lib/corvo/mail/userdb";
const std::string FILE_PATH = FOLDER + "/userdb.db";

const std::string LOOK =
    "SELECT quota = ?3, substr(quota, 1, 64) FROM mailbox_quota WHERE domain_name = ?1 AND "
    "mailbox_name = ?2";

using Rows = std::vector<std::string>;

// With the row of one mailbox, and of others that are like it.
class QuotaRowLeftAloneTest : public LoggingTest {
protected:
    QuotaRowLeftAloneTest() {
        makeDirectory(FOLDER);
        EXPECT_TRUE(helper.initMailUserdb(true));
        sqliteExecute(FILE_PATH,
                      "INSERT INTO mailbox_quota VALUES ('example.com', 'info', '5B'),"
                      "('example.com', 'other', '7B'), ('other.com', 'info', '8B')");
    }

    bool store() const { return helper.userdbStoreMboxQuota("Example.com", "Info", 5); }
    // By a session of its own, which writes nothing.
    static RowDifferences look(const std::string& domain = "Example.com",
                               std::string* found = nullptr) {
        const SqliteSession session(FILE_PATH.c_str(), SqliteAccess::readOnly, SqliteUse::look);
        QuotaRowLook row(session);
        const RowDifferences differences = row.at(quotaRow(domain, "Info", 5));
        if (found != nullptr)
            *found = row.found();
        return differences;
    }
    static Rows rows() {
        return sqliteRows(FILE_PATH, "SELECT *, typeof(quota) FROM mailbox_quota ORDER BY 1, 2");
    }

    const Rows SOUND = {"example.com|info|5B|text", "example.com|other|7B|text",
                        "other.com|info|8B|text"};
    MailUserDbHelper helper;
};

TEST_F(QuotaRowLeftAloneTest, IsAskedForAndNothingElse) {
    const std::string before = fingerprint(FOLDER);
    const int descriptors = openDescriptors();
    const StatementTrace trace;
    EXPECT_TRUE(store());
    EXPECT_EQ(trace.statements(), Rows{LOOK});
    EXPECT_EQ(fingerprint(FOLDER), before);
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(QuotaRowLeftAloneTest, NeedsNoFileSystemThatCanBeChanged) {
    const ReadOnlyDisk disk("/var/lib/corvo");
    EXPECT_TRUE(store());
}

TEST_F(QuotaRowLeftAloneTest, IsNoneThatDiffersWhereNothingCanBeChanged) {
    const ReadOnlyDisk disk("/var/lib/corvo");
    EXPECT_FALSE(helper.userdbStoreMboxQuota("Example.com", "Info", 6));
    expectLogged(
        {"Unable to set quota for 'Info@Example.com': attempt to write a readonly database"});
}

TEST_F(QuotaRowLeftAloneTest, IsFoundBesideAWriterThatHasNotCommitted) {
    const TestDatabase writer(FILE_PATH);
    writer.execute("BEGIN IMMEDIATE; UPDATE mailbox_quota SET quota = '9B'");
    EXPECT_TRUE(store());
    writer.execute("ROLLBACK");
    EXPECT_EQ(rows(), SOUND);
}

TEST_F(QuotaRowLeftAloneTest, IsWaitedForWhereTheFileIsLocked) {
    const LockedByAnother lock(FILE_PATH);
    EXPECT_TRUE(store());
    EXPECT_EQ(rows(), SOUND);
}

const struct {
    const char* name;
    RowDifferences differences;
    const char* script;
} DAMAGES[] = {
    {"quota", {.contents = true}, "UPDATE mailbox_quota SET quota = '6B' WHERE quota = '5B'"},
    {"unit", {.contents = true}, "UPDATE mailbox_quota SET quota = '5' WHERE quota = '5B'"},
    {"lower case", {.contents = true}, "UPDATE mailbox_quota SET quota = '5b' WHERE quota = '5B'"},
    {"blob", {.contents = true}, "UPDATE mailbox_quota SET quota = x'3542' WHERE quota = '5B'"},
    {"none", {.missing = true}, "DELETE FROM mailbox_quota WHERE quota = '5B'"},
    {"other domain",
     {.missing = true},
     "UPDATE mailbox_quota SET domain_name = 'a.com' WHERE quota = '5B'"},
    {"other mailbox",
     {.missing = true},
     "UPDATE mailbox_quota SET mailbox_name = 'a' WHERE quota = '5B'"},
    {"upper case",
     {.missing = true},
     "UPDATE mailbox_quota SET mailbox_name = 'Info' WHERE quota = '5B'"},
    {"name as blob",
     {.missing = true},
     "UPDATE mailbox_quota SET mailbox_name = x'696e666f' WHERE quota = '5B'"},
};

TEST_F(QuotaRowLeftAloneTest, IsNoneThatDiffers) {
    for (const auto& [name, differences, script] : DAMAGES) {
        SCOPED_TRACE(name);
        sqliteExecute(FILE_PATH, script);
        EXPECT_EQ(look(), differences);
        const StatementTrace trace;
        EXPECT_TRUE(store());
        EXPECT_EQ(trace.statements().size(), 4U);
        EXPECT_FALSE(look().any());
        EXPECT_EQ(sqliteRows(FILE_PATH,
                             "SELECT quota, typeof(quota) FROM mailbox_quota WHERE domain_name = "
                             "'example.com' AND mailbox_name = 'info'"),
                  Rows{"5B|text"});
        sqliteExecute(FILE_PATH,
                      "DELETE FROM mailbox_quota WHERE domain_name = 'a.com' OR mailbox_name IN "
                      "('a', 'Info', x'696e666f')");
        EXPECT_EQ(rows(), SOUND);
    }
}

TEST_F(QuotaRowLeftAloneTest, LookChangesNothing) {
    const std::string before = fingerprint(FOLDER);
    EXPECT_EQ(look(), RowDifferences{});
    EXPECT_EQ(look("a.com"), RowDifferences{.missing = true});
    EXPECT_EQ(fingerprint(FOLDER), before);
}

TEST_F(QuotaRowLeftAloneTest, LookTellsWhatItHasFound) {
    std::string found;
    EXPECT_EQ(look("other.com", &found), RowDifferences{.contents = true});
    EXPECT_EQ(found, "8B");
    EXPECT_EQ(look("a.com", &found), RowDifferences{.missing = true});
    EXPECT_EQ(found, "");
    sqliteExecute(FILE_PATH, "UPDATE mailbox_quota SET quota = printf('%.100c', 'x')");
    EXPECT_EQ(look("other.com", &found), RowDifferences{.contents = true});
    EXPECT_EQ(found, std::string(64, 'x'));
}

TEST_F(QuotaRowLeftAloneTest, OneLookServesManyRows) {
    const SqliteSession session(FILE_PATH.c_str(), SqliteAccess::readOnly, SqliteUse::look);
    QuotaRowLook row(session);
    EXPECT_EQ(row.at(quotaRow("example.com", "info", 5)), RowDifferences{});
    EXPECT_EQ(row.at(quotaRow("example.com", "info", 6)), RowDifferences{.contents = true});
    EXPECT_EQ(row.at(quotaRow("example.com", "other", 7)), RowDifferences{});
    EXPECT_EQ(row.at(quotaRow("example.com", "third", 7)), RowDifferences{.missing = true});
}

TEST_F(QuotaRowLeftAloneTest, LookIsSilentWhereThereIsNothingToLookAt) {
    sqliteExecute(FILE_PATH, "DROP TABLE mailbox_quota");
    EXPECT_EQ(look(), RowDifferences{.unknown = true});
    std::filesystem::remove(FILE_PATH);
    EXPECT_EQ(look(), RowDifferences{.unknown = true});
    EXPECT_FALSE(exists(FILE_PATH));
}

TEST_F(QuotaRowLeftAloneTest, LookDoesNotWaitForAWriter) {
    const TestDatabase writer(FILE_PATH);
    writer.execute("BEGIN EXCLUSIVE");
    EXPECT_EQ(look(), RowDifferences{.unknown = true});
    writer.execute("ROLLBACK");
    EXPECT_EQ(look(), RowDifferences{});
}

TEST_F(QuotaRowLeftAloneTest, LookThatIsInterruptedLeavesTheRestToTheSteps) {
    const ConnectionHook hook(interruptSteps);
    EXPECT_EQ(look(), RowDifferences{.unknown = true});
    EXPECT_FALSE(store());
    // Older releases of SQLite have nothing to interrupt as a transaction begins.
    EXPECT_THAT(message(),
                ::testing::MatchesRegex("Unable to (begin sqlite transaction|prepare SQL "
                                        "statement for query '.*'): interrupted\n"));
}

}  // namespace
}  // namespace corvo::test
