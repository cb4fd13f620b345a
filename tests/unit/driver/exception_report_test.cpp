#include "driver/exception_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "lib/db++/error.h"
#include "tests/support/capture.h"
#include "utils/traceback.h"

namespace corvo::test {
namespace {

using ::testing::StartsWith;

void report(const std::exception& e) {
    reportException<std::exception>(e);
}

TEST(ReportExceptionTest, NamesTheDynamicTypeOnBothStreams) {
    StreamCapture streams;
    report(std::runtime_error("Restore check-quota mail handler"));
    EXPECT_EQ(streams.err(), "Fatal error: std::runtime_error(Restore check-quota mail handler)\n");
    EXPECT_EQ(streams.out(), "Fatal error: std::runtime_error(Restore check-quota mail handler)\n");
}

TEST(ReportExceptionTest, NamesTypesOfOurOwn) {
    StreamCapture streams;
    report(mysql::mError("connection failed"));
    EXPECT_EQ(streams.err(), "Fatal error: corvo::mysql::mError(connection failed)\n");
    EXPECT_EQ(streams.out(), "Fatal error: corvo::mysql::mError(connection failed)\n");
}

// GCC marks the name of a type that only one unit can know with a leading "*".
TEST(ReportExceptionTest, LeavesOutTheMarkOfALocalType) {
    struct Local : std::exception {
        const char* what() const noexcept override { return "here"; }
    };
    StreamCapture streams;
    report(Local());
    const std::string text = streams.err();
    EXPECT_THAT(text, StartsWith("Fatal error: corvo::"));
    EXPECT_THAT(text, ::testing::EndsWith("::Local(here)\n"));
    EXPECT_EQ(streams.out(), text);
}

TEST(ReportExceptionTest, AddsTheTracebackThatAnExceptionCarries) {
    struct Traced : std::runtime_error, Traceback {
        Traced() : std::runtime_error("deep") {}
    };
    StreamCapture streams;
    report(Traced());
    const std::string text = streams.err();
    EXPECT_THAT(text, ::testing::HasSubstr("(deep)\nTraceback:\n\t"));
    EXPECT_EQ(streams.out(), text);
}

TEST(ReportUntypedExceptionTest, WritesItsOneLine) {
    StreamCapture streams;
    reportUntypedException();
    EXPECT_EQ(streams.err(), "UNSPECIFIED ERROR OCCURED\n");
    EXPECT_EQ(streams.out(), "UNSPECIFIED ERROR OCCURED\n");
}

}  // namespace
}  // namespace corvo::test
