#include "driver/mailbox_restoration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "utils/system_error.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

// The last would be "info" to whoever reads a text up to its first zero byte.
const std::vector<std::string> NO_PATH_COMPONENTS = {
    "", ".", "..", "../info", "a/b", "info/.qmail", std::string("info\0x", 6)};

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "nothing thrown";
}

std::vector<std::string> boundSlots(const mail::restore::MailsrvEntitiesCallbacks& slots) {
    const std::pair<const char*, bool> all[] = {
        {"registerDomain", !slots.registerDomain.empty()},
        {"registerDomainAlias", !slots.registerDomainAlias.empty()},
        {"setDomainCatchall", !slots.setDomainCatchall.empty()},
        {"registerDomainCertificate", !slots.registerDomainCertificate.empty()},
        {"registerMailname", !slots.registerMailname.empty()},
        {"registerMailAlias", !slots.registerMailAlias.empty()},
        {"registerMailRedirect", !slots.registerMailRedirect.empty()},
        {"registerMailForwarding", !slots.registerMailForwarding.empty()},
        {"addWhiteListNetwork", !slots.addWhiteListNetwork.empty()},
        {"addBlackListedDomain", !slots.addBlackListedDomain.empty()},
        {"setRBLServers", !slots.setRBLServers.empty()},
        {"setSubmissionEnabled", !slots.setSubmissionEnabled.empty()},
        {"setMaxMessageSize", !slots.setMaxMessageSize.empty()},
        {"setSmtpRelayAndAuth", !slots.setSmtpRelayAndAuth.empty()},
        {"setShortNamesAuth", !slots.setShortNamesAuth.empty()},
        {"registerMailbox", !slots.registerMailbox.empty()},
        {"setMailboxQuota", !slots.setMailboxQuota.empty()},
        {"enableRejectOverquota", !slots.enableRejectOverquota.empty()},
        {"restoreRecipientCanonical", !slots.restoreRecipientCanonical.empty()},
    };
    std::vector<std::string> bound;
    for (const auto& [name, isBound] : all)
        if (isBound)
            bound.emplace_back(name);
    return bound;
}

class MailboxRestorationTest : public SandboxTest {
protected:
    MailboxRestorationTest() {
        installMailServer();
        makeDirectory(MAILNAMES + "/example.com");
    }

    const std::string home = MAILNAMES + "/example.com/info";
    MailboxRestorationHelper helper;
};

TEST_F(MailboxRestorationTest, FullModeBindsWhatIsRestored) {
    MailboxRestorationAdaptor adaptor(RestoreModeAll);
    EXPECT_THAT(boundSlots(adaptor.callbacks()),
                ElementsAre("registerDomain", "registerMailRedirect", "registerMailForwarding",
                            "registerMailbox", "setMailboxQuota", "enableRejectOverquota"));
}

TEST_F(MailboxRestorationTest, HandlersOnlyModeBindsOneSlot) {
    MailboxRestorationAdaptor adaptor(RestoreModeHandlersOnly);
    EXPECT_THAT(boundSlots(adaptor.callbacks()), ElementsAre("enableRejectOverquota"));
}

TEST_F(MailboxRestorationTest, AnotherModeBindsNothing) {
    MailboxRestorationAdaptor adaptor(static_cast<RestoreMode>(2));
    EXPECT_THAT(boundSlots(adaptor.callbacks()), IsEmpty());
}

TEST_F(MailboxRestorationTest, BothForwardingSlotsAddAForward) {
    MailboxRestorationAdaptor adaptor(RestoreModeAll);
    adaptor.callbacks().registerMailbox("example.com", "info", false);

    adaptor.callbacks().registerMailRedirect("example.com", "info", "a@example.com");
    adaptor.callbacks().registerMailForwarding("example.com", "info", "b@example.com");

    EXPECT_EQ(contentsOf(home + "/.qmail"), "| true\n&a@example.com\n&b@example.com\n");
}

TEST_F(MailboxRestorationTest, NeedsTheOwnerOfMailStorage) {
    removeUser("popuser");
    EXPECT_EQ(messageOf([] { MailboxRestorationHelper(); }), "user popusernot found");
}

TEST_F(MailboxRestorationTest, ADomainGetsItsRootWhateverItsStatus) {
    helper.registerDomain("On.Example", false);
    helper.registerDomain("off.example", true);
    EXPECT_EQ(modeOf(MAILNAMES + "/on.example"), "0750");
    EXPECT_EQ(ownerOf(MAILNAMES + "/off.example"), popuser());
}

TEST_F(MailboxRestorationTest, AMailboxWithDeliveryGetsTheDefaultLine) {
    helper.registerMailbox("example.com", "info", true);
    EXPECT_EQ(contentsOf(home + "/.qmail"), "| true\n" + DELIVERY_LINE + "\n");
}

TEST_F(MailboxRestorationTest, AMailboxWithoutDeliveryGetsTheResetFile) {
    helper.registerMailbox("example.com", "info", true);
    helper.registerMailbox("example.com", "info", false);
    EXPECT_EQ(contentsOf(home + "/.qmail"), "| true\n");
}

