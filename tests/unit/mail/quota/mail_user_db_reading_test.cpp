#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "mail/quota/mail_user_db.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "tests/unit/mail/quota/mail_user_db_fixture.h"

namespace corvo::test::userdb {
namespace {

TEST_F(MailUserDbStoreTest, ReadsBackLowerCasedNames) {
    store("example.com", "info", "1048576B");
    EXPECT_EQ(helper.userdbGetMboxQuota("Example.COM", "INFO"), 1048576);
}

TEST_F(MailUserDbStoreTest, ReadRunsOneStatement) {
    const int before = openDescriptors();
    const StatementTrace trace;
    EXPECT_EQ(helper.userdbGetMboxQuota("example.com", "info"), -1);
    EXPECT_EQ(trace.statements(), Rows{"SELECT quota FROM mailbox_quota WHERE domain_name = ? AND "
                                       "mailbox_name = ?"});
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(MailUserDbStoreTest, DecodesUnits) {
    const std::vector<std::pair<std::string, long long>> quotas = {
        {"0B", 0},
        {"17", 17},
        {"17B", 17},
        {"2KB", 2048},
        {"3MB", 3145728},
        {"1GB", 1073741824},
        {"1TB", 1099511627776},
        {"10M", 0},
        {"10 B", 0},
        {"10b", 0},
        {"0010B", 10},
        {"9223372036854775807B", 9223372036854775807LL},
    };
    for (const auto& [text, bytes] : quotas) {
        sqliteExecute(FILE_PATH,
                      "REPLACE INTO mailbox_quota VALUES ('a.com', 'x', '" + text + "')");
        EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), bytes) << text;
    }
}

TEST_F(MailUserDbStoreTest, ReportsQuotaThatIsNoNumber) {
    for (const char* text : {"", "B", "-5B", "+5B", " 5B", "unlimited"}) {
        sqliteExecute(FILE_PATH, "REPLACE INTO mailbox_quota VALUES ('a.com', 'x', '" +
                                     std::string(text) + "')");
        EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), -1) << text;
        expectLogged({"Failed to parse quota value: Invalid argument"});
    }
}

TEST_F(MailUserDbStoreTest, ReportsQuotaThatDoesNotFit) {
    store("a.com", "x", "9223372036854775808B");
    EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), -1);
    expectLogged({"Failed to parse quota value: Numerical result out of range"});
}

TEST_F(MailUserDbTest, NullQuotaReadsAsNone) {
    sqliteExecute(FILE_PATH,
                  "CREATE TABLE mailbox_quota (domain_name, mailbox_name, quota);"
                  "INSERT INTO mailbox_quota VALUES ('a.com', 'x', NULL)");
    EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), -1);
}

TEST_F(MailUserDbTest, ReadingCreatesNoFile) {
    EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), -1);
    expectLogged(
        {"Unable to open database(readonly) " + FILE_PATH + ": unable to open database file"});
    EXPECT_FALSE(exists(FILE_PATH));
}

TEST_F(MailUserDbTest, ReadingReportsMissingTable) {
    writeFile(FILE_PATH, "");
    EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), -1);
    expectLogged(
        {"Unable to prepare SQL statement for query 'SELECT quota FROM mailbox_quota WHERE "
         "domain_name = ? AND mailbox_name = ?': no such table: mailbox_quota"});
}

TEST_F(MailUserDbStoreTest, ReadingReportsFailedStepWithNamesAsGiven) {
    store("a.com", "x", "5B");
    std::string damaged = contentsOf(FILE_PATH);
    damaged.replace(2 * PAGE_SIZE, PAGE_SIZE, PAGE_SIZE, '\xff');  // the index that is searched
    writeFile(FILE_PATH, damaged);
    EXPECT_EQ(helper.userdbGetMboxQuota("A.com", "X"), -1);
    expectLogged({"Unable to get quota for 'X@A.com': database disk image is malformed"});
}

TEST_F(MailUserDbTest, ReadingReportsMissingMemory) {
    {
        const NoSqliteMemory none;
        EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), -1);
    }
    expectLogged({"Unable to open database(readonly) " + FILE_PATH + ": general DB errror"});
}

TEST_F(MailUserDbStoreTest, ReadsFromReadOnlyFileSystem) {
    store("a.com", "x", "5B");
    const ReadOnlyDisk disk("/var/lib/corvo");
    EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), 5);
}

}  // namespace
}  // namespace corvo::test::userdb
