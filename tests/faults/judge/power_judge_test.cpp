#include "tests/faults/judge/power_judge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

namespace corvo::faults {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

const std::string QMAIL = "a.example/info/.qmail";
const std::string NEW_QMAIL = "a.example/new/.qmail";
const std::string SIZE_FILE = "a.example/info/Maildir/maildirsize";
const std::string MESSAGE = "a.example/info/Maildir/new/1";

Entry fileWith(const std::string& content) {
    Entry entry;
    entry.mode = S_IFREG | 0600;
    entry.content = content;
    return entry;
}

Golden goldenRun() {
    Golden golden;
    golden.before.storage = {{QMAIL, fileWith("&old@x.example\n")},
                             {SIZE_FILE, fileWith("1S,0C\n")},
                             {MESSAGE, fileWith("kept")}};
    golden.before.quotaRows = "a.example|info|1B\n";
    golden.after = golden.before;
    golden.after.storage.at(QMAIL) = fileWith("| true\n./Maildir/\n");
    golden.after.storage.at(SIZE_FILE) = fileWith("2S,0C\n           4           1\n");
    golden.after.storage[NEW_QMAIL] = fileWith("| true\n");
    golden.after.quotaRows = "a.example|info|2B\n";
    return golden;
}

struct Loss {
    const char* what;
    std::function<void(CutImage&)> make;
    std::size_t violations;
};

class PowerJudgeTest : public ::testing::Test {
protected:
    Golden golden = goldenRun();
};

TEST_F(PowerJudgeTest, OldAndNewAreBothWell) {
    EXPECT_THAT(judgeCut(golden, {}, {golden.before, ""}), IsEmpty());
    EXPECT_THAT(judgeCut(golden, {}, {golden.after, ""}), IsEmpty());
    EXPECT_THAT(judgeCutAfterEnd(golden, {golden.after, ""}), IsEmpty());
}

TEST_F(PowerJudgeTest, WhatIsNeitherOldNorNewIsFound) {
    const std::vector<Loss> losses = {
        {"empty", [](CutImage& i) { i.found.storage.at(QMAIL).content = ""; }, 1},
        {"zeros",
         [](CutImage& i) {
             i.found.storage.at(QMAIL).content = "| true\n" + std::string(11, '\0');
         },
         1},
        {"half a line", [](CutImage& i) { i.found.storage.at(QMAIL).content = "| true\n./Ma"; }, 1},
        {"gone", [](CutImage& i) { i.found.storage.erase(QMAIL); }, 1},
        {"a new one that is empty", [](CutImage& i) { i.found.storage[NEW_QMAIL].content = ""; },
         1},
        {"half a size", [](CutImage& i) { i.found.storage.at(SIZE_FILE).content = "2S,"; }, 1},
        {"no size", [](CutImage& i) { i.found.storage.erase(SIZE_FILE); }, 1},
        {"a message", [](CutImage& i) { i.found.storage.at(MESSAGE).content = ""; }, 1},
        {"a row", [](CutImage& i) { i.found.quotaRows = ""; }, 1},
        {"a database", [](CutImage& i) { i.found.integrity = "malformed"; }, 1},
        {"the file system", [](CutImage& i) { i.damage = "Inode 12 has wrong count"; }, 1},
        {"nothing", [](CutImage&) {}, 0},
    };
    for (const Loss& loss : losses) {
        CutImage image = {golden.after, ""};
        image.found.storage.erase(NEW_QMAIL);
        loss.make(image);
        EXPECT_THAT(judgeCut(golden, {}, image), SizeIs(loss.violations)) << loss.what;
    }
}

TEST_F(PowerJudgeTest, TheForwardsOfAGroupMayComeOneByOne) {
    const std::string group = "a.example/team/.qmail";
    golden.before.storage[group] = fileWith("&gone@x.example\n");
    golden.after.storage[group] = fileWith("| true\n&x@x.example\n&y@y.example\n");
    const std::string step = "| true\n&x@x.example\n";
    CutImage image = {golden.before, ""};
    const auto judged = [&](const std::string& content, const std::string& path) {
        image.found.storage.at(path).content = content;
        const Stood stood = {{path, {step, "| true\n&x@x.ex", ""}}};
        return judgeCut(golden, stood, image);
    };
    EXPECT_THAT(judged(step, group), IsEmpty());
    EXPECT_THAT(judged("| true\n", group), SizeIs(1));
    EXPECT_THAT(judged("| true\n&x@x.ex", group), SizeIs(1));
    EXPECT_THAT(judged("", group), SizeIs(1));
    golden.before.storage.at(QMAIL).content = golden.after.storage.at(QMAIL).content = "| true\n";
    image = {golden.before, ""};
    EXPECT_THAT(judged(step, QMAIL), SizeIs(1)) << "no forwards";
}

TEST_F(PowerJudgeTest, WhatWasDeliveredIsDeliveredOn) {
    golden.before.storage.at(QMAIL).content = "| true\n./Maildir/\n&x@x.example\n";
    golden.after.storage.at(QMAIL).content = "| true\n./Maildir/\n&x@x.example\n&y@y.example\n";
    CutImage image = {golden.before, ""};
    image.found.storage.at(QMAIL).content = "| true\n";
    const Stood stood = {{QMAIL, {"| true\n"}}};
    EXPECT_THAT(judgeCut(golden, stood, image),
                ElementsAre(StartsWith("I11 "), StartsWith("I11 ")));
}

TEST_F(PowerJudgeTest, AfterTheEndNothingMayBeOld) {
    const std::vector<Loss> losses = {
        {"a file", [](CutImage& i) { i.found.storage.at(QMAIL).content = "&old@x.example\n"; }, 1},
        {"an entry", [](CutImage& i) { i.found.storage.erase(NEW_QMAIL); }, 1},
        {"an owner", [](CutImage& i) { i.found.storage.at(QMAIL).uid = 7; }, 1},
        {"a row", [](CutImage& i) { i.found.quotaRows = "a.example|info|1B\n"; }, 1},
        {"a handler", [](CutImage& i) { i.found.handlerRows = "x"; }, 1},
        {"the file system", [](CutImage& i) { i.damage = "x"; }, 1},
    };
    for (const Loss& loss : losses) {
        CutImage image = {golden.after, ""};
        loss.make(image);
        const Violations found = judgeCutAfterEnd(golden, image);
        EXPECT_THAT(found, SizeIs(loss.violations)) << loss.what;
        EXPECT_THAT(found, Each(StartsWith("I12 "))) << loss.what;
    }
}

}  // namespace
}  // namespace corvo::faults
