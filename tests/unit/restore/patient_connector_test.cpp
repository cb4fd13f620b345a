#include "restore/patient_connector.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <mysql.h>

#include <chrono>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/files.h"
#include "tests/unit/restore/walk_fixture.h"

namespace {

using namespace std::chrono_literals;
using corvo::mail::restore::PatientConnector;
using corvo::mail::restore::walkMailServerEntities;
using corvo::mysql::Connection;
using corvo::mysql::mError;
using std::chrono::nanoseconds;

/// What is done in place of a pause; the client library's own sleeps are shorter.
constexpr nanoseconds SHORTEST_PAUSE = 10ms;
std::function<void(nanoseconds)> inPause;

/// The login whose attempts to connect are counted.
std::string countedUser;
int attempts = 0;

}  // namespace

// In front of the libraries'.
extern "C" {

int nanosleep(const timespec* span, timespec* left) {
    const nanoseconds asked = std::chrono::seconds(span->tv_sec) + nanoseconds(span->tv_nsec);
    if (!inPause || asked < SHORTEST_PAUSE)
        return ::clock_nanosleep(CLOCK_REALTIME, 0, span, left) == 0 ? 0 : -1;
    inPause(asked);
    return 0;
}

MYSQL* STDCALL mysql_real_connect(MYSQL* handle, const char* host, const char* user,
                                  const char* password, const char* database, unsigned int port,
                                  const char* socket, unsigned long flags) {
    static const auto original =
        reinterpret_cast<decltype(&mysql_real_connect)>(::dlsym(RTLD_NEXT, "mysql_real_connect"));
    attempts += user == countedUser ? 1 : 0;
    return original(handle, host, user, password, database, port, socket, flags);
}

}  // extern "C"

namespace corvo::test {
namespace {

using Pauses = std::vector<nanoseconds>;

const Pauses ALL_PAUSES = {200ms, 400ms, 800ms, 1600ms};
const std::string NO_SERVER =
    "Can't connect to local server through socket '" + PanelDatabase::SOCKET_LINK + "' (2)";

class PatientConnectorTest : public WalkTest {
protected:
    PatientConnectorTest() {
        inPause = [this](nanoseconds span) {
            pauses.push_back(span);
            if (pauses.size() == pausesUntilAllowed)
                allow(0);
        };
        countedUser = panel.user();
        attempts = 0;
    }
    ~PatientConnectorTest() override { inPause = nullptr; }

    /// How many connections the program may have at a time; 0 is no limit. Those that were opened
    /// without a limit do not count.
    void allow(int connections) {
        panel.execute("ALTER USER '" + panel.user() + "'@'localhost' WITH MAX_USER_CONNECTIONS " +
                      std::to_string(connections));
    }

    /// The server ends a connection some time after the client has closed it.
    void waitUntilAllAreClosed() {
        while (!panel
                    .query("SELECT id FROM information_schema.processlist WHERE user='" +
                           panel.user() + "'")
                    .empty())
            std::this_thread::yield();
    }

    /// Takes the only connection that the program may have.
    Connection occupy() {
        allow(1);
        waitUntilAllAreClosed();
        return Connection(true);
    }

    /// Without the errno that the client library leaves behind or not, as its waiting went.
    static Printed withoutErrno(const Printed& printed) {
        static const std::regex line("System error [0-9]+: .*\n");
        return {std::regex_replace(printed.out, line, ""),
                std::regex_replace(printed.err, line, "")};
    }

    Printed refusal(const std::string& reason) {
        return warning("Unable to connect to Corvo Database: " + reason);
    }

    Printed tooManyConnections(int allowed) {
        return refusal("User '" + panel.user() +
                       "' has exceeded the 'max_user_connections' resource (current value: " +
                       std::to_string(allowed) + ")");
    }

    /// Expects that the connector gives up with these words, after these pauses and attempts.
    void expectFailure(const Printed& words, const Pauses& expected, int attemptsExpected) {
        pauses.clear();
        attempts = 0;
        StreamCapture capture;
        EXPECT_EQ(failureOf(), "connection failed");
        EXPECT_EQ(withoutErrno({capture.out(), capture.err()}), words);
        EXPECT_EQ(pauses, expected);
        EXPECT_EQ(attempts, attemptsExpected);
    }

    std::string failureOf() {
        try {
            const Connection connection = connector.open();
        } catch (const mError& error) {
            return error.what();
        }
        return "nothing was thrown";
    }

