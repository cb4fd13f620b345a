// The commands of docs/OPERATIONS.md, run as they stand there.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "mail/handlers/mail_handlers_creation.h"
#include "mail/quota/mail_user_db.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

// The first block of commands after these words of the page.
std::string commandsAfter(const std::string& words) {
    static const std::string fence = "```\n";
    const std::string page = contentsOf(CORVO_OPERATIONS_PAGE);
    const std::size_t at = page.find(words);
    const std::size_t opening = page.find(fence, at);
    const std::size_t closing = page.find(fence, opening + 1);
    if (at == std::string::npos || closing == std::string::npos)
        throw std::runtime_error("the page has no commands after \"" + words + "\"");
    const std::size_t first = opening + fence.size();
    return page.substr(first, closing - first);
}

class OperationsPageTest : public SandboxTest {
protected:
    OperationsPageTest() { installMailServer(); }

    // As an administrator would, with the panel's own credentials.
    ProcessResult runCommandsAfter(const std::string& words) const {
        return runAsAdministrator(commandsAfter(words));
    }

    ProcessResult runAsAdministrator(const std::string& commands) const {
        const std::string ours = std::filesystem::path(mailAuditBinary()).parent_path();
        return run({"bash", "-c", commands},
                   {{"PATH", ours + ":" + std::getenv("PATH")},
                    {"PANEL", "--no-defaults --user=" + panel.user() +
                                  " --socket=" + PanelDatabase::SOCKET_LINK + " " + panel.name()},
                    {"MYSQL_PWD", password()}});
    }

    // The same commands with what they write in a folder of the sandbox.
    static std::string inRun(std::string commands) {
        for (std::size_t at = 0; (at = commands.find("/root/", at)) != std::string::npos;)
            commands.replace(at, 6, "/run/");
        return commands;
    }

    static std::string password() {
        std::string password = contentsOf("/etc/vhc/.vhc.shadow");
        password.pop_back();  // the line end
        return password;
    }

    // A full run that has nothing to complain of.
    static void restore() {
        const ProcessResult result = run({mailRebuildBinary()});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "");
    }

    PanelDatabase panel;
};

// --- what mail_audit tells

TEST_F(OperationsPageTest, ToldBeforeARunIsWhetherTheMachineIsReady) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove_all("/run/lock/files");

    const ProcessResult result = runCommandsAfter("**The machine must be ready.**");

    EXPECT_THAT(result.out, HasSubstr("\nproblem  lock folder: "));
    EXPECT_THAT(result.out, HasSubstr("\nok       "));
}

TEST_F(OperationsPageTest, ShowsSomeOfThePanelDatabase) {
    panel.domain("example.com").mailname("info");

    const ProcessResult result = runCommandsAfter("**The panel database must be the right one.**");

    EXPECT_THAT(result.out, HasSubstr("info@example.com"));
    EXPECT_EQ(result.err, "");
}

TEST_F(OperationsPageTest, ShowsWhatARunWouldChange) {
    panel.domain("example.com").mailname("info");

    const ProcessResult result =
        runAsAdministrator(inRun(commandsAfter("**See what the run would change:**")));

    EXPECT_EQ(result.out, "status 1\n1 of 1 mailbox differs: 4 items, all repaired by --all.\n");
    EXPECT_THAT(contentsOf("/run/before.txt"),
                HasSubstr(MAILNAMES + "/example.com: is missing [--all]\n"));
}

TEST_F(OperationsPageTest, TellsAfterARunThatEverythingIsInOrder) {
    loadSample(panel);
    restore();

    const ProcessResult result = runCommandsAfter("### Is everything in order?");

    EXPECT_EQ(result.out, "0 of 7 mailboxes differ.\n");
    EXPECT_EQ(result.status, 0);
}

TEST_F(OperationsPageTest, TellsAfterARunWhoseMailIsDiscarded) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove_all("/run/lock/files");
    EXPECT_EQ(run({mailRebuildBinary()}).status, 0);

    const ProcessResult result = runCommandsAfter("### Is everything in order?");

    EXPECT_THAT(result.out, StartsWith(MAILNAMES + "/example.com/info/.qmail: discards though the "
                                                   "panel says that it shall deliver"));
    EXPECT_EQ(result.status, 1);
}

TEST_F(OperationsPageTest, CountsTheMailNamesThatHadTheirTurn) {
    loadSample(panel);
    const std::string log = "/run/rebuild.log";
    const ProcessResult rebuilt =
        run({"bash", "-c", "'" + mailRebuildBinary() + "' --all 2>" + log});
    ASSERT_EQ(rebuilt.status, 0);

    EXPECT_EQ(runAsAdministrator(inRun(commandsAfter("Each mail name leaves one"))).out, "7\n7\n");
}

// --- whose line it is

