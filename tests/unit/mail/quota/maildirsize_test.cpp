#include "mail/quota/maildirsize.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>
#include <string_view>

namespace corvo::test {
namespace {

struct Line {
    std::string_view text;
    long long first;
    long long second;
};

struct BadLine {
    std::string_view text;
    int error;
};

constexpr long long UNTOUCHED = -77;

TEST(MaildirsizeHeaderTest, LimitsAreRead) {
    const Line lines[] = {
        {"1000S,0C", 1000, 0},
        {"1000S,25C", 1000, 25},
        {"1000S", 1000, 0},
        {"1000X,5C", 1000, 5},
        {"1000 ,5C", 1000, 5},
        {"0S,0C", 0, 0},
        {"-0S", 0, 0},
        {"+7S,+8C", 7, 8},
        {"+S", 0, 0},
        {" 12S, 3C", 12, 3},
        {"5S,-1C", 5, -1},
        {"9223372036854775807S,9223372036854775807C", LLONG_MAX, LLONG_MAX},
        {"", 0, 0},
        {"   ", 0, 0},
        {"abc", 0, 0},
        {"S,5C", 0, 0},
        {"-", 0, 0},
        {"+-5S", 0, 0},
    };
    for (const Line& line : lines) {
        SCOPED_TRACE(line.text);
        long long bytes = UNTOUCHED;
        long long count = UNTOUCHED;
        EXPECT_EQ(parse_header_string(line.text, &bytes, &count), 1);
        EXPECT_EQ(bytes, line.first);
        EXPECT_EQ(count, line.second);
    }
}

const BadLine BAD_HEADERS[] = {
    {"1000", EINVAL},
    {"1000S,", EINVAL},
    {"1000S,5", EINVAL},
    {"1000X,5", EINVAL},
    {"1000S,5CX", EINVAL},
    {"1000S,C", EINVAL},
    {"1000S,xC", EINVAL},
    {"1000S ", EINVAL},
    {"1000SS,5C", EINVAL},
    {"1000,5C", EINVAL},
    {"1000s", EINVAL},
    {std::string_view("1000S\0", 6), EINVAL},
    {"9223372036854775808S", ERANGE},
    {"-9223372036854775809S", ERANGE},
    {"1S,9223372036854775808C", ERANGE},
};

TEST(MaildirsizeHeaderTest, BadHeadersLeaveBothLimitsAtTheLargestValue) {
    for (const BadLine& line : BAD_HEADERS) {
        SCOPED_TRACE(line.text);
        long long bytes = UNTOUCHED;
        long long count = UNTOUCHED;
        errno = 0;
        EXPECT_EQ(parse_header_string(line.text, &bytes, &count), 0);
        EXPECT_EQ(errno, line.error);
        EXPECT_EQ(bytes, LLONG_MAX);
        EXPECT_EQ(count, LLONG_MAX);
    }
}

TEST(MaildirsizeHeaderTest, NegativeByteLimitIsMalformed) {
    for (const std::string_view text : {"-5S", "-1S,7C"}) {
        SCOPED_TRACE(text);
        long long bytes = UNTOUCHED;
        long long count = UNTOUCHED;
        errno = 0;
        EXPECT_EQ(parse_header_string(text, &bytes, &count), 0);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(bytes, LLONG_MAX);
        EXPECT_EQ(count, LLONG_MAX);
    }
}

TEST(MaildirsizeLineTest, BadHeadersLeaveTheOutputsAlone) {
    for (const BadLine& line : BAD_HEADERS) {
        SCOPED_TRACE(line.text);
        long long first = UNTOUCHED;
        long long second = UNTOUCHED;
        errno = 0;
        EXPECT_EQ(parse_string_common(line.text, &first, &second, 1), 0);
        EXPECT_EQ(errno, line.error);
        EXPECT_EQ(first, UNTOUCHED);
        EXPECT_EQ(second, UNTOUCHED);
    }
}

TEST(MaildirsizeLineTest, NegativeByteLimitIsAMatterOfTheHeaderAlone) {
    long long first = UNTOUCHED;
    long long second = UNTOUCHED;
    EXPECT_EQ(parse_string_common("-5S,3C", &first, &second, 1), 1);
    EXPECT_EQ(first, -5);
    EXPECT_EQ(second, 3);
}

TEST(MaildirsizeLineTest, UsageIsRead) {
    const Line lines[] = {
        {"        1900           3", 1900, 3},
        {"1900 3", 1900, 3},
        {"1900\t3", 1900, 3},
        {"-1900          -3", -1900, -3},
        {"+1 +2", 1, 2},
        {"9223372036854775807 -9223372036854775808", LLONG_MAX, LLONG_MIN},
    };
    for (const Line& line : lines) {
        SCOPED_TRACE(line.text);
        long long first = UNTOUCHED;
        long long second = UNTOUCHED;
        EXPECT_EQ(parse_string_common(line.text, &first, &second, 0), 1);
        EXPECT_EQ(first, line.first);
        EXPECT_EQ(second, line.second);
    }
}

TEST(MaildirsizeLineTest, BadUsageLeavesTheOutputsAlone) {
    const BadLine lines[] = {
        {"", EINVAL},
        {"abc", EINVAL},
        {"1900", EINVAL},
        {"1900 ", EINVAL},
        {"1900,3", EINVAL},
        {"1900x 3", EINVAL},
        {"1900 x", EINVAL},
        {"1900 3 ", EINVAL},
        {"1900 3C", EINVAL},
        {"1900 3\r", EINVAL},
        {"1000S,0C", EINVAL},
        {std::string_view("1 2\0", 4), EINVAL},
        {"9223372036854775808 1", ERANGE},
        {"1 9223372036854775808", ERANGE},
    };
    for (const BadLine& line : lines) {
        SCOPED_TRACE(line.text);
        long long first = UNTOUCHED;
        long long second = UNTOUCHED;
        errno = 0;
        EXPECT_EQ(parse_string_common(line.text, &first, &second, 0), 0);
        EXPECT_EQ(errno, line.error);
        EXPECT_EQ(first, UNTOUCHED);
        EXPECT_EQ(second, UNTOUCHED);
    }
}

TEST(MaildirsizeUsageTest, LinesAreSummed) {
    const Line texts[] = {
        {"", 0, 0},
        {"        1900           3\n", 1900, 3},
        {"1900 3\n100 1\n-500 -2\n", 1500, 2},
        {"-500 -2\n600 3\n", 100, 1},
        {"5 1\n-5 -1\n", 0, 0},
        {"9223372036854775807 1\n1 9223372036854775807\n", LLONG_MAX, LLONG_MAX},
    };
    for (const Line& text : texts) {
        SCOPED_TRACE(text.text);
        long long bytes = UNTOUCHED;
        long long messages = UNTOUCHED;
        EXPECT_EQ(parse_usage_lines(text.text, &bytes, &messages), 1);
        EXPECT_EQ(bytes, text.first);
        EXPECT_EQ(messages, text.second);
    }
}

TEST(MaildirsizeUsageTest, BadTextsLeaveTheOutputsAlone) {
    const BadLine texts[] = {
        {"1900 3", EINVAL},
        {"1900 3\n5 1", EINVAL},
        {"\n", EINVAL},
        {"1900 3\n\n", EINVAL},
        {"1900 3\nabc\n", EINVAL},
        {"100 1\n-101 1\n", EINVAL},
        {"100 1\n100 -2\n", EINVAL},
        {"-9223372036854775808 0\n-1 0\n", EINVAL},
        {"9223372036854775808 1\n", ERANGE},
    };
    for (const BadLine& text : texts) {
        SCOPED_TRACE(text.text);
        long long bytes = UNTOUCHED;
        long long messages = UNTOUCHED;
        errno = 0;
        EXPECT_EQ(parse_usage_lines(text.text, &bytes, &messages), 0);
        EXPECT_EQ(errno, text.error);
        EXPECT_EQ(bytes, UNTOUCHED);
        EXPECT_EQ(messages, UNTOUCHED);
    }
}

TEST(MaildirsizeContentTest, UsageIsAlignedInFieldsOf12Characters) {
    char content[MAILDIRSIZE_CONTENT_MAX];
    const std::size_t length = format_maildirsize(content, 104857600, 0, 1900, 3);
    EXPECT_EQ(std::string(content, length), "104857600S,0C\n        1900           3\n");
}

TEST(MaildirsizeContentTest, TheLongestNumbersFit) {
    char content[MAILDIRSIZE_CONTENT_MAX];
    const std::size_t length =
        format_maildirsize(content, LONG_MIN, LLONG_MIN, LONG_MIN, LLONG_MIN);
    EXPECT_EQ(std::string(content, length),
              "-9223372036854775808S,-9223372036854775808C\n"
              "-9223372036854775808-9223372036854775808\n");
}

}  // namespace
}  // namespace corvo::test
