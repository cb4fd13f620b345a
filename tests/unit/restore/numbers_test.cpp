#include "restore/numbers.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/capture.h"

namespace {

using namespace corvo::test;
using corvo::mail::restore::numberOrWarn;

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
        EXPECT_EQ(numberOrWarn<long long>(text, "invalid '", "'"), number);
    }
}

TEST(NumbersTest, AnyOtherTextIsAWarningOnBothStreams) {
    for (const std::string text :
         {"", " 1", "1 ", "1k", "--1", "+", "0x1", "1.5", "9223372036854775808"}) {
        SCOPED_TRACE(text);
        StreamCapture capture;
        EXPECT_EQ(numberOrWarn<long long>(text, "invalid '", "'"), std::nullopt);
        EXPECT_EQ(capture.err(), "invalid '" + text + "'\n");
        EXPECT_EQ(capture.out(), "invalid '" + text + "'\n");
    }
}

TEST(NumbersTest, RangeIsThatOfTheType) {
    EXPECT_EQ(numberOrWarn<short>("32767", "", ""), 32767);
    StreamCapture capture;
    EXPECT_EQ(numberOrWarn<short>("32768", "<", ">"), std::nullopt);
    EXPECT_EQ(capture.err(), "<32768>\n");
    EXPECT_EQ(capture.out(), "<32768>\n");
}

}  // namespace
