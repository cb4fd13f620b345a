#include "mail/handlers/mail_handlers_db.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "mail/handlers/mail_handlers_creation.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"

namespace {

using namespace corvo::test;
using Rows = std::vector<std::string>;

const std::string FOLDER = "/var/lib/corvo/mail/handlers";
const std::string FILE_PATH = FOLDER + "/handlers.db";

const std::string INSERT =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, "
    "protected, enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)";
const std::string DELETE_GLOBAL = "DELETE FROM handlers WHERE name=? AND type=? AND queue=?";
const std::string DELETE_ONE =
    "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?";
const std::string SELECT =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND enabled=? AND "
    "address=? ORDER BY priority DESC";
const std::string SELECT_ADDRESS =
    "SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers WHERE "
    "address = ?";
const std::string SELECT_DOMAIN =
    "SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers WHERE "
    "address LIKE '%' || ? || '%'";

/// A record with strings of its own.
class Record {
public:
    Record(int type, int queue, const char* name, const char* address) {
        mh_data_init_ex(&data);
        data.type = type;
        data.queue = queue;
        data.name = copy(name);
        data.address = copy(address);
        data.executable = copy("/bin/hook");
    }
    ~Record() { mh_data_free_ex(&data); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    Record& priority(int value) {
        data.priority = value;
        return *this;
    }
    Record& context(const char* value) {
        data.context = copy(value);
        return *this;
    }
    Record& executable(const char* value) {
        std::free(data.executable);
        data.executable = copy(value);
        return *this;
    }
    Record& enabled() {
        data.enabled = true;
        return *this;
    }
    Record& isProtected() {
        data.protect_on_restore = true;
        return *this;
    }

    int add(sqlite3* db = nullptr) { return mh_db_add(db, &data); }
    int remove(sqlite3* db = nullptr) { return mh_db_remove(db, &data); }

    mh_data data;

private:
    static char* copy(const char* text) { return text == nullptr ? nullptr : ::strdup(text); }
};

/// A list, freed at the end.
class List {
public:
    List() { mh_list_init(&list); }
    ~List() { mh_list_free(&list); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    int add(const Record& record) { return mh_list_add(&list, &record.data); }

    /// "name" of each record, in list order.
    Rows names() const {
        Rows all;
        for (const mh_list_node* node = list.first; node != nullptr; node = node->next)
            all.emplace_back(node->record->name);
        return all;
    }

    mh_list list;
};

int select(List& found, const Record& key, sqlite3* db = nullptr) {
    return mh_db_select(db, &found.list, &key.data);
}

std::string describe(const mh_data& record) {
    const auto text = [](const char* string) { return std::string(string ? string : "NULL"); };
    return std::to_string(record.priority) + "|" + std::to_string(record.type) + "|" +
           std::to_string(record.queue) + "|" + text(record.name) + "|" + text(record.address) +
           "|" + text(record.executable) + "|" + text(record.context) + "|" +
           std::to_string(record.protect_on_restore) + "|" + std::to_string(record.enabled);
}

// With an empty table.
class MailHandlersDbTest : public LoggingTest {
protected:
    MailHandlersDbTest() { EXPECT_EQ(mh_db_create(), 0); }
    void TearDown() override { mh_db_path_set(FILE_PATH.c_str()); }

