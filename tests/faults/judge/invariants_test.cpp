// Proof that the judge can find something.

#include "tests/faults/judge/invariants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/faults/judge/judgement.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::faults {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string HOME = "example.com/info";
const std::string MESSAGE = HOME + "/Maildir/new/1700000001.M1P1.host,S=37";
const std::string ATTACHMENT = "example.com/crowded/@attachments/2020/deep/note.txt";
const std::string QMAIL = HOME + "/.qmail";
const std::string GROUP_QMAIL = "example.com/team/.qmail";
const std::string SIZE_FILE = HOME + "/Maildir/maildirsize";
const std::string CANARY = "var/lib/canary/root/.bashrc";

Outcome killed() {
    return {137, "", "", false};
}

Outcome ended(const std::string& err = "") {
    return {0, "", err, false};
}

std::set<std::string> invariantsOf(const Violations& violations) {
    std::set<std::string> invariants;
    for (const std::string& violation : violations)
        invariants.insert(violation.substr(0, violation.find(' ')));
    return invariants;
}

class InvariantsTest : public test::SandboxTest {
protected:
    Violations judged(const Snapshot& after, const Outcome& outcome) const {
        return checkAfterFault(golden, golden.before, after, outcome, {.signal = 9});
    }

    World world;
    const Golden& golden = world.golden(Start::damaged);
};

struct Change {
    const char* what;
    std::function<void(Snapshot&)> make;
    std::set<std::string> violated;
};

void replaceIn(std::string& text, const std::string& old, const std::string& fresh) {
    ASSERT_NE(text.find(old), std::string::npos) << old;
    text.replace(text.find(old), old.size(), fresh);
}

const std::vector<Change> CHANGES = {
    {"nothing", [](Snapshot&) {}, {}},
    {"a message's bytes", [](Snapshot& s) { s.storage.at(MESSAGE).content += "x"; }, {"I1"}},
    {"an attachment's inode", [](Snapshot& s) { ++s.storage.at(ATTACHMENT).inode; }, {"I1"}},
    {"a message is gone", [](Snapshot& s) { s.storage.erase(MESSAGE); }, {"I1"}},
    {"a message's mode", [](Snapshot& s) { s.storage.at(MESSAGE).mode ^= 0040; }, {"I1", "I6"}},
    {"a new message",
     [](Snapshot& s) { s.storage[MESSAGE + "x"] = s.storage.at(MESSAGE); },
     {"I1", "I6"}},
    {"a .qmail with another line",
     [](Snapshot& s) { s.storage.at(QMAIL).content += "&x\n"; },
     {"I2"}},
    {"a .qmail is gone", [](Snapshot& s) { s.storage.erase(QMAIL); }, {"I2", "I11"}},
    {"half a .qmail", [](Snapshot& s) { s.storage.at(QMAIL).content.resize(9); }, {"I11"}},
    {"a lost forward",
     [](Snapshot& s) { replaceIn(s.storage.at(GROUP_QMAIL).content, "&info@example.com\n", ""); },
     {"I2", "I11"}},
    {"half a maildirsize", [](Snapshot& s) { s.storage.at(SIZE_FILE).content.resize(9); }, {"I3"}},
    {"a maildirsize with another limit",
     [](Snapshot& s) { replaceIn(s.storage.at(SIZE_FILE).content, "10485760S", "10485761S"); },
     {"I3"}},
    {"a maildirsize is gone", [](Snapshot& s) { s.storage.erase(SIZE_FILE); }, {"I3"}},
    {"an inconsistent database", [](Snapshot& s) { s.integrity = "row 1 missing"; }, {"I4"}},
    {"another quota", [](Snapshot& s) { replaceIn(s.quotaRows, "50000B", "50001B"); }, {"I4"}},
    {"a foreign row is gone",
     [](Snapshot& s) { replaceIn(s.quotaRows, "gone.example|nobody|0B\n", ""); },
     {"I4"}},
    {"a foreign handler",
     [](Snapshot& s) { replaceIn(s.handlerRows, "|grey|", "|gray|"); },
     {"I4"}},
    {"a canary's bytes", [](Snapshot& s) { s.canary.at(CANARY).content = ""; }, {"I5"}},
    {"a canary's time", [](Snapshot& s) { ++s.canary.at(CANARY).modified; }, {"I5"}},
    {"a canary's owner", [](Snapshot& s) { s.canary.at(CANARY).uid = 1; }, {"I5"}},
    {"a new canary", [](Snapshot& s) { s.canary["var/qmail/x"] = {}; }, {"I5"}},
    {"a canary is gone", [](Snapshot& s) { s.canary.erase(CANARY); }, {"I5"}},
    {"a file beside a database", [](Snapshot& s) { s.databases["mail/userdb/x"] = {}; }, {"I5"}},
    {"a strange lock file", [](Snapshot& s) { s.locks["lock"] = {}; }, {"I5"}},
    {"a home's mode", [](Snapshot& s) { s.storage.at(HOME).mode |= 0050; }, {"I6"}},
    {"a home's owner", [](Snapshot& s) { s.storage.at(HOME).uid = test::STRANGER_UID; }, {"I6"}},
    {"a .qmail that others may write",
     [](Snapshot& s) { s.storage.at(QMAIL).mode |= 0022; },
     {"I6"}},
    {"a strange entry", [](Snapshot& s) { s.storage[HOME + "/x"] = s.storage.at(HOME); }, {"I6"}},
    {"a database's mode",
     [](Snapshot& s) { s.databases.at("mail/userdb/userdb.db").mode |= 0002; },
     {"I6"}},
};

