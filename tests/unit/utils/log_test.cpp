#include "utils/log.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

namespace corvo::test {
namespace {

void resetLogger() {
    closelog();
    setlogmask(LOG_UPTO(LOG_DEBUG));
    unsetenv("CORVO_LOG_LEVEL");
    unsetenv("CORVO_LOG_TRACE_ID");
    LogLevel = 6;
    LogOpts = 1;
    LogFacility = 16;
    LogLocation = nullptr;
    *LogIdent = *LogTraceId = '\0';
    corvo_log = _corvo_utility_log;
    corvo_logv = _corvo_utility_logv;
}

__attribute__((format(printf, 2, 3))) void logThroughList(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    corvo_logv(priority, format, arguments);
    va_end(arguments);
}

int rememberedPriority = -1;

__attribute__((format(printf, 2, 3))) void rememberPriority(int priority, const char*, ...) {
    rememberedPriority = priority;
}

// As a program's own function may be.
__attribute__((format(printf, 2, 3))) void changeErrno(int, const char*, ...) {
    errno = EIO;
}

class LoggerTest : public ::testing::Test {
protected:
    void TearDown() override { resetLogger(); }

    StreamCapture streams;
};

TEST_F(LoggerTest, StartsAtLevelSixForTheMailFacility) {
    EXPECT_EQ(LogLevel, 6);
    EXPECT_EQ(LogOpts, 1);
    EXPECT_EQ(LogFacility, 16);
    EXPECT_EQ(LogLocation, nullptr);
    EXPECT_STREQ(LogIdent, "");
    EXPECT_STREQ(LogTraceId, "");
    EXPECT_EQ(corvo_log, &_corvo_utility_log);
    EXPECT_EQ(corvo_logv, &_corvo_utility_logv);
}

TEST_F(LoggerTest, PrintsOnBothStreamsWithoutInitialisation) {
    corvo_log(3, "x");
    EXPECT_EQ(streams.err(), "x\n");
    EXPECT_EQ(streams.out(), "x\n");
}

TEST_F(LoggerTest, DoesNotPrintDebugLinesByDefault) {
    corvo_log(7, "x");
    EXPECT_EQ(streams.err(), "");
    EXPECT_EQ(streams.out(), "");
}

TEST_F(LoggerTest, FormatsArguments) {
    corvo_log(6, "%s has %d", "box", 3);
    EXPECT_EQ(streams.err(), "box has 3\n");
    EXPECT_EQ(streams.out(), "box has 3\n");
}

TEST_F(LoggerTest, TakesAnArgumentList) {
    logThroughList(6, "%s has %d", "box", 3);
    EXPECT_EQ(streams.err(), "box has 3\n");
    EXPECT_EQ(streams.out(), "box has 3\n");
}

TEST_F(LoggerTest, LeavesABlankLineAfterATextThatEndsInANewline) {
    corvo_log(3, "failed\n");
    EXPECT_EQ(streams.err(), "failed\n\n");
    EXPECT_EQ(streams.out(), "failed\n\n");
}

TEST_F(LoggerTest, PrintsPrioritiesUpToItsLevel) {
    for (int level = 0; level <= 7; ++level) {
        corvo_log_set_level(level);
        for (int priority = 0; priority <= 7; ++priority) {
            corvo_log(priority, "x");
            const std::string expected = priority <= level ? "x\n" : "";
            EXPECT_EQ(streams.err(), expected) << level << ' ' << priority;
            EXPECT_EQ(streams.out(), expected) << level << ' ' << priority;
        }
    }
}

TEST_F(LoggerTest, NeverPrintsPriorityTwelve) {
    corvo_log_init("console", 7, LOG_MAIL, 0, nullptr);
    corvo_log(12, "x");
    EXPECT_EQ(streams.err(), "");
    EXPECT_EQ(streams.out(), "");
}

TEST_F(LoggerTest, PrintsWhereTheLocationSays) {
    const struct {
        const char* location;
        const char* err;
        const char* out;
    } cases[] = {
        {"console", "x\n", "x\n"}, {"Console", "x\n", "x\n"}, {"stderr", "x\n", ""},
        {"StdErr", "x\n", ""},     {"file", "", ""},          {"", "", ""},
        {"stdout", "", ""},
    };
    for (const auto& [location, err, out] : cases) {
        corvo_log_init(location, 6, LOG_MAIL, 0, nullptr);
        corvo_log(3, "x");
        EXPECT_EQ(streams.err(), err) << location;
        EXPECT_EQ(streams.out(), out) << location;
    }
}

TEST_F(LoggerTest, KeepsTheLocationPointerAndTheFacility) {
    const char* location = "stderr";
    corvo_log_init(location, 4, LOG_DAEMON, CORVO_LOG_TRACE, "ident");
    EXPECT_EQ(LogLocation, location);
    EXPECT_EQ(LogFacility, LOG_DAEMON);
    EXPECT_EQ(LogLevel, 4);
    EXPECT_EQ(corvo_log_get_opts(), 1);
    EXPECT_STREQ(LogIdent, "");
}

TEST_F(LoggerTest, LeavesErrnoAlone) {
    errno = ENOENT;
    corvo_log(3, "x");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(streams.err(), "x\n");
    EXPECT_EQ(streams.out(), "x\n");
}

TEST_F(LoggerTest, CanBeReplacedByTheProgram) {
    corvo_log = rememberPriority;
    corvo_log(5, "x");
    EXPECT_EQ(rememberedPriority, 5);
}

TEST_F(LoggerTest, LinesOfTheHouseLeaveErrnoAloneWhoeverWritesThem) {
    corvo_log = changeErrno;
    errno = ENOENT;
    Log().line(LOG_ERR, "%s", "x");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LoggerTest, LinesOfTheHouseGoWhereCorvoLogPoints) {
    corvo_log = rememberPriority;
    Log().line(LOG_NOTICE, "x");
    EXPECT_EQ(rememberedPriority, LOG_NOTICE);
}

TEST_F(LoggerTest, IsRaisedButNeverLoweredByTheEnvironment) {
    const struct {
        const char* variable;
        int level;
        int result;
    } cases[] = {
        {"7", 3 | 8, 7},  {"7", 3, 3},      {"4", 3 | 8, 4},  {"3", 3 | 8, 3},  {"2", 3 | 8, 3},
        {"0", 0 | 8, 0},  {"9", 3 | 8, 3},  {"8", 3 | 8, 3},  {"12", 3 | 8, 3}, {"", 3 | 8, 3},
        {" 5", 3 | 8, 3}, {"5 ", 3 | 8, 3}, {"-1", 3 | 8, 3}, {"a", 3 | 8, 3},  {"/", 3 | 8, 3},
        {"6", 8, 6},      {"7", 16 | 5, 5}, {"7", 24 | 5, 7},
    };
    for (const auto& [variable, level, result] : cases) {
        setenv("CORVO_LOG_LEVEL", variable, 1);
        corvo_log_set_level(level);
        EXPECT_EQ(LogLevel, result) << '"' << variable << "\" " << level;
    }
    unsetenv("CORVO_LOG_LEVEL");
    corvo_log_set_level(3 | 8);
    EXPECT_EQ(LogLevel, 3);
}

TEST_F(LoggerTest, IsRaisedByTheEnvironmentAtInitialisation) {
    setenv("CORVO_LOG_LEVEL", "7", 1);
    corvo_log_init("stderr", 3 | CORVO_LOG_ENV_LEVEL, LOG_MAIL, 0, nullptr);
    corvo_log(7, "x");
    EXPECT_EQ(streams.err(), "x\n");
}

TEST_F(LoggerTest, LeavesTheMaskOfSyslogAloneWhenItHasALocation) {
    corvo_log_init("stderr", 3, LOG_MAIL, 0, nullptr);
    EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_DEBUG));
    LogLocation = nullptr;
    corvo_log_set_level(3);
    EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_ERR));
}

