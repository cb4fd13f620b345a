// The production binary, from its command line to its exit status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "tests/integration/whole_run_fixture.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/killed_connection.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "utils/file_lock.h"

namespace corvo::test::runs {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

// --- what a full run makes

TEST_F(WholeRunTest, RestoresEveryMailboxOfTheSample) {
    loadSample(panel);

    const ProcessResult result = mailRebuild();

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(sortedLines(result.err),
              sortedLines(debugQuota(10485760) + debugQuota(104857600) + debugQuota(0) +
                          debugQuota(104857600) + debugQuota(104857600) + debugQuota(-1) +
                          debugQuota(52428800)));
    EXPECT_THAT(namesIn(MAILNAMES), ElementsAre(".default_delivery", "example.com",
                                                "shop.example.net", "xn--bcher-kva.example"));
    EXPECT_THAT(namesIn(MAILNAMES + "/example.com"),
                ElementsAre("former", "info", "office", "partners", "team"));
    EXPECT_THAT(quotaRows(),
                ElementsAre("example.com|former|0B", "example.com|info|10485760B",
                            "example.com|office|104857600B", "example.com|partners|104857600B",
                            "example.com|team|104857600B", "shop.example.net|orders|52428800B",
                            "xn--bcher-kva.example|kontakt|0B"));
    EXPECT_THAT(handlerRows(),
                ElementsAre(checkQuotaRow(1, "none"), checkQuotaRow(4, "none"), SPAM_ROW));
}

TEST_F(WholeRunTest, MakesTheWholeHomeWithOwnersAndModes) {
    panel.domain("example.com").mailname("info").quota(10485760);

    mailRebuild();

    EXPECT_EQ(ownerOf(MAILNAMES + "/example.com"), popuser());
    EXPECT_EQ(modeOf(MAILNAMES + "/example.com"), "0750");
    std::string expected =
        "d 0700 1031:1032 info\n- 0600 1031:1032 info/.qmail 41\n"
        "d 0700 1031:1032 info/@attachments\nd 0700 1031:1032 info/Maildir\n";
    for (const std::string folder : {"/.Drafts", "/.Sent", "/.Spam", "/.Trash"})
        for (const std::string part : {"", "/cur", "/new", "/tmp"})
            expected += "d 0700 1031:1032 info/Maildir" + folder + part + "\n";
    expected +=
        "d 0700 1031:1032 info/Maildir/cur\n- 0644 1031:1032 info/Maildir/maildirsize 38\n"
        "d 0700 1031:1032 info/Maildir/new\nd 0700 1031:1032 info/Maildir/tmp\n";
    EXPECT_EQ(listTree(MAILNAMES + "/example.com"), expected);
}

TEST_F(WholeRunTest, WritesDeliveryFilesByTheMailNamesKind) {
    loadSample(panel);

    mailRebuild();

    const std::string deliver = "| true\n" + DELIVERY_LINE + "\n";
    EXPECT_EQ(contentsOf(home("info", "example.com") + "/.qmail"), deliver);
    EXPECT_EQ(contentsOf(home("former", "example.com") + "/.qmail"), "| true\n");
    EXPECT_EQ(contentsOf(home("team", "example.com") + "/.qmail"),
              deliver + "&info@example.com\n&office@example.com\n");
    EXPECT_EQ(contentsOf(home("partners", "example.com") + "/.qmail"),
              "| true\n&anna@xn--bcher-kva.example\n&orders@shop.example.net\n");
}

TEST_F(WholeRunTest, WritesQuotaFilesThatCountWhatIsStored) {
    loadSample(panel);
    const std::string orders = home("orders", "shop.example.net");
    writeFile(orders + "/Maildir/new/1.M1P1.mx,S=1200", "not its size");
    writeFile(orders + "/Maildir/cur/2.M1P1.mx,S=300:2,S", "not its size");
    writeFile(orders + "/Maildir/.Sent/cur/3.M1P1.mx:2,S", std::string(400, 'x'));
    writeFile(orders + "/@attachments/catalogue.pdf", std::string(20000, 'x'));

    mailRebuild();

    EXPECT_EQ(contentsOf(orders + "/Maildir/maildirsize"),
              "52408800S,0C\n        1900           3\n");
    EXPECT_EQ(contentsOf(home("former", "example.com") + "/Maildir/maildirsize"),
              "1S,0C\n           0           0\n");
    EXPECT_EQ(contentsOf(home("kontakt", "xn--bcher-kva.example") + "/Maildir/maildirsize"),
              "0S,0C\n           0           0\n");
}

TEST_F(WholeRunTest, KeepsEveryMessage) {
    panel.domain("example.com").mailname("info");
    const std::string maildir = home("info", "example.com") + "/Maildir";
    writeFile(maildir + "/new/1", "unread", POPUSER_UID, POPUSER_GID, 0600);
    writeFile(maildir + "/.Archive/cur/2:2,S", "kept", POPUSER_UID, POPUSER_GID, 0600);
    writeFile(maildir + "/tmp/3", "on its way", POPUSER_UID, POPUSER_GID, 0600);
    const ino_t inode = inodeOf(maildir + "/new/1");

    mailRebuild();

    EXPECT_EQ(contentsOf(maildir + "/new/1"), "unread");
    EXPECT_EQ(inodeOf(maildir + "/new/1"), inode);
    EXPECT_EQ(contentsOf(maildir + "/.Archive/cur/2:2,S"), "kept");
    EXPECT_EQ(contentsOf(maildir + "/tmp/3"), "on its way");
}

TEST_F(WholeRunTest, ASecondRunChangesNothing) {
    loadSample(panel);
    const ProcessResult first = mailRebuild();
    const std::string state = restoredState();

    const ProcessResult second = mailRebuild();

    EXPECT_EQ(restoredState(), state);
    EXPECT_EQ(second.err, first.err);
    EXPECT_EQ(second.status, 0);
}

TEST_F(WholeRunTest, RepairsWhatIsDamaged) {
    loadSample(panel);
    mailRebuild();
    const std::string state = restoredState();
    damage();

    mailRebuild({"--all"});

    EXPECT_EQ(restoredState(), state);
}

TEST_F(WholeRunTest, AllIsTheDefaultAndLaterArgumentsAreNotRead) {
    panel.domain("example.com").mailname("info");

    EXPECT_EQ(mailRebuild({"--all", "--fast"}).status, 0);

    EXPECT_TRUE(exists(home("info", "example.com") + "/.qmail"));
}

// --- handlers only

TEST_F(WholeRunTest, HandlersOnlyTouchesNothingElse) {
    loadSample(panel);
    mailRebuild();
    damage();
    for (const std::string option : {"--fast", "--handlers-only"}) {
        SCOPED_TRACE(option);
        sqliteExecute(HANDLERS, "DELETE FROM handlers WHERE name = 'check-quota'");
        const std::string storage = fingerprint(MAILNAMES);
        const std::string userDb = contentsOf(USERDB);

        const ProcessResult result = mailRebuild({option});

        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out + result.err, "");
        EXPECT_EQ(fingerprint(MAILNAMES), storage);
        EXPECT_EQ(contentsOf(USERDB), userDb);
        EXPECT_THAT(handlerRows(),
                    ElementsAre(checkQuotaRow(1, "none"), checkQuotaRow(4, "none"), SPAM_ROW));
    }
}