TEST_F(OperationsPageTest, FindsTheMailboxesThatRefuseAllMail) {
    auto domain = panel.domain("example.com");
    domain.mailname("info").quota(1000);
    domain.mailname("former").quota(0);
    domain.mailname("office").quota(1000000);
    restore();
    writeFile(MAILNAMES + "/example.com/info/@attachments/catalogue.pdf", std::string(20000, 'x'));
    EXPECT_THAT(run({mailRebuildBinary()}).err, HasSubstr("WARNING: @attachments"));

    const ProcessResult result = runCommandsAfter("Without another run, this finds");

    EXPECT_THAT(result.out, MatchesRegex("[0-9.]+K?\t" + MAILNAMES +
                                         "/example.com/former/@attachments\n"
                                         "2[0-9]K\t" +
                                         MAILNAMES + "/example.com/info/@attachments\n"));
    EXPECT_EQ(result.err, "");
}

TEST_F(OperationsPageTest, ShowsTheLinesOfADebugRunAsTheyAre) {
    panel.domain("example.com").mailname("info").quota(1048576);
    restore();
    const std::string attachment = MAILNAMES + "/example.com/info/@attachments/film";
    writeFile(attachment, "");
    std::filesystem::resize_file(attachment, 1048577);

    const ProcessResult result = run({mailRebuildBinary()}, {{"CORVO_INSTALLER_DEBUG", "1"}});

    EXPECT_THAT(result.err, HasSubstr(commandsAfter("### Whose line is it?")));
}

// --- logging in to the panel database

class LogInTest : public OperationsPageTest {
protected:
    ProcessResult logIn() const {
        return run({"bash", "-c", commandsAfter("**To log in as the run does**")});
    }

    std::string identity() const { return panel.user() + "@localhost\t" + panel.name() + "\n"; }

    void setDsn(const std::string& lines) const {
        writeFile("/etc/vhc/private/dsn.ini", "[other]\nusername = nobody\n[corvo]\n" + lines);
    }
};

TEST_F(LogInTest, ReadsTheFilesThatTheRunReads) {
    const ProcessResult result = logIn();

    EXPECT_EQ(result.out, identity());
    EXPECT_EQ(result.err, "");
}

TEST_F(LogInTest, TakesThePasswordThatTheIniFileHas) {
    setDsn("  username =" + panel.user() + " ; the first counts\nusername = nobody\ndbname=" +
           panel.name() + "\r\npassword = " + password() + "\n");
    writeFile("/etc/vhc/.vhc.shadow", "wrong\n");

    const ProcessResult result = logIn();

    EXPECT_EQ(result.out, identity());
    EXPECT_EQ(result.err, "");
}

TEST_F(LogInTest, TakesTheDefaultsForWhatNoFileSays) {
    std::filesystem::remove("/etc/vhc/private/dsn.ini");
    std::filesystem::remove("/etc/vhc/vhc.conf");

    const ProcessResult result =
        run({"bash", "-c",
             "mariadb() { echo \"$@\"; }\n" + commandsAfter("**To log in as the run does**")});

    EXPECT_THAT(result.out, StartsWith("--no-defaults --user=admin"
                                       " --socket=/var/lib/mysql/mysql.sock vhc -N -e"));
}

TEST_F(LogInTest, TakesTheNetworkForAnotherHost) {
    setDsn("host = 192.0.2.1\nport = 3307\n");

    const ProcessResult result =
        run({"bash", "-c",
             "mariadb() { echo \"$@\"; }\n" + commandsAfter("**To log in as the run does**")});

    EXPECT_THAT(result.out,
                StartsWith("--no-defaults --user=admin --host=192.0.2.1 --port=3307 vhc -N -e"));
}

// --- a database that cannot be opened

TEST_F(OperationsPageTest, RollsBackTheJournalThatAKilledRunHasLeft) {
    panel.domain("example.com").mailname("info").quota(10485760);
    restore();
    const std::string journal = USERDB + "-journal";
    const std::string moreThanTheCacheHolds =
        "BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<2000)"
        " INSERT INTO mailbox_quota SELECT 'a', i, '0B' FROM n;";
    (void)run({"sqlite3", "-cmd", "PRAGMA cache_size=1", USERDB, moreThanTheCacheHolds,
               ".system kill -9 $PPID"});
    ASSERT_TRUE(std::filesystem::exists(journal));

    const ProcessResult result = runCommandsAfter("2. **A killed run has left its journal**");

    EXPECT_EQ(result.out + result.err, "");
    EXPECT_FALSE(std::filesystem::exists(journal));
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|10485760B"));
}

TEST_F(OperationsPageTest, PutsTheUserDatabaseBackOutOfWalMode) {
    run({"sqlite3", USERDB, "PRAGMA journal_mode=WAL"});

    // Before it may stand locks that other tests hold in namespaces of their own.
    EXPECT_THAT(runCommandsAfter("3. **Somebody has put the user database into WAL mode**").out,
                EndsWith("delete\n"));

    restore();
    EXPECT_EQ(sqliteRows(USERDB, "PRAGMA journal_mode"), std::vector<std::string>{"delete"});
}

