#include "utils/messlog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <string>

#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"

namespace corvo::test {
namespace {

__attribute__((format(printf, 2, 3))) int logThroughList(int status, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vmesslog2(status, 0, format, arguments);
    va_end(arguments);
    return result;
}

class MessageLogTest : public LoggingTest {
protected:
    MessageLogTest() { errno = 0; }
    void TearDown() override { PROGNAME = nullptr; }
};

TEST_F(MessageLogTest, WritesALineToBothStreams) {
    EXPECT_EQ(ex_messlog("no box", 0, 0), 0);
    EXPECT_EQ(message(), "no box\n");
}

TEST_F(MessageLogTest, DoesNotDoubleANewline) {
    ex_messlog("no box\n", 0, 0);
    EXPECT_EQ(message(), "no box\n");
}

TEST_F(MessageLogTest, EndsAnEmptyTextWithANewline) {
    ex_messlog("", 0, 0);
    EXPECT_EQ(message(), "\n");
}

TEST_F(MessageLogTest, OpensWithTheBaseNameOfTheProgram) {
    for (const char* path : {"/usr/sbin/courier", "./courier", "courier"}) {
        std::string name = path;
        PROGNAME = name.data();
        ex_messlog("no box", 0, 0);
        EXPECT_EQ(message(), "courier: no box\n");
    }
}

TEST_F(MessageLogTest, DoesNotUseItsFlag) {
    EXPECT_EQ(ex_messlog("no box", 0, 1), 0);
    EXPECT_EQ(message(), "no box\n");
}

TEST_F(MessageLogTest, EndsTheProcessWithItsStatus) {
    const ProcessResult result = runForked([] { ex_messlog("the end", 3, 0); });
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err, "the end\n");
    EXPECT_EQ(result.out, "the end\n");
}

TEST_F(MessageLogTest, AddsTheTextOfErrnoOnALineOfItsOwn) {
    errno = 2;
    EXPECT_EQ(messlog2(0, 0, "cannot open %s", "f"), 0);
    EXPECT_EQ(message(), "cannot open f\nSystem error 2: No such file or directory\n");
}

TEST_F(MessageLogTest, PutsTheTextOfErrnoDirectlyAfterAMessageThatEndsInANewline) {
    errno = 13;
    messlog2(0, 0, "cannot open %s\n", "f");
    EXPECT_EQ(message(), "cannot open f\n\nSystem error 13: Permission denied\n");
}

TEST_F(MessageLogTest, AddsNothingWhenErrnoIsZero) {
    messlog2(0, 0, "cannot open %s", "f");
    EXPECT_EQ(message(), "cannot open f\n");
}

TEST_F(MessageLogTest, TakesAnArgumentList) {
    PROGNAME = const_cast<char*>("/bin/courier");
    errno = 2;
    EXPECT_EQ(logThroughList(0, "%s: %d", "f", 7), 0);
    EXPECT_EQ(message(), "courier: f: 7\nSystem error 2: No such file or directory\n");
}

TEST_F(MessageLogTest, KeepsErrno) {
    errno = ENOENT;
    ex_messlog("x", 0, 0);
    EXPECT_EQ(errno, ENOENT);
    messlog2(0, 0, "x");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), "x\nx\nSystem error 2: No such file or directory\n");
}

TEST_F(MessageLogTest, KeepsErrnoWhenNothingCanBeWritten) {
    const ProcessResult result = runForked([] {
        const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
        ::dup2(full, STDOUT_FILENO);
        ::dup2(full, STDERR_FILENO);
        errno = ENOENT;
        ex_messlog("x", 0, 0);
        ::_exit(errno);
    });
    EXPECT_EQ(result.status, ENOENT);
}

TEST_F(MessageLogTest, PrintsMessagesOfAnyLength) {
    for (const std::size_t length : {4094U, 4095U, 4096U, 4097U, 100000U}) {
        const std::string text(length, 'x');
        errno = 0;
        messlog2(0, 0, "%s", text.c_str());
        EXPECT_EQ(message(), text + "\n");
    }
}

TEST_F(MessageLogTest, AddsTheTextOfErrnoToMessagesOfAnyLength) {
    const std::string suffix = "\nSystem error 2: No such file or directory";
    for (const std::size_t length :
         {4095 - suffix.size(), 4096 - suffix.size(), 4090UL, 4095UL, 4096UL, 100000UL}) {
        const std::string text(length, 'x');
        errno = 2;
        messlog2(0, 0, "%s", text.c_str());
        EXPECT_EQ(message(), text + suffix + "\n");
    }
}

TEST_F(MessageLogTest, ReportsAFatalErrorWithAStatus) {
    const ProcessResult result = runForked([] {
        errno = 2;
        messlog2(1, 1, "cannot open %s", "f");
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "cannot open f\nSystem error 2: No such file or directory\n");
    EXPECT_EQ(result.out, result.err);
}

class MessageLogWithoutMemoryTest : public WithoutMemoryTest {};

TEST_F(MessageLogWithoutMemoryTest, SaysSo) {
    const ProcessResult result = runForked([] {
        exhaustMemory();
        messlog2(4, 0, "cannot open %s", "f");
    });
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.err, "Can't allocate memory for error message\n");
    EXPECT_EQ(result.out, result.err);
}

TEST_F(MessageLogWithoutMemoryTest, CutsALongMessageAt4095Characters) {
    const std::string text(5000, 'x');
    const ProcessResult result = runForked([&] {
        exhaustMemory(4096);
        errno = 0;
        messlog2(0, 0, "%s", text.c_str());
    });
    EXPECT_EQ(result.err, text.substr(0, 4095) + "\n");
    EXPECT_EQ(result.out, result.err);
}

TEST_F(MessageLogWithoutMemoryTest, LeavesOutTheTextOfErrnoThatDoesNotFit) {
    const std::string text(4080, 'x');
    const ProcessResult result = runForked([&] {
        exhaustMemory(4096);
        errno = 2;
        messlog2(0, 0, "%s", text.c_str());
    });
    EXPECT_EQ(result.err, text + "\n");
    EXPECT_EQ(result.out, result.err);
}

}  // namespace
}  // namespace corvo::test
