#include "mail/quota/mail_user_db.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/disk.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"

namespace {

using namespace corvo::test;
using corvo::mail::MailQuota;
using corvo::mail::MailUserDbHelper;

const std::string FOLDER = "/var/lib/corvo/mail/userdb";
const std::string FILE_PATH = FOLDER + "/userdb.db";

const std::string REPLACE =
    "REPLACE INTO mailbox_quota (domain_name, mailbox_name, quota) VALUES (?, ?, ?)";

std::vector<std::string> rows() {
    return sqliteRows(FILE_PATH,
                      "SELECT domain_name, mailbox_name, quota FROM mailbox_quota ORDER BY 1, 2");
}

using Rows = std::vector<std::string>;

constexpr std::size_t PAGE_SIZE = 4096;  // bytes, of a new file

class MailUserDbTest : public LoggingTest {
protected:
    MailUserDbTest() { makeDirectory(FOLDER); }

    MailUserDbHelper helper;
};

// With an empty table.
class MailUserDbStoreTest : public MailUserDbTest {
protected:
    MailUserDbStoreTest() { EXPECT_TRUE(helper.initMailUserdb(true)); }

    void store(const std::string& domain, const std::string& mailbox, const std::string& quota) {
        sqliteExecute(FILE_PATH, "INSERT INTO mailbox_quota VALUES ('" + domain + "', '" + mailbox +
                                     "', '" + quota + "')");
    }
};

// Storing.

TEST_F(MailUserDbStoreTest, StoresLowerCaseNamesAndClampedQuota) {
    EXPECT_TRUE(helper.userdbStoreMboxQuota("Example.COM", "Info", -1));
    EXPECT_EQ(rows(), Rows{"example.com|info|0B"});
}

TEST_F(MailUserDbStoreTest, StoringTwiceLeavesOneRow) {
    EXPECT_TRUE(helper.userdbStoreMboxQuota("example.com", "info", 5));
    EXPECT_TRUE(helper.userdbStoreMboxQuota("example.com", "info", 1048576));
    EXPECT_TRUE(helper.userdbStoreMboxQuota("EXAMPLE.com", "INFO", 1048576));
    EXPECT_EQ(rows(), Rows{"example.com|info|1048576B"});
}

TEST_F(MailUserDbStoreTest, StoresTheLargestQuotas) {
    EXPECT_TRUE(helper.userdbStoreMboxQuota("example.com", "a", 9223372036854775807LL));
    EXPECT_TRUE(helper.userdbStoreMboxQuota("example.com", "b", -9223372036854775807LL - 1));
    EXPECT_EQ(rows(), (Rows{"example.com|a|9223372036854775807B", "example.com|b|0B"}));
    EXPECT_EQ(helper.userdbGetMboxQuota("example.com", "a"), 9223372036854775807LL);
}

TEST_F(MailUserDbStoreTest, EmptyBulkDoesNotTouchTheFile) {
    ASSERT_EQ(::unlink(FILE_PATH.c_str()), 0);
    EXPECT_TRUE(helper.userdbStoreMboxesQuotas("example.com", {}, 5));
    EXPECT_FALSE(exists(FILE_PATH));
}

TEST_F(MailUserDbStoreTest, BulkUsesDefaultForNegativeQuotas) {
    const std::vector<MailQuota> quotas = {{"A", -1}, {"b", 0}, {"c", 7}};
    EXPECT_TRUE(helper.userdbStoreMboxesQuotas("Example.com", quotas, 100));
    EXPECT_EQ(rows(), (Rows{"example.com|a|100B", "example.com|b|0B", "example.com|c|7B"}));
}

TEST_F(MailUserDbStoreTest, BulkClampsNegativeDefault) {
    EXPECT_TRUE(helper.userdbStoreMboxesQuotas("example.com", {{"a", -1}}, -5));
    EXPECT_EQ(rows(), Rows{"example.com|a|0B"});
}

TEST_F(MailUserDbStoreTest, BulkRunsOneTransaction) {
    const StatementTrace trace;
    EXPECT_TRUE(helper.userdbStoreMboxesQuotas("example.com", {{"a", 1}, {"b", 2}}, 0));
    EXPECT_EQ(trace.statements(),
              (Rows{"BEGIN TRANSACTION;", REPLACE, REPLACE, "END TRANSACTION;"}));
}

TEST_F(MailUserDbStoreTest, BulkGoesOnAfterFailingElement) {
    refuseRows(FILE_PATH, "mailbox_quota", "mailbox_name = char(98)");
    const std::vector<MailQuota> quotas = {{"a", 1}, {"B", 2}, {"c", 3}};
    EXPECT_FALSE(helper.userdbStoreMboxesQuotas("Example.com", quotas, 0));
    expectLogged({"Unable to set quota for 'B@Example.com': integer overflow"});
    EXPECT_EQ(rows(), (Rows{"example.com|a|1B", "example.com|c|3B"}));
}

// Names of any kind.

const std::vector<std::string> ODD_NAMES = {
    "'; DROP TABLE mailbox_quota; --",
    "o'brien",
    "\"quoted\"",
    "%",
    "_",
    "back\\slash",
    "line\nend",
    "per%cent%s%n",
    "",
    "\xd0\xbf\xd0\xbe\xd1\x87\xd1\x82\xd0\xb0",
};

TEST_F(MailUserDbStoreTest, OddNamesAreOnlyNames) {
    for (const std::string& name : ODD_NAMES) {
        EXPECT_TRUE(helper.userdbStoreMboxQuota(name, "info", 1)) << name;
        EXPECT_TRUE(helper.userdbStoreMboxQuota("example.com", name, 2)) << name;
    }
    EXPECT_EQ(rows().size(), 2 * ODD_NAMES.size());
    for (const std::string& name : ODD_NAMES) {
        EXPECT_EQ(helper.userdbGetMboxQuota(name, "info"), 1) << name;
        EXPECT_EQ(helper.userdbGetMboxQuota("example.com", name), 2) << name;
        EXPECT_TRUE(helper.userdbRemoveMboxQuota("example.com", name)) << name;
        EXPECT_TRUE(helper.userdbRemoveDefaultDomainQuota(name)) << name;
    }
    EXPECT_EQ(rows(), Rows());
}

TEST_F(MailUserDbStoreTest, NamesKeepTheirExactLength) {
    const std::string name("in\0fo", 5);
    EXPECT_TRUE(helper.userdbStoreMboxQuota("example.com", name, 1));
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT hex(mailbox_name) FROM mailbox_quota"),
              Rows{"696E00666F"});
}

