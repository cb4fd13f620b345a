#include "tests/equality/comparison.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <utility>

#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::equality::test {

namespace {

using corvo::test::DELIVERY_LINE;
using corvo::test::POPUSER_GID;
using corvo::test::POPUSER_UID;
using faults::Entry;

const std::string HOME = "mailnames/a.example/anna";
const std::string FILE = HOME + "/.qmail";
const std::string SIZE = HOME + "/Maildir/maildirsize";
const std::string RIGHT = "| true\n" + DELIVERY_LINE + "\n";

Entry file(const std::string& content, ino_t inode = 7) {
    return {S_IFREG | 0600, POPUSER_UID, POPUSER_GID, inode, content, 0};
}

Entry linkTo(const std::string& target) {
    return {S_IFLNK | 0777, POPUSER_UID, POPUSER_GID, 8, target, 0};
}

Entry folder() {
    return {S_IFDIR | 0700, POPUSER_UID, POPUSER_GID, 9, "", 0};
}

// One mailbox in order, which both programs leave as it is.
class EqualityTest : public ::testing::Test {
protected:
    EqualityTest() {
        trial_.description.domains = {"a.example"};
        Mailname anna;
        anna.domain = "a.example";
        anna.name = "Anna";
        trial_.description.mailnames = {anna};
        trial_.means.line = DELIVERY_LINE;
        trial_.before = {{FILE, file(RIGHT)}, {HOME + "/Maildir", folder()}};
        trial_.former = {trial_.before,
                         {{"status", "0"},
                          {"standard output", ""},
                          {"standard error", "DEBUG setMailboxQuota(..., 0)\n"},
                          {"quota rows", "'a.example'|'anna'|'0B'\n"},
                          {"handler rows", "'check-quota'|1\n"}}};
        trial_.present = trial_.former;
    }

    Mailname& anna() { return trial_.description.mailnames.front(); }
    Entry& presentFile() { return trial_.present.tree.at(FILE); }

    // "PATH: EXCEPTION" for each difference; "PATH: !" for one that is none.
    std::vector<std::string> verdicts() const {
        std::vector<std::string> all;
        for (const Difference& difference : differences(trial_)) {
            const std::string name(exceptionFor(difference, trial_));
            all.push_back(difference.name + ": " + (name.empty() ? "!" : name));
        }
        return all;
    }

    // The delivery file before, as the former program leaves it, and as the present one does.
    void deliveryFile(const std::string& before, const std::string& former,
                      const std::string& present) {
        trial_.before[FILE] = file(before);
        trial_.former.tree[FILE] = file(former, 17);
        trial_.present.tree[FILE] = file(present, 18);
    }

