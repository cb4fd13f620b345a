// What is the same with every operation, and how each fails.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>

#include "mail/handlers/mail_handlers_creation.h"
#include "mail/handlers/mail_handlers_db.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/sqlite.h"
#include "tests/support/sqlite_faults.h"
#include "tests/unit/mail/handlers/mail_handlers_fixture.h"

namespace corvo::test::handlers {
namespace {

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

}  // namespace
}  // namespace corvo::test::handlers
