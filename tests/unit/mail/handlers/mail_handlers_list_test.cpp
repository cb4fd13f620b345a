// Callbacks over a list.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <string>

#include "mail/handlers/mail_handlers_creation.h"
#include "mail/handlers/mail_handlers_db.h"
#include "tests/support/disk.h"
#include "tests/support/logging.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "tests/unit/mail/handlers/mail_handlers_fixture.h"

namespace corvo::test::handlers {
namespace {

Rows* seen = nullptr;

int note(sqlite3* db, mh_data* record) {
    seen->push_back(record->name);
    EXPECT_EQ(sqlite3_get_autocommit(db), 0) << "not in a transaction";
    return -1;
}

int noteAndAdd(sqlite3* db, mh_data* record) {
    seen->push_back(record->name);
    return mh_db_add(db, record);
}

struct Interlude {
    std::string after;  // the name of a record
    std::string script;
};
Interlude interlude;

int addAndRunInterlude(sqlite3* db, mh_data* record) {
    const int result = noteAndAdd(db, record);
    if (record->name == interlude.after) {
        EXPECT_EQ(sqlite3_exec(db, interlude.script.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    }
    return result;
}

class MailHandlersListTest : public MailHandlersDbTest {
protected:
    MailHandlersListTest() {
        for (const char* name : {"c", "b", "a"})
            EXPECT_EQ(records.add(Record(5, 1, name, "x@y.z")), 0);
        seen = &names;
    }

    int addAll(const Interlude& then, sqlite3* db = nullptr) {
        interlude = then;
        return mh_db_do(&records.list, db, addAndRunInterlude);
    }

    List records;
    Rows names;
};

TEST_F(MailHandlersListTest, CallsBackInListOrderWhateverIsReturned) {
    EXPECT_EQ(mh_db_do(&records.list, nullptr, note), 0);
    EXPECT_EQ(names, (Rows{"a", "b", "c"}));
}

TEST_F(MailHandlersListTest, AddsWholeListInOneTransaction) {
    const StatementTrace trace;
    EXPECT_EQ(mh_db_do(&records.list, nullptr, mh_db_add), 0);
    EXPECT_EQ(rows("name"), (Rows{"a", "b", "c"}));
    EXPECT_EQ(Rows(trace.statements().begin(), trace.statements().begin() + 5),
              (Rows{"BEGIN TRANSACTION;", INSERT, INSERT, INSERT, "END TRANSACTION;"}));
}

TEST_F(MailHandlersListTest, FailingRecordDoesNotStopTheOthers) {
    refuseRows(FILE_PATH, "handlers", "name = char(98)");
    EXPECT_EQ(mh_db_do(&records.list, nullptr, mh_db_add), 0);
    expectLogged({"Unable to execute insert record into handlers database: integer overflow"});
    EXPECT_EQ(rows("name"), (Rows{"a", "c"}));
}

TEST_F(MailHandlersListTest, FullDiskTakesAllRecordsBackAndEndsTheWork) {
    const ConnectionHook hook(addRoom);
    sqliteExecute(FILE_PATH, "CREATE INDEX space ON handlers (room(name))");
    EXPECT_EQ(mh_db_do(&records.list, nullptr, mh_db_add), -1);
    expectLogged(
        {"Unable to execute insert record into handlers database: database or disk is full"});
    EXPECT_EQ(allRows(), Rows());
}

TEST_F(MailHandlersListTest, DiskThatIsFullMeansOneCallAndNothingStored) {
    const SmallDisk disk("/var/lib/corvo/small", 64);
    mh_db_path_set("/var/lib/corvo/small/handlers.db");
    ASSERT_EQ(mh_db_create(), 0);
    disk.fill();
    EXPECT_EQ(mh_db_do(&records.list, nullptr, noteAndAdd), -1);
    expectLogged(
        {"Unable to execute insert record into handlers database: database or disk is full"});
    EXPECT_EQ(names, Rows{"a"});
    EXPECT_EQ(sqliteRows(mh_db_path, "SELECT name FROM handlers"), Rows());
}

const LoggedLine NOTHING_TO_END =
    "Unable to end sqlite transaction: cannot commit - no transaction is active";

TEST_F(MailHandlersListTest, CallbackThatEndsTheTransactionDoesNotStopTheOthers) {
    EXPECT_EQ(addAll({"b", "END"}), -1);
    expectLogged({NOTHING_TO_END});
    EXPECT_EQ(names, (Rows{"a", "b", "c"}));
    EXPECT_EQ(rows("name"), (Rows{"a", "b", "c"}));
}

TEST_F(MailHandlersListTest, CallbackThatTakesTheTransactionBackDoesNotStopTheOthers) {
    EXPECT_EQ(addAll({"b", "ROLLBACK"}), -1);
    expectLogged({NOTHING_TO_END});
    EXPECT_EQ(names, (Rows{"a", "b", "c"}));
    EXPECT_EQ(rows("name"), Rows{"c"});
}

TEST_F(MailHandlersListTest, TransactionThatACallbackBeginsIsEnded) {
    EXPECT_EQ(addAll({"b", "ROLLBACK; BEGIN"}), 0);
    EXPECT_EQ(names, (Rows{"a", "b", "c"}));
    EXPECT_EQ(rows("name"), Rows{"c"});
}

TEST_F(MailHandlersListTest, TransactionOfABorrowedDatabaseMayBeEndedByACallbackToo) {
    const TestDatabase db(FILE_PATH);
    EXPECT_EQ(addAll({"a", "END"}, db.get()), -1);
    expectLogged({NOTHING_TO_END});
    EXPECT_EQ(rows("name"), (Rows{"a", "b", "c"}));
}

TEST_F(MailHandlersListTest, FailureAfterTheEndByACallbackDoesNotStopTheOthers) {
    const ConnectionHook hook(addRoom);
    sqliteExecute(FILE_PATH, "CREATE INDEX space ON handlers (room(name))");
    EXPECT_EQ(addAll({"a", "END"}), -1);
    expectLogged(
        {"Unable to execute insert record into handlers database: database or disk is full",
         NOTHING_TO_END});
    EXPECT_EQ(names, (Rows{"a", "b", "c"}));
    EXPECT_EQ(rows("name"), (Rows{"a", "c"}));
}

TEST_F(MailHandlersListTest, TransactionThatACallbackBeginsMayBeTakenBackToo) {
    const ConnectionHook hook(addRoom);
    sqliteExecute(FILE_PATH, "CREATE INDEX space ON handlers (room(name))");
    EXPECT_EQ(addAll({"a", "END; BEGIN"}), -1);
    expectLogged(
        {"Unable to execute insert record into handlers database: database or disk is full"});
    EXPECT_EQ(names, (Rows{"a", "b"}));
    EXPECT_EQ(rows("name"), Rows{"a"});
}

TEST_F(MailHandlersListTest, EmptyListIsATransactionAlone) {
    List none;
    EXPECT_EQ(mh_db_do(&none.list, nullptr, note), 0);
    EXPECT_EQ(names, Rows());
}

TEST_F(MailHandlersListTest, ReportsTransactionThatCannotBegin) {
    const TestDatabase db(FILE_PATH);
    db.execute("BEGIN");
    EXPECT_EQ(mh_db_do(&records.list, db.get(), note), -1);
    expectLogged(
        {"Unable to begin sqlite transaction: cannot start a transaction within a "
         "transaction"});
    EXPECT_EQ(names, Rows());
}

TEST_F(MailHandlersListTest, ReportsTransactionThatCannotEnd) {
    {
        const ConnectionHook hook(refuseCommits);
        EXPECT_EQ(mh_db_do(&records.list, nullptr, mh_db_add), -1);
    }
    expectLogged({"Unable to end sqlite transaction: constraint failed"});
    EXPECT_EQ(allRows(), Rows());
}

}  // namespace
}  // namespace corvo::test::handlers
