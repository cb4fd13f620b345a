#include "tests/support/logging.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "tests/support/memory.h"
#include "utils/log.h"
#include "utils/messlog.h"

namespace corvo::test {
namespace {

class LoggingKitTest : public LoggingTest {};

TEST_F(LoggingKitTest, LoggedLinesAreKnownByTextAndPriority) {
    corvo_log(3, "unable to open %s", "it");
    corvo_log(4, "removed");
    expectLogged({"unable to open it", {"removed", 4}});
    expectLogged({});
}

TEST_F(LoggingKitTest, LineOfAnotherPriorityFails) {
    corvo_log(4, "removed");
    EXPECT_NONFATAL_FAILURE(expectLogged({"removed"}), "4 removed");
}

TEST_F(LoggingKitTest, LineOfAnotherTextFails) {
    errno = 0;
    messlog2(0, 0, "removed");
    EXPECT_NONFATAL_FAILURE(expectLogged({{"kept", LoggedLine::UNLOGGED}}), "removed");
}

TEST_F(LoggingKitTest, LinePastTheLoggerIsNotTakenForALoggedOne) {
    errno = 0;
    messlog2(0, 0, "unable");
    EXPECT_NONFATAL_FAILURE(expectLogged({"unable"}), "3 unable");
    messlog2(0, 0, "unable");
    expectLogged({{"unable", LoggedLine::UNLOGGED}});
}

TEST_F(LoggingKitTest, LoggedLineIsNotTakenForOnePastTheLogger) {
    corvo_log(3, "unable");
    EXPECT_NONFATAL_FAILURE(expectLogged({{"unable", LoggedLine::UNLOGGED}}), "3 unable");
}

TEST_F(LoggingKitTest, LineThatTheLevelHoldsBackIsNotedAllTheSame) {
    corvo_log(7, "detail");
    EXPECT_EQ(LogRecorder::all(), LoggedLines({{"detail", 7}}));
    corvo_log(7, "detail");
    EXPECT_EQ(LogRecorder::printed(), LoggedLines());
}

TEST_F(LoggingKitTest, MessageIsWhatBothStreamsSay) {
    (void)std::fputs("a", stdout);
    (void)std::fputs("b", stderr);
    EXPECT_NONFATAL_FAILURE((void)message(), "standard output is not what standard error is");
}

TEST_F(LoggingKitTest, MoreLinesThanCanBeNotedFail) {
    const std::string text(100000, 'x');
    for (int i = 0; i < 11; ++i)
        corvo_log(7, "%s", text.c_str());
    EXPECT_NONFATAL_FAILURE((void)LogRecorder::all(), "more was logged than can be noted");
    EXPECT_EQ(LogRecorder::all(), LoggedLines());
}

TEST_F(LoggingKitTest, LinesOfAChildAreKnown) {
    expectChildLogs({{"removed", 4}}, [] { corvo_log(4, "removed"); });
    EXPECT_NONFATAL_FAILURE(expectChildLogs({"removed"}, [] { corvo_log(4, "removed"); }),
                            "4 removed");
}

TEST_F(LoggingKitTest, ChildNeedsNoMemoryForItsLines) {
    requireExhaustibleMemory();
    expectChildLogs({"unable"}, [] {
        exhaustMemory();
        corvo_log(3, "un%s", "able");
    });
}

}  // namespace
}  // namespace corvo::test
