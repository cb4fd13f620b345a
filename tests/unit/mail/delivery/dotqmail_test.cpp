#include "mail/delivery/dotqmail.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/delivery/dotqmail_fixture.h"
#include "utils/idn.h"

namespace corvo::test::dotqmail {
namespace {

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

TEST_F(DotqmailTest, NewFileIsNeverOpenToOthers) {
    removeUser("popuser");  // so that the file stays as it was made
    ::umask(0);
    EXPECT_EQ(dotqmail_reset(path()), -1);
    ::umask(022);
    EXPECT_EQ(message(), "user popuser not found\n");
    EXPECT_EQ(modeOf(DOTQMAIL) + " " + ownerOf(DOTQMAIL), "0600 0:0");
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
}  // namespace corvo::test::dotqmail