    PatientConnector connector;
    Pauses pauses;
    std::size_t pausesUntilAllowed = 0;  // 0: for good
};

TEST_F(PatientConnectorTest, ServerThatLetsItInIsAskedOnce) {
    const Connection connection = connector.open();
    EXPECT_EQ(connections().size(), 1U);
    EXPECT_EQ(attempts, 1);
    EXPECT_EQ(pauses, Pauses{});
}

TEST_F(PatientConnectorTest, RefusalOfAMomentIsWaitedOutWithoutAWord) {
    for (std::size_t needed = 1; needed <= ALL_PAUSES.size(); ++needed) {
        SCOPED_TRACE(needed);
        const Connection other = occupy();
        pauses.clear();
        pausesUntilAllowed = needed;
        const StreamCapture nothingIsPrinted;

        const Connection connection = connector.open();

        EXPECT_EQ(pauses, Pauses(ALL_PAUSES.begin(), ALL_PAUSES.begin() + long(needed)));
    }
}

TEST_F(PatientConnectorTest, RefusalThatStaysIsAFailureAfterFiveAttempts) {
    const Connection other = occupy();
    expectFailure(tooManyConnections(1), ALL_PAUSES, 5);
}

TEST_F(PatientConnectorTest, AfterARefusalThatStayedThereIsOneAttemptUntilAConnectionSucceeds) {
    {
        const Connection other = occupy();
        expectFailure(tooManyConnections(1), ALL_PAUSES, 5);
        expectFailure(tooManyConnections(1), {}, 1);
        expectFailure(tooManyConnections(1), {}, 1);
    }
    waitUntilAllAreClosed();
    { const Connection success = connector.open(); }
    const Connection other = occupy();
    expectFailure(tooManyConnections(1), ALL_PAUSES, 5);
}

TEST_F(PatientConnectorTest, ServerThatIsAwayIsWaitedFor) {
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    expectFailure(refusal(NO_SERVER), ALL_PAUSES, 5);
}

TEST_F(PatientConnectorTest, WhatNoWaitingHealsFailsAtOnceAndCostsNoPatience) {
    writeFile("/etc/vhc/.vhc.shadow", "wrong");
    expectFailure(
        refusal("Access denied for user '" + panel.user() + "'@'localhost' (using password: YES)"),
        {}, 1);
    std::filesystem::remove("/etc/vhc/.vhc.shadow");
    expectFailure(warning("Unable to open admin password file: No such file or directory"), {}, 0);
    writeFile("/etc/vhc/.vhc.shadow", "wrong");
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    expectFailure(refusal(NO_SERVER), ALL_PAUSES, 5);
}

TEST_F(PatientConnectorTest, RefusalThatTurnsIntoAnotherFailureEndsTheWaiting) {
    const Connection other = occupy();
    const auto pause = inPause;
    inPause = [&](nanoseconds span) {
        pause(span);
        std::filesystem::remove("/etc/vhc/.vhc.shadow");
    };
    expectFailure(warning("Unable to open admin password file: No such file or directory"), {200ms},
                  1);
}

// In the walk

class PatientWalkTest : public PatientConnectorTest {
protected:
    PatientWalkTest() {
        for (const char* name : {"first.example", "second.example"})
            panel.domain(name).mailname("info").alias("all");
    }

    const Calls everything = {
        R"(registerDomain("first.example", false))",
        R"(registerMailname("first.example", "info"))",
        R"(registerMailAlias("first.example", "info", "all", false))",
        R"(registerDomain("second.example", false))",
        R"(registerMailname("second.example", "info"))",
        R"(registerMailAlias("second.example", "info", "all", false))",
    };
    Recorder recorder{"registerDomain", "registerMailname", "registerMailAlias"};
};

TEST_F(PatientWalkTest, EachConnectionOfADomainOrMailNameIsWaitedFor) {
    for (const int room : {1, 2}) {
        SCOPED_TRACE(room);
        allow(room);
        pauses.clear();
        pausesUntilAllowed = 2;
        Recorder again{"registerDomain", "registerMailname", "registerMailAlias"};
        expectWalk(again, everything);
        EXPECT_EQ(pauses, (Pauses{200ms, 400ms}));
    }
}

TEST_F(PatientWalkTest, RefusalThatStaysEndsTheDomainsWithOneLine) {
    allow(1);
    const Printed printed = walk(recorder);
    EXPECT_EQ(recorder.lines(), Calls{everything[0]});
    EXPECT_EQ(withoutErrno(printed),
              tooManyConnections(1) + failure(" executing the central domain restoration cycle "
                                              "failed (connection failed), ignored"));
    EXPECT_EQ(pauses, ALL_PAUSES);
}

TEST_F(PatientWalkTest, RefusalThatStaysEndsTheMailNamesOfADomainWithOneLine) {
    recorder.on("registerMailname", [&] { std::filesystem::remove(PanelDatabase::SOCKET_LINK); });
    const Printed printed = walk(recorder);
    EXPECT_EQ(recorder.lines(), (Calls{everything[0], everything[1], everything[3]}));
    EXPECT_EQ(withoutErrno(printed),
              refusal(NO_SERVER) +
                  failure("  executing mailnames restoration cycle for first.example failed "
                          "(connection failed), ignored") +
                  refusal(NO_SERVER) +
                  failure(" executing the central domain restoration cycle failed (connection "
                          "failed), ignored"));
    EXPECT_EQ(pauses, ALL_PAUSES);
}

TEST_F(PatientWalkTest, ConnectionOfTheWalkItselfIsNotWaitedFor) {
    const Connection other = occupy();
    StreamCapture capture;
    EXPECT_THROW(walkMailServerEntities(recorder.callbacks), mError);
    EXPECT_EQ(withoutErrno({capture.out(), capture.err()}), tooManyConnections(1));
    EXPECT_EQ(pauses, Pauses{});
}

}  // namespace
}  // namespace corvo::test