TEST_F(InvariantsTest, EachChangeIsFoundAsItsViolation) {
    for (const Change& change : CHANGES) {
        Snapshot after = golden.after;
        change.make(after);
        const Violations found = judged(after, killed());
        EXPECT_EQ(invariantsOf(found), change.violated)
            << change.what << ": " << ::testing::PrintToString(found);
    }
}

TEST_F(InvariantsTest, AKilledRunMayHaveDoneNothing) {
    EXPECT_THAT(judged(golden.before, killed()), IsEmpty());
}

TEST_F(InvariantsTest, ATemporaryFileMayTakeThePlaceOfALeftOne) {
    const std::string left = "example.com/crowded/.qmail.tmp";
    Snapshot after = golden.before;
    after.storage.at(left).uid = 0;
    after.storage.at(left).gid = 0;
    EXPECT_EQ(invariantsOf(judged(after, killed())), std::set<std::string>{"I6"});
    ++after.storage.at(left).inode;
    EXPECT_THAT(judged(after, killed()), IsEmpty());
}

TEST_F(InvariantsTest, WrongEndsAreFound) {
    const std::vector<Outcome> ends = {
        {139, "", "", false},
        {3, "", "", false},
        {137, "", "", true},
        {1, "", "==1==ERROR: AddressSanitizer: heap-use-after-free", false},
    };
    for (const Outcome& end : ends)
        EXPECT_EQ(invariantsOf(judged(golden.after, end)), std::set<std::string>{"I7"})
            << end.status;
}

TEST_F(InvariantsTest, WhatIsUnrestoredMustBeNamed) {
    const std::string failed = "   registering mailbox for info@example.com failed (x), ignored\n";
    Snapshot after = golden.after;
    after.storage.at(QMAIL) = golden.before.storage.at(QMAIL);
    EXPECT_THAT(judged(after, ended()), ElementsAre(StartsWith("I8 example.com/info ")));
    EXPECT_THAT(judged(after, ended("   restoring x for myinfo@example.com failed\n")),
                ElementsAre(StartsWith("I8 ")));
    EXPECT_THAT(judged(after, ended(failed)), IsEmpty());
    EXPECT_THAT(judged(after, ended("restoring basic records for example.com failed (x)\n")),
                IsEmpty());
}

TEST_F(InvariantsTest, UnrestoredRowsMustBeNamed) {
    Snapshot after = golden.after;
    after.quotaRows = golden.before.quotaRows;
    after.handlerRows = golden.before.handlerRows;
    EXPECT_THAT(judged(after, ended()), ::testing::SizeIs(9));  // eight mail names, one handler
    EXPECT_THAT(judged(after, ended()), Each(StartsWith("I8 ")));
}

TEST_F(InvariantsTest, AFaultThatIsToBeOutlivedIsNoExcuse) {
    const auto judgedAsPassing = [this](const Snapshot& after, const Outcome& outcome) {
        return invariantsOf(
            checkAfterFault(golden, golden.before, after, outcome, {.passes = true}));
    };
    EXPECT_THAT(judgedAsPassing(golden.after, ended()), IsEmpty());
    EXPECT_EQ(judgedAsPassing(golden.after, {1, "", "Fatal error", false}),
              std::set<std::string>{"I7"});
    Snapshot after = golden.after;
    after.storage.at(QMAIL) = golden.before.storage.at(QMAIL);
    EXPECT_EQ(judgedAsPassing(after, ended("   registering mailbox for info@example.com failed\n")),
              std::set<std::string>{"I9"});
}

