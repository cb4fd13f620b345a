#include "mail/delivery/delivery_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace corvo::mail::test {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Lines someOf(const Lines& choice, std::mt19937_64& random) {
    Lines lines;
    for (std::size_t left = random() % 8; left > 0; --left)
        lines.push_back(choice[random() % choice.size()]);
    return lines;
}

ForwardLines setOf(const Lines& lines) {
    ForwardLines set;
    for (const std::string_view line : lines)
        set.emplace(line);
    return set;
}

// As a run treats the file of a mail group: the old forwards stay until all are named.
Lines placedOneByOne(Lines lines, const Lines& named, ForwardLines unnamed) {
    for (const std::string_view line : named) {
        unnamed.erase(std::string(line));
        placeForwardAmong(lines, line, unnamed);
    }
    dropForwardsAmong(lines, unnamed);
    return lines;
}

Lines placedTogether(Lines lines, const Lines& named, const ForwardLines& unnamed) {
    dropForwardsAmong(lines, unnamed);
    putLast(lines, named);
    return lines;
}

TEST(DeliveryLinesTest, LastOfEachKeepsTheOrderOfTheLast) {
    EXPECT_THAT(lastOfEach({"a", "b", "a", "c", "b"}), ElementsAre("a", "c", "b"));
    EXPECT_THAT(lastOfEach({}), IsEmpty());
}

TEST(DeliveryLinesTest, PuttingManyLastIsPuttingEachLast) {
    const Lines choice = {"&a", "&b", "&c", "# d", "e"};
    std::mt19937_64 random(1);
    for (int i = 0; i < 500; ++i) {
        Lines lines = someOf(choice, random);
        const Lines moved = someOf(choice, random);
        Lines expected = lines;
        for (const std::string_view line : moved)
            putLast(expected, line);
        putLast(lines, moved);
        EXPECT_EQ(lines, expected);
    }
}

TEST(DeliveryLinesTest, PlacingForwardsTogetherIsPlacingEach) {
    const Lines choice = {"&a", "&b", "&c", "&d", "# e", "./Maildir/"};
    const Lines forwards = {"&a", "&b", "&c", "&d", "&e"};
    std::mt19937_64 random(1);
    for (int i = 0; i < 500; ++i) {
        const std::string_view deliveryLine = i % 2 == 0 ? "./Maildir/" : "&a";
        const Lines old = forwardsAmong(someOf(choice, random), deliveryLine);
        const Lines lines = restoredLines(deliveryLine, old);
        const Lines named = someOf(forwards, random);
        const ForwardLines unnamed = setOf(old);
        EXPECT_EQ(placedTogether(lines, named, unnamed), placedOneByOne(lines, named, unnamed));
    }
}

// Minutes in a time that grows with the square of the lines.
TEST(DeliveryLinesTest, PuttingManyLastTakesNoSquareOfTime) {
    constexpr std::size_t LINES = 150'000;
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < 2 * LINES; ++i)
        texts.push_back("&" + std::to_string(i));
    Lines lines(texts.begin(), texts.begin() + LINES);
    putLast(lines, Lines(texts.begin() + LINES / 2, texts.end()));
    EXPECT_EQ(lines, Lines(texts.begin(), texts.end()));
}

}  // namespace

}  // namespace corvo::mail::test
