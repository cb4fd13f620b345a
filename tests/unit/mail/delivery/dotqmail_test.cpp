#include "mail/delivery/dotqmail.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "mail/delivery/delivery_agent.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/race.h"
#include "tests/support/sandbox.h"
#include "utils/idn.h"

namespace {

using namespace corvo::test;

const std::string HOME = MAILNAMES + "/example.com/info";
const std::string DOTQMAIL = HOME + "/.qmail";
const std::string DEFAULT_DELIVERY = MAILNAMES + "/.default_delivery";
const std::string OUTSIDE = "/var/lib/corvo/outside";

const std::string DELIVERY_LINE =
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir";

// Every known delivery line, to the letter.
const std::vector<std::string> KNOWN_DELIVERY_LINES = {
    "./Maildir/",
    "| /usr/bin/deliverquota ./Maildir",
    "| /usr/bin/deliverquota -w 94 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    R"(| /usr/libexec/dovecot/dovecot-lda -d "$DELIVERED_TO" -a "${ORIGINAL_RECIPIENT:-$DELIVERED_TO}")",
};

const std::string NOT_ADDED = "Unable to add delivery string to '" + DOTQMAIL + "'";
const LoggedLine OLD_NOT_REMOVED = {"Unable to remove old delivery strings from '" + DOTQMAIL + "'",
                                    4};

class DotqmailTest : public LoggingTest {
protected:
    DotqmailTest() {
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        installDeliverquota();
        writeFile(DEFAULT_DELIVERY, DELIVERY_LINE + "\n");
        makeDirectory(HOME);
    }

