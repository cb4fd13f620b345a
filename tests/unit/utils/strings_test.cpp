#include "utils/strings.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <locale>
#include <string>

#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

struct Case {
    const char* text;
    const char* result;
};

constexpr Case TRIMMED[] = {
    {"", ""},         {" \t\n\v\f\r", ""}, {"a", "a"},  {"  a b\t ", "a b"},
    {"\na\r\n", "a"}, {"a ", "a"},         {" a", "a"}, {"\xc3\xa9 ", "\xc3\xa9"},
};

TEST(StripLineTest, DropsCommentsAndBlanksAtBothEnds) {
    const Case cases[] = {
        {"", ""},
        {"  \t\r\n", ""},
        {"key = value\n", "key = value"},
        {"\t key = value \r\n", "key = value"},
        {"key = value ; why\n", "key = value"},
        {"password = a;b", "password = a"},
        {"; all of it", ""},
        {"   ; all of it", ""},
        {"a;b;c", "a"},
        {"# no comment", "# no comment"},
    };
    for (const auto& [text, result] : cases) {
        std::string line = text;
        EXPECT_EQ(strip_line(line.data()), std::string(result).size()) << text;
        EXPECT_STREQ(line.c_str(), result);
    }
}

TEST(TrimsTest, RemoveBlanksAtBothEnds) {
    for (const auto& [text, result] : TRIMMED) {
        std::string trimmed = text;
        EXPECT_EQ(corvo_trim(trimmed.data()), trimmed.data());
        EXPECT_STREQ(trimmed.c_str(), result);
        std::string stripped = text;
        EXPECT_EQ(strip_str(stripped.data()), std::string(result).size());
        EXPECT_STREQ(stripped.c_str(), result);
    }
}

TEST(TrimsTest, RemoveBlanksAtTheEnd) {
    const Case cases[] = {{"", ""}, {" \n", ""}, {" a b \t\r\n", " a b"}, {"a", "a"}};
    for (const auto& [text, result] : cases) {
        std::string trimmed = text;
        EXPECT_EQ(corvo_rtrim(trimmed.data()), trimmed.data());
        EXPECT_STREQ(trimmed.c_str(), result);
    }
}

TEST(TrimsTest, RemoveASymbolAtTheEnd) {
    const Case cases[] = {{"", ""}, {"///", ""}, {"/a//", "/a"}, {"/a/ ", "/a/ "}, {"a", "a"}};
    for (const auto& [text, result] : cases) {
        std::string trimmed = text;
        EXPECT_EQ(corvo_rtrim_symbol(trimmed.data(), '/'), trimmed.data());
        EXPECT_STREQ(trimmed.c_str(), result);
    }
}

TEST(LowerCaseTest, ChangesAsciiLettersOnly) {
    const Case cases[] = {
        {"", ""}, {"@AZ[`az{09", "@az[`az{09"}, {"InFo", "info"}, {"\xc3\x89", "\xc3\x89"}};
    for (const auto& [text, result] : cases) {
        std::string inPlace = text;
        EXPECT_EQ(strtolower(inPlace.data()), inPlace.data());
        EXPECT_STREQ(inPlace.c_str(), result);
        EXPECT_STREQ(UniqueCString(strtolower_dynamic(text)).get(), result);
        EXPECT_EQ(to_lower(text), result);
    }
}

TEST(LowerCaseTest, KeepsEmbeddedZeroBytes) {
    EXPECT_EQ(to_lower(std::string("A\0B", 3)), std::string("a\0b", 3));
}

struct TurkishLetters : std::ctype<char> {
    char do_tolower(char c) const override { return c == 'I' ? '!' : c; }
};

TEST(LowerCaseTest, FollowsTheGlobalLocaleCharacterByCharacter) {
    const std::locale before = std::locale::global(std::locale(std::locale(), new TurkishLetters));
    const std::string lower = to_lower("IA");
    std::locale::global(before);
    EXPECT_EQ(lower, "!A");
}

TEST(LowerCaseTest, ReportsThatACopyFoundNoMemory) {
    requireExhaustibleMemory();
    const std::string text(5000, 'A');
    const ProcessResult result = runForked([&] {
        exhaustMemory(4608);  // for the messages, not for the copy
        if (strtolower_dynamic(text.c_str()) != nullptr || errno != ENOMEM)
            _exit(1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
              "System error: Cannot allocate memory\n\nSystem error 12: Cannot allocate memory\n");
    EXPECT_EQ(result.out, result.err);
}

}  // namespace
}  // namespace corvo::test
