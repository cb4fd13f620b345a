#include "audit/record.h"

#include <gtest/gtest.h>

#include <string>

namespace corvo::audit {
namespace {

TEST(RecordTest, IsAnObjectInItsOrder) {
    const Record record = {{"z", "text"},        {"a", true},
                           {"number", -5LL},     {"count", std::size_t{18446744073709551615U}},
                           {"nothing", Value()}, {"list", std::vector<std::string>{"b", "a"}}};
    EXPECT_EQ(jsonOf(record), R"({"z":"text","a":true,"number":-5,"count":18446744073709551615,)"
                              R"("nothing":null,"list":["b","a"]})");
}

TEST(RecordTest, WithoutFieldsIsAnEmptyObject) {
    EXPECT_EQ(jsonOf(Record()), "{}");
}

TEST(RecordTest, LettersOfAnArrayAreAText) {
    const char* const text = "bounce";
    EXPECT_EQ(jsonOf(Record{{"mode", text}}), R"({"mode":"bounce"})");
}

TEST(RecordTest, TextsAreUtf8ThatDrivesNoTerminal) {
    EXPECT_EQ(jsonOf(Record{{"t", "\x1b\u009b\xff"}, {"l", std::vector<std::string>{"\xc3"}}}),
              R"({"t":"\u001b\u009b\\xff","l":["\\xc3"]})");
    EXPECT_EQ(jsonOf(std::vector<std::string>{"\x7f\u202e"}), R"(["\u007f\u202e"])");
}

TEST(RecordTest, AnEmptyTextIsNothing) {
    EXPECT_EQ(valueUnlessEmpty(""), Value());
    EXPECT_EQ(valueUnlessEmpty("a"), Value("a"));
}

}  // namespace
}  // namespace corvo::audit
