// The production binary, from its command line to its exit status.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <sstream>
#include <string>

#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/killed_connection.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "utils/file_lock.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using namespace std::chrono_literals;

// The installer's foreign handler, and what a run adds to it.
const std::string SPAM_ROW =
    "1|5|1|10|spam|info@example.com|/usr/local/vhc/handlers/hooks/spam|none|0";

std::string checkQuotaRow(int queue, const std::string& context) {
    return std::to_string(queue) +
           "|4|1|10|check-quota|all-recipients|/usr/local/vhc/handlers/hooks/check-quota|" +
           context + "|0";
}

std::string debugQuota(long long quota) {
    return "DEBUG setMailboxQuota(..., " + std::to_string(quota) + ")\n";
}

std::string sortedLines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    std::string sorted;
    for (const std::string& line : lines)
        sorted += line + "\n";
    return sorted;
}

class WholeRun : public SandboxTest {
protected:
    WholeRun() { installMailServer(); }

    static ProcessResult mailRebuild(const std::vector<std::string>& arguments = {},
                                     const Environment& environment = {}) {
        std::vector<std::string> command = {mailRebuildBinary()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command, environment);
    }

    // Both streams lead into a pipe that nobody reads.
    static ProcessResult mailRebuildWithoutReader(const std::vector<std::string>& arguments) {
        return runForked([&] {
            ::signal(SIGPIPE, SIG_DFL);
            std::vector<char*> argv = {const_cast<char*>("mail_rebuild")};
            for (const std::string& argument : arguments)
                argv.push_back(const_cast<char*>(argument.c_str()));
            argv.push_back(nullptr);
            int ends[2] = {};
            (void)!::pipe2(ends, O_CLOEXEC);
            ::close(ends[0]);
            ::dup2(ends[1], STDOUT_FILENO);
            ::dup2(ends[1], STDERR_FILENO);
            ::execv(mailRebuildBinary().c_str(), argv.data());
            ::_exit(127);
        });
    }

    static std::string home(const std::string& mailname, const std::string& domain) {
        return MAILNAMES + "/" + domain + "/" + mailname;
    }

    // After a run whose only mailbox, info@example.com, got no delivery line for the logged
    // `reason`.
    static void expectNoDelivery(const ProcessResult& result, const std::string& reason) {
        const std::string qmail = home("info", "example.com") + "/.qmail";
        const std::string logged = reason + "Unable to add delivery string to '" + qmail + "'\n";
        EXPECT_EQ(result.err,
                  logged + "   registering mailbox for info@example.com failed (unable to modify " +
                      qmail + ": No such file or directory), ignored\n" + debugQuota(-1));
        EXPECT_EQ(result.out, logged);
        EXPECT_EQ(contentsOf(qmail), "| true\n");
    }

    // What --all would repair and --fast must leave alone.
    static void damage() {
        std::filesystem::remove_all(home("info", "example.com") + "/Maildir/cur");
        std::filesystem::remove_all(MAILNAMES + "/shop.example.net");
        writeFile(home("team", "example.com") + "/.qmail", "half a li", 0, 0, 0666);
        writeFile(home("team", "example.com") + "/Maildir/maildirsize", "", 0, 0, 0600);
        sqliteExecute(USERDB, "DELETE FROM mailbox_quota WHERE mailbox_name = 'office'");
    }

    PanelDatabase panel;
};

// --- what a full run makes