TEST_F(MailboxRestorationTest, ARedirectMakesNoDirectory) {
    StreamCapture streams;
    EXPECT_THROW(helper.registerMailRedirect("example.com", "info", "a@example.com"), SystemError);
    EXPECT_FALSE(exists(home));
    const std::string logged = "Unable to open file " + home +
                               "/.qmail: No such file or directory\n\n"
                               "System error 2: No such file or directory\n"
                               "Unable to add string to " +
                               home + "/.qmail file.\n";
    EXPECT_EQ(streams.err(), logged);
    EXPECT_EQ(streams.out(), logged);
}

TEST_F(MailboxRestorationTest, ARedirectOfANameThatIsNoPathComponentIsRefused) {
    for (const std::string& name : NO_PATH_COMPONENTS) {
        SCOPED_TRACE(name);
        const std::string path =
            MAILNAMES + "/example.com/" + name + (name.empty() ? "" : "/") + ".qmail";
        // The text of an exception ends at a zero byte.
        EXPECT_EQ(
            messageOf([&] { helper.registerMailRedirect("example.com", name, "a@example.com"); }),
            std::string("unable to modify ") + path.c_str() + ": Invalid argument");
    }
}

TEST_F(MailboxRestorationTest, AQuotaGoesToTheMaildirAndToTheUserDatabase) {
    helper.registerMailbox("example.com", "info", true);
    StreamCapture streams;

    helper.setMailboxQuota("example.com", "info", 10485760);

    EXPECT_EQ(streams.err(), "DEBUG setMailboxQuota(..., 10485760)\n");
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(contentsOf(home + "/Maildir/maildirsize"),
              "10485760S,0C\n           0           0\n");
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|10485760B"));
}

TEST_F(MailboxRestorationTest, AQuotaThatTheMaildirRefusesDoesNotReachTheUserDatabase) {
    StreamCapture streams;

    EXPECT_EQ(messageOf([&] { helper.setMailboxQuota("example.com", "info", 1000); }),
              "Unable to store mbox quota");

    const std::string logged = "unable to change to mbox folder " + home +
                               ": No such file or directory\n"
                               "System error 2: No such file or directory\n";
    EXPECT_EQ(streams.err(), "DEBUG setMailboxQuota(..., 1000)\n" + logged);
    EXPECT_EQ(streams.out(), logged);
    EXPECT_THAT(quotaRows(), IsEmpty());
}

TEST_F(MailboxRestorationTest, AQuotaOfANameThatIsNoPathComponentIsRefused) {
    helper.registerMailbox("example.com", "info", true);
    for (const std::string& name : NO_PATH_COMPONENTS) {
        SCOPED_TRACE(name);
        StreamCapture streams;
        EXPECT_EQ(messageOf([&] { helper.setMailboxQuota("example.com", name, 1000); }),
                  "Unable to store mbox quota");
        EXPECT_THAT(streams.err(),
                    MatchesRegex("DEBUG setMailboxQuota\\(..., 1000\\)\nunable to change to mbox"
                                 " folder /var/qmail/mailnames/example.com/[^\n]*: Invalid"
                                 " argument\nSystem error 22: Invalid argument\n"));
        streams.out();
    }
    EXPECT_FALSE(exists(home + "/Maildir/maildirsize"));
    EXPECT_THAT(quotaRows(), IsEmpty());
}

TEST_F(MailboxRestorationTest, AQuotaThatTheUserDatabaseRefusesNamesTheMailbox) {
    helper.registerMailbox("example.com", "info", true);
    std::filesystem::remove(USERDB);
    StreamCapture streams;

    EXPECT_EQ(messageOf([&] { helper.setMailboxQuota("example.com", "info", 1000); }),
              "Unable to store mbox quota in userdb on mailbox quota restoration for"
              " 'info@example.com'");

    const std::string logged =
        "Unable to prepare SQL statement for query 'REPLACE INTO mailbox_quota (domain_name,"
        " mailbox_name, quota) VALUES (?, ?, ?)': no such table: mailbox_quota\n";
    EXPECT_EQ(streams.err(), "DEBUG setMailboxQuota(..., 1000)\n" + logged);
    EXPECT_EQ(streams.out(), logged);
}

TEST_F(MailboxRestorationTest, AHandlerThatCannotBeReplacedIsAFailure) {
    std::filesystem::remove_all("/var/lib/corvo/mail/handlers");
    StreamCapture streams;

    EXPECT_EQ(messageOf([&] { helper.enableRejectOverquota(true, false); }),
              "Restore check-quota mail handler");

    const std::string unableToOpen =
        "Unable to open database " + HANDLERS + ": unable to open database file\n";
    const std::string logged =
        unableToOpen + unableToOpen + "Unable to add check-quota mail handler.\n";
    EXPECT_EQ(streams.err(), logged);
    EXPECT_EQ(streams.out(), logged);
}

}  // namespace
}  // namespace corvo::test
