#include "tests/faults/judge/vocabulary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <vector>

#include "tests/faults/judge/tree_comparison.h"

namespace corvo::faults {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

Entry entryOf(mode_t mode, const std::string& content = "") {
    Entry entry;
    entry.mode = mode;
    entry.content = content;
    return entry;
}

TEST(VocabularyTest, WhatLiesAmongMessagesIsNotAlwaysOne) {
    struct Case {
        const char* path;
        mode_t mode;
        bool liesAmong, isStored, isFile;
    };
    const std::vector<Case> cases = {
        {"a.example/b/Maildir/new/1", S_IFREG, true, true, true},
        {"a.example/b/Maildir/.Sent/cur/1", S_IFLNK, true, true, false},
        {"a.example/b/@attachments/2020", S_IFDIR, true, false, false},
        {"a.example/b/Maildir/new", S_IFDIR, false, false, false},
        {"a.example/b/Maildir/maildirsize", S_IFREG, false, false, false},
    };
    for (const Case& each : cases) {
        const Entry entry = entryOf(each.mode);
        EXPECT_EQ(liesAmongMessages(each.path), each.liesAmong) << each.path;
        EXPECT_EQ(isStoredMessage(each.path, entry), each.isStored) << each.path;
        EXPECT_EQ(isMessageFile(each.path, entry), each.isFile) << each.path;
    }
}

TEST(VocabularyTest, AHomeHasAnAddress) {
    EXPECT_EQ(homeOf("a.example/b/Maildir/new"), "a.example/b");
    EXPECT_EQ(homeOf("a.example/b"), "a.example/b");
    EXPECT_EQ(homeOf("a.example"), "a.example");
    EXPECT_EQ(addressOf("a.example/b"), "b@a.example");
}

TEST(VocabularyTest, OnlyARunThatEndsByItselfEndsWell) {
    for (const int status : {0, 1, 2})
        EXPECT_THAT(judgeEnd({status, "", "", false}), IsEmpty()) << status;
    EXPECT_THAT(judgeEnd({137, "", "", false}, 9), IsEmpty());
    EXPECT_THAT(judgeEnd({137, "", "", false}), ElementsAre(StartsWith("I7 exit status 137, ")));
    EXPECT_THAT(judgeEnd({139, "", "", false}, 9), ElementsAre(StartsWith("I7 exit status 139, ")));
    EXPECT_THAT(judgeEnd({3, "", "", false}), ElementsAre(StartsWith("I7 exit status 3, ")));
    EXPECT_THAT(judgeEnd({0, "", "x", true}), ElementsAre(StartsWith("I7 the run hangs")));
    EXPECT_THAT(judgeEnd({0, "", "terminate called", false}), ElementsAre("I7 <terminate called>"));
}

TEST(TreeComparisonTest, EachKindOfDifferenceHasItsJudge) {
    const Tree before = {{"gone", entryOf(S_IFREG)},
                         {"same", entryOf(S_IFREG)},
                         {"again", entryOf(S_IFREG)},
                         {"later", entryOf(S_IFREG)},
                         {"other", entryOf(S_IFREG, "old")}};
    Tree after = before;
    after.erase("gone");
    after["new"] = entryOf(S_IFREG);
    after.at("again").inode = 7;
    after.at("later").modified = 7;
    after.at("other").content = "now";
    EXPECT_THAT(pathsThat(isDifferent, before, after), ElementsAre("gone", "other", "new"));
    EXPECT_THAT(pathsThat(isChanged, before, after), ElementsAre("gone", "later", "other", "new"));
    EXPECT_FALSE(isUntouched(entryAt(before, "again"), entryAt(after, "again")));
    EXPECT_TRUE(isUntouched(entryAt(before, "same"), entryAt(after, "same")));
    EXPECT_TRUE(isUntouched(entryAt(before, "x"), entryAt(after, "x")));
}

}  // namespace
}  // namespace corvo::faults
