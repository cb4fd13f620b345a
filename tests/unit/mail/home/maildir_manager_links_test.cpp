// Links in place of what a home is made of.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "mail/home/fs_error.h"
#include "mail/home/maildir_manager.h"
#include "tests/support/files.h"
#include "tests/support/race.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/home/maildir_manager_fixture.h"

namespace corvo::test::homes {
namespace {

TEST_F(MaildirManagerTest, LinkThatTakesTurnsWithADirectoryLeadsNoOwnerOut) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/cur"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        writeFile(OUTSIDE + "/Maildir/cur/file", "kept\n");
        createHome();
        const std::string link = ROOT + "/link";
        makeLink(OUTSIDE, link, POPUSER_UID);
        const std::string before = fingerprint("/var/lib/corvo");
        const Racer swapping([&] { exchange(HOME + entry, link); });
        Outcomes seen;
        while (seen.wantsMore()) {
            try {
                createHome();
                seen.note(true);
            } catch (const fs::filesystem_error& e) {
                // The others when the link came between the look at a directory and its opening.
                const int error = e.code().value();
                EXPECT_TRUE(error == ELOOP || error == ENOTDIR || error == EEXIST) << e.what();
                seen.note(false);
            }
        }
        EXPECT_TRUE(seen.both()) << seen;
        EXPECT_EQ(fingerprint("/var/lib/corvo"), before);
    }
}

TEST_F(MaildirManagerTest, LinksOfPopuserAreRefusedAtEachLevel) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/cur", "/Maildir/.Spam",
                                    "/Maildir/.Spam/cur", "/@attachments"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        writeFile(OUTSIDE + "/file", "kept\n");
        makeLink(OUTSIDE, HOME + entry, POPUSER_UID);
        const std::string owner = ownerOf(OUTSIDE) + modeOf(OUTSIDE) + fingerprint(OUTSIDE);
        const Thrown thrown = failureOf(createHome);
        EXPECT_EQ(thrown.error, ELOOP);
        EXPECT_EQ(thrown.path1, HOME + entry);
        EXPECT_FALSE(thrown.isFSError);
        EXPECT_EQ(ownerOf(OUTSIDE) + modeOf(OUTSIDE) + fingerprint(OUTSIDE), owner);
    }
}

TEST_F(MaildirManagerTest, LinkOfPopuserInPlaceOfTheDomainRootIsRefused) {
    makeLink(OUTSIDE, ROOT, POPUSER_UID);
    EXPECT_EQ(failureOf(createRoot).error, ELOOP);
    EXPECT_EQ(failureOf(createHome).error, ELOOP);
    EXPECT_EQ(namesIn(OUTSIDE), std::vector<std::string>{"file"});
    EXPECT_EQ(ownerOf(OUTSIDE), "0:0");
}

TEST_F(MaildirManagerTest, LinksOfRootAreFollowedAtEachLevel) {
    for (const std::string entry : {"", "/Maildir", "/Maildir/cur", "/Maildir/.Spam",
                                    "/Maildir/.Spam/cur", "/@attachments"}) {
        SCOPED_TRACE(entry);
        resetSandbox();
        makeDirectory(OUTSIDE);
        makeLink(OUTSIDE, HOME + entry);
        createHome();
        EXPECT_EQ(modeOf(OUTSIDE) + " " + ownerOf(OUTSIDE), "0700 " + popuser());
        EXPECT_EQ(ownerOf(HOME + entry), "0:0") << "the link itself";
        for (const std::string& made : SKELETON)
            EXPECT_TRUE(fs::is_directory(fs::path(HOME) / made)) << made;
    }
}

TEST_F(MaildirManagerTest, LinkOfRootInPlaceOfTheDomainRootIsFollowed) {
    makeLink(OUTSIDE, ROOT);
    createRoot();
    createHome();
    EXPECT_EQ(modeOf(OUTSIDE) + " " + ownerOf(OUTSIDE), "0750 " + popuser());
    EXPECT_EQ(listTree(OUTSIDE + "/info"), listOfNewHome());
}

}  // namespace
}  // namespace corvo::test::homes
