#include "utils/numeric.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

namespace corvo::test {
namespace {

TEST(AddSaturatedTest, IsTheSumHeldAtTheEndsOfItsRange) {
    const struct {
        long long a;
        long long b;
        long long sum;
    } cases[] = {
        {2, 3, 5},
        {2, -3, -1},
        {LLONG_MAX - 1, 1, LLONG_MAX},
        {LLONG_MAX, 0, LLONG_MAX},
        {LLONG_MAX, 1, LLONG_MAX},
        {1, LLONG_MAX, LLONG_MAX},
        {LLONG_MAX, LLONG_MAX, LLONG_MAX},
        {LLONG_MIN + 1, -1, LLONG_MIN},
        {LLONG_MIN, 0, LLONG_MIN},
        {LLONG_MIN, -1, LLONG_MIN},
        {-1, LLONG_MIN, LLONG_MIN},
        {LLONG_MIN, LLONG_MIN, LLONG_MIN},
        {LLONG_MIN, LLONG_MAX, -1},
    };
    for (const auto& [a, b, sum] : cases)
        EXPECT_EQ(addSaturated(a, b), sum) << a << " + " << b;
}

TEST(AsciiToNumericTest, ReadsDecimalNumbers) {
    const struct {
        const char* text;
        unsigned int value;
    } cases[] = {
        {"0", 0},
        {"24", 24},
        {"007", 7},
        {"+24", 24},
        {" \t\n\r24", 24},
        {"24 \t\n\r", 24},
        {"+", 0},
        {" + \n", 0},
        {"4294967295", 4294967295U},
        {"4294967290", 4294967290U},
        {"+00004294967295 ", 4294967295U},
    };
    for (const auto& [text, value] : cases) {
        unsigned int read = 99;
        errno = 0;
        EXPECT_TRUE(Util::ASCIIToNumeric(text, read)) << text;
        EXPECT_EQ(read, value) << text;
        EXPECT_EQ(errno, 0) << text;
    }
}

TEST(AsciiToNumericTest, RefusesEverythingElse) {
    for (const char* text : {"", " \t\n\r", "-1", " -0", "a", "24a", "2 4", "+ 5", "++5", "+-5",
                             "5+", "0x10", "1.0", "\v5", "5\f"}) {
        unsigned int value = 99;
        errno = 0;
        EXPECT_FALSE(Util::ASCIIToNumeric(text, value)) << text;
        EXPECT_EQ(value, 99U) << text;
        EXPECT_EQ(errno, 0) << text;
    }
}

TEST(AsciiToNumericTest, RefusesNumbersThatDoNotFitWithErange) {
    for (const char* text : {"4294967296", "4294967300", "42949672950", "99999999999999999999"}) {
        unsigned int value = 99;
        errno = 0;
        EXPECT_FALSE(Util::ASCIIToNumeric(text, value)) << text;
        EXPECT_EQ(value, 99U) << text;
        EXPECT_EQ(errno, ERANGE) << text;
    }
}

}  // namespace
}  // namespace corvo::test
