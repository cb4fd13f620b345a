#include "tests/agreement/judgement.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>

namespace corvo::agreement::test {

namespace {

using faults::Entry;
using Verdict = Violations;

constexpr uid_t OWNER = 1031;

const std::string HOME = "mailnames/a.example/anna";
const std::string CUR = HOME + "/Maildir/cur";
const std::string DELIVERY = HOME + "/.qmail";
const std::string SIZE = HOME + "/Maildir/maildirsize";
const std::string USERDB = "/var/lib/corvo/mail/userdb/userdb.db";

Entry file(const std::string& content, ino_t inode) {
    return {S_IFREG | 0600, OWNER, OWNER, inode, content, 0};
}

Entry folder(ino_t inode) {
    return {S_IFDIR | 0700, OWNER, OWNER, inode, "", 0};
}

Finding finding(const std::string& kind, const std::string& path, const std::string& reason) {
    Finding made;
    made.kind = kind;
    made.domain = "a.example";
    made.mailbox = "Anna";
    made.path = path.starts_with("/") ? path : "/var/qmail/" + path;
    made.resolved = made.path;
    made.reason = reason;
    made.isRepaired = true;
    return made;
}

// A mailbox in order, which an audit and a run leave as it is.
class JudgementTest : public ::testing::Test {
protected:
    JudgementTest() {
        trial_.description.domains = {"a.example"};
        addName("Anna");
        trial_.before.tree = {{CUR, folder(1)},
                              {DELIVERY, file("| true\n", 2)},
                              {SIZE, file("0S,0C\n          10           1\n", 3)}};
        trial_.before.facts = {{"quota rows", "'a.example'|'anna'|'0B'\n"},
                               {"handler rows", "'check-quota'|1\n"}};
        trial_.after = trial_.before;
        trial_.first.status = trial_.second.status = 0;
    }

    void addName(const std::string& name) {
        equality::Mailname row;
        row.domain = "a.example";
        row.name = name;
        trial_.description.mailnames.push_back(row);
    }

    void addFirst(const Finding& found) {
        trial_.first.findings.push_back(found);
        trial_.first.status = 1;
    }

    void addSecond(const Finding& found) {
        trial_.second.findings.push_back(found);
        trial_.second.status = 1;
    }

    Verdict verdict() const { return judge(trial_); }

