#include "audit/mailbox_look.h"

#include "mail/home/skeleton.h"
#include "tests/support/capture.h"
#include "tests/support/sqlite.h"
#include "tests/unit/audit/look_fixture.h"

namespace corvo::audit::test {

namespace {

using corvo::test::DELIVERY_LINE;
using corvo::test::POPUSER_GID;
using corvo::test::POPUSER_UID;
using corvo::test::writeFile;
using Texts = std::vector<std::string>;

constexpr long long QUOTA = 5000;
const std::string NO_ROW = "quota-row: has no row for it, 5000B, - ";
const std::string DISCARDS =
    "delivery: discards though the panel says that it shall deliver, " + DELIVERY_LINE + ", -";

class MailboxLookTest : public LookTest {
protected:
    MailboxLookTest() { output.emplace(Options{}); }

    static PanelMailname named(const std::string& name, const std::string& domain = "a.example") {
        return {mail::Mailname(domain, name), true, {}, QUOTA};
    }

    Texts look(const PanelMailname& mailname) {
        return texts(MailboxLook(means, *output, true).at(mailname));
    }

    // A home as a run leaves it, with its row.
    static void makeRight() {
        for (const mail::SkeletonEntry& entry : mail::SKELETON)
            makeFolder(std::string("/") + entry.path);
        writeFile(HOME + "/.qmail", "| true\n" + DELIVERY_LINE + "\n", POPUSER_UID, POPUSER_GID,
                  0600);
        writeFile(HOME + "/Maildir/maildirsize", "5000S,0C\n0 0\n", POPUSER_UID, POPUSER_GID, 0644);
        corvo::test::sqliteExecute(
            corvo::test::USERDB, "INSERT INTO mailbox_quota VALUES ('a.example', 'anna', '5000B')");
    }

    corvo::test::StreamCapture streams;
    std::optional<Output> output;
};

TEST_F(MailboxLookTest, MailboxInOrderHasNoItem) {
    makeRight();
    EXPECT_THAT(look(named("anna")), IsEmpty());
}

TEST_F(MailboxLookTest, MissingHomeStandsForAllThatARunPutsIntoIt) {
    EXPECT_THAT(look(named("bruno")),
                ElementsAre("home: is missing, -, - [--all]", NO_ROW + "[--all]"));
}

TEST_F(MailboxLookTest, WhatANewHomeWillLackIsNamedWithIt) {
    means.hasAgent = false;
    EXPECT_THAT(look(named("bruno")), ElementsAre("home: is missing, -, - [--all]",
                                                  DISCARDS + " [none]", NO_ROW + "[--all]"));
}

TEST_F(MailboxLookTest, BehindWhatIsInPlaceOfAHomeNothingIsRepaired) {
    writeFile(corvo::test::MAILNAMES + "/a.example/bruno", "");
    EXPECT_THAT(look(named("bruno")),
                ElementsAre("home: is no directory, -, - [none]", NO_ROW + "[none]"));
}

TEST_F(MailboxLookTest, NameThatIsNoPathComponentIsNotRepaired) {
    EXPECT_THAT(look(named("a/b")),
                ElementsAre("home: can be the name of no directory, -, - [none]"));
}

TEST_F(MailboxLookTest, MailNameWithoutQuotaHasNoneToBeLookedAt) {
    makeRight();
    PanelMailname anna = named("anna");
    anna.quota.reset();
    std::filesystem::remove(HOME + "/Maildir/maildirsize");
    EXPECT_THAT(look(anna), IsEmpty());
}

const std::string NOWHERE = "forward: cannot forward to what is no address, nowhere, - [none]";
const std::string BEHIND_IT =
    "forward: gets no forward behind one that is to no address, &d@e.example, - [none]";

TEST_F(MailboxLookTest, ForwardsBehindOneThatIsToNoAddressAreNotRepaired) {
    makeRight();
    PanelMailname anna = named("anna");
    anna.forwards = {"b@c.example", "nowhere", "d@e.example"};
    EXPECT_THAT(look(anna), ElementsAre("forward: has a forward missing, &b@c.example, - [--all]",
                                        NOWHERE, BEHIND_IT));
}

TEST_F(MailboxLookTest, WhatIsNoAddressIsNamedAsThePanelHasIt) {
    makeRight();
    for (const std::string text :
         {"noat", "", "a@c.example\n&b@c.example", "| true", "a@x..y", "\xFF@\xFF.example"}) {
        PanelMailname anna = named("anna");
        anna.forwards = {text};
        EXPECT_THAT(look(anna), ElementsAre("forward: cannot forward to what is no address, " +
                                            text + ", - [none]"));
    }
    PanelMailname anna = named("anna");
    anna.forwards = {std::string("a\0@c.example", 12)};
    EXPECT_EQ(MailboxLook(means, *output, true).at(anna).at(0).expected, anna.forwards.front());
}

TEST_F(MailboxLookTest, NewHomeGetsNoForwardsBehindOneThatIsToNoAddress) {
    PanelMailname bruno = named("bruno");
    bruno.forwards = {"b@c.example", "nowhere", "d@e.example"};
    EXPECT_THAT(look(bruno), ElementsAre("home: is missing, -, - [--all]", NOWHERE, BEHIND_IT,
                                         NO_ROW + "[--all]"));
}

TEST_F(MailboxLookTest, DomainInLettersGetsNoQuota) {
    const std::string domain =
        "b\xC3\xBC"
        "cher.example";
    corvo::test::makeDirectory(corvo::test::MAILNAMES + "/" + domain + "/anna");
    const Texts found = look(named("anna", domain));
    EXPECT_THAT(found, ::testing::Contains(
                           "maildirsize: gets no quota: its home is looked for in " +
                           corvo::test::MAILNAMES + "/xn--bcher-kva.example/anna, -, - [none]"));
    EXPECT_THAT(found, ::testing::Contains(NO_ROW + "[none]"));
}

TEST_F(MailboxLookTest, RowIsStoredBesideARightFileWithoutPlaceForANewOne) {
    makeRight();
    corvo::test::sqliteExecute(corvo::test::USERDB, "DELETE FROM mailbox_quota");
    std::filesystem::remove_all(HOME + "/Maildir/tmp");
    writeFile(HOME + "/Maildir/tmp", "");
    EXPECT_THAT(look(named("anna")),
                ElementsAre("directory: is no directory, -, - [none]", NO_ROW + "[--all]"));
}

// --- as a user who may not read everything

class ClosedMailboxTest : public MailboxLookTest {
protected:
    ClosedMailboxTest() {
        makeRight();
        makeFolder("/@attachments");
    }

