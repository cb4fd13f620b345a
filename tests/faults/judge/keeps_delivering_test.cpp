#include "tests/faults/judge/keeps_delivering.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

const std::string HOME = "a.example/info";
const std::string QMAIL = HOME + "/.qmail";
const std::string RESET = "| true\n";
const std::string DELIVERING = RESET + test::DELIVERY_LINE + "\n";
const std::string FORWARDS = "&x@x.example\n&y@y.example\n";

Tree treeWith(const std::string& content, const std::string& path = QMAIL) {
    Entry entry;
    entry.mode = S_IFREG | 0600;
    entry.content = content;
    return {{path, entry}};
}

Violations judged(const std::string& before, const std::string& wanted, const std::string& now,
                  const Excuses& excuses = {}) {
    return checkKeepsDelivering(treeWith(before), treeWith(wanted), treeWith(now), excuses);
}

TEST(KeepsDeliveringTest, AMailboxThatDeliveredMayNotDiscard) {
    for (const std::string now :
         {"", "| true\n", "| true\n| /usr/bin/deliverq", "&x@x.example\n", "| true"})
        EXPECT_THAT(judged(DELIVERING, DELIVERING, now),
                    ElementsAre(StartsWith("I11 " + QMAIL + " delivers no more")))
            << now;
    EXPECT_THAT(judged(DELIVERING, DELIVERING, DELIVERING), IsEmpty());
}

TEST(KeepsDeliveringTest, AFileThatIsGoneDeliversNothing) {
    EXPECT_THAT(checkKeepsDelivering(treeWith(DELIVERING + FORWARDS),
                                     treeWith(DELIVERING + FORWARDS), Tree()),
                SizeIs(3));
}

const std::string KNOWN_OF_OLD[] = {
    "./Maildir/",
    "| /usr/bin/deliverquota ./Maildir",
    "| /usr/bin/deliverquota -w 94 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    R"(| /usr/libexec/dovecot/dovecot-lda -d "$DELIVERED_TO" -a "${ORIGINAL_RECIPIENT:-$DELIVERED_TO}")",
};

TEST(KeepsDeliveringTest, ADeliveryLineKnownOfOldIsOne) {
    for (const std::string& line : KNOWN_OF_OLD) {
        EXPECT_TRUE(delivers("| true\n" + line + "\n&x@x.example\n")) << line;
        EXPECT_THAT(judged(line + "\n", DELIVERING, line + "\n"), IsEmpty());
        EXPECT_THAT(judged(line + "\n", DELIVERING, "| true\n"), SizeIs(1));
        EXPECT_FALSE(delivers(line + "x\n")) << line;
    }
}

TEST(KeepsDeliveringTest, OnlyWhatShallDeliverHasTo) {
    EXPECT_THAT(judged(DELIVERING, RESET, RESET), IsEmpty());
    EXPECT_THAT(judged(RESET, DELIVERING, RESET), IsEmpty());
    EXPECT_THAT(checkKeepsDelivering(treeWith(DELIVERING), {}, Tree()), IsEmpty());
}

TEST(KeepsDeliveringTest, EachLostForwardIsFound) {
    EXPECT_THAT(judged(RESET + FORWARDS, RESET + FORWARDS, RESET),
                ElementsAre(StartsWith("I11 " + QMAIL + " has lost &x@x.example"),
                            StartsWith("I11 " + QMAIL + " has lost &y@y.example")));
    EXPECT_THAT(judged(RESET + FORWARDS, RESET + FORWARDS, RESET + "&y@y.example\n"), SizeIs(1));
    EXPECT_THAT(judged(RESET + FORWARDS, RESET + FORWARDS, RESET + "&x@x.exam\n&y@y.example\n"),
                SizeIs(1));
}

TEST(KeepsDeliveringTest, ForwardsMayChangePlacesAndOthersMayGo) {
    EXPECT_THAT(judged(RESET + FORWARDS, RESET + FORWARDS, RESET + "&y@y.example\n&x@x.example\n"),
                IsEmpty());
    EXPECT_THAT(judged(RESET + FORWARDS, RESET + "&y@y.example\n", RESET + "&y@y.example\n"),
                IsEmpty());
    EXPECT_THAT(judged(RESET, RESET + FORWARDS, RESET + "&x@x.example\n"), IsEmpty());
}

