// What ends a run of the production binary, and what it reports and survives.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>

#include "tests/integration/whole_run_fixture.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "utils/file_lock.h"

namespace corvo::test::runs {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

// --- what ends a run

TEST_F(WholeRunTest, AnUnknownArgumentGivesTheUsageAndTouchesNothing) {
    loadSample(panel);
    writeFile("/etc/vhc/vhc.conf", "MYSQL_SOCKET /nonexistent/socket\n");
    for (const std::string argument : {"--ALL", "--all=1", "-h", "--help", ""}) {
        SCOPED_TRACE(argument);
        const std::string before = restoredState();

        const ProcessResult result = mailRebuild({argument, "--all"});

        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err,
                  "Usage: " + mailRebuildBinary() + " [--fast | --handlers-only | --all]\n");
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(restoredState(), before);
    }
}

TEST_F(WholeRunTest, EndsWhenTheDatabaseIsOutOfReach) {
    writeFile("/etc/vhc/vhc.conf", "MYSQL_SOCKET /run/no.sock\n");

    const ProcessResult result = mailRebuild();

    // Between the colon and the socket's name stand the client library's own words.
    EXPECT_THAT(result.err,
                MatchesRegex("mail_rebuild: Unable to connect to Corvo Database: [^\n]*"
                             "'/run/no.sock' \\(2\\)\n"
                             "System error 2: No such file or directory\n"
                             "Fatal error: corvo::mysql::mError\\(connection failed\\)\n"));
    EXPECT_EQ(result.out, result.err);
    EXPECT_EQ(result.status, 1);
}

TEST_F(WholeRunTest, EndsWithoutTheOwnerOfMailStorage) {
    panel.domain("example.com").mailname("info");
    removeUser("popuser");

    for (const std::string option : {"--all", "--fast"}) {
        SCOPED_TRACE(option);
        const ProcessResult result = mailRebuild({option});

        EXPECT_EQ(result.err, "Fatal error: std::runtime_error(user popusernot found)\n");
        EXPECT_EQ(result.out, result.err);
        EXPECT_EQ(result.status, 1);
    }
    EXPECT_THAT(namesIn(MAILNAMES), ElementsAre(".default_delivery"));
}