// --- the files

TEST_F(OperationsPageTest, NamesTheLockFileOfADeliveryFile) {
    panel.domain("example.com").mailname("info");
    restore();

    const std::string digest = runCommandsAfter("The name of a lock file").out.substr(0, 32);

    EXPECT_THAT(namesIn("/run/lock/files"), ElementsAre(digest));
}

// --- a lost part, rebuilt by hand

class RebuiltPartTest : public OperationsPageTest {
protected:
    // Without any complaint.
    void rebuild(const std::string& words) const {
        const ProcessResult result = runCommandsAfter(words);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out + result.err, "");
    }

    // The statements that made a database, each without its spacing.
    static std::vector<std::string> schema(const std::string& path) {
        return sqliteRows(
            path,
            "SELECT type, name, tbl_name, REPLACE(REPLACE(sql, ' ', ''), char(10), '')"
            " FROM sqlite_schema ORDER BY name");
    }

    static void expectDelivery(const std::string& line) {
        EXPECT_EQ(contentsOf(DEFAULT_DELIVERY), line + "\n");
        EXPECT_EQ(ownerOf(DEFAULT_DELIVERY), popuser());
        EXPECT_EQ(modeOf(DEFAULT_DELIVERY), "0600");
        restore();
        EXPECT_EQ(contentsOf(MAILNAMES + "/example.com/info/.qmail"), "| true\n" + line + "\n");
    }
};

TEST_F(RebuiltPartTest, TheLockFolderIsRootsAlone) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove_all("/run/lock");

    rebuild("**The lock folder**");

    EXPECT_EQ(ownerOf("/run/lock/files"), "0:0");
    EXPECT_EQ(modeOf("/run/lock/files"), "0700");
    restore();
    EXPECT_EQ(contentsOf(MAILNAMES + "/example.com/info/.qmail"),
              "| true\n" + DELIVERY_LINE + "\n");
}

TEST_F(RebuiltPartTest, TheDefaultDeliveryFileNamesDeliverquota) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove(DEFAULT_DELIVERY);

    rebuild("**`.default_delivery`**");

    expectDelivery(DELIVERY_LINE);
}

TEST_F(RebuiltPartTest, TheDefaultDeliveryFileNamesDovecotsAgent) {
    panel.domain("example.com").mailname("info");
    std::filesystem::remove(DEFAULT_DELIVERY);

    rebuild("and where `dovecot-lda` does");

    expectDelivery(
        "| /usr/libexec/dovecot/dovecot-lda -d \"$DELIVERED_TO\" -a"
        " \"${ORIGINAL_RECIPIENT:-$DELIVERED_TO}\"");
}

TEST_F(RebuiltPartTest, TheUserDatabaseIsAsTheProgramMakesIt) {
    panel.domain("example.com").mailname("info").quota(10485760);
    std::filesystem::remove_all("/var/lib/corvo/mail/userdb");

    rebuild("The user database:");

    const std::string made = "/run/made.db";
    ASSERT_TRUE(mail::MailUserDbHelper(made).initMailUserdb(false));
    EXPECT_EQ(schema(USERDB), schema(made));
    EXPECT_EQ(ownerOf(USERDB), ownerOf(made));
    EXPECT_EQ(modeOf(USERDB), modeOf(made));
    restore();
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|10485760B"));
}

TEST_F(RebuiltPartTest, TheUserDatabaseThatARunHasMadeEmptyIsCompleted) {
    panel.domain("example.com").mailname("info").quota(10485760);
    std::filesystem::remove(USERDB);
    run({mailRebuildBinary()});

    rebuild("The user database:");

    EXPECT_EQ(ownerOf(USERDB), popuser());
    restore();
    EXPECT_THAT(quotaRows(), ElementsAre("example.com|info|10485760B"));
}

TEST_F(RebuiltPartTest, TheHandlersDatabaseIsAsTheProgramMakesIt) {
    std::filesystem::remove_all("/var/lib/corvo/mail/handlers");

    rebuild("must be registered again");

    const std::vector<std::string> rebuilt = schema(HANDLERS);
    const std::string owner = ownerOf(HANDLERS);
    const std::string mode = modeOf(HANDLERS);
    restore();
    EXPECT_EQ(handlerRows().size(), 2U);
    std::filesystem::remove_all("/var/lib/corvo/mail/handlers");
    ASSERT_EQ(mh_db_create(), 0);
    EXPECT_EQ(rebuilt, schema(HANDLERS));
    EXPECT_EQ(owner, ownerOf(HANDLERS));
    EXPECT_EQ(mode, modeOf(HANDLERS));
}

}  // namespace
}  // namespace corvo::test