// Listens where syslog sends: on the socket /dev/log, in a /dev of the test's own.
class SyslogSocket {
public:
    SyslogSocket() {
        check(mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755"));
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{AF_UNIX, "/dev/log"};
        check(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address));
    }
    ~SyslogSocket() {
        close(socket_);
        umount2("/dev", MNT_DETACH);
    }
    SyslogSocket(const SyslogSocket&) = delete;
    SyslogSocket& operator=(const SyslogSocket&) = delete;

    // The next message without its time stamp: "<19>ident[4711]: text". Empty if none came.
    std::string next() {
        char datagram[65536];
        const ssize_t length = recv(socket_, datagram, sizeof datagram, 0);
        std::string message(datagram, length > 0 ? static_cast<std::size_t>(length) : 0);
        return message.erase(std::min(message.find('>') + 1, message.size()),
                             std::string("Mmm dd hh:mm:ss ").size());
    }

private:
    static void check(int result) {
        if (result != 0)
            throw std::runtime_error("cannot listen on /dev/log");
    }

    int socket_ = -1;
};

class SyslogTest : public LoggerTest {
protected:
    std::string from(const std::string& ident, pid_t pid = getpid()) {
        return ident + "[" + std::to_string(pid) + "]: ";
    }

    SyslogSocket socket;
};