TEST_F(WholeRunTest, EndsWithTwoForAnExceptionOutsideTheStandardFamily) {
    const ProcessResult result =
        mailRebuild({}, {{"LD_PRELOAD", preloadable(CORVO_THROWING_GETPWNAM)},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0"}});

    EXPECT_EQ(result.err, "UNSPECIFIED ERROR OCCURED\n");
    EXPECT_EQ(result.out, "UNSPECIFIED ERROR OCCURED\n");
    EXPECT_EQ(result.status, 2);
}

TEST_F(WholeRunTest, NeverPutsMessagesIntoAFileThatItOpened) {
    loadSample(panel);
    writeFile(MAILNAMES + "/example.com/team", "in the way");

    EXPECT_EQ(run({"sh", "-c", "exec \"$1\" <&- >&- 2>&-", "sh", mailRebuildBinary()}).status, 0);

    EXPECT_EQ(contentsOf(home("info", "example.com") + "/Maildir/maildirsize"),
              "10485760S,0C\n           0           0\n");
    EXPECT_EQ(contentsOf(home("info", "example.com") + "/.qmail"),
              "| true\n" + DELIVERY_LINE + "\n");
}

// One of the first things that a run opens is the connection to which its last question goes.
TEST_F(WholeRunTest, NeverSendsMessagesToTheDatabase) {
    panel.domain("example.com").mailname("info").postbox().delivery();
    panel.misc("reject_mail_when_overquota", "false");
    std::filesystem::remove(DEFAULT_DELIVERY);

    EXPECT_EQ(
        run({"sh", "-c", "exec \"$1\" <&- >&- 2>&-", "sh", mailRebuildBinary()}, {}, 30).status, 0);

    EXPECT_THAT(handlerRows(), ElementsAre(SPAM_ROW));
}

TEST_F(WholeRunTest, AReaderThatGoesAwayDoesNotEndTheRun) {
    loadSample(panel);

    EXPECT_EQ(mailRebuildWithoutReader({}).status, 0);

    EXPECT_EQ(quotaRows().size(), 7U);
}

TEST_F(WholeRunTest, AReaderThatGoesAwayChangesNoStatus) {
    EXPECT_EQ(mailRebuildWithoutReader({"--help"}).status, 1);
}

TEST_F(WholeRunTest, AFileThatMeetsItsSizeLimitDoesNotEndTheRun) {
    loadSample(panel);

    const ProcessResult result =
        run({"sh", "-c", "ulimit -f 0; exec \"$1\"", "sh", mailRebuildBinary()});

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err,
                HasSubstr("restoring mailbox quota settings for info@example.com failed"));
    EXPECT_THAT(result.err,
                HasSubstr("restoring mail rejection when mailbox is over quota failed"));
}

// --- what is reported and survived

TEST_F(WholeRunTest, SkipsADomainWhoseRootIsBlockedAndGoesOn) {
    panel.domain("blocked.example").mailname("info");
    panel.domain("example.com").mailname("info");
    writeFile(MAILNAMES + "/blocked.example", "in the way");

    const ProcessResult result = mailRebuild();

    EXPECT_EQ(
        result.err,
        "  restoring basic records for blocked.example failed (filesystem error: cannot create"
        " directories: Not a directory [/var/qmail/mailnames/blocked.example]), ignored\n" +
            debugQuota(-1));
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(contentsOf(MAILNAMES + "/blocked.example"), "in the way");
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|0B"));
}

TEST_F(WholeRunTest, ReportsEachStageOfABlockedHomeAndGoesOn) {
    auto domain = panel.domain("example.com");
    domain.mailname("blocked").group().redirect("a@example.com").redirect("b@example.com");
    domain.mailname("info");
    const std::string blocked = home("blocked", "example.com");
    writeFile(blocked, "in the way");

    const ProcessResult result = mailRebuild();

    const std::string unableToStat = "mail_rebuild: file_str: Unable to stat file " + blocked +
                                     "/.qmail: Not a directory\n\n"
                                     "System error 20: Not a directory\n";
    // Once to remove an equal line, once to add the first forward; the stage ends with that.
    const std::string logged =
        unableToStat + unableToStat + "Unable to add string to " + blocked + "/.qmail file.\n";
    const std::string unableToChange = "mail_rebuild: unable to change to mbox folder " + blocked +
                                       ": Not a directory\nSystem error 20: Not a directory\n";
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(
        result.err,
        "   registering mailbox for blocked@example.com failed (filesystem error: cannot create"
        " directories: Not a directory [" +
            blocked + "]), ignored\n" + debugQuota(-1) + unableToChange +
            "   restoring mailbox quota settings for blocked@example.com failed (Unable to"
            " store mbox quota), ignored\n" +
            logged +
            "   executing mail group forwarding cycle for blocked@example.com failed (unable"
            " to modify " +
            blocked + "/.qmail: Not a directory), ignored\n" + debugQuota(-1));
    EXPECT_EQ(result.out, unableToChange + logged);
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|0B"));
    EXPECT_EQ(contentsOf(blocked), "in the way");
}

TEST_F(WholeRunTest, AMissingDeliveryAgentLeavesTheResetFile) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove("/usr/bin/deliverquota");

    const ProcessResult result = mailRebuild();

    expectNoDelivery(result, "Unable to detect IMAP/POP3 server type - no LDA found\n");
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|0B"));
    EXPECT_EQ(result.status, 0);
}

TEST_F(WholeRunTest, AMissingDefaultDeliveryFileFailsTheMailboxStage) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove(DEFAULT_DELIVERY);

    const ProcessResult result = mailRebuild();

    expectNoDelivery(result, "Unable to get default delivery transport string from " +
                                 DEFAULT_DELIVERY + "\n\n");
    EXPECT_EQ(result.status, 0);
}

TEST_F(WholeRunTest, AMissingHandlersDatabaseFailsItsStepOnly) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove_all("/var/lib/corvo/mail/handlers");

    const ProcessResult result = mailRebuild();

    const std::string unableToOpen =
        "Unable to open database " + HANDLERS + ": unable to open database file\n";
    // Once to remove the records, once to add the first.
    const std::string logged =
        unableToOpen + unableToOpen + "Unable to add check-quota mail handler.\n";
    EXPECT_EQ(result.err, debugQuota(-1) + logged +
                              " restoring mail rejection when mailbox is over quota failed (Restore"
                              " check-quota mail handler), ignored\n");
    EXPECT_EQ(result.out, logged);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|0B"));
    EXPECT_FALSE(exists("/var/lib/corvo/mail/handlers"));
}