// Removing and renaming.

TEST_F(MailUserDbStoreTest, RemovesOneMailbox) {
    store("a.com", "info", "1B");
    store("a.com", "infos", "2B");
    store("aa.com", "info", "3B");
    EXPECT_TRUE(helper.userdbRemoveMboxQuota("A.com", "INFO"));
    EXPECT_EQ(rows(), (Rows{"a.com|infos|2B", "aa.com|info|3B"}));
}

TEST_F(MailUserDbStoreTest, RemovesWholeDomain) {
    store("a.com", "info", "1B");
    store("a.com", "infos", "2B");
    store("aa.com", "info", "3B");
    store("a.com.org", "info", "4B");
    EXPECT_TRUE(helper.userdbRemoveDefaultDomainQuota("A.COM"));
    EXPECT_EQ(rows(), (Rows{"a.com.org|info|4B", "aa.com|info|3B"}));
}

TEST_F(MailUserDbStoreTest, RenamesMailbox) {
    store("a.com", "old", "1B");
    store("b.com", "old", "2B");
    EXPECT_TRUE(helper.userdbRenameMbox("A.com", "OLD", "New"));
    EXPECT_EQ(rows(), (Rows{"a.com|new|1B", "b.com|old|2B"}));
}

TEST_F(MailUserDbStoreTest, RenamesDomain) {
    store("a.com", "x", "1B");
    store("a.com", "y", "2B");
    store("aa.com", "x", "3B");
    EXPECT_TRUE(helper.userdbRenameDomain("A.COM", "New.com"));
    EXPECT_EQ(rows(), (Rows{"aa.com|x|3B", "new.com|x|1B", "new.com|y|2B"}));
}

