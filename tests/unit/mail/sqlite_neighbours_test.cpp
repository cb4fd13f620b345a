// What others in the process, who use SQLite for databases of their own, notice of our sessions.

#include <sys/stat.h>

#include "mail/mail_user_db.h"
#include "mail/sqlite_session.h"
#include "tests/unit/mail/sqlite_fixture.h"

namespace {

using namespace corvo::test;
using corvo::mail::MailUserDbHelper;
using corvo::mail::SqliteAccess;
using corvo::mail::SqliteSession;
using corvo::mail::SqliteStatement;
using corvo::mail::SqliteStep;

using Rows = std::vector<std::string>;

const std::string OURS = "/var/lib/corvo/mail/userdb/userdb.db";

class SqliteNeighboursTest : public SqliteTest {
protected:
    SqliteNeighboursTest() {
        makeDirectory("/var/lib/corvo/mail/userdb");
        EXPECT_TRUE(helper.initMailUserdb(true));
    }

    static SqliteSession open() { return {OURS.c_str(), SqliteAccess::readWrite}; }

    MailUserDbHelper helper;
};

// Where SQLite was not in use before.
TEST_F(SqliteNeighboursTest, KeepTheirMutexesAndMemoryStatistics) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const SqliteSession session = open();
            const TestDatabase theirs("/var/lib/corvo/theirs.db");
            const bool areKept =
                session && sqlite3_db_mutex(theirs.get()) != nullptr && sqlite3_memory_used() > 0;
            std::exit(areKept ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
