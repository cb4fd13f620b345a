// The program mail_audit, from its command line to its exit status.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/integration/whole_run_fixture.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/general_log.h"
#include "tests/support/installation.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"
#include "utils/file_lock.h"

namespace corvo::test::runs {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::ordered_json;

const std::string DOMAIN = MAILNAMES + "/example.com";
const std::string HOME = DOMAIN + "/info";
const std::string DOTQMAIL = HOME + "/.qmail";
const std::string SIZE_FILE = HOME + "/Maildir/maildirsize";

// While it lives, the panel's server can be reached by others than root: its folder is closed.
class OpenSocket {
public:
    OpenSocket() {
        std::filesystem::remove(path_);
        writeFile(path_, "");
        EXPECT_EQ(
            ::mount(PanelDatabase::socket().c_str(), path_.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    ~OpenSocket() {
        EXPECT_EQ(::umount2(path_.c_str(), MNT_DETACH), 0);
        std::filesystem::remove(path_);
        makeLink(PanelDatabase::socket(), path_);
    }
    OpenSocket(const OpenSocket&) = delete;
    OpenSocket& operator=(const OpenSocket&) = delete;

private:
    const std::string path_ = PanelDatabase::SOCKET_LINK;
};

// Runs mail_audit without root's rights: as popuser, who may read the credentials. The program is
// opened before, wherever it lies.
ProcessResult auditAsPopuser(const std::vector<std::string>& arguments) {
    for (const char* path : {"/etc/vhc/private/dsn.ini", "/etc/vhc/.vhc.shadow"})
        EXPECT_EQ(::chown(path, POPUSER_UID, POPUSER_GID), 0);
    std::filesystem::permissions("/etc/vhc/private", std::filesystem::perms(0755));
    const OpenSocket socket;
    return runForked([&] {
        const int program = ::open(mailAuditBinary().c_str(), O_RDONLY | O_CLOEXEC);
        if (::setgroups(0, nullptr) != 0 ||
            ::setresgid(POPUSER_GID, POPUSER_GID, POPUSER_GID) != 0 ||
            ::setresuid(POPUSER_UID, POPUSER_UID, POPUSER_UID) != 0)
            ::_exit(126);
        std::vector<char*> argv = {const_cast<char*>("mail_audit")};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::fexecve(program, argv.data(), environ);
        ::_exit(127);
    });
}

// A server in order, with one mailbox.
class AuditTest : public WholeRunTest {
protected:
    AuditTest() {
        panel.domain("example.com").mailname("info").quota(10485760);
        EXPECT_EQ(mailRebuild().status, 0);
    }

    static ProcessResult audit(const std::vector<std::string>& arguments) {
        std::vector<std::string> command = {mailAuditBinary()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command);
    }

    // What `diff` finds, "<kind>: <reason>" each, with the run that repairs it.
    static std::vector<std::string> differences(std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(), {"diff", "--format", "jsonl", "--recount"});
        const ProcessResult result = audit(arguments);
        std::vector<std::string> found;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            const Json item = Json::parse(line);
            found.push_back(item["kind"].get<std::string>() + ": " +
                            item["reason"].get<std::string>() + " " + item["repair"].dump());
        }
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, found.empty() ? 0 : 1);
        return found;
    }
};

TEST_F(AuditTest, ServerInOrderDiffersInNothing) {
    const ProcessResult result = audit({"diff", "--recount", "--extras"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "0 of 1 mailbox differs.\n");
    EXPECT_EQ(result.err, "");
}

struct Damage {
    const char* name;
    void (*befall)();
    std::vector<std::string> found;
};

const std::string ALL = R"( ["--all"])";
const std::string NONE = " []";

const std::vector<Damage> DAMAGES = {
    {"DomainRootWithAnotherMode",
     [] { ::chmod(DOMAIN.c_str(), 0777); },
     {"domain-root: has another mode" + ALL}},
    {"MissingHome", [] { std::filesystem::remove_all(HOME); }, {"home: is missing" + ALL}},
    {"HomeOfRoot",
     [] { (void)!::chown(HOME.c_str(), 0, 0); },
     {"home: has another owner" + ALL, "home: has another group" + ALL}},
    {"MissingFolder",
     [] { std::filesystem::remove_all(HOME + "/Maildir/.Sent"); },
     {"directory: is missing" + ALL}},
    {"FileInPlaceOfAFolder",
     [] {
         std::filesystem::remove_all(HOME + "/Maildir/.Sent");
         writeFile(HOME + "/Maildir/.Sent", "");
         ::chmod((HOME + "/Maildir/.Trash").c_str(), 0755);
     },
     {"directory: is no directory" + NONE, "directory: has another mode" + NONE}},
    {"MissingDeliveryFile",
     [] { std::filesystem::remove(DOTQMAIL); },
     {"delivery-file: is missing" + ALL}},
    {"DeliveryFileWithAnotherMode",
     [] { ::chmod(DOTQMAIL.c_str(), 0644); },
     {"delivery-file: has another mode" + ALL}},
    {"DirectoryInPlaceOfTheDeliveryFile",
     [] {
         std::filesystem::remove(DOTQMAIL);
         makeDirectory(DOTQMAIL);
     },
     {"delivery-file: is no regular file" + NONE}},
    {"DiscardingMailbox",
     [] { writeFile(DOTQMAIL, "| true\n"); },
     {"delivery: discards though the panel says that it shall deliver" + ALL}},
    {"OldDeliveryLine",
     [] { writeFile(DOTQMAIL, "| true\n./Maildir/\n"); },
     {"delivery: delivers by an old line" + ALL}},
    {"SurplusLine",
     [] { writeFile(DOTQMAIL, contentsOf(DOTQMAIL) + "&old@example.net\n"); },
     {"surplus-line: has a line that the panel does not ask for" + ALL}},
    {"LinesInAnotherOrder",
     [] { writeFile(DOTQMAIL, DELIVERY_LINE + "\n| true\n"); },
     {"line-order: has its lines in another order, or more than once" + ALL}},
    {"MissingMaildirsize",
     [] { std::filesystem::remove(SIZE_FILE); },
     {"maildirsize: is missing" + ALL}},
    {"DamagedMaildirsize",
     [] { writeFile(SIZE_FILE, "10485760S"); },
     {"maildirsize: is damaged" + ALL}},
    {"OtherLimits",
     [] { writeFile(SIZE_FILE, "5S\n0 0\n"); },
     {"limits: has other limits in its header" + ALL}},
    {"OtherSum",
     [] { writeFile(SIZE_FILE, "10485760S\n5 1\n"); },
     {"usage: has another sum than the messages (bytes, messages)" + ALL}},
    {"UsageLinesOfAgents", [] { writeFile(SIZE_FILE, "10485760S\n5 1\n-5 -1\n"); }, {}},
    {"MissingRow",
     [] { sqliteExecute(USERDB, "DELETE FROM mailbox_quota"); },
     {"quota-row: has no row for it" + ALL}},
    {"RowWithAnotherQuota",
     [] { sqliteExecute(USERDB, "UPDATE mailbox_quota SET quota = '1B'"); },
     {"quota-row: has another quota" + ALL}},
    {"MissingRecord",
     [] { sqliteExecute(HANDLERS, "DELETE FROM handlers WHERE queue = 4"); },
     {R"(overquota-records: does not reject mail over quota as the panel says ["--all","--fast"])"}},
    {"LinkThatLeadsNowhere",
     [] {
         std::filesystem::remove_all(HOME);
         makeLink("/nowhere", HOME);
     },
     {"home: is a link that leads nowhere, or lies behind one" + NONE}},
    {"LinkOfPopuser",
     [] {
         std::filesystem::rename(HOME, DOMAIN + "/moved");
         makeLink(DOMAIN + "/moved", HOME, POPUSER_UID);
     },
     {"home: is a link that is refused" + NONE}},
    {"LinkOfRoot",
     [] {
         std::filesystem::rename(HOME, DOMAIN + "/moved");
         makeLink(DOMAIN + "/moved", HOME);
     },
     {}},
};

class AuditOfDamageTest : public AuditTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(AuditOfDamageTest, NamesItAndWhatRepairsIt) {
    GetParam().befall();
    for (const char* path : {&DOTQMAIL[0], &SIZE_FILE[0]}) {
        struct stat seen = {};
        if (::lstat(path, &seen) == 0 && S_ISREG(seen.st_mode))
            (void)!::chown(path, POPUSER_UID, POPUSER_GID);
    }
    const std::vector<std::string> found = differences();
    EXPECT_EQ(found, GetParam().found);
    std::vector<std::string> left;
    for (const std::string& item : found)
        if (item.ends_with(NONE))
            left.push_back(item);
    EXPECT_EQ(mailRebuild().status, 0);
    EXPECT_EQ(differences(), left) << "after a run";
}

INSTANTIATE_TEST_SUITE_P(Damages, AuditOfDamageTest, ::testing::ValuesIn(DAMAGES),
                         [](const auto& damage) { return damage.param.name; });

// A server in order, with a mail group that only forwards.
class AuditOfForwardsTest : public AuditTest {
protected:
    AuditOfForwardsTest() {
        panel.domain("example.org")
            .mailname("partners")
            .postbox(false)
            .group()
            .redirect("anna@example.net")
            .redirect("orders@example.net");
        EXPECT_EQ(mailRebuild().status, 0);
    }

    // An SQL expression instead of the first of the two.
    void forwardTo(const std::string& address) {
        panel.execute("UPDATE mail_redir SET address = " + address +
                      " WHERE address <> 'orders@example.net'");
    }

    inline static const std::string FILE = MAILNAMES + "/example.org/partners/.qmail";
    inline static const std::string FORWARDS = "| true\n&anna@example.net\n&orders@example.net\n";
};

TEST_F(AuditOfForwardsTest, ForwardsThatNoRunPutsAreNamedBeforeAndAfterIt) {
    const std::vector<std::string> left = {
        "forward: cannot forward to what is no address" + NONE,
        "forward: gets no forward behind one that is to no address" + NONE};
    for (const char* address : {"'noat'", "''", "'| true'", "'a@b.example\n&c@d.example'",
                                "'a\r@b.example'", "'a\\0@b.example'"}) {
        forwardTo("'anna@example.net'");
        EXPECT_EQ(mailRebuild().status, 0);
        EXPECT_THAT(differences(), ElementsAre());
        ASSERT_EQ(contentsOf(FILE), FORWARDS);
        forwardTo(address);
        EXPECT_THAT(
            differences(),
            ElementsAre("surplus-line: has a line that the panel does not ask for" + ALL, left[0],
                        left[1],
                        "surplus-line: has a forward that a run removes: one before it is to no "
                        "address" +
                            ALL))
            << address;
        EXPECT_EQ(mailRebuild().status, 0);
        EXPECT_EQ(contentsOf(FILE), "| true\n");
        EXPECT_EQ(differences(), left) << address;
    }
}

TEST_F(AuditOfForwardsTest, AddressIsPrintedAsThePanelHasIt) {
    forwardTo("'a\\0\x1B@b.example'");
    EXPECT_EQ(mailRebuild().status, 0);
    EXPECT_EQ(audit({"diff"}).out,
              FILE +
                  ": cannot forward to what is no address, expected \"a\\x00\\x1b@b.example\" [no "
                  "run repairs this]\n" +
                  FILE +
                  ": gets no forward behind one that is to no address, expected "
                  "\"&orders@example.net\" [no run repairs this]\n"
                  "1 of 2 mailboxes differs: 2 items, none repaired by --all.\n");
}

TEST_F(AuditOfForwardsTest, ForwardsBehindOneThatCannotBeReadAreNotCalledUnasked) {
    forwardTo("'a@x..y'");
    const ProcessResult result = audit({"diff"});
    EXPECT_EQ(result.status, 2);
    for (const std::string address : {"anna", "orders"})
        EXPECT_THAT(result.out, HasSubstr(FILE +
                                          ": has a forward that the panel, as far as it was "
                                          "read, does not ask for, found \"&" +
                                          address + "@example.net\" [--all]\n"));
    EXPECT_THAT(result.err,
                HasSubstr("mail group forwarding cycle for partners@example.org failed"));
    EXPECT_EQ(mailRebuild().status, 0);
    EXPECT_EQ(contentsOf(FILE), "| true\n");
    EXPECT_EQ(audit({"diff"}).status, 2);
}

TEST_F(AuditTest, WithoutTheAccountNothingIsCompared) {
    writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/bash\n");
    const ProcessResult result = audit({"diff"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "mail_audit: there is no account popuser, so that no run is possible: nothing was "
              "compared\n");
}

TEST_F(AuditTest, RowsThatCannotBeLookedAtAreToldOnce) {
    std::filesystem::remove(USERDB);
    const ProcessResult result = audit({"diff"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "0 of 1 mailbox differs.\n");
    EXPECT_EQ(result.err, "mail_audit: " + USERDB +
                              ": No such file or directory: the quota rows were not looked at\n");
    EXPECT_FALSE(exists(USERDB));
}

TEST_F(AuditTest, WithoutThePanelNothingIsCompared) {
    std::filesystem::remove("/etc/vhc/.vhc.shadow");
    for (const char* command : {"diff", "show"}) {
        const ProcessResult result = audit({command});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err,
                    EndsWith("\nmail_audit: the panel database: connection failed: nothing was "
                             "looked at\n"));
    }
}

TEST_F(AuditTest, WithoutTheListOfDomainsExtrasAreNotLookedFor) {
    panel.execute("RENAME TABLE domains TO others");
    const ProcessResult result = audit({"diff", "--extras"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err,
                StartsWith("mail_audit: the panel database: MySQL error 1146: Table '"));
    EXPECT_THAT(result.err, HasSubstr(": extras were not looked for\n"));
    EXPECT_THAT(result.err, HasSubstr("mail_audit: the panel database was not read whole: "));
    EXPECT_EQ(result.out, "0 of 0 mailboxes differ.\n");
}

TEST_F(AuditTest, WalkThatIsBrokenOffIsNotWhole) {
    panel.execute("ALTER TABLE DomainServices MODIFY status varchar(20)");
    panel.execute("UPDATE DomainServices SET status = 'x'");
    const ProcessResult result = audit({"diff"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr(" executing the central domain restoration cycle failed ("));
    EXPECT_THAT(result.err, HasSubstr("mail_audit: the panel database was not read whole"));
}

TEST_F(AuditTest, AsksThePanelWhatARunAsks) {
    GeneralLog logOfRun(panel);
    EXPECT_EQ(mailRebuild().status, 0);
    const std::vector<std::string> asked = logOfRun.statements();
    EXPECT_FALSE(asked.empty());
    GeneralLog log(panel);
    EXPECT_EQ(audit({"diff"}).status, 0);
    EXPECT_EQ(log.statements(), asked);
    EXPECT_EQ(log.connections(), logOfRun.connections());
}

TEST_F(AuditTest, AnyUserWhoMayReadEverythingFindsWhatRootFinds) {
    ASSERT_EQ(::chmod(LOCK_FOLDER, 0700), 0);
    const ProcessResult inOrder = auditAsPopuser({"diff", "--recount"});
    EXPECT_EQ(inOrder.err, "");
    EXPECT_EQ(inOrder.out, "0 of 1 mailbox differs.\n");
    EXPECT_EQ(inOrder.status, 0);
    writeFile(DOTQMAIL, "| true\n");
    std::filesystem::remove(SIZE_FILE);
    std::filesystem::remove_all(HOME + "/Maildir/.Sent");
    const ProcessResult byRoot = audit({"diff", "--recount"});
    const ProcessResult byPopuser = auditAsPopuser({"diff", "--recount"});
    EXPECT_THAT(byRoot.out, HasSubstr("3 items, all repaired by --all"));
    EXPECT_EQ(byPopuser.out, byRoot.out);
    EXPECT_EQ(byPopuser.err, "");
    EXPECT_EQ(byPopuser.status, 1);
}

TEST_F(AuditTest, WhatTheUserMayNotReadIsToldAndIsNoItem) {
    writeFile(DEFAULT_DELIVERY, DELIVERY_LINE + "\n", 0, 0, 0600);
    std::filesystem::remove(DOTQMAIL);
    ASSERT_EQ(::chmod((HOME + "/Maildir").c_str(), 0), 0);
    const ProcessResult result = auditAsPopuser({"diff"});
    EXPECT_EQ(result.out, HOME +
                              "/Maildir: has another mode, expected \"0700\", found \"0000\" "
                              "[--all]\n1 of 1 mailbox differs: 1 item, all repaired by --all.\n");
    EXPECT_EQ(result.err, "mail_audit: " + DEFAULT_DELIVERY +
                              ": Permission denied: the delivery files were not looked at\n"
                              "mail_audit: " +
                              HOME +
                              "/Maildir: Permission denied: what is in it was not looked at\n"
                              "mail_audit: " +
                              SIZE_FILE + ": Permission denied: what it says was not looked at\n");
    EXPECT_EQ(result.status, 2);
}

TEST_F(AuditTest, DomainRootThatTheUserMayNotEnterIsSeenFromOutside) {
    ASSERT_EQ(::chmod(DOMAIN.c_str(), 0), 0);
    const ProcessResult result = auditAsPopuser({"diff"});
    EXPECT_EQ(result.out, DOMAIN +
                              ": has another mode, expected \"0750\", found \"0000\" [--all]\n"
                              "0 of 0 mailboxes differ: 1 item, all repaired by --all.\n");
    EXPECT_EQ(result.err,
              "mail_audit: " + DOMAIN +
                  ": Permission denied: the mailboxes of example.com were not looked at\n");
    EXPECT_EQ(result.status, 2);
}

TEST_F(AuditTest, OnAReadOnlyDiskNoRunRepairsAnything) {
    panel.domain("example.net").mailname("shop").quota(10485760);
    EXPECT_EQ(mailRebuild().status, 0);
    std::filesystem::remove_all(HOME);
    std::filesystem::remove(MAILNAMES + "/example.net/shop/.qmail");
    ::chmod(DOMAIN.c_str(), 0777);
    sqliteExecute(USERDB, "UPDATE mailbox_quota SET quota = '1B'");
    sqliteExecute(HANDLERS, "DELETE FROM handlers WHERE queue = 4");
    const std::string records =
        "overquota-records: does not reject mail over quota as the panel says";
    {
        const ReadOnlyDisk mail(MAILNAMES);
        EXPECT_THAT(
            differences(),
            ElementsAre("domain-root: has another mode" + NONE, "home: is missing" + NONE,
                        "quota-row: has another quota" + NONE, "delivery-file: is missing" + NONE,
                        "quota-row: has another quota" + ALL, records + R"( ["--all","--fast"])"));
    }
    const ReadOnlyDisk users(std::filesystem::path(USERDB).parent_path());
    const ReadOnlyDisk handlers(std::filesystem::path(HANDLERS).parent_path());
    EXPECT_THAT(
        differences(),
        ElementsAre("domain-root: has another mode" + ALL, "home: is missing" + ALL,
                    "quota-row: has another quota" + NONE, "delivery-file: is missing" + ALL,
                    "quota-row: has another quota" + NONE, records + NONE));
}

TEST_F(AuditTest, EmptyDatabaseLacksItsTable) {
    writeFile(USERDB, "");
    const ProcessResult result = audit({"diff"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "mail_audit: " + USERDB +
                              ": the rows cannot be read: no such table: mailbox_quota: the quota "
                              "rows were not looked at\n");
}

TEST_F(AuditTest, ExtrasAreNamedWhenAskedFor) {
    makeDirectory(DOMAIN + "/former");
    makeDirectory(MAILNAMES + "/gone.example/info");
    sqliteExecute(USERDB,
                  "INSERT INTO mailbox_quota VALUES ('example.com', 'late', '1B'), "
                  "('gone.example', 'info', '1B')");
    EXPECT_THAT(differences(), ElementsAre());
    EXPECT_THAT(differences({"--extras"}),
                ElementsAre("home: is left alone []", "quota-row: has a row too many []",
                            "domain-root: is left alone []", "quota-row: has a row too many []"));
}

TEST_F(AuditTest, ExtrasAreToldApart) {
    makeDirectory(DOMAIN + "/former");
    makeDirectory(DOMAIN + "/Former");
    makeDirectory(MAILNAMES + "/gone.example/info");
    sqliteExecute(USERDB,
                  "INSERT INTO mailbox_quota VALUES ('example.com', 'late', '1B'), "
                  "('gone.example', 'a', '1B'), ('gone.example', 'b', '1B'), "
                  "('lost.example', '', '1B')");
    const ProcessResult result = audit({"diff", "--extras", "--quiet"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    const std::string rest = " [the panel does not know it]\n";
    const std::string home = ": is left alone" + rest;
    const std::string row = " in " + USERDB + ": has a row too many" + rest;
    EXPECT_EQ(result.out, DOMAIN + "/Former" + home + DOMAIN + "/former" + home +
                              "late@example.com" + row + MAILNAMES + "/gone.example" + home +
                              "a@gone.example" + row + "b@gone.example" + row + "@lost.example" +
                              row);
    const Json items = Json::parse(audit({"diff", "--extras", "--format", "json"}).out)["items"];
    EXPECT_EQ(items[4]["domain"], "gone.example");
    EXPECT_EQ(items[4]["mailbox"], "a@gone.example");
}

TEST_F(AuditTest, MailboxesOfUnknownDomainsAreNamedWhenTheyAreMeant) {
    makeDirectory(MAILNAMES + "/gone.example/a");
    makeDirectory(MAILNAMES + "/gone.example/b");
    sqliteExecute(USERDB,
                  "INSERT INTO mailbox_quota VALUES ('gone.example', 'a', '1B'), "
                  "('gone.example', 'b', '1B')");
    EXPECT_EQ(audit({"diff", "--extras", "--quiet", "--mailbox", "A@gone.example"}).out,
              MAILNAMES + "/gone.example/a: is left alone [the panel does not know it]\n" +
                  "a@gone.example in " + USERDB +
                  ": has a row too many [the panel does not know it]\n");
    EXPECT_THAT(differences({"--extras", "--domain", "gone.*"}),
                ElementsAre("domain-root: is left alone []", "quota-row: has a row too many []",
                            "quota-row: has a row too many []"));
}

TEST_F(AuditTest, ExtrasBehindLinksAreThoseThatARunWouldFollow) {
    makeDirectory("/srv/elsewhere/info");
    makeLink("/srv/elsewhere", MAILNAMES + "/gone.example");
    makeLink("/srv/elsewhere", MAILNAMES + "/popusers.example", POPUSER_UID);
    makeLink("/srv/nowhere", MAILNAMES + "/dangling.example");
    makeLink("/etc/passwd", MAILNAMES + "/file.example");
    makeLink("/srv/elsewhere/info", DOMAIN + "/former");
    makeLink("/srv/elsewhere/info", DOMAIN + "/planted", POPUSER_UID);
    const std::string rest = ": is left alone [the panel does not know it]\n";
    EXPECT_EQ(audit({"diff", "--extras", "--quiet"}).out,
              DOMAIN + "/former" + rest + MAILNAMES + "/gone.example" + rest);
    EXPECT_EQ(audit({"diff", "--extras", "--quiet", "--mailbox", "*@gone.example"}).out,
              MAILNAMES + "/gone.example/info" + rest);
}

TEST_F(AuditTest, DomainInTwoSpellingsHasTheMailnamesOfBoth) {
    panel.domain("example.net").mailname("shop");
    panel.domain("EXAMPLE.com").mailname("zoe");
    EXPECT_EQ(mailRebuild().status, 0);
    EXPECT_THAT(differences({"--extras"}), ElementsAre());
    makeDirectory(DOMAIN + "/former");
    sqliteExecute(USERDB, "INSERT INTO mailbox_quota VALUES ('example.com', 'late', '1B')");
    EXPECT_THAT(differences({"--extras"}),
                ElementsAre("home: is left alone []", "quota-row: has a row too many []"));
}

TEST_F(AuditTest, DomainThatTheWalkReportsInPartHasNoExtras) {
    makeDirectory(DOMAIN + "/zoe");
    panel.domain("EXAMPLE.com").mailname("zoe");
    panel.execute(
        "DELETE FROM DomainServices WHERE dom_id IN "
        "(SELECT id FROM domains WHERE BINARY name = 'EXAMPLE.com')");
    const ProcessResult result = audit({"diff", "--extras"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "0 of 1 mailbox differs.\n");
    EXPECT_EQ(result.err, "mail_audit: " + DOMAIN +
                              ": the walk did not report all domains that share it: extras were "
                              "not looked for\n");
    EXPECT_EQ(audit({"diff", "--extras", "--mailbox", "info@example.com"}).status, 2);
    panel.domain("example.net").mailname("shop");
    EXPECT_EQ(mailRebuild().status, 0);
    EXPECT_THAT(differences({"--extras", "--domain", "example.net"}), ElementsAre());
}

TEST_F(AuditTest, DomainsThatTheWalkPassesOverAreNoExtras) {
    panel.execute("DELETE FROM Parameters WHERE parameter = 'nonexist_mail'");
    EXPECT_THAT(differences({"--extras"}), ElementsAre());
}

TEST_F(AuditTest, ScopeLimitsWhatIsCompared) {
    panel.domain("example.net").mailname("shop");
    EXPECT_THAT(differences({"--domain", "EXAMPLE.c*"}), ElementsAre());
    EXPECT_THAT(differences({"--mailbox", "*@example.net"}),
                ElementsAre("home: is missing" + ALL, "quota-row: has no row for it" + ALL));
    const ProcessResult nobody = audit({"diff", "--domain", "example.org"});
    EXPECT_EQ(nobody.status, 2);
    EXPECT_EQ(nobody.err,
              "mail_audit: nothing that the panel knows is meant by --domain and --mailbox\n");
}

TEST_F(AuditTest, DomainWithoutMailnamesIsMeant) {
    panel.domain("empty.example");
    EXPECT_EQ(mailRebuild().status, 0);
    EXPECT_THAT(differences({"--domain", "empty.example"}), ElementsAre());
    ::chmod((MAILNAMES + "/empty.example").c_str(), 0777);
    EXPECT_THAT(differences({"--domain", "empty.example"}),
                ElementsAre("domain-root: has another mode" + ALL));
}

// A file in place of a domain's root, or nobody's link.
const std::vector<void (*)(const std::string& root)> OBSTACLES = {
    [](const std::string& root) { writeFile(root, "x\n"); },
    [](const std::string& root) { makeLink("/tmp", root, POPUSER_UID); }};

TEST_F(AuditTest, DomainThatCannotBeEnteredIsToldOnlyWhereItsMailboxesAreMeant) {
    panel.domain("bad.example").mailname("shop");
    const std::string root = MAILNAMES + "/bad.example";
    for (const auto obstruct : OBSTACLES) {
        std::filesystem::remove(root);
        obstruct(root);
        EXPECT_THAT(differences({"--domain", "example.com", "--extras"}), ElementsAre());
        EXPECT_THAT(differences({"--mailbox", "*@example.com", "--extras"}), ElementsAre());
        for (const auto& scope : std::vector<std::vector<std::string>>{
                 {"--domain", "bad.example"}, {"--mailbox", "shop@bad.example"}, {}}) {
            std::vector<std::string> arguments = {"diff"};
            arguments.insert(arguments.end(), scope.begin(), scope.end());
            const ProcessResult result = audit(arguments);
            EXPECT_EQ(result.status, 2);
            EXPECT_THAT(result.err, StartsWith("mail_audit: " + root + ": is "));
            EXPECT_THAT(result.err,
                        EndsWith(": the mailboxes of bad.example were not looked at\n"));
        }
    }
}

TEST_F(AuditTest, DomainThatCannotBeEnteredHidesNothingWithoutMailnames) {
    panel.domain("bad.example");
    writeFile(MAILNAMES + "/bad.example", "x\n");
    EXPECT_THAT(differences(), ElementsAre("domain-root: is no directory" + NONE));
}

TEST_F(AuditTest, ExtrasAloneAreMeantToo) {
    makeDirectory(DOMAIN + "/former");
    makeDirectory(MAILNAMES + "/gone.example/info");
    EXPECT_THAT(differences({"--extras", "--domain", "gone.example"}),
                ElementsAre("domain-root: is left alone []"));
    EXPECT_THAT(differences({"--extras", "--mailbox", "former@example.com"}),
                ElementsAre("home: is left alone []"));
}

}  // namespace
}  // namespace corvo::test::runs