TEST_F(InvariantsTest, ForwardsMayFollowAFailedRegistration) {
    const std::string failed = "   registering mailbox for team@example.com failed (x), ignored\n";
    Snapshot after = golden.after;
    after.storage.at(GROUP_QMAIL).content =
        "| true\n&info@example.com\n&office@example.com\n&anna@xn--bcher-kva.example\n";
    EXPECT_EQ(invariantsOf(judged(after, ended())), (std::set<std::string>{"I2", "I8"}));
    EXPECT_THAT(judged(after, ended(failed)), IsEmpty());
}

TEST_F(InvariantsTest, IncompleteRepairsAreFound) {
    const std::vector<Change> incomplete = {
        {"nothing", [](Snapshot&) {}, {}},
        {"a mode", [](Snapshot& s) { s.storage.at(HOME).mode ^= 0001; }, {"I9"}},
        {"a content", [](Snapshot& s) { s.storage.at(QMAIL).content = ""; }, {"I9"}},
        {"a missing entry",
         [](Snapshot& s) { s.storage.erase(HOME + "/Maildir/.Trash/tmp"); },
         {"I9"}},
        {"a quota", [](Snapshot& s) { replaceIn(s.quotaRows, "50000B", "1B"); }, {"I9"}},
        {"a handler", [](Snapshot& s) { s.handlerRows.clear(); }, {"I9"}},
        {"one residue",
         [](Snapshot& s) { s.storage[HOME + "/Maildir/tmp/1.2.h-maildirsize"]; },
         {}},
        {"two residues",
         [](Snapshot& s) {
             s.storage[HOME + "/Maildir/tmp/1.2.h-maildirsize"];
             s.storage[HOME + "/Maildir/tmp/3.4.h-maildirsize"];
         },
         {"I9"}},
        {"another file", [](Snapshot& s) { s.storage[HOME + "/Maildir/tmp/1.2.h"]; }, {"I9"}},
    };
    for (const Change& change : incomplete) {
        Snapshot repaired = golden.after;
        change.make(repaired);
        Violations found;
        checkRepaired(golden, repaired, found);
        EXPECT_EQ(invariantsOf(found), change.violated) << change.what;
    }
}

TEST_F(InvariantsTest, ChangesByAFurtherRunAreFound) {
    const std::vector<Change> changes = {
        {"nothing", [](Snapshot&) {}, {}},
        {"a content", [](Snapshot& s) { s.storage.at(SIZE_FILE).content += "1 1\n"; }, {"I10"}},
        {"a canary", [](Snapshot& s) { s.canary.erase(CANARY); }, {"I10"}},
        {"a row", [](Snapshot& s) { s.quotaRows += "x|y|1B\n"; }, {"I10"}},
    };
    for (const Change& change : changes) {
        Snapshot after = golden.after;
        change.make(after);
        Violations found;
        checkUnchanged(golden.after, after, found);
        EXPECT_EQ(invariantsOf(found), change.violated) << change.what;
    }
}

TEST_F(InvariantsTest, AnUndisturbedRunViolatesNothing) {
    for (const Start start : {Start::damaged, Start::restored})
        EXPECT_THAT(judge(world, start, [] { return undisturbedRun(); }), IsEmpty());
}

TEST_F(InvariantsTest, ARunThatTouchesWhatItMayNotIsFound) {
    const Violations found = judge(world, Start::restored, [] {
        const Outcome outcome = undisturbedRun();
        test::writeFile(test::MAILNAMES + "/" + MESSAGE, "forged");
        test::writeFile("/" + CANARY, "forged");
        test::sqliteExecute(test::USERDB, "DELETE FROM mailbox_quota");
        return outcome;
    });
    EXPECT_EQ(invariantsOf(found), (std::set<std::string>{"I1", "I4", "I5", "I8", "I9"}));
}

TEST_F(InvariantsTest, ResetUndoesWhatAFaultHasLeft) {
    world.reset(Start::damaged);
    test::writeFile("/" + CANARY, "forged");
    test::writeFile(test::MAILNAMES + "/" + HOME + "/x/y", "");
    test::writeFile(test::USERDB + "-journal", "");
    (void)undisturbedRun();
    world.reset(Start::damaged);
    const Snapshot again = Snapshot::take();
    Violations found;
    checkUnchanged(golden.before, again, found);
    EXPECT_THAT(found, IsEmpty());
    EXPECT_EQ(again.canary.at(CANARY).modified, golden.before.canary.at(CANARY).modified);
}

}  // namespace
}  // namespace corvo::faults
