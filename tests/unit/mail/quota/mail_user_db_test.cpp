#include "mail/quota/mail_user_db.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/disk.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "tests/unit/mail/quota/mail_user_db_fixture.h"

namespace corvo::test::userdb {
namespace {

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
}  // namespace corvo::test::userdb
