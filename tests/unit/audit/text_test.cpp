#include "audit/text.h"

#include <gtest/gtest.h>

#include <string>

namespace corvo::audit {
namespace {

using namespace std::string_literals;

TEST(PrintableTest, OrdinaryTextStays) {
    EXPECT_EQ(printable(""), "");
    EXPECT_EQ(printable("info@example.com ~ \"x\""), "info@example.com ~ \"x\"");
    EXPECT_EQ(printable("bücher, 書, 📚, \u00a0"), "bücher, 書, 📚, \u00a0");
}

TEST(PrintableTest, BackslashIsDoubledSoThatNoTextLooksEscaped) {
    EXPECT_EQ(printable("a\\x1b"), "a\\\\x1b");
}

TEST(PrintableTest, ControlCharactersAreEscaped) {
    EXPECT_EQ(printable("a\x1b[31m\r\n\tb\x7f\0c"s), "a\\x1b[31m\\x0d\\x0a\\x09b\\x7f\\x00c");
    EXPECT_EQ(printable("\u0080\u009b\u009f"), "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f");
}

TEST(PrintableTest, CharactersThatTurnTheDirectionOfWritingAreEscaped) {
    EXPECT_EQ(printable("a\u202egpj.exe"), "a\\xe2\\x80\\xaegpj.exe");
    EXPECT_EQ(printable("\u061c\u200e\u2028\u2066\u2069"),
              "\\xd8\\x9c\\xe2\\x80\\x8e\\xe2\\x80\\xa8\\xe2\\x81\\xa6\\xe2\\x81\\xa9");
    EXPECT_EQ(printable("\u2027\u202f\u2065\u206a"), "\u2027\u202f\u2065\u206a");
}

struct NoUtf8 {
    const char* what;
    std::string bytes;
    std::string escaped;
};

void PrintTo(const NoUtf8& text, std::ostream* stream) {
    *stream << text.what;
}

class NoUtf8Test : public ::testing::TestWithParam<NoUtf8> {};

TEST_P(NoUtf8Test, IsEscapedByteByByte) {
    EXPECT_EQ(validUtf8("<" + GetParam().bytes + ">"), "<" + GetParam().escaped + ">");
    EXPECT_EQ(printable("<" + GetParam().bytes + ">"), "<" + GetParam().escaped + ">");
}

INSTANTIATE_TEST_SUITE_P(
    All, NoUtf8Test,
    ::testing::Values(NoUtf8{"LatinOne", "\xfc", "\\xfc"}, NoUtf8{"NeverAByte", "\xff", "\\xff"},
                      NoUtf8{"ContinuationAlone", "\x80", "\\x80"},
                      NoUtf8{"CutShort", "\xe6\x9b", "\\xe6\\x9b"},
                      NoUtf8{"OverlongOfTwo", "\xc0\xaf", "\\xc0\\xaf"},
                      NoUtf8{"OverlongOfThree", "\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
                      NoUtf8{"OverlongOfFour", "\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},
                      NoUtf8{"HalfOfPair", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
                      NoUtf8{"BeyondTheLast", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}),
    [](const auto& entry) { return entry.param.what; });

TEST(ValidUtf8Test, TextCutInTheMiddleOfItsLastCharacterIsEscaped) {
    EXPECT_EQ(validUtf8("a\xc3"), "a\\xc3");
}

TEST(ValidUtf8Test, EverythingElseStays) {
    EXPECT_EQ(validUtf8("a\\b\x1b\0\u202eü\U0010ffff"s), "a\\b\x1b\0\u202eü\U0010ffff"s);
}

TEST(PrintableJsonTest, OnlyWhatDrivesTerminalsIsEscaped) {
    EXPECT_EQ(printableJson("{\"a\\u001b\": \"ü\x7f\u009b\u202e\"}"),
              "{\"a\\u001b\": \"ü\\u007f\\u009b\\u202e\"}");
    EXPECT_EQ(printableJson("[\n\t1]"), "[\n\t1]");
}

TEST(NumbersTest, AreGroupedByThousands) {
    EXPECT_EQ(withSeparators(0), "0");
    EXPECT_EQ(withSeparators(999), "999");
    EXPECT_EQ(withSeparators(1204), "1,204");
    EXPECT_EQ(withSeparators(1234567890), "1,234,567,890");
}

TEST(NumbersTest, OneOfAThingIsNamedOtherwiseThanMany) {
    EXPECT_EQ(counted(0, "mailbox", "mailboxes"), "0 mailboxes");
    EXPECT_EQ(counted(1, "mailbox", "mailboxes"), "1 mailbox");
    EXPECT_EQ(counted(1204, "mailbox", "mailboxes"), "1,204 mailboxes");
}

}  // namespace
}  // namespace corvo::audit