TEST_F(WholeRunTest, AUserDatabaseWithoutItsTableFailsTheQuotaStage) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove(USERDB);

    const ProcessResult result = mailRebuild();

    const std::string logged =
        "Unable to prepare SQL statement for query 'REPLACE INTO mailbox_quota (domain_name,"
        " mailbox_name, quota) VALUES (?, ?, ?)': no such table: mailbox_quota\n";
    EXPECT_EQ(result.err,
              debugQuota(-1) + logged +
                  "   restoring mailbox quota settings for info@example.com failed (Unable to store"
                  " mbox quota in userdb on mailbox quota restoration for 'info@example.com'),"
                  " ignored\n");
    EXPECT_EQ(result.out, logged);
    EXPECT_TRUE(exists(home("info", "example.com") + "/Maildir/maildirsize"));
}

TEST_F(WholeRunTest, AUnicodeDomainKeepsItsHomeAndFailsItsQuota) {
    panel.domain("bücher.example").mailname("info");

    const ProcessResult result = mailRebuild();

    const std::string maildir = home("info", "bücher.example") + "/Maildir";
    EXPECT_TRUE(exists(maildir + "/cur"));
    EXPECT_FALSE(exists(maildir + "/maildirsize"));
    const std::string logged =
        "mail_rebuild: unable to change to mbox folder"
        " /var/qmail/mailnames/xn--bcher-kva.example/info: No such file or directory\n"
        "System error 2: No such file or directory\n";
    EXPECT_EQ(result.err, debugQuota(-1) + logged +
                              "   restoring mailbox quota settings for info@bücher.example failed"
                              " (Unable to store mbox quota), ignored\n");
    EXPECT_EQ(result.out, logged);
    EXPECT_THAT(quotaRows(), IsEmpty());
}

TEST_F(WholeRunTest, NamesThatAreNoPathComponentReachNothingOutside) {
    auto domain = panel.domain("example.com");
    domain.mailname("..").group().redirect("a@example.com");
    domain.mailname("../../escape").group().redirect("a@example.com");
    domain.mailname("");
    domain.mailname("info");
    panel.domain("..").mailname("up");

    const ProcessResult result = mailRebuild();

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err,
                HasSubstr("  restoring basic records for .. failed (filesystem error: "));
    EXPECT_THAT(result.err, HasSubstr(": Invalid argument [/var/qmail/mailnames/..]), ignored\n"));
    EXPECT_THAT(result.err,
                HasSubstr("   executing mail group forwarding cycle for ..@example.com failed"
                          " (unable to modify /var/qmail/mailnames/example.com/../.qmail: Invalid"
                          " argument), ignored\n"));
    EXPECT_THAT(namesIn("/var/qmail"), ElementsAre("mailnames"));
    EXPECT_THAT(namesIn(MAILNAMES), ElementsAre(".default_delivery", "example.com"));
    EXPECT_THAT(namesIn(MAILNAMES + "/example.com"), ElementsAre("info"));
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|0B"));
}

TEST_F(WholeRunTest, HardLinkBackupsThatRootMakesAreNotInTheWay) {
    panel.domain("example.com").mailname("info");
    writeFile(DEFAULT_DELIVERY, DELIVERY_LINE + "\n", 0, 0, 0600);
    makeDirectory("/var/qmail/disk/example.com");
    makeLink("/var/qmail/disk/example.com", MAILNAMES + "/example.com");
    const std::string handlers = std::filesystem::path(HANDLERS).parent_path();
    ASSERT_EQ(run({"cp", "-al", MAILNAMES, "/var/qmail/backup"}).status, 0);
    ASSERT_EQ(run({"cp", "-al", handlers, "/var/lib/corvo/backup"}).status, 0);

    const ProcessResult result = mailRebuild();

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, debugQuota(-1));
    EXPECT_EQ(contentsOf("/var/qmail/disk/example.com/info/.qmail"),
              "| true\n" + DELIVERY_LINE + "\n");
    EXPECT_THAT(handlerRows(),
                ElementsAre(checkQuotaRow(1, "none"), checkQuotaRow(4, "none"), SPAM_ROW));
}

TEST_F(WholeRunTest, TwoRunsAtOnceLoseNoRow) {
    loadSample(panel);

    const ProcessResult both =
        run({"sh", "-c", "\"$1\" & \"$1\" && wait $!", "sh", mailRebuildBinary()});

    EXPECT_EQ(both.status, 0);
    EXPECT_EQ(both.out, "");
    EXPECT_EQ(quotaRows().size(), 7U);
    EXPECT_THAT(handlerRows(),
                ElementsAre(checkQuotaRow(1, "none"), checkQuotaRow(4, "none"), SPAM_ROW));
    for (const std::string& database : {USERDB, HANDLERS})
        EXPECT_THAT(sqliteRows(database, "PRAGMA integrity_check"), ElementsAre("ok"));
}

}  // namespace
}  // namespace corvo::test::runs