TEST_F(MailUserDbStoreTest, MissingRowsAreNoFailure) {
    EXPECT_TRUE(helper.userdbRemoveMboxQuota("a.com", "info"));
    EXPECT_TRUE(helper.userdbRemoveDefaultDomainQuota("a.com"));
    EXPECT_TRUE(helper.userdbRenameMbox("a.com", "old", "new"));
    EXPECT_TRUE(helper.userdbRenameDomain("a.com", "b.com"));
    EXPECT_EQ(rows(), Rows());
}

// Every writing operation: what is the same with all of them.

struct WritingOperation {
    const char* title;
    std::function<bool(const MailUserDbHelper&)> run;
    std::string statement;
    std::string stepMessage;     // what comes before the reason
    const char* look = nullptr;  // what is asked first
};

void PrintTo(const WritingOperation& operation, std::ostream* stream) {
    *stream << operation.title;
}

const WritingOperation OPERATIONS[] = {
    {"store", [](const auto& db) { return db.userdbStoreMboxQuota("Example.com", "Info", 5); },
     REPLACE, "Unable to set quota for 'Info@Example.com': ",
     "SELECT quota = ?3 FROM mailbox_quota WHERE domain_name = ?1 AND mailbox_name = ?2"},
    {"bulk",
     [](const auto& db) {
         return db.userdbStoreMboxesQuotas("Example.com", {{"Info", 5}}, 0);
     },
     REPLACE, "Unable to set quota for 'Info@Example.com': "},
    {"remove", [](const auto& db) { return db.userdbRemoveMboxQuota("Example.com", "Info"); },
     "DELETE FROM mailbox_quota WHERE domain_name = ? AND mailbox_name = ?",
     "Unable to remove quota for 'Info@Example.com': "},
    {"removeDomain",
     [](const auto& db) { return db.userdbRemoveDefaultDomainQuota("Example.com"); },
     "DELETE FROM mailbox_quota WHERE domain_name = ?",
     "Unable to remove quota for 'Example.com': "},
    {"rename", [](const auto& db) { return db.userdbRenameMbox("Example.com", "Info", "New"); },
     "UPDATE mailbox_quota SET mailbox_name = ? WHERE domain_name = ? AND mailbox_name = ?",
     "Unable to rename mailbox 'Info@Example.com' to 'New@Example.com': "},
    {"renameDomain", [](const auto& db) { return db.userdbRenameDomain("Example.com", "New.com"); },
     "UPDATE mailbox_quota SET domain_name = ? WHERE domain_name = ?",
     "Unable to rename domain 'Example.com' to 'New.com': "},
};

class MailUserDbWriteTest : public MailUserDbTest,
                            public ::testing::WithParamInterface<WritingOperation> {
protected:
    MailUserDbWriteTest() {
        EXPECT_TRUE(helper.initMailUserdb(true));
        sqliteExecute(FILE_PATH, "INSERT INTO mailbox_quota VALUES ('example.com', 'info', '1B')");
    }

    bool run() const { return GetParam().run(helper); }
    std::string stepFailure(const std::string& reason) const {
        return GetParam().stepMessage + reason;
    }
    std::string prepareFailure(const std::string& reason) const {
        return "Unable to prepare SQL statement for query '" + GetParam().statement +
               "': " + reason;
    }
};

INSTANTIATE_TEST_SUITE_P(, MailUserDbWriteTest, ::testing::ValuesIn(OPERATIONS),
                         [](const auto& instance) { return std::string(instance.param.title); });