    Trial trial_;
};

TEST_F(JudgementTest, ServerInOrderHasNoViolation) {
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, EachUnnamedChangeOfTheTreeIsFound) {
    const auto change = [this](const std::string& path, const std::function<void(Entry&)>& plant) {
        trial_.after.tree = trial_.before.tree;
        plant(trial_.after.tree.at(path));
        EXPECT_EQ(verdict(), Verdict{"changed without having been named: " + path});
    };
    change(CUR, [](Entry& entry) { entry.mode = S_IFDIR | 0755; });
    change(CUR, [](Entry& entry) { entry.mode = S_IFREG | 0700; });
    change(CUR, [](Entry& entry) { entry.uid = 0; });
    change(CUR, [](Entry& entry) { entry.gid = 0; });
    change(DELIVERY, [](Entry& entry) { entry.content += "&b@c.example\n"; });
    change(SIZE, [](Entry& entry) { entry.content = "1S,0C\n          10           1\n"; });
    change(SIZE, [](Entry& entry) { entry.content = "0S,0C\n          11           1\n"; });
    change(SIZE, [](Entry& entry) { entry.content = "0S,0C\n          10           2\n"; });
}

TEST_F(JudgementTest, EntriesThatComeAndGoAreFound) {
    trial_.after.tree.erase(DELIVERY);
    trial_.after.tree[HOME + "/Maildir/tmp"] = folder(9);
    EXPECT_EQ(verdict(), (Verdict{"changed without having been named: " + DELIVERY,
                                  "changed without having been named: " + HOME + "/Maildir/tmp"}));
}

TEST_F(JudgementTest, FurtherTextOfSizeFileDoesNotCount) {
    trial_.before.tree.at(SIZE).content = "0S,0C\n           4           1\n6 0\n";
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, OnlySumWithoutTrashNeedNotBeNamed) {
    trial_.after.tree.at(SIZE).content = "0S,0C\n          15           2\n";
    EXPECT_EQ(verdict(), Verdict{"changed without having been named: " + SIZE});
    for (faults::Tree* const tree : {&trial_.before.tree, &trial_.after.tree})
        (*tree)[HOME + "/Maildir/.Trash/cur/1.host"] = file("trash", 5);
    EXPECT_EQ(verdict(), Verdict{});
    trial_.after.tree.at(SIZE).content = "1S,0C\n          15           2\n";
    EXPECT_EQ(verdict(), Verdict{"changed without having been named: " + SIZE});
}

TEST_F(JudgementTest, NamedChangeIsNoViolation) {
    trial_.after.tree.at(CUR).mode = S_IFDIR | 0755;
    addFirst(finding("directory", CUR, "has another mode"));
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, MissingFolderNamesAllBelowIt) {
    trial_.after.tree[HOME + "/Maildir/.Spam/cur"] = folder(9);
    addFirst(finding("directory", HOME + "/Maildir/.Spam", "has another mode"));
    EXPECT_EQ(verdict(),
              Verdict{"changed without having been named: " + HOME + "/Maildir/.Spam/cur"});
    trial_.first.findings.front().reason = "is missing";
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, WhatALinkLeadsToIsNamedByIt) {
    const std::string target = "aside/target";
    trial_.before.tree[target] = file("./Maildir/\n", 9);
    trial_.after.tree[target] = file("| true\n", 9);
    Finding named = finding("delivery-file", DELIVERY, "has another mode");
    addFirst(named);
    EXPECT_EQ(verdict(), Verdict{"changed without having been named: " + target});
    trial_.first.findings.front().resolved = "/var/qmail/" + target;
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, LinkMayBecomeTheFileThatItLeadsTo) {
    const std::string target = HOME + "/target";
    trial_.before.tree.at(DELIVERY) = {S_IFLNK | 0777, 0, 0, 8, "target", 0};
    for (faults::Tree* const tree : {&trial_.before.tree, &trial_.after.tree})
        (*tree)[target] = file("| true\n", 9);
    EXPECT_EQ(verdict(), Verdict{});
    trial_.after.tree.at(DELIVERY).content = "./Maildir/\n";
    EXPECT_EQ(verdict(), Verdict{"changed without having been named: " + DELIVERY});
}

TEST_F(JudgementTest, UnnamedRowIsFound) {
    trial_.after.facts["quota rows"] = "'a.example'|'anna'|'1B'\n";
    EXPECT_EQ(verdict(),
              (Verdict{"a row changed without having been named: 'a.example'|'anna'|'0B'",
                       "a row changed without having been named: 'a.example'|'anna'|'1B'"}));
    addFirst(finding("quota-row", USERDB, "has another quota"));
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, UnnamedRecordIsFound) {
    trial_.after.facts["handler rows"] = "";
    EXPECT_EQ(verdict(), Verdict{"a record changed without having been named: 'check-quota'|1"});
    addFirst(finding("overquota-records", "/handlers.db", "has other records"));
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, RowsThatCouldNotBeLookedAtAreNotJudged) {
    trial_.after.facts["quota rows"] = "";
    trial_.first.err = "mail_audit: userdb.db: gone: the quota rows were not looked at\n";
    trial_.first.status = 2;
    addSecond(finding("quota-row", USERDB, "has no row for it"));
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, RepairThatDoesNotHappenIsFound) {
    const Finding named = finding("directory", CUR, "has another mode");
    addFirst(named);
    addSecond(named);
    EXPECT_EQ(verdict(), Verdict{"not repaired: " + named.text()});
}

TEST_F(JudgementTest, RepairThatWasNotForetoldIsFound) {
    Finding named = finding("directory", CUR, "has another mode");
    named.isRepaired = false;
    addFirst(named);
    EXPECT_EQ(verdict(), Verdict{"repaired: " + named.text()});
    addSecond(named);
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, NewItemIsFound) {
    const Finding fresh = finding("directory", CUR, "has another mode");
    addSecond(fresh);
    EXPECT_EQ(verdict(), Verdict{"new: " + fresh.text()});
}

TEST_F(JudgementTest, ForwardThatIsNotThereHasToBeNamed) {
    equality::Mailname& group = trial_.description.mailnames.front();
    group.forwards = {"nowhere"};
    EXPECT_EQ(verdict(), Verdict{});
    group.isGroup = true;
    const std::string missing =
        "a forward of a.example/anna is missing without having been named: ";
    EXPECT_EQ(verdict(), (Verdict{missing + "nowhere", missing + "nowhere"}));
    Finding named = finding("forward", DELIVERY, "has a forward missing");
    named.expected = "nowhere";
    named.isRepaired = false;
    addFirst(named);
    addSecond(named);
    EXPECT_EQ(verdict(), Verdict{});
    group.forwards.emplace_back("b@c.example");
    EXPECT_EQ(verdict(), (Verdict{missing + "b@c.example", missing + "b@c.example"}));
    for (faults::Tree* const tree : {&trial_.before.tree, &trial_.after.tree})
        tree->at(DELIVERY).content += "&b@c.example\n";
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, HomeOfTwoNamesIsLeftOut) {
    addName("aNNa");
    trial_.after.tree.at(CUR).uid = 0;
    trial_.after.facts["quota rows"] = "";
    addSecond(finding("directory", CUR, "has another owner"));
    EXPECT_EQ(verdict(), Verdict{});
    EXPECT_EQ(countObjects(trial_), 0U);
}

TEST_F(JudgementTest, DomainInLettersSharesTheHomeOfItsAsciiName) {
    for (const std::string domain : {"b\xC3\xBC"
                                     "cher.example",
                                     "xn--bcher-kva.example"}) {
        addName("bruno");
        trial_.description.mailnames.back().domain = domain;
    }
    trial_.after.tree["mailnames/xn--bcher-kva.example/bruno/.qmail"] = file("", 9);
    trial_.after.tree
        ["mailnames/b\xC3\xBC"
         "cher.example/bruno/.qmail"] = file("", 10);
    EXPECT_EQ(verdict(), Verdict{});
}

TEST_F(JudgementTest, AuditThatTouchesAnythingIsFound) {
    trial_.first.touched = {"/run/lock/files/a"};
    EXPECT_EQ(verdict(), Verdict{"touched by an audit: /run/lock/files/a"});
}

TEST_F(JudgementTest, StatusHasToSuitWhatWasFound) {
    trial_.second.status = 1;
    EXPECT_EQ(verdict(), Verdict{"status 1 of an audit with 0 items and <>"});
    trial_.second.status = 0;
    trial_.second.hung = true;
    EXPECT_EQ(verdict(), Verdict{"status 0 of an audit with 0 items and <>, which hung"});
}

TEST_F(JudgementTest, ServerInOrderHasNoItem) {
    EXPECT_EQ(judgeUntouched(trial_.description, trial_.first), Verdict{});
    const Finding found = finding("directory", CUR, "has another mode");
    addFirst(found);
    EXPECT_EQ(judgeUntouched(trial_.description, trial_.first),
              Verdict{"in a server in order: " + found.text()});
}

TEST_F(JudgementTest, ObjectsAreCountedOnce) {
    addFirst(finding("directory", CUR, "has another mode"));
    addFirst(finding("directory", CUR, "has another owner"));
    addFirst(finding("quota-row", USERDB, "has no row for it"));
    EXPECT_EQ(countObjects(trial_), 2U);
}

}  // namespace

}  // namespace corvo::agreement::test