TEST(KeepsDeliveringTest, AFileThatCouldNotBeReadIsExcused) {
    const std::string root = test::MAILNAMES + "/";
    for (const std::string& unread : {root + QMAIL, root + HOME, std::string("/var")})
        EXPECT_THAT(judged(DELIVERING + FORWARDS, DELIVERING, RESET, {{unread}, ""}), IsEmpty())
            << unread;
    for (const std::string& unread : {root + QMAIL + ".tmp", root + HOME + "/Maildir",
                                      root + "a.example/inf", std::string("/run/lock/files")})
        EXPECT_THAT(judged(DELIVERING, DELIVERING, RESET, {{unread}, ""}), SizeIs(1)) << unread;
}

TEST(KeepsDeliveringTest, OneFailedLookExcusesOneFile) {
    Tree before = treeWith(DELIVERING);
    before.merge(treeWith(DELIVERING, "a.example/office/.qmail"));
    Tree now = treeWith(RESET);
    now.merge(treeWith(RESET, "a.example/office/.qmail"));
    const std::string domain = test::MAILNAMES + "/a.example";
    EXPECT_THAT(checkKeepsDelivering(before, before, now, {{domain}, ""}),
                ElementsAre(StartsWith("I11 a.example/office/.qmail ")));
    EXPECT_THAT(checkKeepsDelivering(before, before, now, {{domain, domain + "/info"}, ""}),
                IsEmpty());
}

TEST(KeepsDeliveringTest, OneFailedLookExcusesOneFileInAllStates) {
    Tree sound = treeWith(DELIVERING);
    sound.merge(treeWith(DELIVERING, "a.example/office/.qmail"));
    Tree first = sound;
    first.at(QMAIL).content = RESET;
    Tree second = sound;
    second.at("a.example/office/.qmail").content = RESET;
    const std::vector<Tree> states = {sound, first, second, second, sound};
    EXPECT_THAT(checkKeepsDelivering(sound, sound, states), SizeIs(2));
    EXPECT_THAT(checkKeepsDelivering(sound, sound, states, {{test::MAILNAMES}, ""}),
                ElementsAre(StartsWith("I11 a.example/office/.qmail ")));
    EXPECT_THAT(checkKeepsDelivering(sound, sound, std::vector<Tree>{sound, sound}), IsEmpty());
}

TEST(KeepsDeliveringTest, ForwardsThatTheRunCouldNotNameAreExcused) {
    const std::string group = "   executing mail group forwarding cycle for info@a.example";
    for (const std::string& reports :
         {group + " failed (Lost connection), ignored\n",
          group + " failed (std::bad_alloc), ignored\n",
          std::string("Warning: MySQL Query error on Mail Forwards cycle for info@a.example: x\n"),
          std::string("  restoring mailnames for a.example failed (x), ignored\n"),
          std::string(" executing the central domain restoration cycle failed (x), ignored\n")})
        EXPECT_THAT(judged(RESET + FORWARDS, RESET + FORWARDS, RESET, {{}, reports}), IsEmpty())
            << reports;
}

TEST(KeepsDeliveringTest, AFailureOfTheStorageIsNoExcuse) {
    for (const std::string reports :
         {"   executing mail group forwarding cycle for info@a.example failed (unable to modify "
          "/var/qmail/mailnames/a.example/info/.qmail: No space left on device), ignored\n",
          "   executing mail group forwarding cycle for office@a.example failed (x), ignored\n",
          "   executing mail group forwarding cycle for myinfo@a.example failed (x), ignored\n",
          "Unable to open '/var/qmail/mailnames/a.example/info/.qmail': Input/output error\n"})
        EXPECT_THAT(judged(RESET + FORWARDS, RESET + FORWARDS, RESET, {{}, reports}), SizeIs(2))
            << reports;
}

TEST(KeepsDeliveringTest, NothingThatIsSaidExcusesALostDelivery) {
    EXPECT_THAT(judged(DELIVERING, DELIVERING, RESET,
                       {{}, "   registering mailbox for info@a.example failed (x), ignored\n"}),
                SizeIs(1));
}

}  // namespace
}  // namespace corvo::faults
