// Connections that fail, and how each function of the family tells it.

#include <gtest/gtest.h>
#include <mysql.h>

#include <cerrno>
#include <filesystem>

#include "lib/db++/connect.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/panel.h"
#include "tests/unit/db++/connect_fixture.h"

namespace corvo::mysql::test {
namespace {

TEST_F(ConnectTest, NeedsAHandle) {
    client.initFails = true;
    expectRefusal("Unable to initialize MySQL connection structure: Cannot allocate memory");
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(ConnectTest, IsRefusedWithAWrongPassword) {
    writeFile(SHADOW, "wrong\n");
    expectRefusal(accessDenied(panel.user()));
    EXPECT_EQ(client.closed, 5);
}

TEST_F(ConnectTest, NeedsTheDatabase) {
    panel.execute("GRANT ALL PRIVILEGES ON " + panel.name() + "gone.* TO '" + panel.user() +
                  "'@'localhost'");
    writeDsn("username = " + panel.user() + "\ndbname = " + panel.name() + "gone\n");
    expectRefusal("Unable to connect to Corvo Database: Unknown database '" + panel.name() +
                  "gone'");
}

TEST_F(ConnectTest, NeedsTheSocket) {
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    expectRefusal(
        "Unable to connect to Corvo Database: "
        "Can't connect to local server through socket '/etc/vhc/mysql.sock' (2)");
}

TEST_F(ConnectTest, CutsTheReasonToTheCallersBuffer) {
    std::filesystem::remove(SHADOW);
    char small[10] = "untouched";
    EXPECT_EQ(corvo_db_connect(small, sizeof small), nullptr);
    EXPECT_STREQ(small, "Unable to");
    EXPECT_EQ(corvo_db_connect(nullptr, 0), nullptr);
}

TEST_F(ConnectTest, ClosesAHandleOnWhichAnErrorIsSet) {
    client.errorNumber = 42;
    for (Connector* connector : {corvo_db_connect_raw, corvo_db_connect_ex, corvo_db_connect}) {
        client.closed = 0;
        EXPECT_EQ(connect(connector), nullptr);
        EXPECT_EQ(client.closed, 1);
        EXPECT_STREQ(reason, "");
    }
    EXPECT_NE(connect(corvo_db_connect_raw_ex), nullptr);
}

// Failing "SET NAMES utf8"

class SetNamesFailsTest : public ConnectTest {
protected:
    // The account may run one more statement this hour, and that one is spent.
    SetNamesFailsTest() {
        panel.execute("ALTER USER '" + panel.user() + "'@'localhost' WITH MAX_QUERIES_PER_HOUR 1");
        EXPECT_NE(connect(), nullptr);
        client.closed = 0;
    }

    std::string text() {
        return "DB error (set names query) 1226: User '" + panel.user() +
               "' has exceeded the 'max_queries_per_hour' resource (current value: 1)";
    }
};

TEST_F(SetNamesFailsTest, GivesTheHandleInTheThirdLayer) {
    const Handle handle = connect(corvo_db_connect_ex);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(mysql_errno(handle.get()), 1226U);
    EXPECT_EQ(reason, text());
}

TEST_F(SetNamesFailsTest, ClosesTheHandleInTheFourthLayer) {
    for (Connector* connector : {corvo_db_connect, db_connect_nothrow}) {
        client.closed = 0;
        EXPECT_EQ(connect(connector), nullptr);
        EXPECT_EQ(client.closed, 1);
        EXPECT_EQ(reason, text());
    }
}

TEST_F(SetNamesFailsTest, DoesNotTouchTheLayersBelow) {
    EXPECT_NE(connect(corvo_db_connect_raw), nullptr);
    EXPECT_STREQ(reason, "");
}

TEST_F(ConnectTest, KeepsAHandleWhoseSetNamesFailedWithoutANumber) {
    client.queryFailsSilently = true;
    for (Connector* connector : {corvo_db_connect_ex, corvo_db_connect}) {
        reason[0] = '\0';
        EXPECT_NE(connect(connector), nullptr);
        EXPECT_STREQ(reason, "DB error (set names query): unknown error");
    }
}

// corvo_db_attempt

class AttemptTest : public ConnectTest {
protected:
    /// Expects that an attempt fails like this and prints nothing.
    static void expectFailure(unsigned int number, const std::string& text) {
        const StreamCapture nothingIsPrinted;
        db_connect_failure failure{99, "of an attempt before"};
        EXPECT_EQ(Handle(corvo_db_attempt(failure)), nullptr);
        EXPECT_EQ(failure.number, number);
        EXPECT_EQ(failure.reason, text);
    }
};

TEST_F(AttemptTest, GivesAHandleThatSpeaksUtf8) {
    db_connect_failure failure{};
    const Handle handle(corvo_db_attempt(failure));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(answer(handle, "SELECT @@character_set_client"), "utf8mb3");
}

TEST_F(AttemptTest, TellsTheClientsErrorNumber) {
    writeDsn("username = someone\n");
    expectFailure(1045, accessDenied("someone"));
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    expectFailure(2002,
                  "Unable to connect to Corvo Database: Can't connect to local server through "
                  "socket '/etc/vhc/mysql.sock' (2)");
}

TEST_F(AttemptTest, TellsNoNumberWhenItIsNotTheClientThatFails) {
    client.initFails = true;
    expectFailure(0, "Unable to initialize MySQL connection structure: Cannot allocate memory");
    std::filesystem::remove(SHADOW);
    expectFailure(0, "Unable to open admin password file: No such file or directory");
}

TEST_F(AttemptTest, TellsTheNumberOfAHandleThatCameWithAnError) {
    client.errorNumber = 42;
    expectFailure(42, "");
}

TEST_F(SetNamesFailsTest, HasItsNumberInAnAttempt) {
    db_connect_failure failure{};
    EXPECT_EQ(corvo_db_attempt(failure), nullptr);
    EXPECT_EQ(failure.number, 1226U);
    EXPECT_EQ(failure.reason, text());
}

TEST(DbConnectFailureTest, MayPassByItselfWhenTheServerIsBusyOrAway) {
    for (const unsigned int number : {1040U, 1203U, 1226U, 2002U, 2003U, 2006U, 2013U, 2055U})
        EXPECT_TRUE(may_pass_by_itself({number, ""})) << number;
    for (const unsigned int number : {0U, 1044U, 1045U, 1049U, 1053U, 1129U, 2001U, 2005U, 2012U})
        EXPECT_FALSE(may_pass_by_itself({number, ""})) << number;
}

// db_connect

TEST_F(ConnectTest, PrintsNothingWhenItConnects) {
    const StreamCapture streams;
    const Handle handle(db_connect());
    EXPECT_NE(handle, nullptr);
}

TEST_F(ConnectTest, PrintsTheReasonAndErrnoOnBothStreams) {
    std::filesystem::remove(SHADOW);
    StreamCapture streams;

    EXPECT_EQ(db_connect(), nullptr);

    const std::string text =
        "Unable to open admin password file: No such file or directory\n"
        "System error 2: No such file or directory\n";
    EXPECT_EQ(streams.out(), text);
    EXPECT_EQ(streams.err(), text);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ConnectTest, PrintsAReasonWithPercentSignsAsItIs) {
    writeDsn("username = %s%n\n");
    StreamCapture streams;

    EXPECT_EQ(db_connect(), nullptr);

    // The client library may leave an errno behind.
    const std::string out = streams.out();
    EXPECT_EQ(out.substr(0, out.find('\n')), accessDenied("%s%n"));
    EXPECT_EQ(streams.err(), out);
}

}  // namespace
}  // namespace corvo::mysql::test
