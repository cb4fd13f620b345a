#include "lib/db++/connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mysql.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <new>

#include "lib/db++/connect.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/killed_connection.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/unit/db++/database_test.h"

namespace corvo::mysql::test {
namespace {

using corvo::test::killConnection;
using corvo::test::openDescriptors;
using corvo::test::PanelDatabase;
using corvo::test::StreamCapture;
using ::testing::MatchesRegex;
using namespace std::string_literals;

class ConnectionTest : public DatabaseTest {
protected:
    std::string connectionId() { return valueOf("SELECT CONNECTION_ID() AS v"); }
    unsigned long long exec(const std::string& statement) {
        return connection << statement << Query::exec;
    }
};

// Opening and closing

TEST_F(ConnectionTest, ConnectsOnlyWhenOpened) {
    const int before = openDescriptors();
    Connection later(false);
    EXPECT_EQ(openDescriptors(), before);

    later.open();

    EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(ConnectionTest, StaysConnectedWhenOpenedAgain) {
    const std::string id = connectionId();
    connection.open();
    EXPECT_EQ(connectionId(), id);
}

TEST_F(ConnectionTest, ClosesItsHandle) {
    const int before = openDescriptors();
    { const Connection another(true); }
    { const Connection given(db_connect(), true); }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ConnectionTest, StatementThatMemoryDoesNotSufficeForIsNotRunInPart) {
    corvo::test::requireExhaustibleMemory();
    constexpr std::size_t MUCH = std::size_t{64} << 20;  // never from the heap
    const std::string blanks(MUCH, ' ');
    const corvo::test::ProcessResult child = corvo::test::runForked([&] {
        Connection own(true);
        own << "SELECT 1 AS v ";
        corvo::test::limitMemory(corvo::test::memoryInUse() + MUCH / 2);
        try {
            own << blanks;
        } catch (const std::bad_alloc&) {
            ::_exit(valueOf(own, "SELECT 2 AS v") == "2" ? 42 : 1);
        }
        ::_exit(2);
    });
    EXPECT_EQ(child.status, 42) << child.err;
}

TEST_F(ConnectionTest, OwnsAHandleThatWasJustOpened) {
    const int before = openDescriptors();
    {
        Connection owner = Connection::owning(db_connect());
        EXPECT_EQ(valueOf(owner, "SELECT 'open' AS v"), "open");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ConnectionTest, DoesNotOwnAHandleThatCouldNotBeOpened) {
    const StreamCapture nothingIsPrinted;
    EXPECT_EQ(failureOf([] { const Connection refused = Connection::owning(nullptr); }),
              "connection failed");
}

TEST_F(ConnectionTest, LeavesABorrowedHandleOpen) {
    st_mysql* handle = db_connect();
    ASSERT_NE(handle, nullptr);
    { const Connection borrower(handle, false); }
    EXPECT_EQ(mysql_ping(handle), 0);
    mysql_close(handle);
}

TEST_F(ConnectionTest, SaysThatItFailedAfterPrintingTheReason) {
    std::filesystem::remove("/etc/vhc/.vhc.shadow");
    StreamCapture streams;

    EXPECT_EQ(failureOf([] { const Connection refused(true); }), "connection failed");

    const std::string reason =
        "Unable to open admin password file: No such file or directory\n"
        "System error 2: No such file or directory\n";
    EXPECT_EQ(streams.out(), reason);
    EXPECT_EQ(streams.err(), reason);
}

TEST_F(ConnectionTest, CannotRunAStatementBeforeItIsOpen) {
    Connection closed(false);
    EXPECT_EQ(failureOf([&] { closed << "SELECT 1" << Query::exec; }),
              "Unknown error\n executing query: SELECT 1");
    EXPECT_EQ(failureOf([&] { closed << "SELECT 2" << Query::fetch; }),
              "Unknown error\n executing query: SELECT 2");
    EXPECT_EQ(failureOf([&] { closed.escape("text"); }), "Unknown error\n escaping a text");
}

// Building a statement

TEST_F(ConnectionTest, WritesPiecesRawUnlessToldOtherwise) {
    connection << "SELECT " << std::string("'it") << "''"
               << "s' AS v";
    EXPECT_EQ(valueOf(""), "it's");
}

TEST_F(ConnectionTest, WritesAStringWithAllItsBytes) {
    EXPECT_EQ(valueOf("SELECT LENGTH('a\0b') AS v"s), "3");
}

TEST_F(ConnectionTest, EscapesOnePieceAsAValue) {
    const std::string hostile = "'\"\\`\0\n\r\x1a;"s;
    connection << "SELECT '";
    connection.setMode(Connection::MODE_VALUE);
    connection << hostile << "' AS v";
    EXPECT_EQ(valueOf(""), hostile);
}

TEST_F(ConnectionTest, EscapesOnePieceAsAName) {
    connection << "SELECT t.`";
    connection.setMode(Connection::MODE_NAME);
    connection << "a`b"
               << "` AS v FROM (SELECT 'found' AS `a``b`) AS t";
    EXPECT_EQ(valueOf(""), "found");
}

TEST_F(ConnectionTest, LosesAPieceInAModeThatDoesNotExist) {
    for (const int mode : {-1, 3, INT_MAX}) {
        connection << "SELECT 1 AS v";
        connection.setMode(mode);
        connection << " garbage"
                   << " LIMIT 1";
        EXPECT_EQ(valueOf(""), "1") << "mode " << mode;
    }
}

TEST_F(ConnectionTest, IsRawAgainAfterARun) {
    connection.setMode(Connection::MODE_VALUE);
    EXPECT_THROW(connection << Query::exec, mError);
    EXPECT_EQ(valueOf("SELECT 'raw' AS v"), "raw");
}

TEST_F(ConnectionTest, LosesWhatFollowsANullTextUntilTheNextRun) {
    const char* nothing = nullptr;
    connection << "SELECT 'before' AS v" << nothing << " garbage";
    EXPECT_EQ(valueOf(" more garbage"), "before");
    EXPECT_EQ(valueOf("SELECT 'after' AS v"), "after");
}

TEST_F(ConnectionTest, WritesNothingForANullTextInOtherModes) {
    const char* nothing = nullptr;
    for (const int mode : {int{Connection::MODE_VALUE}, int{Connection::MODE_NAME}, 3}) {
        connection << "SELECT 'it";
        connection.setMode(mode);
        connection << nothing << "''s' AS v";
        EXPECT_EQ(valueOf(""), "it's") << "mode " << mode;
    }
}

TEST_F(ConnectionTest, WritesNumbersAsText) {
    connection << "SELECT CONCAT('" << INT_MIN << "', ' ', '" << INT_MAX << "', ' ', '"
               << ULLONG_MAX << "', ' ', '" << 0ULL << "', ' ', '" << 0.5 << "', ' ', '" << -1e10
               << "') AS v";
    EXPECT_EQ(valueOf(""),
              "-2147483648 2147483647 18446744073709551615 0 0.500000 -10000000000.000000");
}

TEST_F(ConnectionTest, SpendsTheModeOnANumberToo) {
    connection << "SELECT '";
    connection.setMode(Connection::MODE_VALUE);
    connection << 7 << "' AS v";
    EXPECT_EQ(valueOf(""), "7");
}

// Escaping

TEST_F(ConnectionTest, EscapesWhatEndsOrBendsAQuotedText) {
    EXPECT_EQ(connection.escape("it's \"a\" \\ line\n\r\x1a"), R"(it\'s \"a\" \\ line\n\r\Z)");
    EXPECT_EQ(connection.escape("plain"), "plain");
    EXPECT_EQ(connection.escape(""), "");
}

TEST_F(ConnectionTest, EscapesAsManyBytesAsItIsTold) {
    EXPECT_EQ(connection.escape("a\0'b", 4), R"(a\0\'b)");
    EXPECT_EQ(connection.escape("a'bc", 2), R"(a\')");
    EXPECT_EQ(connection.escape("a\0b"), "a");
}

TEST_F(ConnectionTest, RefusesATextThatNoMemoryHolds) {
    EXPECT_THROW(connection.escape("x", SIZE_MAX), std::bad_alloc);
    EXPECT_THROW(connection.escape("x", SIZE_MAX / 2), std::bad_alloc);
}

TEST(EscapeNameTest, DoublesEveryBackquote) {
    Connection connection(false);
    const struct {
        const char* name;
        std::size_t length;
        std::string escaped;
    } cases[] = {
        {"aaaa", 0, "aaaa"},
        {"a`aaa", 0, "a``aaa"},
        {"a``aaa", 0, "a````aaa"},
        {"a``aa`a", 0, "a````aa``a"},
        {"", 0, ""},
        {"`", 0, "``"},
        {"a`b`c", 2, "a``"},
        {"a\0`", 3, "a\0``"s},
        {"it's \"\\", 0, "it's \"\\"},
    };
    for (const auto& [name, length, escaped] : cases)
        EXPECT_EQ(connection.escape_name(name, length), escaped) << name << ", " << length;
}

TEST_F(ConnectionTest, PrintsItsSelfCheckOnStandardError) {
    StreamCapture streams;
    Connection::test();
    const std::string lead =
        "static void corvo::mysql::Connection::test\\(\\)\\(connection\\.cpp:[0-9]+\\)"
        "connection\\.escape_name\\(";
    EXPECT_THAT(streams.err(), MatchesRegex(lead + "\"aaaa\"\\)=aaaa\n" +        //
                                            lead + "\"a`aaa\"\\)=a``aaa\n" +     //
                                            lead + "\"a``aaa\"\\)=a````aaa\n" +  //
                                            lead + "\"a``aa`a\"\\)=a````aa``a\n"));
}

// Running

TEST_F(ConnectionTest, CountsTheRecordsOfAStatementForManyRows) {
    EXPECT_EQ(exec("INSERT INTO misc VALUES ('a', '1'), ('b', '1'), ('c', '1')"), 3U);
    EXPECT_EQ(exec("INSERT INTO badmailfrom SELECT param FROM misc"), 3U);
    EXPECT_EQ(exec("ALTER TABLE misc ENGINE=MyISAM"), 3U);
}

TEST_F(ConnectionTest, CountsMatchedRowsThatDoNotChange) {
    exec("INSERT INTO misc VALUES ('a', '1'), ('b', '1'), ('c', '2')");
    EXPECT_EQ(exec("UPDATE misc SET val='1' WHERE val='1'"), 2U);
    EXPECT_EQ(exec("UPDATE misc SET val='1'"), 3U);
}

TEST_F(ConnectionTest, CountsAffectedRowsWhenTheInfoCountsNothing) {
    EXPECT_EQ(exec("UPDATE misc SET val='1'"), 0U);
    EXPECT_EQ(exec("INSERT INTO badmailfrom SELECT param FROM misc"), 0U);
}

TEST_F(ConnectionTest, CountsAffectedRowsOfAStatementWithoutInfo) {
    EXPECT_EQ(exec("INSERT INTO misc VALUES ('a', '1')"), 1U);
    EXPECT_EQ(exec("REPLACE INTO misc VALUES ('a', '2')"), 2U);
    EXPECT_EQ(exec("DELETE FROM misc"), 1U);
    EXPECT_EQ(exec("CREATE TABLE more (id int)"), 0U);
}

TEST_F(ConnectionTest, NamesTheStatementThatFailed) {
    const std::string failure =
        "MySQL error 1146: Table '" + panel.name() + ".nowhere' doesn't exist executing query: ";
    EXPECT_EQ(failureOf([&] { exec("DELETE FROM nowhere"); }), failure + "DELETE FROM nowhere");
    EXPECT_EQ(failureOf([&] { valueOf("SELECT v FROM nowhere"); }),
              failure + "SELECT v FROM nowhere");
}

TEST_F(ConnectionTest, GivesTheServerNoFileOfThisMachine) {
    ASSERT_EQ(valueOf("SELECT @@local_infile AS v"), "1") << "the server would take it";
    const std::string statement = "LOAD DATA LOCAL INFILE '/etc/passwd' INTO TABLE badmailfrom";
    EXPECT_THAT(failureOf([&] { exec(statement); }),
                MatchesRegex("MySQL error 4166: .* executing query: " + statement));
    EXPECT_EQ(valueOf("SELECT COUNT(*) AS v FROM badmailfrom"), "0");
}

TEST_F(ConnectionTest, KeepsNoTextOfAFailedStatement) {
    EXPECT_THROW(exec("nonsense"), mError);
    EXPECT_EQ(valueOf("SELECT 'clean' AS v"), "clean");
    EXPECT_THROW(valueOf("nonsense"), mError);
    EXPECT_EQ(valueOf("SELECT 'clean' AS v"), "clean");
}

TEST_F(ConnectionTest, CannotFetchFromAStatementWithoutRows) {
    EXPECT_EQ(failureOf([&] { valueOf("DELETE FROM misc"); }),
              "Unknown error\n fetching result of query: DELETE FROM misc");
}

TEST_F(ConnectionTest, NamesTheStatementWhoseResultBreaksOff) {
    // The first rows are under way long before the last one fails.
    const std::string statement =
        "SELECT REPEAT('x', 1000) AS filler, IF(seq<1000, 0, (SELECT 1 UNION SELECT 2)) AS v "
        "FROM seq_1_to_1000";
    EXPECT_EQ(failureOf([&] { valueOf(statement); }),
              "MySQL error 1242: Subquery returns more than 1 row fetching result of query: " +
                  statement);
    EXPECT_EQ(valueOf("SELECT 'usable' AS v"), "usable");
}

TEST_F(ConnectionTest, ReportsAConnectionThatIsLostInTheMiddleOfAResult) {
    panel.execute("CREATE FUNCTION cut(id bigint) RETURNS int BEGIN KILL id; RETURN 0; END");
    const std::string statement =
        "SELECT REPEAT('x', 1000) AS filler, IF(seq<1000, 0, cut(CONNECTION_ID())) AS v "
        "FROM seq_1_to_1000";
    EXPECT_EQ(failureOf([&] { valueOf(statement); }),
              "MySQL error 1927: Connection was killed fetching result of query: " + statement);
}

TEST_F(ConnectionTest, ReportsAConnectionThatWasLostBefore) {
    panel.execute("KILL " + connectionId());
    EXPECT_THAT(failureOf([&] { valueOf("SELECT 1 AS v"); }),
                MatchesRegex("MySQL error (2006: Server has gone away|"
                             "2013: Lost connection to server during query|"
                             "1927: Connection was killed) executing query: SELECT 1 AS v"));
}

// Idle connections

class LostConnectionTest : public ConnectionTest {
protected:
    static std::string idOf(Connection& any) { return valueOf(any, "SELECT CONNECTION_ID() AS v"); }

    /// Has the server end the connection, and waits until it has.
    std::string kill(Connection& any) {
        std::string id = idOf(any);
        killConnection(panel, id);
        return id;
    }

    static st_mysql* connectAsRoot() {
        st_mysql* handle = mysql_init(nullptr);
        return mysql_real_connect(handle, "localhost", "root", "", "mysql", 0,
                                  PanelDatabase::socket().c_str(), 0);
    }

    static void expectLost(Connection& any) {
        EXPECT_THAT(failureOf([&] { idOf(any); }),
                    MatchesRegex("MySQL error (2006: Server has gone away|"
                                 "2013: Lost connection to server during query|"
                                 "1927: Connection was killed) "
                                 "executing query: SELECT CONNECTION_ID\\(\\) AS v"));
    }
};

TEST_F(LostConnectionTest, IsOpenedAnew) {
    const int descriptors = openDescriptors();
    const std::string former = kill(connection);

    connection.reopenIfLost();

    EXPECT_NE(connectionId(), former);
    EXPECT_EQ(valueOf("SELECT CONCAT(USER(), ' ', DATABASE()) AS v"),
              panel.user() + "@localhost " + panel.name());
    EXPECT_EQ(valueOf("SELECT @@character_set_client AS v"), "utf8mb3");
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(LostConnectionTest, IsOpenedWithTheCredentialsThatItHad) {
    Connection roots(connectAsRoot(), true);
    kill(roots);

    roots.reopenIfLost();

    EXPECT_EQ(valueOf(roots, "SELECT CONCAT(USER(), ' ', DATABASE()) AS v"),
              "root@localhost mysql");
    EXPECT_EQ(valueOf(roots, "SELECT @@character_set_client AS v"), "utf8mb3");
}

TEST_F(LostConnectionTest, NeedsNoCredentialFileAgain) {
    kill(connection);
    std::filesystem::remove("/etc/vhc/.vhc.shadow");
    std::filesystem::remove("/etc/vhc/private/dsn.ini");
    const StreamCapture nothingIsPrinted;

    connection.reopenIfLost();

    EXPECT_EQ(valueOf("SELECT USER() AS v"), panel.user() + "@localhost");
}

TEST_F(LostConnectionTest, SendsNoFileAfterwardsEither) {
    kill(connection);
    connection.reopenIfLost();
    EXPECT_THROW(exec("LOAD DATA LOCAL INFILE '/etc/passwd' INTO TABLE badmailfrom"), mError);
}

TEST_F(LostConnectionTest, FailsInTheNextStatementWhenItCannotBeOpenedAndIsTriedAgain) {
    kill(connection);
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    const StreamCapture nothingIsPrinted;
    for (int i = 0; i < 3; ++i) {
        errno = EXDEV;
        connection.reopenIfLost();
        EXPECT_EQ(errno, EXDEV);
        expectLost(connection);
    }
    corvo::test::makeLink(PanelDatabase::socket(), PanelDatabase::SOCKET_LINK);

    connection.reopenIfLost();

    EXPECT_EQ(valueOf("SELECT USER() AS v"), panel.user() + "@localhost");
}

TEST_F(LostConnectionTest, StaysLostWhenItIsBorrowed) {
    st_mysql* handle = connectAsRoot();
    Connection borrowed(handle, false);
    kill(borrowed);

    borrowed.reopenIfLost();

    expectLost(borrowed);
    mysql_close(handle);
}

TEST_F(ConnectionTest, StaysClosedWhenItWasNeverOpened) {
    const int descriptors = openDescriptors();
    Connection closed(false);
    closed.reopenIfLost();
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(ConnectionTest, StaysAsItIsWhileItLives) {
    const std::string id = connectionId();
    exec("SET @kept=1");
    connection.reopenIfLost();
    EXPECT_EQ(connectionId(), id);
    EXPECT_EQ(valueOf("SELECT @kept AS v"), "1");
}

}  // namespace
}  // namespace corvo::mysql::test
