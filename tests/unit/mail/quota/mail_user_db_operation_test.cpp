// What is the same with every writing operation, and how each fails.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <functional>
#include <ostream>
#include <string>

#include "mail/quota/mail_user_db.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "tests/unit/mail/quota/mail_user_db_fixture.h"

namespace corvo::test::userdb {
namespace {

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
     "SELECT quota = ?3, substr(quota, 1, 64) FROM mailbox_quota WHERE domain_name = ?1 AND "
     "mailbox_name = ?2"},
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

}  // namespace
}  // namespace corvo::test::userdb