    Texts lookAtClosed(const std::string& path, mode_t mode = 0) {
        EXPECT_EQ(::chmod((HOME + path).c_str(), mode), 0);
        const AsPopuser popuser;
        return look(named("anna"));
    }

    static std::string told(const std::string& path, const std::string& what) {
        return "mail_audit: " + HOME + path + ": Permission denied: " + what + " not looked at\n";
    }
};

TEST_F(ClosedMailboxTest, HomeIsSeenFromOutside) {
    EXPECT_THAT(lookAtClosed(""), ElementsAre("home: has another mode, 0700, 0000 [--all]"));
    EXPECT_EQ(streams.err(), told("", "the mailbox was"));
}

TEST_F(ClosedMailboxTest, HomeThatMayBeReadButNotSearchedHasNothingToCompare) {
    EXPECT_THAT(lookAtClosed("", 0600), ElementsAre("home: has another mode, 0700, 0600 [--all]"));
    EXPECT_EQ(streams.err(), told("/Maildir", "it was") + told("/@attachments", "it was") +
                                 told("/.qmail", "its lines were") +
                                 told("/Maildir/maildirsize", "what it says was"));
}

TEST_F(ClosedMailboxTest, MaildirIsSeenFromOutside) {
    EXPECT_THAT(lookAtClosed("/Maildir"),
                ElementsAre("directory: has another mode, 0700, 0000 [--all]"));
    EXPECT_EQ(streams.err(), told("/Maildir", "what is in it was") +
                                 told("/Maildir/maildirsize", "what it says was"));
}

TEST_F(ClosedMailboxTest, DeliveryFileIsSeenFromOutside) {
    EXPECT_THAT(lookAtClosed("/.qmail"),
                ElementsAre("delivery-file: has another mode, 0600, 0000 [--all]"));
    EXPECT_EQ(streams.err(), told("/.qmail", "its lines were"));
}

TEST_F(ClosedMailboxTest, DirectoryInPlaceOfADeliveryFileIsInTheWayOfARunToo) {
    std::filesystem::remove(HOME + "/.qmail");
    corvo::test::makeDirectory(HOME + "/.qmail");
    EXPECT_THAT(lookAtClosed("/.qmail"),
                ElementsAre("delivery-file: is no regular file, -, - [none]"));
    EXPECT_EQ(streams.err(), "");
}

TEST_F(ClosedMailboxTest, MaildirsizeIsSeenFromOutside) {
    corvo::test::sqliteExecute(corvo::test::USERDB, "DELETE FROM mailbox_quota");
    EXPECT_THAT(
        lookAtClosed("/Maildir/maildirsize"),
        ElementsAre("maildirsize: has another mode, 0644, 0000 [--all]", NO_ROW + "[--all]"));
    EXPECT_EQ(streams.err(), told("/Maildir/maildirsize", "what it says was"));
}

TEST_F(ClosedMailboxTest, MessagesThatMayNotBeCountedAreNotCompared) {
    writeFile(HOME + "/Maildir/cur/1.host,S=5:2,", "first");
    EXPECT_THAT(lookAtClosed("/Maildir/cur"),
                ElementsAre("directory: has another mode, 0700, 0000 [--all]"));
    EXPECT_EQ(streams.err(), told("/Maildir/maildirsize", "the messages were"));
}

TEST_F(ClosedMailboxTest, BesideClosedAttachmentsTheLimitsAreUnknown) {
    writeFile(HOME + "/Maildir/maildirsize", "7S,0C\n1 1\n", POPUSER_UID, POPUSER_GID, 0644);
    const Texts found = lookAtClosed("/@attachments");
    EXPECT_THAT(found, ElementsAre("directory: has another mode, 0700, 0000 [--all]",
                                   "usage: has another sum than the messages (bytes, messages), 0 "
                                   "0, 1 1 [--all]"));
    EXPECT_EQ(streams.err(), told("/Maildir/maildirsize", "the limits were"));
}

TEST_F(ClosedMailboxTest, WithoutAllItsMeansNoDeliveryFileIsJudged) {
    means.hidden = "/a/file: Permission denied";
    writeFile(HOME + "/.qmail", "| true\n");
    MailboxLook looks(means, *output, true);
    EXPECT_THAT(looks.at(named("anna")), IsEmpty());
    EXPECT_THAT(texts(looks.at(named("bruno"))),
                ElementsAre("home: is missing, -, - [--all]", NO_ROW + "[--all]"));
    EXPECT_EQ(streams.err(),
              "mail_audit: /a/file: Permission denied: the delivery files were not looked at\n");
}

}  // namespace

}  // namespace corvo::audit::test
