#include "mail/handlers/mail_handlers_db.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "mail/handlers/mail_handlers_creation.h"
#include "tests/support/disk.h"
#include "tests/support/logging.h"
#include "tests/support/second_process.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "tests/unit/mail/handlers/mail_handlers_fixture.h"

namespace corvo::test::handlers {
namespace {

// The path.

TEST_F(MailHandlersDbTest, PathIsTheMailServersUnlessReplaced) {
    EXPECT_STREQ(mh_db_path, FILE_PATH.c_str());
    EXPECT_EQ(mh_db_path_set("/var/lib/corvo/other.db"), mh_db_path);
    EXPECT_STREQ(mh_db_path, "/var/lib/corvo/other.db");
    EXPECT_EQ(mh_db_create(), 0);
    EXPECT_EQ(Record(5, 1, "n", "a@b.c").add(), 0);
    EXPECT_EQ(sqliteRows("/var/lib/corvo/other.db", "SELECT name FROM handlers"), Rows{"n"});
    EXPECT_EQ(allRows(), Rows());
}

TEST_F(MailHandlersDbTest, PathThatDoesNotFitIsRefused) {
    EXPECT_EQ(mh_db_path_set(std::string(PATH_MAX, 'x').c_str()), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_STREQ(mh_db_path, FILE_PATH.c_str());
    const std::string longest(PATH_MAX - 1, 'x');
    EXPECT_EQ(mh_db_path_set(longest.c_str()), mh_db_path);
    EXPECT_EQ(mh_db_path, longest);
}

// Adding.

TEST_F(MailHandlersDbTest, AddStoresEveryField) {
    Record record(3, 2, "Spam", "Info@Example.COM");
    EXPECT_EQ(record.priority(-7).context("ctx").enabled().isProtected().add(), 0);
    EXPECT_EQ(allRows(), Rows{"2|3|1|-7|Spam|info@example.com|/bin/hook|ctx|1"});
}

TEST_F(MailHandlersDbTest, AddStoresNoneForNullContext) {
    EXPECT_EQ(Record(3, 2, "spam", "a@b.c").add(), 0);
    EXPECT_EQ(allRows(), Rows{"2|3|0|0|spam|a@b.c|/bin/hook|none|0"});
}

TEST_F(MailHandlersDbTest, AddingTwiceKeepsTheSecond) {
    EXPECT_EQ(Record(5, 1, "n", "a@b.c").priority(1).enabled().add(), 0);
    EXPECT_EQ(Record(5, 1, "n", "A@B.C").priority(2).context("new").add(), 0);
    EXPECT_EQ(allRows(), Rows{"1|5|0|2|n|a@b.c|/bin/hook|new|0"});
}

TEST_F(MailHandlersDbTest, GlobalHandlerIsStoredForAll) {
    const std::vector<std::pair<const char*, std::string>> addresses = {
        {nullptr, "all"}, {"", "all"}, {"all", "all"}, {"all-recipients", "all-recipients"}};
    for (const auto& [address, stored] : addresses) {
        sqliteExecute(FILE_PATH, "DELETE FROM handlers");
        Record record(4, 1, "n", address);
        EXPECT_EQ(record.add(), 0);
        EXPECT_EQ(rows("address"), Rows{stored});
        EXPECT_EQ(record.data.address == nullptr, address == nullptr) << "the record was changed";
    }
}

TEST_F(MailHandlersDbTest, GlobalHandlerForOneAddressIsRejected) {
    for (const char* address : {"info@example.com", "ALL", "all ", "example.com"}) {
        EXPECT_EQ(Record(4, 1, "n", address).add(), -1) << address;
        EXPECT_EQ(errno, EINVAL);
        expectLogged(
            {"Incorrect recipient address for global handler, expected "
             "[NULL|EMPTY_STRING|all|all-recipients]"});
    }
    EXPECT_EQ(allRows(), Rows());
}

TEST_F(MailHandlersDbTest, AddReportsWhatTheTableRefuses) {
    EXPECT_EQ(Record(5, 1, "n", nullptr).add(), -1);
    EXPECT_EQ(Record(5, 1, nullptr, "a@b.c").add(), -1);
    expectLogged(
        {"Unable to execute insert record into handlers database: NOT NULL constraint "
         "failed: handlers.address",
         "Unable to execute insert record into handlers database: NOT NULL constraint "
         "failed: handlers.name"});
    EXPECT_EQ(allRows(), Rows());
}

// Removing.

TEST_F(MailHandlersDbTest, RemovesTheOneRow) {
    EXPECT_EQ(Record(5, 1, "n", "INFO@b.c").add(), 0);
    insert(1, 5, 0, "n", "infos@b.c");
    insert(2, 5, 0, "n", "info@b.c");
    insert(1, 6, 0, "n", "info@b.c");
    insert(1, 5, 0, "m", "info@b.c");
    EXPECT_EQ(Record(5, 1, "n", "Info@B.C").remove(), 0);
    EXPECT_EQ(rows("queue, type, name, address"),
              (Rows{"1|5|n|infos@b.c", "2|5|n|info@b.c", "1|6|n|info@b.c", "1|5|m|info@b.c"}));
}

TEST_F(MailHandlersDbTest, RemovingGlobalHandlerIgnoresAddresses) {
    insert(1, 4, 0, "n", "all");
    insert(1, 4, 0, "n", "all-recipients");
    insert(1, 4, 0, "n", "odd@b.c");
    insert(2, 4, 0, "n", "all");
    Record record(4, 1, "n", "all-recipients");
    EXPECT_EQ(record.remove(), 0);
    EXPECT_EQ(rows("queue, address"), Rows{"2|all"});
    EXPECT_STREQ(record.data.address, "all");
}

TEST_F(MailHandlersDbTest, RemovingWithoutAddressIgnoresAddresses) {
    for (const char* address : {static_cast<const char*>(nullptr), ""}) {
        insert(1, 5, 0, "n", "a@b.c");
        insert(1, 5, 0, "n", "all");
        Record record(5, 1, "n", address);
        EXPECT_EQ(record.remove(), 0);
        EXPECT_EQ(allRows(), Rows());
        EXPECT_STREQ(record.data.address, "all");
    }
}

TEST_F(MailHandlersDbTest, RemovesByAddressAndByName) {
    insert(1, 5, 0, "n", "a@b.c");
    insert(1, 5, 0, "m", "a@b.c");
    insert(2, 5, 0, "n", "b@b.c");
    insert(2, 5, 0, "nn", "b@b.c");
    EXPECT_EQ(mh_db_remove_addr(nullptr, "a@b.c"), 0);
    EXPECT_EQ(rows("name"), (Rows{"n", "nn"}));
    EXPECT_EQ(mh_db_remove_name(nullptr, "n"), 0);
    EXPECT_EQ(rows("name"), Rows{"nn"});
}

TEST_F(MailHandlersDbTest, RemovingWhatIsNotThereIsNoFailure) {
    EXPECT_EQ(Record(5, 1, "n", "a@b.c").remove(), 0);
    EXPECT_EQ(mh_db_remove_addr(nullptr, "a@b.c"), 0);
    EXPECT_EQ(mh_db_remove_name(nullptr, "n"), 0);
    EXPECT_EQ(mh_db_remove_all(nullptr, "b.c"), 0);
}

TEST_F(MailHandlersDbTest, ActionBindsItsParameter) {
    insert(1, 5, 0, "n", "a@b.c");
    EXPECT_EQ(mh_db_action(nullptr, "new", "UPDATE handlers SET name = ?"), 0);
    EXPECT_EQ(rows("name"), Rows{"new"});
}

// Removal of a domain's rows.

TEST_F(MailHandlersDbTest, RemovesAllRowsOfDomain) {
    for (const char* address : {"x@a.com", "a.com", "x@aa.com", "a.com@other.net", "all"})
        insert(1, 5, 0, "n", address);
    insert(2, 6, 0, "m", "y@a.com");
    EXPECT_EQ(mh_db_remove_all(nullptr, "A.com"), 0);
    EXPECT_EQ(rows("address"), (Rows{"x@aa.com", "a.com@other.net", "all"}));
}

TEST_F(MailHandlersDbTest, RemovalOfDomainReadsThenWrites) {
    insert(1, 5, 0, "n", "x@a.com");
    const StatementTrace trace;
    EXPECT_EQ(mh_db_remove_all(nullptr, "a.com"), 0);
    EXPECT_EQ(trace.statements(),
              (Rows{SELECT_DOMAIN, "BEGIN TRANSACTION;", DELETE_ONE, "END TRANSACTION;"}));
}

TEST_F(MailHandlersDbTest, RemovalOfDomainUsesTheOpenDatabase) {
    insert(1, 5, 0, "n", "x@a.com");
    const TestDatabase db(FILE_PATH);
    mh_db_path_set("/nowhere/at/all");
    EXPECT_EQ(mh_db_remove_all(db.get(), "a.com"), 0);
    EXPECT_EQ(allRows(), Rows());
}

TEST_F(MailHandlersDbTest, RemovalOfDomainReportsFailingRemovals) {
    insert(1, 5, 0, "n", "x@a.com");
    const ReadOnlyDisk disk("/var/lib/corvo");
    EXPECT_EQ(mh_db_remove_all(nullptr, "a.com"), 0) << "what the removals return is ignored";
    expectLogged(
        {"Unable to execute delete record from handlers database: attempt to write a "
         "readonly database"});
    EXPECT_EQ(rows("address"), Rows{"x@a.com"});
}

TEST_F(MailHandlersDbTest, RemovalOfDomainReportsMissingTransaction) {
    insert(1, 5, 0, "n", "x@a.com");
    {
        const ConnectionHook hook(refuseTransactionStatements);
        EXPECT_EQ(mh_db_remove_all(nullptr, "a.com"), -1);
    }
    expectLogged({"Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': not authorized",
                  "Unable to add records into handlers database"});
    EXPECT_EQ(rows("address"), Rows{"x@a.com"});
}

TEST_F(MailHandlersDbTest, RemovalOfDomainReportsMissingDatabase) {
    std::filesystem::remove(FILE_PATH);
    EXPECT_EQ(mh_db_remove_all(nullptr, "a.com"), -1);
    expectLogged(
        {"Unable to open database(readonly) " + FILE_PATH + ": unable to open database file",
         "Unable to add records into handlers database"});
}

// Contention.

TEST_F(MailHandlersDbTest, WritingWaitsForAnotherProcess) {
    const LockedByAnother lock(FILE_PATH);
    EXPECT_EQ(Record(5, 1, "n", "a@b.c").add(), 0);
    EXPECT_EQ(rows("name"), Rows{"n"});
}

TEST_F(MailHandlersDbTest, ReaderSeesWholeTransactionsOnly) {
    constexpr int ROUNDS = 1000;
    List pair;
    for (const char* address : {"x@a.com", "y@a.com"})
        EXPECT_EQ(pair.add(Record(5, 1, "n", address)), 0);
    SecondProcess reader([](const SecondProcess::Ready& ready) {
        ready();
        for (bool ended = false; !ended;) {
            List found;
            if (mh_db_select_by_domain_name(nullptr, &found.list, "a.com") != 0 ||
                found.names().size() == 1)
                ::_exit(1);
            List last;
            ended = mh_db_select_by_domain_name(nullptr, &last.list, "end") == 0 &&
                    last.list.first != nullptr;
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        ASSERT_EQ(mh_db_do(&pair.list, nullptr, mh_db_add), 0);
        ASSERT_EQ(mh_db_remove_all(nullptr, "a.com"), 0);
    }
    EXPECT_EQ(Record(5, 1, "n", "x@end").add(), 0);
    EXPECT_TRUE(reader.endedWell());
    EXPECT_EQ(integrityOf(FILE_PATH), "ok");
}

TEST_F(MailHandlersDbTest, TwoWritersLoseNothing) {
    constexpr int WRITES = 1000;
    const auto addAll = [](int queue) {
        for (int i = 0; i < WRITES; ++i)
            if (Record(5, queue, ("n" + std::to_string(i)).c_str(), "a@b.c").add() != 0)
                return false;
        return true;
    };
    SecondProcess writer([&](const SecondProcess::Ready& ready) {
        ready();
        if (!addAll(2))
            ::_exit(1);
    });
    EXPECT_TRUE(addAll(1));
    EXPECT_TRUE(writer.endedWell());
    EXPECT_EQ(
        sqliteRows(FILE_PATH, "SELECT queue, count(*) FROM handlers GROUP BY queue ORDER BY queue"),
        (Rows{"1|1000", "2|1000"}));
    EXPECT_EQ(integrityOf(FILE_PATH), "ok");
}

}  // namespace
}  // namespace corvo::test::handlers