TEST_F(SyslogTest, SendsPriorityFacilityIdentPidAndText) {
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    corvo_log(3, "no %s", "box");
    EXPECT_EQ(socket.next(), "<19>" + from("courier") + "no box");
    EXPECT_EQ(socket.next(), "");
}

TEST_F(SyslogTest, TakesAnArgumentList) {
    corvo_log_init(nullptr, 6, LOG_DAEMON, 0, "courier");
    logThroughList(6, "%d of %d", 1, 2);
    EXPECT_EQ(socket.next(), "<30>" + from("courier") + "1 of 2");
}

TEST_F(SyslogTest, SendsAPriorityThatNamesAFacilityToThatFacility) {
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    corvo_log(12, "x");
    EXPECT_EQ(socket.next(), "<12>" + from("courier") + "x");
}

TEST_F(SyslogTest, IsCalledByTheProgramsShortNameWithoutAnIdent) {
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, nullptr);
    corvo_log(3, "x");
    EXPECT_EQ(socket.next(), "<19>" + from(program_invocation_short_name) + "x");
}

TEST_F(SyslogTest, CutsTheIdentAt63Characters) {
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, std::string(100, 'i').c_str());
    EXPECT_EQ(LogIdent, std::string(63, 'i'));
}

TEST_F(SyslogTest, CanBeOpenedAgainUnderItsOwnIdent) {
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    corvo_log_init(nullptr, 6, LOG_DAEMON, 0, LogIdent);
    corvo_log(3, "x");
    EXPECT_EQ(socket.next(), "<27>" + from("courier") + "x");
}

TEST_F(SyslogTest, ReceivesPrioritiesUpToTheLevel) {
    corvo_log_init(nullptr, 3, LOG_MAIL, 0, "courier");
    corvo_log(4, "hidden");
    EXPECT_EQ(socket.next(), "");
    corvo_log_set_level(7);
    corvo_log(7, "shown");
    EXPECT_EQ(socket.next(), "<23>" + from("courier") + "shown");
}

TEST_F(SyslogTest, BuildsItsMaskFromTheLevelThatTheEnvironmentRaised) {
    setenv("CORVO_LOG_LEVEL", "5", 1);
    corvo_log_init(nullptr, 3 | CORVO_LOG_ENV_LEVEL, LOG_MAIL, 0, "courier");
    EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_NOTICE));
}

TEST_F(SyslogTest, AlwaysHasThePidOption) {
    corvo_log_init(nullptr, 6, LOG_MAIL, LOG_CONS | LOG_NDELAY, "courier");
    EXPECT_EQ(corvo_log_get_opts(), LOG_CONS | LOG_NDELAY | LOG_PID);
}

TEST_F(SyslogTest, CopiesToStandardErrorWhenAsked) {
    corvo_log_init(nullptr, 6, LOG_MAIL, LOG_PERROR, "courier");
    corvo_log(3, "x");
    EXPECT_EQ(streams.err(), from("courier") + "x\n");
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(socket.next(), "<19>" + from("courier") + "x");
}

TEST_F(SyslogTest, PutsAnInheritedTraceIdBeforeTheText) {
    setenv("CORVO_LOG_TRACE_ID", "P17", 1);
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    corvo_log(3, "no %s", "box");
    EXPECT_EQ(socket.next(), "<19>" + from("courier") + "P17: no box");
}