TEST_F(WholeRunTest, RejectionSettingsDecideTheHandlerRecords) {
    panel.misc("reject_mail_when_overquota_with_permfail", "true");
    mailRebuild({"--fast"});
    EXPECT_THAT(handlerRows(), ElementsAre(checkQuotaRow(1, "permanent"),
                                           checkQuotaRow(4, "permanent"), SPAM_ROW));

    panel.misc("reject_mail_when_overquota", "false");
    mailRebuild({"--fast"});
    EXPECT_THAT(handlerRows(), ElementsAre(SPAM_ROW));
}

TEST_F(WholeRunTest, ObeysThePanelWhenTheServerEndedItsConnectionsMeanwhile) {
    panel.domain("example.com").mailname("info");
    panel.misc("reject_mail_when_overquota", "false");
    const std::string qmail = home("info", "example.com") + "/.qmail";
    lock_handle* const lock = mk_lock(qmail.c_str(), LOCK_BY_NAME);
    auto running = std::async(std::launch::async, [] { return mailRebuild({"--all"}); });
    // The home is made before the lock on its file is waited for, and after the domain was asked
    // for.
    while (!exists(home("info", "example.com") + "/@attachments") &&
           running.wait_for(0s) != std::future_status::ready) {
    }
    for (const std::string& id : panel.query(
             "SELECT id FROM information_schema.processlist WHERE user='" + panel.user() + "'"))
        killConnection(panel, id);

    EXPECT_EQ(rm_lock(lock), 0);
    const ProcessResult result = running.get();

    EXPECT_EQ(result.err, debugQuota(-1));
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(handlerRows(), ElementsAre(SPAM_ROW));
}

// --- debug output

TEST_F(WholeRunTest, TellsItsProgressInDebugMode) {
    auto domain = panel.domain("example.com");
    domain.mailname("info").quota(1048576);
    domain.mailname("team").group().redirect("info@example.com");

    const ProcessResult result = mailRebuild({}, {{"CORVO_INSTALLER_DEBUG", "1"}});

    EXPECT_EQ(result.err,
              "Restoring Mail Server Entities from Corvo DB:\n"
              " executing the central domain restoration cycle:\n"
              "+  executing mailnames restoration cycle for example.com:\n"
              "   registering mailbox for info@example.com... done\n"
              "   restoring mailbox quota settings for info@example.com..."
              "DEBUG setMailboxQuota(..., 1048576)\n done\n"
              "   registering mailbox for team@example.com... done\n"
              "   restoring mailbox quota settings for team@example.com..."
              "DEBUG setMailboxQuota(..., -1)\n done\n"
              "   executing mail group forwarding cycle for team@example.com... done\n"
              "  executing mailnames restoration cycle for example.com done\n"
              " executing the central domain restoration cycle done\n"
              " restoring mail rejection when mailbox is over quota... done\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(WholeRunTest, StaysQuietWhenDebugIsZero) {
    EXPECT_EQ(mailRebuild({}, {{"CORVO_INSTALLER_DEBUG", "0"}}).err, "");
    EXPECT_THAT(mailRebuild({}, {{"CORVO_INSTALLER_DEBUG", ""}}).err,
                HasSubstr("Restoring Mail Server Entities from Corvo DB:\n"));
}

}  // namespace
}  // namespace corvo::test::runs