TEST_F(WholeRun, RestoresEveryMailboxOfTheSample) {
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

TEST_F(WholeRun, MakesTheWholeHomeWithOwnersAndModes) {
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

TEST_F(WholeRun, WritesDeliveryFilesByTheMailNamesKind) {
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

TEST_F(WholeRun, WritesQuotaFilesThatCountWhatIsStored) {
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

TEST_F(WholeRun, KeepsEveryMessage) {
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

TEST_F(WholeRun, ASecondRunChangesNothing) {
    loadSample(panel);
    const ProcessResult first = mailRebuild();
    const std::string state = restoredState();

    const ProcessResult second = mailRebuild();

    EXPECT_EQ(restoredState(), state);
    EXPECT_EQ(second.err, first.err);
    EXPECT_EQ(second.status, 0);
}

TEST_F(WholeRun, RepairsWhatIsDamaged) {
    loadSample(panel);
    mailRebuild();
    const std::string state = restoredState();
    damage();

    mailRebuild({"--all"});

    EXPECT_EQ(restoredState(), state);
}

TEST_F(WholeRun, AllIsTheDefaultAndLaterArgumentsAreNotRead) {
    panel.domain("example.com").mailname("info");

    EXPECT_EQ(mailRebuild({"--all", "--fast"}).status, 0);

    EXPECT_TRUE(exists(home("info", "example.com") + "/.qmail"));
}

// --- handlers only

TEST_F(WholeRun, HandlersOnlyTouchesNothingElse) {
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

TEST_F(WholeRun, RejectionSettingsDecideTheHandlerRecords) {
    panel.misc("reject_mail_when_overquota_with_permfail", "true");
    mailRebuild({"--fast"});
    EXPECT_THAT(handlerRows(), ElementsAre(checkQuotaRow(1, "permanent"),
                                           checkQuotaRow(4, "permanent"), SPAM_ROW));

    panel.misc("reject_mail_when_overquota", "false");
    mailRebuild({"--fast"});
    EXPECT_THAT(handlerRows(), ElementsAre(SPAM_ROW));
}

TEST_F(WholeRun, ObeysThePanelWhenTheServerEndedItsConnectionsMeanwhile) {
    panel.domain("example.com").mailname("info");
    panel.misc("reject_mail_when_overquota", "false");
    const std::string qmail = home("info", "example.com") + "/.qmail";
    lock_handle* const lock = mk_lock(qmail.c_str(), 1);
    auto running = std::async(std::launch::async, [] { return mailRebuild({"--all"}); });
    // The file is made before the lock on it is waited for, and after the domain was asked for.
    while (!exists(qmail) && running.wait_for(0s) != std::future_status::ready) {
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

// --- what ends a run

TEST_F(WholeRun, AnUnknownArgumentGivesTheUsageAndTouchesNothing) {
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

TEST_F(WholeRun, EndsWhenTheDatabaseIsOutOfReach) {
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

TEST_F(WholeRun, EndsWithoutTheOwnerOfMailStorage) {
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

TEST_F(WholeRun, EndsWithTwoForAnExceptionOutsideTheStandardFamily) {
    const ProcessResult result =
        mailRebuild({}, {{"LD_PRELOAD", preloadable(CORVO_THROWING_GETPWNAM)},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0"}});

    EXPECT_EQ(result.err, "UNSPECIFIED ERROR OCCURED\n");
    EXPECT_EQ(result.out, "UNSPECIFIED ERROR OCCURED\n");
    EXPECT_EQ(result.status, 2);
}

TEST_F(WholeRun, NeverPutsMessagesIntoAFileThatItOpened) {
    loadSample(panel);
    writeFile(MAILNAMES + "/example.com/team", "in the way");

    EXPECT_EQ(run({"sh", "-c", "exec \"$1\" <&- >&- 2>&-", "sh", mailRebuildBinary()}).status, 0);

    EXPECT_EQ(contentsOf(home("info", "example.com") + "/Maildir/maildirsize"),
              "10485760S,0C\n           0           0\n");
    EXPECT_EQ(contentsOf(home("info", "example.com") + "/.qmail"),
              "| true\n" + DELIVERY_LINE + "\n");
}

// One of the first things that a run opens is the connection to which its last question goes.
TEST_F(WholeRun, NeverSendsMessagesToTheDatabase) {
    panel.domain("example.com").mailname("info").postbox().delivery();
    panel.misc("reject_mail_when_overquota", "false");
    std::filesystem::remove(DEFAULT_DELIVERY);

    EXPECT_EQ(
        run({"sh", "-c", "exec \"$1\" <&- >&- 2>&-", "sh", mailRebuildBinary()}, {}, 30).status, 0);

    EXPECT_THAT(handlerRows(), ElementsAre(SPAM_ROW));
}

TEST_F(WholeRun, AReaderThatGoesAwayDoesNotEndTheRun) {
    loadSample(panel);

    EXPECT_EQ(mailRebuildWithoutReader({}).status, 0);

    EXPECT_EQ(quotaRows().size(), 7U);
}

TEST_F(WholeRun, AReaderThatGoesAwayChangesNoStatus) {
    EXPECT_EQ(mailRebuildWithoutReader({"--help"}).status, 1);
}

TEST_F(WholeRun, AFileThatMeetsItsSizeLimitDoesNotEndTheRun) {
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

TEST_F(WholeRun, SkipsADomainWhoseRootIsBlockedAndGoesOn) {
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

TEST_F(WholeRun, ReportsEachStageOfABlockedHomeAndGoesOn) {
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

TEST_F(WholeRun, AMissingDeliveryAgentLeavesTheResetFile) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove("/usr/bin/deliverquota");

    const ProcessResult result = mailRebuild();

    expectNoDelivery(result, "Unable to detect IMAP/POP3 server type - no LDA found\n");
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|0B"));
    EXPECT_EQ(result.status, 0);
}

TEST_F(WholeRun, AMissingDefaultDeliveryFileFailsTheMailboxStage) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove(DEFAULT_DELIVERY);

    const ProcessResult result = mailRebuild();

    expectNoDelivery(result, "Unable to get default delivery transport string from " +
                                 DEFAULT_DELIVERY + "\n\n");
    EXPECT_EQ(result.status, 0);
}

TEST_F(WholeRun, AMissingHandlersDatabaseFailsItsStepOnly) {
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

TEST_F(WholeRun, AUserDatabaseWithoutItsTableFailsTheQuotaStage) {
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

TEST_F(WholeRun, AUnicodeDomainKeepsItsHomeAndFailsItsQuota) {
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

TEST_F(WholeRun, NamesThatAreNoPathComponentReachNothingOutside) {
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

TEST_F(WholeRun, HardLinkBackupsThatRootMakesAreNotInTheWay) {
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

TEST_F(WholeRun, TwoRunsAtOnceLoseNoRow) {
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

// --- debug output

TEST_F(WholeRun, TellsItsProgressInDebugMode) {
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

TEST_F(WholeRun, StaysQuietWhenDebugIsZero) {
    EXPECT_EQ(mailRebuild({}, {{"CORVO_INSTALLER_DEBUG", "0"}}).err, "");
    EXPECT_THAT(mailRebuild({}, {{"CORVO_INSTALLER_DEBUG", ""}}).err,
                HasSubstr("Restoring Mail Server Entities from Corvo DB:\n"));
}

}  // namespace
}  // namespace corvo::test
