#include "restore/numbers.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/capture.h"

namespace corvo::test {
namespace {

using corvo::mail::restore::numberOrWarn;
using corvo::mail::restore::Quoted;

TEST(NumbersTest, WholeNumbersWithASignAtMostAreTaken) {
    const struct {
        const char* text;
        long long number;
    } cases[] = {{"0", 0},
                 {"+7", 7},
                 {"-1", -1},
                 {"007", 7},
                 {"9223372036854775807", std::numeric_limits<long long>::max()},
                 {"-9223372036854775808", std::numeric_limits<long long>::min()}};
    const StreamCapture nothingPrinted;
    for (const auto& [text, number] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(numberOrWarn<long long>(text, "number"), number);
    }
}

TEST(NumbersTest, AnyOtherTextIsAWarningOnBothStreams) {
    for (const std::string text :
         {"", " 1", "1 ", "1k", "--1", "+", "0x1", "1.5", "9223372036854775808"}) {
        SCOPED_TRACE(text);
        StreamCapture capture;
        EXPECT_EQ(numberOrWarn<long long>(text, "number"), std::nullopt);
        const std::string line =
            "Warning: invalid number '" + text + "' stored in Corvo DB, ignored\n";
        EXPECT_EQ(capture.err(), line);
        EXPECT_EQ(capture.out(), line);
    }
}

TEST(NumbersTest, RangeIsThatOfTheType) {
    EXPECT_EQ(numberOrWarn<short>("32767", "number"), 32767);
    StreamCapture capture;
    EXPECT_EQ(numberOrWarn<short>("32768", "number", Quoted::no), std::nullopt);
    EXPECT_EQ(capture.err(), "Warning: invalid number 32768 stored in Corvo DB, ignored\n");
    EXPECT_EQ(capture.out(), "Warning: invalid number 32768 stored in Corvo DB, ignored\n");
}

}  // namespace
}  // namespace corvo::test