TEST_F(SyslogTest, CutsAnInheritedTraceIdAt63Characters) {
    setenv("CORVO_LOG_TRACE_ID", std::string(100, 't').c_str(), 1);
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    EXPECT_EQ(LogTraceId, std::string(63, 't'));
}

TEST_F(SyslogTest, MakesATraceIdOfInitialAndPid) {
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    const std::string id = "U" + std::to_string(getpid());
    EXPECT_EQ(LogTraceId, id);
    EXPECT_EQ(getenv("CORVO_LOG_TRACE_ID"), id);
}

TEST_F(SyslogTest, ReplacesAnEmptyTraceIdInTheEnvironment) {
    setenv("CORVO_LOG_TRACE_ID", "", 1);
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    EXPECT_EQ(getenv("CORVO_LOG_TRACE_ID"), "U" + std::to_string(getpid()));
}

TEST_F(SyslogTest, ShowsChildProcessesUnderTheIdOfTheirParent) {
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "parent");
    const std::string id = LogTraceId;
    runForked([] {
        corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "child");
        corvo_log(3, "%ld", static_cast<long>(getpid()));
    });
    const std::string message = socket.next();
    const auto child = static_cast<pid_t>(std::stol(message.substr(message.rfind(' '))));
    EXPECT_EQ(message, "<19>" + from("child", child) + id + ": " + std::to_string(child));
}

TEST_F(SyslogTest, LeavesTheTraceIdOutWithoutTheOption) {
    setenv("CORVO_LOG_TRACE_ID", "P17", 1);
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    corvo_log(3, "x");
    EXPECT_EQ(socket.next(), "<19>" + from("courier") + "x");
}

TEST_F(SyslogTest, LeavesAnEmptyTraceIdOut) {
    setenv("CORVO_LOG_TRACE_ID", "P17", 1);
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    *LogTraceId = '\0';
    corvo_log(3, "x");
    EXPECT_EQ(socket.next(), "<19>" + from("courier") + "x");
}

TEST_F(SyslogTest, CutsTracedMessagesAt8192Bytes) {
    setenv("CORVO_LOG_TRACE_ID", "P17", 1);
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    corvo_log(3, "%s", std::string(10000, 'x').c_str());
    const std::string prefix = "P17: ";
    EXPECT_EQ(socket.next(),
              "<19>" + from("courier") + prefix + std::string(8191 - prefix.size(), 'x'));
}

TEST_F(SyslogTest, SendsUntracedMessagesWhole) {
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    corvo_log(3, "%s", std::string(10000, 'x').c_str());
    EXPECT_EQ(socket.next(), "<19>" + from("courier") + std::string(10000, 'x'));
}

TEST_F(SyslogTest, LeavesErrnoAlone) {
    corvo_log_init(nullptr, 6, LOG_MAIL, CORVO_LOG_TRACE, "courier");
    errno = ENOENT;
    corvo_log(3, "x");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SyslogTest, ReceivesEverythingAfterAChangeFromTheStreams) {
    corvo_log_init("console", 6, LOG_MAIL, 0, nullptr);
    corvo_log_init(nullptr, 3, LOG_MAIL, 0, "courier");
    EXPECT_EQ(LogLocation, nullptr);
    EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_ERR));
    corvo_log(3, "x");
    EXPECT_EQ(socket.next(), "<19>" + from("courier") + "x");
}

TEST_F(SyslogTest, IsClosedBeforeItIsOpenedAgain) {
    const int before = openDescriptors();
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    corvo_log(3, "x");
    ASSERT_EQ(openDescriptors(), before + 1);
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    EXPECT_EQ(openDescriptors(), before) << "connected again by the next message";
}

TEST_F(SyslogTest, ReceivesNothingAfterAChangeToTheStreams) {
    corvo_log_init(nullptr, 6, LOG_MAIL, 0, "courier");
    corvo_log_init("console", 6, LOG_MAIL, 0, nullptr);
    corvo_log(3, "x");
    EXPECT_EQ(socket.next(), "");
    EXPECT_EQ(streams.err(), "x\n");
    EXPECT_EQ(streams.out(), "x\n");
}

}  // namespace
}  // namespace corvo::test
