// How the records of a handler differ from what they should be.

#include <gtest/gtest.h>

#include <array>
#include <span>
#include <string>
#include <vector>

#include "mail/handlers/check_quota_records.h"
#include "mail/handlers/mail_handlers_creation.h"
#include "mail/handlers/mail_handlers_db.h"
#include "mail/sqlite/row_differences.h"
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

using corvo::mail::RowDifferences;

const std::string FOLDER = "/var/lib/corvo/mail/handlers";
const std::string FILE_PATH = FOLDER + "/handlers.db";

// With the two records of a handler, and another handler's.
class HandlerRowsDifferTest : public LoggingTest {
protected:
    HandlerRowsDifferTest() {
        EXPECT_EQ(mh_db_create(), 0);
        for (mh_data& record : wanted)
            EXPECT_EQ(mh_db_add(nullptr, &record), 0);
        sqliteExecute(FILE_PATH,
                      "INSERT INTO handlers VALUES (1, 4, 1, 10, 'spam', 'all', 'e', 'c', 0)");
    }

    RowDifferences look() const {
        return mh_db_name_differences(nullptr, CHECK_QUOTA_HANDLER, wanted);
    }

    std::array<mh_data, 2> wanted = check_quota_records(false);
};

TEST_F(HandlerRowsDifferTest, InNothingWhereTheyAreAllThatHaveTheName) {
    const std::string before = fingerprint(FOLDER);
    const int descriptors = openDescriptors();
    EXPECT_EQ(look(), RowDifferences{});
    EXPECT_EQ(fingerprint(FOLDER), before);
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(HandlerRowsDifferTest, InNothingWhereNoneIsWantedAndNoneIsThere) {
    EXPECT_EQ(mh_db_name_differences(nullptr, "none", {}), RowDifferences{});
    EXPECT_EQ(mh_db_name_differences(nullptr, CHECK_QUOTA_HANDLER, {}),
              RowDifferences{.surplus = true});
}

const struct {
    RowDifferences differences;
    const char* change;  // of the record for queue 4
} CHANGES[] = {
    {{.contents = true}, "SET priority = 11"},
    {{.contents = true}, "SET executable = executable || ' '"},
    {{.contents = true}, "SET executable = CAST(executable AS BLOB)"},
    {{.contents = true}, "SET context = 'permanent'"},
    {{.contents = true}, "SET context = ''"},
    {{.contents = true}, "SET protected = 1"},
    {{.contents = true}, "SET protected = 'no'"},
    {{.contents = true}, "SET enabled = 0"},
    {{.contents = true}, "SET enabled = NULL"},
    {{.missing = true}, "SET name = 'other'"},
    {{.missing = true}, "SET name = CAST(name AS BLOB)"},
    {{.missing = true, .surplus = true}, "SET queue = 5"},
    {{.missing = true, .surplus = true}, "SET queue = NULL"},
    {{.missing = true, .surplus = true}, "SET type = 5"},
    {{.missing = true, .surplus = true}, "SET address = 'all'"},
    {{.missing = true, .surplus = true}, "SET address = 'All-Recipients'"},
    {{.missing = true, .surplus = true}, "SET address = CAST(address AS BLOB)"},
};

TEST_F(HandlerRowsDifferTest, InEachColumn) {
    const std::string sound = contentsOf(FILE_PATH);
    for (const auto& [differences, change] : CHANGES) {
        sqliteExecute(FILE_PATH, "UPDATE handlers " + std::string(change) + " WHERE queue = 4");
        EXPECT_EQ(look(), differences) << change;
        writeFile(FILE_PATH, sound);
    }
}

TEST_F(HandlerRowsDifferTest, WhereThereIsOneMoreOrLess) {
    sqliteExecute(FILE_PATH,
                  "INSERT INTO handlers VALUES (7, 4, 0, 9, 'check-quota', 'x@a.com', 'e', 'c', "
                  "1)");
    EXPECT_EQ(look(), RowDifferences{.surplus = true});
    sqliteExecute(FILE_PATH, "DELETE FROM handlers WHERE queue IN (1, 7)");
    EXPECT_EQ(look(), RowDifferences{.missing = true});
}

TEST_F(HandlerRowsDifferTest, ByTheAddressAsItIsStored) {
    mh_data record;
    mh_data_init_ex(&record);
    char name[] = "test";
    char address[] = "Info@A.com";
    char executable[] = "e";
    record.name = name;
    record.address = address;
    record.executable = executable;
    ASSERT_EQ(mh_db_add(nullptr, &record), 0);
    EXPECT_EQ(mh_db_name_differences(nullptr, "test", {&record, 1}), RowDifferences{});
    record.type = MH_GLOBAL_HANDLER_TYPE;
    record.address = nullptr;
    EXPECT_EQ(mh_db_name_differences(nullptr, "test", {&record, 1}),
              (RowDifferences{.missing = true, .surplus = true}));
    sqliteExecute(FILE_PATH, "UPDATE handlers SET type = 4, address = 'all' WHERE name = 'test'");
    EXPECT_EQ(mh_db_name_differences(nullptr, "test", {&record, 1}), RowDifferences{});
}

TEST_F(HandlerRowsDifferTest, InWhatOnlyAnOpenDatabaseHolds) {
    const TestDatabase database(FILE_PATH);
    database.execute("BEGIN; DELETE FROM handlers WHERE queue = 4");
    EXPECT_EQ(mh_db_name_differences(database.get(), CHECK_QUOTA_HANDLER, wanted),
              RowDifferences{.missing = true});
    EXPECT_EQ(look(), RowDifferences{});
    database.execute("ROLLBACK");
}

TEST_F(HandlerRowsDifferTest, ForAllThatIsKnownWhereTheyCannotBeRead) {
    {
        const TestDatabase writer(FILE_PATH);
        writer.execute("BEGIN EXCLUSIVE");
        EXPECT_EQ(look(), RowDifferences{.unknown = true});
        EXPECT_EQ(mh_db_name_differences(nullptr, "none", {}), RowDifferences{.unknown = true});
    }
    sqliteExecute(FILE_PATH, "DROP TABLE handlers");
    EXPECT_EQ(look(), RowDifferences{.unknown = true});
    ASSERT_EQ(::unlink(FILE_PATH.c_str()), 0);
    EXPECT_EQ(look(), RowDifferences{.unknown = true});
    EXPECT_FALSE(exists(FILE_PATH));
}

}  // namespace
}  // namespace corvo::test