    /// Content of the delivery file, after a look at its owner and mode.
    static std::string delivered() {
        EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 " + popuser());
        return contentsOf(DOTQMAIL);
    }
};

const char* path() {
    return DOTQMAIL.c_str();
}

TEST_F(DotqmailTest, ResetMakesAFileThatDiscards) {
    EXPECT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(delivered(), "| true\n");
}

TEST_F(DotqmailTest, ResetForgetsAllThatWasThere) {
    writeFile(DOTQMAIL, "./Maildir/\n&a@example.com\n&b@example.com\n", 0, 0, 0644);
    EXPECT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(delivered(), "| true\n");
}

TEST_F(DotqmailTest, ResetWithoutHomeSaysThatItCannotOpen) {
    const std::string missing = MAILNAMES + "/example.com/missing/.qmail";
    EXPECT_EQ(dotqmail_reset(missing.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({"Unable to open '" + missing + "': No such file or directory"});
}

TEST_F(DotqmailTest, FileThatCannotBeWrittenDuringResetIsRemoved) {
    const SmallDisk disk(HOME, 1);
    disk.fill();
    EXPECT_EQ(dotqmail_reset(path()), -1);
    EXPECT_EQ(errno, ENOSPC);
    expectLogged({"Unable to write to '" + DOTQMAIL + "': No space left on device"});
    EXPECT_FALSE(exists(DOTQMAIL));
}

TEST_F(DotqmailTest, ResetWithoutPopuserFails) {
    removeUser("popuser");
    EXPECT_EQ(dotqmail_reset(path()), -1);
    EXPECT_EQ(message(), "user popuser not found\n");
    EXPECT_EQ(contentsOf(DOTQMAIL), "| true\n");
}

TEST_F(DotqmailTest, DeliveryLineFollowsTheResetLine) {
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_delivery(path()), 0);
    EXPECT_EQ(delivered(), "| true\n" + DELIVERY_LINE + "\n");
}

TEST_F(DotqmailTest, AddingDeliveryTwiceLeavesOneLine) {
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_delivery(path()), 0);
    EXPECT_EQ(dotqmail_add_delivery(path()), 0);
    EXPECT_EQ(delivered(), "| true\n" + DELIVERY_LINE + "\n");
}

TEST_F(DotqmailTest, EveryKnownDeliveryLineGivesWayToTheCurrentOne) {
    for (const std::string& old : KNOWN_DELIVERY_LINES) {
        SCOPED_TRACE(old);
        writeFile(DOTQMAIL, "&a@example.com\n" + old + "\n&b@example.com\n", 0, 0, 0644);
        EXPECT_EQ(dotqmail_add_delivery(path()), 0);
        EXPECT_EQ(delivered(), "&a@example.com\n&b@example.com\n" + DELIVERY_LINE + "\n");
    }
}

TEST_F(DotqmailTest, OtherLinesThanTheKnownOnesStay) {
    const std::string others =
        "./Maildir\n"
        " ./Maildir/\n"
        "| /usr/bin/deliverquota ./Maildir/\n"
        "| /usr/bin/deliverquota -w 90 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir\n"
        "./Maildir/\r\n";
    writeFile(DOTQMAIL, others);
    EXPECT_EQ(dotqmail_add_delivery(path()), 0);
    EXPECT_EQ(delivered(), others + DELIVERY_LINE + "\n");
}

TEST_F(DotqmailTest, AddingDeliveryWithoutAnAgentTouchesNothing) {
    ASSERT_EQ(::unlink("/usr/bin/deliverquota"), 0);
    writeFile(DOTQMAIL, "./Maildir/\n", 0, 0, 0644);
    const std::string before = fingerprint(HOME);
    EXPECT_EQ(dotqmail_add_delivery(path()), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({"Unable to detect IMAP/POP3 server type - no LDA found", NOT_ADDED});
    EXPECT_EQ(fingerprint(HOME), before);
}

TEST_F(DotqmailTest, AddingDeliveryToAMissingFileFails) {
    EXPECT_EQ(dotqmail_add_delivery(path()), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({OLD_NOT_REMOVED, NOT_ADDED});
    EXPECT_EQ(listTree(HOME), "");
}

TEST_F(DotqmailTest, AddingDeliveryWithoutADefaultLineFails) {
    ASSERT_EQ(::unlink(DEFAULT_DELIVERY.c_str()), 0);
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_delivery(path()), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({"Unable to get default delivery transport string from " + DEFAULT_DELIVERY + "\n",
                  NOT_ADDED});
    EXPECT_EQ(delivered(), "| true\n");
}

TEST_F(DotqmailTest, DeliveryLineThatDoesNotFitIsReported) {
    const SmallDisk disk(HOME, 1);
    disk.fill();
    writeFile(DOTQMAIL, "");
    EXPECT_EQ(dotqmail_add_delivery(path()), -1);
    EXPECT_EQ(errno, ENOSPC);
    expectLogged({{"Unable to close file " + DOTQMAIL +
                       ": No space left on device\n\n"
                       "System error 28: No space left on device",
                   LoggedLine::UNLOGGED},
                  NOT_ADDED});
    EXPECT_EQ(contentsOf(DOTQMAIL), "");
    EXPECT_EQ(namesIn(HOME), (std::vector<std::string>{".qmail", "filler"}));
}

TEST_F(DotqmailTest, RemovingDeliveryRemovesEveryKnownLine) {
    std::string lines = "| true\n&a@example.com\n";
    const std::string rest = lines;
    for (const std::string& known : KNOWN_DELIVERY_LINES)
        lines += known + "\n";
    writeFile(DOTQMAIL, lines, 0, 0, 0644);
    EXPECT_EQ(dotqmail_remove_delivery(path()), 0);
    EXPECT_EQ(delivered(), rest);
}

TEST_F(DotqmailTest, RemovingDeliveryFromAMissingFileFails) {
    EXPECT_EQ(dotqmail_remove_delivery(path()), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({OLD_NOT_REMOVED});
    EXPECT_EQ(listTree(HOME), "");
}

TEST_F(DotqmailTest, RemovingDeliveryStringsKeepsOwnerAndMode) {
    writeFile(DOTQMAIL, "./Maildir/\n&a@example.com\n", STRANGER_UID, STRANGER_GID, 0640);
    EXPECT_EQ(dotqmail_remove_delivery_strings(path()), 0);
    EXPECT_EQ(contentsOf(DOTQMAIL), "&a@example.com\n");
    EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0640 1041:1042");
}

TEST_F(DotqmailTest, ForwardIsAddedOnce) {
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "| true\n&a@example.net\n");
}

TEST_F(DotqmailTest, ForwardThatIsAddedAgainMovesToTheEnd) {
    writeFile(DOTQMAIL, "&a@example.net\n&b@example.net\n");
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "&b@example.net\n&a@example.net\n");
}

TEST_F(DotqmailTest, ForwardCreatesTheFile) {
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "&a@example.net\n");
}

TEST_F(DotqmailTest, DomainOfAForwardIsConvertedAndItsLocalPartIsNot) {
    EXPECT_EQ(dotqmail_add_forward(path(),
                                   "J\xC3\xBCrgen@b\xC3\xBC"
                                   "cher.example"),
              0);
    EXPECT_EQ(delivered(), "&J\xC3\xBCrgen@xn--bcher-kva.example\n");
    EXPECT_EQ(dotqmail_remove_forward(path(),
                                      "J\xC3\xBCrgen@b\xC3\xBC"
                                      "cher.example"),
              0);
    EXPECT_EQ(delivered(), "");
}

TEST_F(DotqmailTest, AddedLinesContinueNoLineThatLacksItsEnd) {
    writeFile(DOTQMAIL, "&a@example.net");
    EXPECT_EQ(dotqmail_add_delivery(path()), 0);
    EXPECT_EQ(delivered(), "&a@example.net\n" + DELIVERY_LINE + "\n");
    writeFile(DOTQMAIL, "| true\n" + DELIVERY_LINE);
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "| true\n" + DELIVERY_LINE + "\n&a@example.net\n");
    writeFile(DOTQMAIL, "&a@example.net\n&b@example.net");
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "&b@example.net\n&a@example.net\n");
}