    static Rows rows(const std::string& columns) {
        return sqliteRows(FILE_PATH, "SELECT " + columns + " FROM handlers ORDER BY rowid");
    }
    static Rows allRows() {
        return rows(
            "queue, type, enabled, priority, name, address, executable, context, protected");
    }
    static void insert(int queue, int type, int priority, const std::string& name,
                       const std::string& address) {
        sqliteExecute(FILE_PATH, "INSERT INTO handlers VALUES (" + std::to_string(queue) + ", " +
                                     std::to_string(type) + ", 1, " + std::to_string(priority) +
                                     ", '" + name + "', '" + address + "', 'exe', 'ctx', 1)");
    }
};

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

// Selecting.

TEST_F(MailHandlersDbTest, SelectsBestPriorityFirstSoLastInTheList) {
    insert(1, 5, 10, "middle", "a@b.c");
    insert(1, 5, 30, "best", "a@b.c");
    insert(1, 5, 1, "worst", "a@b.c");
    List found;
    EXPECT_EQ(select(found, Record(5, 1, nullptr, "a@b.c").enabled()), 0);
    EXPECT_EQ(found.names(), (Rows{"worst", "middle", "best"}));
}

TEST_F(MailHandlersDbTest, SelectedRecordHoldsRowAndKey) {
    insert(1, 5, 10, "n", "a@b.c");
    List found;
    Record key(5, 1, "key's name", "a@b.c");
    EXPECT_EQ(select(found, key.enabled().priority(99).isProtected()), 0);
    ASSERT_NE(found.list.first, nullptr);
    EXPECT_EQ(describe(*found.list.first->record), "0|5|1|n|a@b.c|exe|ctx|0|1");
}

TEST_F(MailHandlersDbTest, SelectLooksAtEveryKeyField) {
    insert(1, 5, 10, "n", "a@b.c");
    List found;
    EXPECT_EQ(select(found, Record(5, 1, nullptr, "a@b.c")), 0);
    EXPECT_EQ(select(found, Record(5, 2, nullptr, "a@b.c").enabled()), 0);
    EXPECT_EQ(select(found, Record(6, 1, nullptr, "a@b.c").enabled()), 0);
    EXPECT_EQ(select(found, Record(5, 1, nullptr, "a@b").enabled()), 0);
    EXPECT_EQ(select(found, Record(5, 1, nullptr, nullptr).enabled()), 0);
    EXPECT_EQ(found.names(), Rows());
}

TEST_F(MailHandlersDbTest, SelectsGlobalHandlers) {
    insert(1, 4, 10, "for all", "all");
    insert(1, 4, 10, "for recipients", "all-recipients");
    const std::vector<std::pair<const char*, Rows>> keys = {
        {nullptr, {"for all"}}, {"all", {"for all"}}, {"all-recipients", {"for recipients"}}};
    for (const auto& [address, names] : keys) {
        List found;
        EXPECT_EQ(select(found, Record(4, 1, nullptr, address).enabled()), 0);
        EXPECT_EQ(found.names(), names);
    }
}

TEST_F(MailHandlersDbTest, SelectRejectsOtherAddressesOfGlobalHandlers) {
    List found;
    for (const std::string address : {"", "info@example.com", "ALL"}) {
        EXPECT_EQ(select(found, Record(4, 1, "n", address.c_str())), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({"Incorrect recipient address for global handler `" + address +
                      "', expected [NULL|all|all-recipients]"});
    }
    EXPECT_EQ(found.names(), Rows());
}

TEST_F(MailHandlersDbTest, SelectCutsLongAddresses) {
    const std::string fits(501, 'x');
    insert(1, 5, 10, "n", fits);
    List found;
    EXPECT_EQ(select(found, Record(5, 1, nullptr, (fits + "yz").c_str()).enabled()), 0);
    ASSERT_EQ(found.names(), Rows{"n"});
    EXPECT_EQ(found.list.first->record->address, fits);
}

TEST_F(MailHandlersDbTest, SelectByAddressFillsWholeRecords) {
    insert(2, 5, 7, "n", "a@b.c");
    insert(2, 5, 7, "other", "aa@b.c");
    List found;
    EXPECT_EQ(mh_db_select_by_addr(nullptr, &found.list, "a@b.c"), 0);
    ASSERT_EQ(found.names(), Rows{"n"});
    EXPECT_EQ(describe(*found.list.first->record), "7|5|2|n|a@b.c|exe|ctx|0|1");
}

TEST_F(MailHandlersDbTest, SelectionsAddInFrontOfTheList) {
    insert(1, 5, 0, "first", "a@b.c");
    insert(2, 5, 0, "second", "a@b.c");
    List found;
    EXPECT_EQ(mh_db_select_by_addr(nullptr, &found.list, "a@b.c"), 0);
    EXPECT_EQ(mh_db_select_by_addr(nullptr, &found.list, "a@b.c"), 0);
    EXPECT_EQ(found.names(), (Rows{"second", "first", "second", "first"}));
}

struct DomainSelection {
    const char* domain;
    Rows addresses;
};

TEST_F(MailHandlersDbTest, SelectionByDomainTakesTheDomainsOwnRowsOnly) {
    const DomainSelection selections[] = {
        {"a.com", {"a.com", "x@a.com"}},
        {"A.Com", {"a.com", "x@a.com"}},
        {"aa.com", {"x@aa.com"}},
        {"a.com.org", {"x@a.com.org"}},
        {"com", {}},
        {"x", {}},
        {"%", {"x@%"}},
        {"a%", {}},
        {"_.com", {"x@_.com"}},
        {"a_com", {}},
        {"o'brien.com", {"x@o'brien.com"}},
        {"back\\slash.com", {"x@back\\slash.com"}},
        {"line\nend.com", {"x@line\nend.com"}},
        {"\"", {}},
        {"", {"x@"}},
        {"a.com') OR 1=1 --", {}},
    };
    for (const char* address :
         {"a.com", "x@a.com", "x@aa.com", "x@a.com.org", "a.com@other.net", "x@%", "x@_.com",
          "x@o''brien.com", "x@back\\slash.com", "x@line\nend.com", "x@", "all"})
        insert(1, 5, 0, address, address);
    for (const auto& [domain, addresses] : selections) {
        for (const auto selection : {mh_db_select_by_domain_name, mh_db_select_by_addr}) {
            List found;
            EXPECT_EQ(selection(nullptr, &found.list, domain), 0);
            Rows names = found.names();
            std::reverse(names.begin(), names.end());
            EXPECT_EQ(names, addresses) << domain;
        }
    }
}

TEST_F(MailHandlersDbTest, SelectionByDomainTakesAnAddressForADomain) {
    insert(1, 5, 0, "n", "x@a.com");
    insert(1, 5, 0, "n", "xx@a.com");
    List found;
    EXPECT_EQ(mh_db_select_by_domain_name(nullptr, &found.list, "x@a.com"), 0);
    EXPECT_EQ(found.names(), Rows{"n"});
}

TEST_F(MailHandlersDbTest, SelectionReportsPatternThatIsTooLong) {
    List found;
    EXPECT_EQ(mh_db_select_by_domain_name(nullptr, &found.list, std::string(60'000, 'x').c_str()),
              0);
    insert(1, 5, 0, "n", "x@a.com");
    EXPECT_EQ(mh_db_select_by_domain_name(nullptr, &found.list, std::string(60'000, 'x').c_str()),
              -1);
    expectLogged(
        {"Unable to select data from handlers database: LIKE or GLOB pattern too complex"});
}

TEST_F(MailHandlersDbTest, OddNamesAreOnlyNames) {
    for (const char* name : {"'; drop table handlers; --", "o'brien", "\"", "%", "_", "back\\slash",
                             "line\nend", "%s%n", ""}) {
        EXPECT_EQ(Record(5, 1, name, name).add(), 0) << name;
        EXPECT_EQ(Record(5, 2, name, "x@y.z").add(), 0) << name;
        EXPECT_EQ(mh_db_remove_name(nullptr, name), 0) << name;
        EXPECT_EQ(allRows(), Rows()) << name;
        EXPECT_EQ(Record(5, 1, "n", name).add(), 0) << name;
        EXPECT_EQ(mh_db_remove_addr(nullptr, name), 0) << name;
        EXPECT_EQ(allRows(), Rows()) << name;
    }
}

// Callbacks over a list.

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

// Every operation: what is the same with all of them.

enum class Access { reading, writing };

struct Operation {
    const char* title;
    Access access;
    std::string statement;
    std::string stepMessage;  // what comes before the reason
    std::function<int(sqlite3*)> run;
};

void PrintTo(const Operation& operation, std::ostream* stream) {
    *stream << operation.title;
}

int selectOne(sqlite3* db) {
    List found;
    return select(found, Record(5, 1, "n", "x@a.com").enabled(), db);
}

int selectByAddress(sqlite3* db) {
    List found;
    return mh_db_select_by_addr(db, &found.list, "x@a.com");
}

int selectByDomain(sqlite3* db) {
    List found;
    return mh_db_select_by_domain_name(db, &found.list, "a.com");
}

const Operation OPERATIONS[] = {
    {"add", Access::writing, INSERT, "Unable to execute insert record into handlers database: ",
     [](sqlite3* db) { return Record(5, 1, "n", "x@a.com").add(db); }},
    {"remove", Access::writing, DELETE_ONE,
     "Unable to execute delete record from handlers database: ",
     [](sqlite3* db) { return Record(5, 1, "n", "x@a.com").remove(db); }},
    {"removeGlobal", Access::writing, DELETE_GLOBAL,
     "Unable to execute delete record from handlers database: ",
     [](sqlite3* db) { return Record(4, 1, "n", "all").remove(db); }},
    {"removeAddress", Access::writing, "DELETE FROM handlers WHERE address=?",
     "Unable to execute do action on handlers database: ",
     [](sqlite3* db) { return mh_db_remove_addr(db, "x@a.com"); }},
    {"removeName", Access::writing, "DELETE FROM handlers WHERE name=?",
     "Unable to execute do action on handlers database: ",
     [](sqlite3* db) { return mh_db_remove_name(db, "n"); }},
    {"select", Access::reading, SELECT,
     "Unable to get data from mail handlers database: ", selectOne},
    {"selectByAddress", Access::reading, SELECT_ADDRESS,
     "Unable to select data from handlers database: ", selectByAddress},
    {"selectByDomain", Access::reading, SELECT_DOMAIN,
     "Unable to select data from handlers database: ", selectByDomain},
};

class MailHandlersOperationTest : public MailHandlersDbTest,
                                  public ::testing::WithParamInterface<Operation> {
protected:
    MailHandlersOperationTest() { insert(1, 5, 7, "n", "x@a.com"); }

    static int run(sqlite3* db = nullptr) { return GetParam().run(db); }
    static std::string openFailure(const std::string& reason) {
        const bool reads = GetParam().access == Access::reading;
        return std::string("Unable to open database") + (reads ? "(readonly) " : " ") + FILE_PATH +
               ": " + reason;
    }
    static std::string prepareFailure(const std::string& reason) {
        return "Unable to prepare SQL statement for query '" + GetParam().statement +
               "': " + reason;
    }
    static std::string stepFailure(const std::string& reason) {
        return GetParam().stepMessage + reason;
    }
};

INSTANTIATE_TEST_SUITE_P(, MailHandlersOperationTest, ::testing::ValuesIn(OPERATIONS),
                         [](const auto& instance) { return std::string(instance.param.title); });

TEST_P(MailHandlersOperationTest, RunsOneStatementAndLeavesNothingOpen) {
    const int before = openDescriptors();
    const StatementTrace trace;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(trace.statements(), Rows{GetParam().statement});
    EXPECT_EQ(openDescriptors(), before);
}

TEST_P(MailHandlersOperationTest, UsesTheOpenDatabaseAndLeavesItOpen) {
    const TestDatabase db(FILE_PATH);
    mh_db_path_set("/nowhere/at/all");
    EXPECT_EQ(run(db.get()), 0);
    db.execute("SELECT * FROM handlers");
}

TEST_P(MailHandlersOperationTest, ReportsMissingFolder) {
    std::filesystem::remove_all(FOLDER);
    EXPECT_EQ(run(), -1);
    expectLogged({openFailure("unable to open database file")});
}

TEST_P(MailHandlersOperationTest, ReportsMissingMemory) {
    int result = 0;
    {
        const NoSqliteMemory none;
        result = run();
    }
    EXPECT_EQ(result, -1);
    expectLogged({openFailure("general DB errror")});
}

TEST_P(MailHandlersOperationTest, ReportsMissingTable) {
    writeFile(FILE_PATH, "");
    EXPECT_EQ(run(), -1);
    expectLogged({prepareFailure("no such table: handlers")});
    EXPECT_EQ(contentsOf(FILE_PATH), "");
}

TEST_P(MailHandlersOperationTest, ReportsTextFileAndLeavesIt) {
    const std::string text(8192, 'x');
    writeFile(FILE_PATH, text);
    EXPECT_EQ(run(), -1);
    expectLogged({prepareFailure("file is not a database")});
    EXPECT_EQ(contentsOf(FILE_PATH), text);
}

TEST_P(MailHandlersOperationTest, ReportsTruncatedDatabaseAndLeavesIt) {
    const std::string half = contentsOf(FILE_PATH).substr(0, 6000);
    writeFile(FILE_PATH, half);
    EXPECT_EQ(run(), -1);
    expectLogged({prepareFailure("database disk image is malformed")});
    EXPECT_EQ(contentsOf(FILE_PATH), half);
}

TEST_P(MailHandlersOperationTest, OnReadOnlyFileSystemOnlyReadingWorks) {
    const ReadOnlyDisk disk("/var/lib/corvo");
    if (GetParam().access == Access::reading) {
        EXPECT_EQ(run(), 0);
    } else {
        EXPECT_EQ(run(), -1);
        expectLogged({stepFailure("attempt to write a readonly database")});
    }
    EXPECT_EQ(rows("name"), Rows{"n"});
}

TEST_P(MailHandlersOperationTest, ReportsFailingStep) {
    const TestDatabase db(FILE_PATH);
    db.execute("SELECT * FROM handlers");  // it knows the schema from now on
    interruptSteps(db.get());
    EXPECT_EQ(run(db.get()), -1);
    expectLogged({stepFailure("interrupted")});
    EXPECT_EQ(rows("name"), Rows{"n"});
}

TEST_P(MailHandlersOperationTest, WaitsForAnotherProcess) {
    const LockedByAnother lock(FILE_PATH, 100'000);
    EXPECT_EQ(run(), 0);
}

TEST_F(MailHandlersDbTest, ReportsDirectoryInPlaceOfFile) {
    std::filesystem::remove(FILE_PATH);
    makeDirectory(FILE_PATH);
    EXPECT_EQ(mh_db_remove_name(nullptr, "n"), -1);
    EXPECT_EQ(selectByDomain(nullptr), -1);
    expectLogged({"Unable to open database " + FILE_PATH + ": unable to open database file",
                  "Unable to open database(readonly) " + FILE_PATH + ": disk I/O error"});
    EXPECT_TRUE(exists(FILE_PATH));
}

TEST_F(MailHandlersDbTest, ReportsMissingFile) {
    std::filesystem::remove(FILE_PATH);
    EXPECT_EQ(mh_db_remove_name(nullptr, "n"), -1);
    expectLogged(
        {"Unable to prepare SQL statement for query 'DELETE FROM handlers WHERE name=?': "
         "no such table: handlers"});
    EXPECT_EQ(contentsOf(FILE_PATH), "");
}

TEST_F(MailHandlersDbTest, ReportsFullDisk) {
    const SmallDisk disk("/var/lib/corvo/small", 64);
    mh_db_path_set("/var/lib/corvo/small/handlers.db");
    ASSERT_EQ(mh_db_create(), 0);
    disk.fill();
    EXPECT_EQ(Record(5, 1, "n", "a@b.c").add(), -1);
    expectLogged(
        {"Unable to execute insert record into handlers database: database or disk is "
         "full"});
    EXPECT_EQ(integrityOf(mh_db_path), "ok");
}

// Binds.

// At most 100 bytes are bound.
const std::string LONG(101, 'x');

struct BindFailure {
    const char* message;  // without the reason
    std::function<int()> run;
};

const BindFailure BIND_FAILURES[] = {
    {"Unable to bind parameter 'name' to the 'INSERT' query: ",
     [] { return Record(5, 1, LONG.c_str(), "a@b.c").add(); }},
    {"Unable to bind parameter 'address' to the 'INSERT' query: ",
     [] { return Record(5, 1, "n", LONG.c_str()).add(); }},
    {"Unable to bind parameter 'address' to the 'INSERT' query: ",  // sic
     [] { return Record(5, 1, "n", "a@b.c").executable(LONG.c_str()).add(); }},
    {"Unable to bind parameter 'context' to the 'INSERT' query: ",
     [] { return Record(5, 1, "n", "a@b.c").context(LONG.c_str()).add(); }},
    {"Unable to bind parameter 'name' to the 'DELETE' query: ",
     [] { return Record(5, 1, LONG.c_str(), "a@b.c").remove(); }},
    {"Unable to bind parameter 'name' to the 'DELETE' query: ",
     [] { return Record(4, 1, LONG.c_str(), "all").remove(); }},
    {"Unable to bind parameter 'address' to the 'DELETE' query: ",
     [] { return Record(5, 1, "n", LONG.c_str()).remove(); }},
    {"Unable to bind parameter param to query: ",
     [] { return mh_db_remove_name(nullptr, LONG.c_str()); }},
    {"Unable to bind parameter param to query: ",
     [] { return mh_db_remove_addr(nullptr, LONG.c_str()); }},
    {"Unable to bind parameter 'address' to the 'SELECT' query: ",
     [] {
         List found;
         return select(found, Record(5, 1, nullptr, LONG.c_str()));
     }},
    {"Unable to bind parameter 'address' to the 'SELECT' query: ",
     [] {
         List found;
         return mh_db_select_by_addr(nullptr, &found.list, (LONG + "@").c_str());
     }},
    {"Unable to bind parameter 'address' to the 'SELECT' query: ",
     [] {
         List found;
         return mh_db_select_by_domain_name(nullptr, &found.list, LONG.c_str());
     }},
};

TEST_F(MailHandlersDbTest, ReportsTheParameterThatCannotBeBound) {
    const ConnectionHook hook(limitBoundTexts<100>);
    for (const auto& [message, run] : BIND_FAILURES) {
        EXPECT_EQ(run(), -1);
        expectLogged({std::string(message) + "string or blob too big"});
    }
}

// Without memory.

TEST_F(MailHandlersDbTest, RemovalReportsMissingMemoryForTheAddress) {
    requireExhaustibleMemory();
    expectChildLogs({"System error: Cannot allocate memory"}, [] {
        Record record(4, 1, "n", "all-recipients");
        exhaustMemory();
        if (record.remove() != -1)
            ::_exit(1);
    });
}

TEST_F(MailHandlersDbTest, SelectionReportsRecordThatCannotBeSaved) {
    requireExhaustibleMemory();
    constexpr std::size_t SIZE = 32U << 20;
    insert(1, 5, 7, "n", "x@a.com");
    sqliteExecute(FILE_PATH, "UPDATE handlers SET executable = printf('%.*c', " +
                                 std::to_string(SIZE) + ", 'x')");
    for (const auto selection : {selectOne, selectByAddress, selectByDomain}) {
        const auto selectInLittleMemory = [selection] {
            const TestDatabase db(FILE_PATH);              // ours would not read so long a value
            limitMemory(memoryInUse() + SIZE + SIZE / 2);  // enough for one of them, not for a copy
            if (selection(db.get()) != -1)
                ::_exit(1);
        };
        expectChildLogs(
            {"Unable to clone handlers data record", "Unable to save the data from SELECT query"},
            selectInLittleMemory);
    }
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