TEST_P(MailUserDbWriteTest, RunsThreeStatementsAndLeavesNothingOpen) {
    const int before = openDescriptors();
    const StatementTrace trace;
    EXPECT_TRUE(run());
    Rows statements = {"BEGIN TRANSACTION;", GetParam().statement, "END TRANSACTION;"};
    if (GetParam().look != nullptr)
        statements.insert(statements.begin(), GetParam().look);
    EXPECT_EQ(trace.statements(), statements);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_P(MailUserDbWriteTest, ReportsMissingFolder) {
    std::filesystem::remove_all(FOLDER);
    EXPECT_FALSE(run());
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
    EXPECT_FALSE(exists(FOLDER));
}

TEST_P(MailUserDbWriteTest, ReportsDirectoryInPlaceOfFile) {
    std::filesystem::remove(FILE_PATH);
    makeDirectory(FILE_PATH + "/kept");
    const int before = openDescriptors();
    EXPECT_FALSE(run());
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
    EXPECT_TRUE(exists(FILE_PATH + "/kept"));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_P(MailUserDbWriteTest, ReportsMissingMemory) {
    bool result = true;
    {
        const NoSqliteMemory none;
        result = run();
    }
    EXPECT_FALSE(result);
    expectLogged({"Unable to open database " + FILE_PATH + ": general DB errror"});
}

TEST_P(MailUserDbWriteTest, MissingFileIsCreatedWithoutTable) {
    std::filesystem::remove(FILE_PATH);
    EXPECT_FALSE(run());
    expectLogged({prepareFailure("no such table: mailbox_quota")});
    EXPECT_EQ(contentsOf(FILE_PATH), "");
}

TEST_P(MailUserDbWriteTest, ReportsTextFileAndLeavesIt) {
    const std::string text(8192, 'x');
    writeFile(FILE_PATH, text);
    EXPECT_FALSE(run());
    expectLogged({prepareFailure("file is not a database")});
    EXPECT_EQ(contentsOf(FILE_PATH), text);
}

TEST_P(MailUserDbWriteTest, ReportsTruncatedDatabaseAndLeavesIt) {
    const std::string half = contentsOf(FILE_PATH).substr(0, 6000);
    writeFile(FILE_PATH, half);
    EXPECT_FALSE(run());
    expectLogged({prepareFailure("database disk image is malformed")});
    EXPECT_EQ(contentsOf(FILE_PATH), half);
}

TEST_P(MailUserDbWriteTest, ReportsAnotherSchemaAndLeavesIt) {
    sqliteExecute(FILE_PATH, "DROP TABLE mailbox_quota; CREATE TABLE other (a); VACUUM");
    const std::string other = contentsOf(FILE_PATH);
    EXPECT_FALSE(run());
    expectLogged({prepareFailure("no such table: mailbox_quota")});
    EXPECT_EQ(contentsOf(FILE_PATH), other);
}

TEST_P(MailUserDbWriteTest, ReportsReadOnlyFileSystem) {
    const std::string old = contentsOf(FILE_PATH);
    const ReadOnlyDisk disk("/var/lib/corvo");
    EXPECT_FALSE(run());
    expectLogged({stepFailure("attempt to write a readonly database")});
    EXPECT_EQ(contentsOf(FILE_PATH), old);
}

TEST_P(MailUserDbWriteTest, ReportsRefusedBegin) {
    const ConnectionHook hook(
        [](sqlite3* database) { sqlite3_exec(database, "BEGIN", nullptr, nullptr, nullptr); });
    EXPECT_FALSE(run());
    expectLogged(
        {"Unable to begin sqlite transaction: cannot start a transaction within a "
         "transaction"});
    EXPECT_EQ(rows(), Rows{"example.com|info|1B"});
}

TEST_P(MailUserDbWriteTest, ReportsBeginThatCannotBePrepared) {
    const ConnectionHook hook(refuseTransactionStatements);
    EXPECT_FALSE(run());
    expectLogged(
        {"Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': not authorized"});
    EXPECT_EQ(rows(), Rows{"example.com|info|1B"});
}

TEST_P(MailUserDbWriteTest, FailedEndMakesTheResultFalse) {
    const ConnectionHook hook(refuseCommits);
    EXPECT_FALSE(run());
    expectLogged({"Unable to end sqlite transaction: constraint failed"});
    EXPECT_EQ(rows(), Rows{"example.com|info|1B"});
}

TEST_P(MailUserDbWriteTest, FailedStepStillEndsTheTransaction) {
    refuseRows(FILE_PATH, "mailbox_quota", "length(domain_name) AND length(mailbox_name)");
    const StatementTrace trace;
    EXPECT_FALSE(run());
    expectLogged({stepFailure("integer overflow")});
    EXPECT_EQ(trace.statements().back(), "END TRANSACTION;");
    EXPECT_EQ(rows(), Rows{"example.com|info|1B"});
}

// Binds.

struct BindFailure {
    const char* name;
    std::function<bool(const MailUserDbHelper&)> run;
};

const std::string LONG(101, 'x');

const BindFailure BIND_FAILURES[] = {
    {"domain_name", [](const auto& db) { return db.userdbStoreMboxQuota(LONG, "info", 5); }},
    {"mailbox_name", [](const auto& db) { return db.userdbStoreMboxQuota("a.com", LONG, 5); }},
    {"domain_name",
     [](const auto& db) {
         return db.userdbStoreMboxesQuotas(LONG, {{"a", 1}, {"b", 2}}, 0);
     }},
    {"mailbox_name",
     [](const auto& db) {
         return db.userdbStoreMboxesQuotas("a.com", {{"a", 1}, {LONG, 2}}, 0);
     }},
    {"domain_name", [](const auto& db) { return db.userdbRemoveMboxQuota(LONG, "info"); }},
    {"mailbox_name", [](const auto& db) { return db.userdbRemoveMboxQuota("a.com", LONG); }},
    {"domain_name", [](const auto& db) { return db.userdbRemoveDefaultDomainQuota(LONG); }},
    {"mailbox_name", [](const auto& db) { return db.userdbRenameMbox("a.com", "old", LONG); }},
    {"domain_name", [](const auto& db) { return db.userdbRenameMbox(LONG, "old", "new"); }},
    {"old_mailbox_name", [](const auto& db) { return db.userdbRenameMbox("a.com", LONG, "new"); }},
    {"domain_name", [](const auto& db) { return db.userdbRenameDomain("a.com", LONG); }},
    {"old_domain_name", [](const auto& db) { return db.userdbRenameDomain(LONG, "a.com"); }},
    {"domain_name", [](const auto& db) { return db.userdbGetMboxQuota(LONG, "info") != -1; }},
    {"mailbox_name", [](const auto& db) { return db.userdbGetMboxQuota("a.com", LONG) != -1; }},
};

TEST_F(MailUserDbStoreTest, ReportsTheParameterThatCannotBeBound) {
    store("a.com", "old", "1B");
    const ConnectionHook hook(limitBoundTexts<100>);
    for (const BindFailure& failure : BIND_FAILURES) {
        EXPECT_FALSE(failure.run(helper));
        expectLogged(
            {"Unable to bind parameter " + std::string(failure.name) + ": string or blob too big"});
    }
}

TEST_F(MailUserDbStoreTest, ReportsQuotaThatCannotBeBound) {
    const ConnectionHook hook(limitBoundTexts<10>);
    EXPECT_FALSE(helper.userdbStoreMboxQuota("a.com", "info", 10'000'000'000));
    expectLogged({"Unable to bind parameter quota: string or blob too big"});
}

TEST_F(MailUserDbStoreTest, FailedBindTakesTheWholeBulkBack) {
    {
        const ConnectionHook hook(limitBoundTexts<100>);
        EXPECT_FALSE(helper.userdbStoreMboxesQuotas("a.com", {{"a", 1}, {LONG, 2}, {"c", 3}}, 0));
    }
    expectLogged({"Unable to bind parameter mailbox_name: string or blob too big"});
    EXPECT_EQ(rows(), Rows());
}

// A full disk.

TEST_F(MailUserDbStoreTest, FullDiskTakesTheWholeBulkBackAndEndsIt) {
    const ConnectionHook hook(addRoom);
    sqliteExecute(FILE_PATH, "CREATE INDEX space ON mailbox_quota (room(mailbox_name))");
    EXPECT_FALSE(helper.userdbStoreMboxesQuotas("a.com", {{"a", 1}, {"b", 2}, {"c", 3}}, 0));
    expectLogged({"Unable to set quota for 'b@a.com': database or disk is full"});
    EXPECT_EQ(rows(), Rows());
}

TEST_F(MailUserDbTest, FullDiskFailsTheStepAndDestroysNothing) {
    const SmallDisk disk(FOLDER, 64);
    ASSERT_TRUE(helper.initMailUserdb(true));
    ASSERT_TRUE(helper.userdbStoreMboxQuota("example.com", "info", 1));
    disk.fill();
    EXPECT_FALSE(helper.userdbStoreMboxQuota("example.com", "info", 2));
    expectLogged({"Unable to set quota for 'info@example.com': database or disk is full"});
    EXPECT_EQ(rows(), Rows{"example.com|info|1B"});
    EXPECT_EQ(integrityOf(FILE_PATH), "ok");
}

// Reading.

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

// Creation and owner.

TEST_F(MailUserDbTest, CreationMakesEmptyTableForPopuser) {
    EXPECT_TRUE(helper.initMailUserdb(false));
    EXPECT_EQ(sqliteRows(FILE_PATH, "SELECT sql FROM sqlite_master WHERE type = 'table'"),
              Rows{"CREATE TABLE mailbox_quota (domain_name TEXT NOT NULL,mailbox_name TEXT NOT "
                   "NULL,quota TEXT NOT NULL,PRIMARY KEY (domain_name, mailbox_name))"});
    EXPECT_EQ(ownerOf(FILE_PATH), popuser());
    EXPECT_EQ(modeOf(FILE_PATH), "0644");
    EXPECT_EQ(namesIn(FOLDER), Rows{"userdb.db"});
}

TEST_F(MailUserDbTest, CreationWithoutOwnerChangeLeavesRootsFile) {
    EXPECT_TRUE(helper.initMailUserdb(true));
    EXPECT_EQ(ownerOf(FILE_PATH), "0:0");
}

TEST_F(MailUserDbStoreTest, CreationForgetsOldRows) {
    store("a.com", "x", "5B");
    EXPECT_TRUE(helper.initMailUserdb(true));
    EXPECT_EQ(rows(), Rows());
}

TEST_F(MailUserDbTest, CreationReplacesWhatIsNoDatabase) {
    writeFile(FILE_PATH, "no database");
    EXPECT_TRUE(helper.initMailUserdb(true));
    EXPECT_EQ(rows(), Rows());
}

TEST_F(MailUserDbTest, CreationReportsMissingFolder) {
    std::filesystem::remove_all(FOLDER);
    EXPECT_FALSE(helper.initMailUserdb(false));
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
}

TEST_F(MailUserDbTest, CreationReportsDirectoryInPlaceOfFile) {
    makeDirectory(FILE_PATH + "/kept");
    EXPECT_FALSE(helper.initMailUserdb(false));
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file"});
    EXPECT_TRUE(exists(FILE_PATH + "/kept"));
}

TEST_F(MailUserDbStoreTest, CreationIsNotContentWithOldTable) {
    store("a.com", "x", "5B");
    const ReadOnlyDisk disk("/var/lib/corvo");
    EXPECT_FALSE(helper.initMailUserdb(true));
    expectLogged({"Unable to re-create email user database: Read-only file system"});
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
}

TEST_F(MailUserDbTest, CreationReportsFailingScript) {
    const ConnectionHook hook(refuseTransactionStatements);
    EXPECT_FALSE(helper.initMailUserdb(false));
    expectLogged({"Unable to re-create email user database: not authorized"});
}

TEST_F(MailUserDbTest, CreationReportsFailingScriptWithoutText) {
    {
        std::optional<NoSqliteMemory> none;
        const ConnectionHook hook([&](sqlite3*) { none.emplace(); });
        EXPECT_FALSE(helper.initMailUserdb(false));
    }
    expectLogged({"Unable to re-create email user database"});
}

TEST_F(MailUserDbTest, OwnerChangeKeepsMode) {
    writeFile(FILE_PATH, "", 0, 0, 0640);
    const int before = openDescriptors();
    EXPECT_TRUE(MailUserDbHelper::changeDatabaseOwner(FILE_PATH));
    EXPECT_EQ(ownerOf(FILE_PATH), popuser());
    EXPECT_EQ(modeOf(FILE_PATH), "0640");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(MailUserDbTest, OwnerChangeReportsMissingFile) {
    EXPECT_FALSE(MailUserDbHelper::changeDatabaseOwner(FILE_PATH));
    expectLogged({"Failed to open email user database: No such file or directory"});
}

TEST_F(MailUserDbTest, OwnerChangeReportsMissingAccountBeforeMissingGroup) {
    writeFile(FILE_PATH, "");
    removeUser("popuser");
    removeGroup("popuser");
    EXPECT_FALSE(MailUserDbHelper::changeDatabaseOwner(FILE_PATH));
    expectLogged({"User 'popuser' not found"});
    EXPECT_EQ(ownerOf(FILE_PATH), "0:0");
}

TEST_F(MailUserDbTest, CreationReportsMissingGroup) {
    removeGroup("popuser");
    EXPECT_FALSE(helper.initMailUserdb(false));
    expectLogged({"Group 'popuser' not found"});
    EXPECT_EQ(ownerOf(FILE_PATH), "0:0");
}

TEST_F(MailUserDbTest, OwnerChangeReportsRefusal) {
    writeFile(FILE_PATH, "");
    expectChildLogs({"Failed to chown email user database: Operation not permitted"}, [] {
        failSystemCall(SYS_fchown, EPERM);
        if (MailUserDbHelper::changeDatabaseOwner(FILE_PATH))
            ::_exit(1);
    });
}

TEST_F(MailUserDbTest, UsesItsOwnPath) {
    const std::string path = "/var/lib/corvo/other.db";
    const MailUserDbHelper other(path);
    EXPECT_TRUE(other.initMailUserdb(true));
    EXPECT_TRUE(other.userdbStoreMboxQuota("a.com", "x", 5));
    EXPECT_EQ(sqliteRows(path, "SELECT * FROM mailbox_quota"), Rows{"a.com|x|5B"});
    EXPECT_FALSE(exists(FILE_PATH));
}

// Contention.

TEST_F(MailUserDbStoreTest, WritingWaitsForAnotherProcess) {
    const LockedByAnother lock(FILE_PATH);
    EXPECT_TRUE(helper.userdbStoreMboxQuota("a.com", "x", 5));
    EXPECT_EQ(rows(), Rows{"a.com|x|5B"});
}

TEST_F(MailUserDbStoreTest, ReadingWaitsForAnotherProcess) {
    store("a.com", "x", "5B");
    const LockedByAnother lock(FILE_PATH);
    EXPECT_EQ(helper.userdbGetMboxQuota("a.com", "x"), 5);
}

TEST_F(MailUserDbStoreTest, ReaderSeesEveryWriteInOrder) {
    constexpr int WRITES = 10'000;
    SecondProcess reader([](const SecondProcess::Ready& ready) {
        const MailUserDbHelper db;
        ready();
        long long last = -1;
        while (last != WRITES) {
            const long long now = db.userdbGetMboxQuota("a.com", "x");
            if (now < last)
                ::_exit(1);
            last = now;
        }
    });
    for (int quota = 1; quota <= WRITES; ++quota)
        ASSERT_TRUE(helper.userdbStoreMboxQuota("a.com", "x", quota));
    EXPECT_TRUE(reader.endedWell());
    EXPECT_EQ(integrityOf(FILE_PATH), "ok");
}

TEST_F(MailUserDbStoreTest, TwoWritersLoseNothing) {
    constexpr int WRITES = 1000;
    const auto storeAll = [this](const std::string& domain) {
        for (int i = 0; i < WRITES; ++i)
            if (!helper.userdbStoreMboxQuota(domain, "box" + std::to_string(i), i))
                return false;
        return true;
    };
    SecondProcess writer([&](const SecondProcess::Ready& ready) {
        ready();
        if (!storeAll("other.com"))
            ::_exit(1);
    });
    EXPECT_TRUE(storeAll("a.com"));
    EXPECT_TRUE(writer.endedWell());
    EXPECT_EQ(sqliteRows(FILE_PATH,
                         "SELECT domain_name, count(*), sum(quota = substr(mailbox_name, 4) || 'B')"
                         " FROM mailbox_quota GROUP BY domain_name"),
              (Rows{"a.com|1000|1000", "other.com|1000|1000"}));
    EXPECT_EQ(integrityOf(FILE_PATH), "ok");
}

}  // namespace