    Trial trial_;
};

using Verdicts = std::vector<std::string>;

TEST_F(EqualityTest, SameEndingsDoNotDiffer) {
    EXPECT_EQ(verdicts(), Verdicts{});
}

TEST_F(EqualityTest, InodesDoNotCount) {
    presentFile().inode = 99;
    EXPECT_EQ(verdicts(), Verdicts{});
}

TEST_F(EqualityTest, EachPlantedDifferenceOfTheTreeIsFound) {
    const std::vector<std::function<void(Entry&)>> plants = {
        [](Entry& entry) { entry.mode = S_IFIFO | 0600; },
        [](Entry& entry) { entry.mode = S_IFREG | 0640; },
        [](Entry& entry) { entry.uid = 0; },
        [](Entry& entry) { entry.gid = 0; },
        [](Entry& entry) { entry.content = "| true\n"; },
        [](Entry& entry) { entry.content.pop_back(); },
    };
    for (const auto& plant : plants) {
        trial_.present = trial_.former;
        plant(presentFile());
        EXPECT_EQ(verdicts(), Verdicts{FILE + ": !"});
    }
}

TEST_F(EqualityTest, EntriesThatOnlyOneSideHasAreFound) {
    trial_.present.tree.erase(FILE);
    trial_.present.tree[HOME + "/more"] = file("");
    EXPECT_EQ(verdicts(), (Verdicts{FILE + ": !", HOME + "/more: !"}));
}

TEST_F(EqualityTest, EachPlantedDifferenceOfTheFactsIsFound) {
    for (const auto& [name, text] : trial_.former.facts) {
        trial_.present = trial_.former;
        trial_.present.facts[name] = text + "more\n";
        EXPECT_EQ(verdicts(), Verdicts{name + ": !"});
        trial_.present.facts[name] = "";
        EXPECT_EQ(verdicts(), text.empty() ? Verdicts{} : Verdicts{name + ": !"});
    }
}

// --- a delivery file stays where the new one cannot be had

const std::string KEPT = ": a delivery file stays where the new one cannot be had";

TEST_F(EqualityTest, FileThatDeliversMayStayWithoutAgentLineOrLocks) {
    deliveryFile("./Maildir/\n# mine\n", "| true\n", "./Maildir/\n# mine\n");
    EXPECT_EQ(verdicts(), Verdicts{FILE + ": !"});
    const std::vector<std::function<void(Means&)>> losses = {
        [](Means& means) { means.hasAgent = false; },
        [](Means& means) { means.line.reset(); },
        [](Means& means) { means.hasLockFolder = false; },
    };
    for (const auto& lose : losses) {
        trial_.means = {};
        trial_.means.line = DELIVERY_LINE;
        lose(trial_.means);
        EXPECT_EQ(verdicts(), Verdicts{FILE + KEPT});
    }
}

TEST_F(EqualityTest, FileThatStaysGetsNamedForwardsAndLosesNone) {
    trial_.means.hasAgent = false;
    anna().isGroup = true;
    anna().forwards = {"b@c.example", "d@e.example"};
    const std::string former = "| true\n&b@c.example\n&d@e.example\n";
    deliveryFile(RIGHT + "&d@e.example\n&old@c.example", former,
                 RIGHT + "&old@c.example\n&b@c.example\n&d@e.example\n");
    EXPECT_EQ(verdicts(), Verdicts{FILE + KEPT});
    presentFile().content = RIGHT + "&b@c.example\n&d@e.example\n";
    EXPECT_EQ(verdicts(), Verdicts{FILE + ": !"});
}

TEST_F(EqualityTest, FileThatStaysHasItsOwnerAndMode) {
    trial_.means.hasAgent = false;
    deliveryFile(RIGHT, "| true\n", RIGHT);
    presentFile().mode = S_IFREG | 0644;
    EXPECT_EQ(verdicts(), Verdicts{FILE + ": !"});
}

TEST_F(EqualityTest, FileOfAMailboxThatShallNotDeliverDoesNotStay) {
    trial_.means.hasAgent = false;
    anna().isDelivered = false;
    deliveryFile(RIGHT, "| true\n", RIGHT);
    EXPECT_EQ(verdicts(), Verdicts{FILE + ": !"});
}

TEST_F(EqualityTest, FileThatForwardsStaysOnlyWithoutLocks) {
    deliveryFile("&b@c.example\n", "| true\n", "&b@c.example\n");
    trial_.means.hasAgent = false;
    EXPECT_EQ(verdicts(), Verdicts{FILE + ": !"});
    trial_.means.hasLockFolder = false;
    EXPECT_EQ(verdicts(), Verdicts{FILE + KEPT});
}

TEST_F(EqualityTest, FileThatHadToStayAndDidNotIsFound) {
    trial_.means.hasAgent = false;
    EXPECT_EQ(filesNotKept(trial_), Verdicts{});
    deliveryFile(RIGHT, "| true\n", RIGHT);
    EXPECT_EQ(filesNotKept(trial_), Verdicts{});
    deliveryFile(RIGHT, "| true\n", "| true\n");
    EXPECT_EQ(verdicts(), Verdicts{});
    EXPECT_EQ(filesNotKept(trial_), Verdicts{FILE});
    trial_.means.hasAgent = true;
    EXPECT_EQ(filesNotKept(trial_), Verdicts{});
}

// --- other names of a delivery file

TEST_F(EqualityTest, LinkIsReplacedAndItsTargetSpared) {
    const std::string target = HOME + "/other";
    trial_.before[FILE] = linkTo("other");
    trial_.before[target] = file("./Maildir/\n");
    trial_.former.tree[FILE] = linkTo("other");
    trial_.former.tree[target] = file("| true\n");
    trial_.present.tree[FILE] = file("| true\n");
    trial_.present.tree[target] = file("./Maildir/\n");
    EXPECT_EQ(verdicts(), (Verdicts{FILE + ": a link in place of a delivery file is replaced",
                                    target + ": what such a link leads to is not truncated"}));
    trial_.present.tree[FILE] = file("");
    trial_.present.tree[target] = file("");
    EXPECT_EQ(verdicts(), (Verdicts{FILE + ": !", target + ": !"}));
}

TEST_F(EqualityTest, SecondNameIsSpared) {
    const std::string second = "aside/second";
    for (faults::Tree* const tree : {&trial_.before, &trial_.present.tree})
        (*tree)[second] = file(RIGHT);
    trial_.former.tree[second] = file("| true\n");
    EXPECT_EQ(verdicts(), Verdicts{second + ": a second name of a delivery file is not truncated"});
    trial_.before[second].inode = 99;
    EXPECT_EQ(verdicts(), Verdicts{second + ": !"});
    trial_.before[second].inode = 7;
    trial_.present.tree[second] = file("");
    EXPECT_EQ(verdicts(), Verdicts{second + ": !"});
}

TEST_F(EqualityTest, LeftoverGoesWhereItsFileIsReplaced) {
    const std::string leftover = FILE + ".tmp";
    const std::string name = ": what a killed run left goes where its delivery file is replaced";
    trial_.before[leftover] = trial_.present.tree[leftover] = file("half", 11);
    EXPECT_EQ(verdicts(), Verdicts{leftover + name});
    presentFile().inode = 99;
    EXPECT_EQ(verdicts(), Verdicts{leftover + ": !"});
    std::swap(trial_.former.tree, trial_.present.tree);
    presentFile().inode = 99;
    EXPECT_EQ(verdicts(), Verdicts{leftover + name});
    presentFile().inode = 7;
    EXPECT_EQ(verdicts(), Verdicts{leftover + ": !"});
}

// --- nothing is to be written

TEST_F(EqualityTest, SizeThatIsRightNeedsNoPlaceForAnother) {
    for (faults::Tree* const tree : {&trial_.before, &trial_.former.tree, &trial_.present.tree})
        (*tree)[SIZE] = file("0S,0C\n");
    trial_.former.facts["quota rows"] = "";
    trial_.former.facts["standard error"] +=
        "   restoring mailbox quota settings for anna@a.example failed (Unable to store mbox "
        "quota), ignored\n";
    const std::string name = ": a maildirsize that is right needs no place for another";
    EXPECT_EQ(verdicts(), (Verdicts{"quota rows" + name, "standard error" + name}));
    trial_.former.facts["standard error"] += "another failure\n";
    EXPECT_EQ(verdicts(), (Verdicts{"quota rows" + name, "standard error: !"}));
    trial_.present.tree[HOME + "/Maildir/tmp"] = folder();
    trial_.former.tree[HOME + "/Maildir/tmp"] = folder();
    EXPECT_EQ(verdicts(), (Verdicts{"quota rows: !", "standard error: !"}));
}

TEST_F(EqualityTest, SizeWithoutPlaceMayFailInTheNextStepWithoutUserDatabase) {
    for (faults::Tree* const tree : {&trial_.before, &trial_.former.tree, &trial_.present.tree})
        (*tree)[SIZE] = file("0S,0C\n");
    const std::string stage = "   restoring mailbox quota settings for anna@a.example failed ";
    const std::string debug = trial_.former.facts["standard error"];
    trial_.former.facts["standard error"] =
        debug + stage + "(Unable to store mbox quota), ignored\n";
    trial_.present.facts["standard error"] =
        debug + "Unable to open database /var/lib/corvo/mail/userdb/userdb.db: unable to open\n" +
        stage +
        "(Unable to store mbox quota in userdb on mailbox quota restoration for 'anna@a.example'), "
        "ignored\n";
    const std::string name = ": a maildirsize that is right needs no place for another";
    EXPECT_EQ(verdicts(), Verdicts{"standard error" + name});
    trial_.present.facts["standard error"] += "another failure\n";
    EXPECT_EQ(verdicts(), Verdicts{"standard error: !"});
    trial_.present.facts["standard error"] = debug + stage + "(other), ignored\n";
    EXPECT_EQ(verdicts(), Verdicts{"standard error: !"});
}

TEST_F(EqualityTest, NextStepOfASizeWithoutPlaceIsNotToFailWithAUserDatabase) {
    for (faults::Tree* const tree : {&trial_.before, &trial_.former.tree, &trial_.present.tree}) {
        (*tree)[SIZE] = file("0S,0C\n");
        (*tree)["databases/userdb"] = folder();
    }
    trial_.present.facts["standard error"] +=
        "Unable to open database /var/lib/corvo/mail/userdb/userdb.db: unable to open\n";
    EXPECT_EQ(verdicts(), Verdicts{"standard error: !"});
}

TEST_F(EqualityTest, ReadOnlyStorageKeepsFromNothingWhatIsRight) {
    const std::string failed = "failed (cannot create: Read-only file system), ignored\n";
    trial_.former.facts["standard error"] = failed;
    trial_.former.facts["quota rows"] = "";
    EXPECT_EQ(verdicts(), (Verdicts{"quota rows: !", "standard error: !"}));
    trial_.means.isReadOnly = true;
    const std::string name = ": nothing is to be written on a read-only storage";
    EXPECT_EQ(verdicts(), (Verdicts{"quota rows" + name, "standard error" + name}));
    trial_.present.facts["quota rows"] = "'other.example'|'anna'|'0B'\n";
    EXPECT_EQ(verdicts(), (Verdicts{"quota rows: !", "standard error" + name}));
    trial_.present.tree.erase(FILE);
    EXPECT_EQ(verdicts(), (Verdicts{FILE + ": !", "quota rows: !", "standard error: !"}));
}

TEST_F(EqualityTest, DifferenceIsToldWithAllSides) {
    trial_.present.tree.erase(FILE);
    EXPECT_EQ(describe({FILE, false}, trial_),
              FILE +
                  "\n    before:  100600 1031:1032, 41 bytes: \"| true\\x0a| /usr/bin/deliverquota "
                  "./Maildir\\x0a\"\n    former:  100600 1031:1032, 41 bytes: \"| true\\x0a| "
                  "/usr/bin/deliverquota ./Maildir\\x0a\"\n    present: nothing");
    trial_.present.facts["status"] = "2";
    EXPECT_EQ(describe({"status", true}, trial_), "status\n    former:  0\n    present: 2");
}

}  // namespace

}  // namespace corvo::equality::test
