// Links, and other names of files, in the way to a delivery file.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "mail/delivery/dotqmail.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/race.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/delivery/dotqmail_fixture.h"

namespace corvo::test::dotqmail {
namespace {

TEST_F(DotqmailTest, DeliveryLineIsNotTakenFromAHardLinkToAnothersFile) {
    ASSERT_EQ(::unlink(DEFAULT_DELIVERY.c_str()), 0);
    chownToPopuser(MAILNAMES);
    writeFile(MAILNAMES + "/secrets", "root:secret\n", 0, 0, 0600);
    ASSERT_EQ(::link((MAILNAMES + "/secrets").c_str(), DEFAULT_DELIVERY.c_str()), 0);
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_delivery(path()), -1);
    EXPECT_EQ(errno, EPERM);
    expectLogged({"Unable to open default delivery config file(" + DEFAULT_DELIVERY +
                      "): Operation not permitted\n",
                  NOT_ADDED});
    EXPECT_EQ(delivered(), "| true\n");
}

TEST_F(DotqmailTest, LinkThatComesAndGoesIsNeverWrittenThrough) {
    writeFile(OUTSIDE + "/file", "./Maildir/\n&a@example.net\n", 0, 0, 0644);
    writeFile(DOTQMAIL, "| true\n", POPUSER_UID, POPUSER_GID, 0600);
    const std::string before = fingerprint(OUTSIDE);
    const Racer swapping([] {
        const std::string link = HOME + "/link";
        plantLink(OUTSIDE + "/file", link);
        exchange(link, DOTQMAIL);
        exchange(link, DOTQMAIL);
    });
    Outcomes seen;
    while (seen.wantsMore()) {
        seen.note(dotqmail_reset(path()) == 0 && dotqmail_add_delivery(path()) == 0);
        (void)message();
    }
    EXPECT_TRUE(seen.both()) << seen;
    EXPECT_EQ(fingerprint(OUTSIDE), before);
}

TEST_F(DotqmailTest, LinkOfPopuserIsRefusedByEveryFunction) {
    writeFile(OUTSIDE, "./Maildir/\n&a@example.net\n", 0, 0, 0644);
    makeLink(OUTSIDE, DOTQMAIL, POPUSER_UID);
    const std::function<int()> operations[] = {
        [] { return dotqmail_reset(path()); },
        [] { return dotqmail_add_delivery(path()); },
        [] { return dotqmail_remove_delivery(path()); },
        [] { return dotqmail_remove_delivery_strings(path()); },
        [] { return dotqmail_add_forward(path(), "b@example.net"); },
        [] { return dotqmail_remove_forward(path(), "a@example.net"); },
    };
    for (const auto& operation : operations) {
        EXPECT_EQ(operation(), -1);
        EXPECT_EQ(errno, ELOOP);
        EXPECT_NE(message(), "");
    }
    EXPECT_EQ(contentsOf(OUTSIDE), "./Maildir/\n&a@example.net\n");
    EXPECT_EQ(modeOf(OUTSIDE) + " " + ownerOf(OUTSIDE), "0644 0:0");
    EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
}

TEST_F(DotqmailTest, LinkOfPopuserInPlaceOfTheHomeIsRefused) {
    writeFile(OUTSIDE + "/.qmail", "kept\n");
    ASSERT_EQ(::rmdir(HOME.c_str()), 0);
    makeLink(OUTSIDE, HOME, POPUSER_UID);
    EXPECT_EQ(dotqmail_reset(path()), -1);
    EXPECT_EQ(errno, ELOOP);
    expectLogged({"Unable to open '" + DOTQMAIL + "': Too many levels of symbolic links"});
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_NE(message(), "");
    EXPECT_EQ(listTree(OUTSIDE), "- 0644 0:0 .qmail 5\n");
}

TEST_F(DotqmailTest, ForwardsBehindABlockedHomeDoNotWaitForEachOther) {
    ASSERT_EQ(::rmdir(HOME.c_str()), 0);
    writeFile(HOME, "no directory");
    for (const char* address : {"a@example.net", "b@example.net", "c@example.net"}) {
        EXPECT_EQ(dotqmail_add_forward(path(), address), -1);
        EXPECT_EQ(errno, ENOTDIR);
    }
    EXPECT_NE(message(), "");
}

TEST_F(DotqmailTest, LinkOfRootInPlaceOfTheHomeIsFollowed) {
    makeDirectory(OUTSIDE);
    ASSERT_EQ(::rmdir(HOME.c_str()), 0);
    makeLink(OUTSIDE, HOME);
    EXPECT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_delivery(path()), 0);
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(contentsOf(OUTSIDE + "/.qmail"), "| true\n" + DELIVERY_LINE + "\n&a@example.net\n");
    EXPECT_EQ(delivered(), contentsOf(OUTSIDE + "/.qmail"));
}

}  // namespace
}  // namespace corvo::test::dotqmail