TEST_F(DotqmailTest, RemovingAForwardKeepsTheRest) {
    writeFile(DOTQMAIL, "| true\n&a@example.net\n&aa@example.net\n&a@example.net.au\n");
    EXPECT_EQ(dotqmail_remove_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "| true\n&aa@example.net\n&a@example.net.au\n");
}

TEST_F(DotqmailTest, RemovingLastForwardKeepsDeliveryLine) {
    writeFile(DOTQMAIL, DELIVERY_LINE + "\n&a@example.net");
    EXPECT_EQ(dotqmail_remove_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), DELIVERY_LINE + "\n");
}

TEST_F(DotqmailTest, LineWithACarriageReturnIsAnotherForward) {
    writeFile(DOTQMAIL, "&a@example.net\r\n");
    EXPECT_EQ(dotqmail_remove_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "&a@example.net\r\n");
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "&a@example.net\r\n&a@example.net\n");
}

TEST_F(DotqmailTest, RemovingAForwardThatIsNotThereIsNoFailure) {
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_remove_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(delivered(), "| true\n");
}

TEST_F(DotqmailTest, RemovingAForwardFromAMissingFileFails) {
    EXPECT_EQ(dotqmail_remove_forward(path(), "a@example.net"), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({"Unable to remove string from " + DOTQMAIL + " file."});
    EXPECT_EQ(listTree(HOME), "");
}

TEST_F(DotqmailTest, ForwardWithoutHomeIsReportedOnceByEachLevel) {
    const std::string missing = MAILNAMES + "/example.com/missing/.qmail";
    EXPECT_EQ(dotqmail_add_forward(missing.c_str(), "a@example.net"), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({{"Unable to open file " + missing +
                       ": No such file or directory\n\n"
                       "System error 2: No such file or directory",
                   LoggedLine::UNLOGGED},
                  "Unable to add string to " + missing + " file."});
}

TEST_F(DotqmailTest, AddressThatCannotBeConvertedIsRefused) {
    const std::string address = "a@" + std::string(64, 'b');
    const std::string message = "idn_email_toascii(" + address + ") failed: Invalid length";
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_forward(path(), address.c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    expectLogged({message});
    EXPECT_EQ(dotqmail_remove_forward(path(), address.c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    expectLogged({message});
    EXPECT_EQ(delivered(), "| true\n");
}

TEST_F(DotqmailTest, AddressWithoutDomainIsRefused) {
    for (const std::string address : {"", "a", "example.net"}) {
        SCOPED_TRACE(address);
        const std::string message =
            "idn_email_toascii(" + address + ") failed: Contains non-LDH characters";
        idn_errno = 5;  // of a conversion before
        EXPECT_EQ(dotqmail_add_forward(path(), address.c_str()), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({message});
        idn_errno = 0;
        EXPECT_EQ(dotqmail_remove_forward(path(), address.c_str()), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({message});
        EXPECT_FALSE(exists(DOTQMAIL));
    }
}

TEST_F(DotqmailTest, AddressThatHoldsALineEndIsRefused) {
    for (const std::string address :
         {"a@example.net\n| evil", "a\n@example.net", "a@example.net\r", "\na@b", "a@b\n"}) {
        SCOPED_TRACE(address);
        const std::string message =
            "idn_email_toascii(" + address + ") failed: Contains non-LDH characters";
        EXPECT_EQ(dotqmail_add_forward(path(), address.c_str()), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({message});
        EXPECT_EQ(dotqmail_remove_forward(path(), address.c_str()), -1);
        expectLogged({message});
        EXPECT_FALSE(exists(DOTQMAIL));
    }
}

class DotqmailWithoutMemoryTest : public WithoutMemoryTest {};

TEST_F(DotqmailWithoutMemoryTest, LineThatCannotBeFormattedIsReported) {
    makeDirectory(HOME);
    // The conversion's tables are loaded once.
    ASSERT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    const std::string address = std::string(6200, 'a') + "@example.net";
    const struct {
        int (*operation)(const char*, const char*);
        std::string message;
    } cases[] = {
        {dotqmail_add_forward,
         "asprintf(\"&%s\", " + address + ") failed: Cannot allocate memory\n"},
        {dotqmail_remove_forward, "asprintf(\"&%s\", " + address + "): Cannot allocate memory\n"},
    };
    for (const auto& [operation, message] : cases) {
        const ProcessResult result = runForked([&, operation = operation] {
            // For the converted address, not for the line beside it: whether asprintf lets a text
            // grow by half of its size or by all of it.
            exhaustMemory(13750);
            if (operation(path(), address.c_str()) != -1 || errno != ENOMEM)
                ::_exit(1);
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(result.out, message);
    }
    EXPECT_EQ(contentsOf(DOTQMAIL), "&a@example.net\n");
}

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

TEST_F(DotqmailTest, NewFileIsNeverOpenToOthers) {
    removeUser("popuser");  // so that the file stays as it was made
    ::umask(0);
    EXPECT_EQ(dotqmail_reset(path()), -1);
    ::umask(022);
    EXPECT_EQ(message(), "user popuser not found\n");
    EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 0:0");
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

TEST_F(DotqmailTest, NoDescriptorStaysOpen) {
    ASSERT_EQ(dotqmail_reset(path()), 0);
    const int before = openDescriptors();
    EXPECT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(dotqmail_add_delivery(path()), 0);
    EXPECT_EQ(dotqmail_add_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(dotqmail_remove_forward(path(), "a@example.net"), 0);
    EXPECT_EQ(dotqmail_remove_delivery(path()), 0);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DotqmailTest, MailNameFormsWorkOnTheFileOfTheMailName) {
    ASSERT_EQ(dotqmail_reset(path()), 0);
    EXPECT_EQ(add_mailname_delivery("Info", "Example.COM"), 0);
    EXPECT_EQ(add_mn_forward("Info", "Example.COM", "a@example.net"), 0);
    EXPECT_EQ(delivered(), "| true\n" + DELIVERY_LINE + "\n&a@example.net\n");
    EXPECT_EQ(remove_mailname_delivery("Info", "Example.COM"), 0);
    EXPECT_EQ(delivered(), "| true\n&a@example.net\n");
    EXPECT_EQ(rm_mn_forward("Info", "Example.COM", "a@example.net"), 0);
    EXPECT_EQ(delivered(), "| true\n");
}

TEST_F(DotqmailTest, MailNameFormsFailForPathsThatCannotBe) {
    const std::function<int(const char*, const char*)> forms[] = {
        add_mailname_delivery,
        remove_mailname_delivery,
        [](const char* name, const char* domain) { return add_mn_forward(name, domain, "a@b"); },
        [](const char* name, const char* domain) { return rm_mn_forward(name, domain, "a@b"); },
    };
    // As long as a domain may be after conversion, label by label.
    std::string domain;
    for (int i = 0; i < 80; ++i)
        domain += std::string(50, 'd') + ".";
    const std::string fullWidthSlash = "\xEF\xBC\x8F";
    for (const auto& form : forms) {
        for (const std::string& odd : {std::string(), std::string("a/b"), "a" + fullWidthSlash}) {
            EXPECT_EQ(form("info", odd.c_str()), -1);
            EXPECT_EQ(errno, EINVAL);
            expectLogged({"empty mailname or maildomain"});
        }
        EXPECT_EQ(form("..", "example.com"), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({"empty mailname or maildomain"});
        EXPECT_EQ(form("info", domain.c_str()), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
        expectLogged({"Either domain name '" + domain +
                      "' or mailname 'info' are too long to store .qmail path in the provided "
                      "buffer"});
    }
}

}  // namespace
