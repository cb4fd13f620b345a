// What mail_audit prints: in each format, in colour, of hostile names, and where it cannot.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/integration/instrumented.h"
#include "tests/integration/whole_run_fixture.h"
#include "tests/support/disk.h"
#include "tests/support/general_log.h"
#include "tests/support/skip.h"

namespace corvo::test::runs {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using Arguments = std::vector<std::string>;
using Json = nlohmann::ordered_json;

ProcessResult audit(const Arguments& arguments, const Environment& environment = {}) {
    Arguments command = {mailAuditBinary()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command, environment);
}

// Standard output goes into a device that takes nothing.
ProcessResult auditWithoutRoom(const std::string& arguments) {
    return run({"sh", "-c", "exec \"$0\" " + arguments + " > /dev/full", mailAuditBinary()});
}

// Standard output goes into a pipe that nobody reads any more.
ProcessResult auditWithoutReader(const char* command) {
    return runForked([&] {
        std::array<int, 2> ends{};
        ::_exit(::pipe(ends.data()) == 0 && ::dup2(ends[1], STDOUT_FILENO) == STDOUT_FILENO &&
                        ::close(ends[0]) == 0 && ::close(ends[1]) == 0
                    ? ::execl(mailAuditBinary().c_str(), "mail_audit", command, nullptr)
                    : -1);
    });
}

// Both streams are a terminal.
std::string auditOnTerminal(const Arguments& arguments, const Environment& environment) {
    Arguments command = {"python3", "-c", "import pty, sys; pty.spawn(sys.argv[1:])",
                         mailAuditBinary()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command, environment).out;
}

std::string withFormat(const std::string& command, const std::string& format) {
    return command + " --format " + format;
}

// CORVO_WRITE_GOLDEN in the environment takes what was printed as what shall be.
void expectGolden(const std::string& name, const std::string& printed) {
    const std::string path = std::string(CORVO_GOLDEN_FOLDER) + "/" + name;
    if (std::getenv("CORVO_WRITE_GOLDEN") != nullptr)
        writeFile(path, printed);
    EXPECT_EQ(printed, contentsOf(path)) << path;
}

// What is not as a definition of the schema wants it.
std::string faultsOf(const std::string& printed, const std::string& definition) {
    const std::string file = "/run/printed.json";
    writeFile(file, printed);
    const ProcessResult result =
        run({"python3", CORVO_VALID_JSON, CORVO_AUDIT_SCHEMA, definition, file});
    if (result.status == SKIPPED)
        skipTest("needs the Python module jsonschema");
    return result.status == 0 ? result.err : "invalid: " + result.err;
}

std::vector<Json> objectsIn(const std::string& lines) {
    std::vector<Json> objects;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);)
        objects.push_back(Json::parse(line));
    return objects;
}

const char* placeOfProcesses() {
    if (INSTRUMENTED)
        skipTest("the sanitizers want the /proc that another stands in for here");
    return "/proc";
}

// The sample panel with one row at least for everything that the panel may say.
class AuditFormatsTest : public WholeRunTest {
protected:
    AuditFormatsTest() : processes_(placeOfProcesses(), 0) {
        writeFile("/proc/1/comm", "init\n");
        writeFile("/proc/sys/fs/protected_hardlinks", "1\n");
        writeFile("/etc/fstab", "");
        loadSample(panel);
        panel.execute(
            "INSERT INTO smtp_poplocks (ip_address, ip_mask) VALUES ('192.0.2.0', '24');"
            "INSERT INTO badmailfrom (domain) VALUES ('spam.example');"
            "INSERT INTO certificates (id, name, cert_file) VALUES (701, 'own', 'cert-701');"
            "INSERT INTO Parameters (id, parameter, value) VALUES"
            " (101, 'mail_certificate_id', '701');");
        panel.mailServer("rbl_server", "one.example;two.example");
        EXPECT_EQ(mailRebuild({"--all"}).status, 0);
    }

    // Damage for an item of nearly every kind, and something that the panel does not know.
    static void damageMuch() {
        damage();
        writeFile(home("info", "example.com") + "/.qmail", "| true\n&nobody@example.com\n",
                  POPUSER_UID, POPUSER_GID, 0644);
        makeDirectory(MAILNAMES + "/left.example");
        makeDirectory(MAILNAMES + "/example.com/left");
        sqliteExecute(HANDLERS, "DELETE FROM handlers WHERE name = 'check-quota'");
    }

    // The names of the database and its login, the server's version and the room on the disk are
    // the machine's.
    std::string masked(std::string text) const {
        const auto mask = [&](const std::string& what, const char* with) {
            text = std::regex_replace(text, std::regex(what), with);
        };
        mask(panel.name(), "DATABASE");
        mask(panel.user() + "@localhost", "LOGIN@localhost");
        mask("server [0-9][^\"\n]*", "server VERSION");
        mask("[0-9]+ blocks of [0-9]+ bytes and [0-9]+ inodes", "N blocks of N bytes and N inodes");
        mask("take [0-9]+ of each", "take N of each");
        return text;
    }

    SmallDisk processes_;
};

struct Print {
    const char* command;
    const char* format;
    int status;
};

void PrintTo(const Print& print, std::ostream* stream) {
    *stream << print.command << " as " << print.format;
}

class AuditGoldenTest : public AuditFormatsTest, public ::testing::WithParamInterface<Print> {};

TEST_P(AuditGoldenTest, PrintsWhatIsWritten) {
    damageMuch();
    const auto [command, format, status] = GetParam();
    Arguments arguments = {command, "--format", format};
    if (std::string(command) == "diff")
        arguments.insert(arguments.end(), {"--recount", "--extras"});
    const ProcessResult result = audit(arguments);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.err, "");
    expectGolden(std::string(command) + "." + format, masked(result.out));
}

TEST_P(AuditGoldenTest, FollowsTheSchema) {
    damageMuch();
    const std::string command = GetParam().command;
    const std::string document = audit({command, "--format", "json"}).out;
    EXPECT_EQ(faultsOf(document, command + "_document"), "");
    const std::string lines = audit({command, "--format", "jsonl"}).out;
    EXPECT_EQ(faultsOf(lines, "line"), "");
    EXPECT_EQ(Json(objectsIn(lines)), Json::parse(document)["items"]);
}

INSTANTIATE_TEST_SUITE_P(All, AuditGoldenTest,
                         ::testing::Values(Print{"check", "table", 0}, Print{"check", "json", 0},
                                           Print{"check", "jsonl", 0}, Print{"diff", "table", 1},
                                           Print{"diff", "json", 1}, Print{"diff", "jsonl", 1},
                                           Print{"show", "table", 0}, Print{"show", "json", 0},
                                           Print{"show", "jsonl", 0}),
                         [](const auto& entry) {
                             return std::string(entry.param.command) + "_" + entry.param.format;
                         });

TEST_F(AuditFormatsTest, SchemaRefusesWhatIsNotDocumented) {
    Json object = objectsIn(audit({"show", "--format", "jsonl"}).out).at(0);
    EXPECT_EQ(faultsOf(object.dump(), "line"), "");
    Json changed = object;
    changed["kind"] = "tree";
    EXPECT_THAT(faultsOf(changed.dump(), "line"), StartsWith("invalid: "));
    changed = object;
    changed["enabled"] = "yes";
    EXPECT_THAT(faultsOf(changed.dump(), "line"), StartsWith("invalid: "));
    changed = object;
    changed.erase("enabled");
    EXPECT_THAT(faultsOf(changed.dump(), "line"), StartsWith("invalid: "));
    changed = object;
    changed["more"] = 1;
    EXPECT_THAT(faultsOf(changed.dump(), "line"), StartsWith("invalid: "));
}

TEST_F(AuditFormatsTest, ProblemsGiveCheckItsStatus) {
    writeFile("/etc/vhc/private/dsn.ini", contentsOf("/etc/vhc/private/dsn.ini"), 0, 0, 0644);
    std::filesystem::remove(USERDB);
    const ProcessResult result = audit({"check"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out,
                HasSubstr("\nproblem  user database: " + USERDB + " is not there [rebuild it]\n"));
    EXPECT_THAT(result.out, EndsWith("2 problems, 1 warning.\n"));
}

TEST_F(AuditFormatsTest, QuietCheckPrintsOnlyWhatIsNotOk) {
    const std::string warning =
        "warning  redirects of mail names that are no group: info@example.com: redirects that are "
        "not restored: 1 [nothing, unless it should be a group: then make it one in the panel]\n";
    EXPECT_EQ(audit({"check", "--quiet"}).out, warning);
    EXPECT_EQ(objectsIn(audit({"check", "--quiet", "--format", "jsonl"}).out).size(), 1U);
    EXPECT_EQ(audit({"check", "--quiet", "--format", "json"}).out,
              audit({"check", "--format", "json"}).out);
}

TEST_F(AuditFormatsTest, QuietDiffAndShowLeaveOutTheSummaryLine) {
    damageMuch();
    for (const char* command : {"diff", "show"}) {
        const std::string all = audit({command}).out;
        const std::string quiet = audit({command, "--quiet"}).out;
        EXPECT_THAT(quiet, Not(IsEmpty()));
        EXPECT_EQ(quiet + all.substr(all.rfind('\n', all.size() - 2) + 1), all);
    }
}

TEST_F(AuditFormatsTest, ColourIsForTerminalsUnlessAskedFor) {
    damageMuch();
    const std::string red = "\x1b[3";
    EXPECT_THAT(audit({"diff"}).out, Not(HasSubstr(red)));
    EXPECT_THAT(audit({"diff", "--color", "always"}).out, StartsWith("\x1b[33m"));
    EXPECT_THAT(auditOnTerminal({"diff"}, {{"NO_COLOR", ""}}), HasSubstr("\x1b[33m"));
    EXPECT_THAT(auditOnTerminal({"diff"}, {{"NO_COLOR", "1"}}), Not(HasSubstr(red)));
    EXPECT_THAT(auditOnTerminal({"diff", "--color", "never"}, {}), Not(HasSubstr(red)));
    EXPECT_THAT(auditOnTerminal({"diff", "--color", "always"}, {{"NO_COLOR", "1"}}),
                HasSubstr("\x1b[33m"));
}

// Names as bytes, which the panel's tables do not have otherwise.
TEST_F(AuditFormatsTest, HostileNamesDriveNoTerminalAndAreValidJson) {
    panel.execute(
        "ALTER TABLE mail MODIFY mail_name VARBINARY(245);"
        "ALTER TABLE mail_aliases MODIFY alias VARBINARY(245);"
        "INSERT INTO mail (id, dom_id, mail_name, postbox)"
        " VALUES (99, 1, CONCAT(UNHEX('1B'), '[2j', UNHEX('0AE280AEFF')), 'true');"
        "INSERT INTO mail_aliases (mn_id, alias) VALUES (99, UNHEX('C29B8007'));");
    const std::string printed = "\\x1b[2j\\x0a\\xe2\\x80\\xae\\xff";
    const std::string json = R"("mailbox":"\u001b[2j\n\u202e\\xff@example.com")";
    const std::string diff = audit({"diff"}).out;
    EXPECT_THAT(diff, HasSubstr(MAILNAMES + "/example.com/" + printed + ": is missing [--all]\n"));
    const std::string show = audit({"show"}).out;
    EXPECT_THAT(
        show, HasSubstr("mail-alias          " + printed + "@example.com: \\xc2\\x9b\\x80\\x07\n"));
    const std::string diffLines = audit({"diff", "--format", "jsonl"}).out;
    EXPECT_THAT(diffLines, HasSubstr(json));
    EXPECT_EQ(faultsOf(diffLines, "line"), "");
    const std::string showLines = audit({"show", "--format", "jsonl"}).out;
    EXPECT_THAT(showLines, HasSubstr(json + R"(,"alias":"\u009b\\x80\u0007")"));
    EXPECT_EQ(faultsOf(showLines, "line"), "");
    for (const std::string& text : {diff, show, diffLines, showLines})
        EXPECT_EQ(text.find_first_of("\x1b\xff\x9b\x07"), std::string::npos);
}

TEST_F(AuditFormatsTest, HostileNamesDriveNoTerminalThroughWarningsEither) {
    panel.execute(
        "ALTER TABLE mail MODIFY mail_name VARBINARY(245);"
        "ALTER TABLE mail_redir MODIFY address VARBINARY(255);"
        "UPDATE mail SET mail_name=CONCAT(UNHEX('1B'), '[2j') WHERE mail_name='partners';"
        "UPDATE mail_redir SET address=CONCAT('a@', UNHEX('FF')) WHERE mn_id=15;");
    const ProcessResult result = audit({"show"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, StartsWith("   executing mail group forwarding cycle for "
                                       "\\x1b[2j@example.com failed ("));
    EXPECT_EQ(result.err.find_first_of("\x1b\xff"), std::string::npos) << result.err;
}

TEST_F(AuditFormatsTest, StandardOutputThatTakesNothingIsOneLineAndStatusTwo) {
    damageMuch();
    for (const char* command : {"check", "diff", "show"})
        for (const char* format : {"table", "json", "jsonl"}) {
            const ProcessResult result = auditWithoutRoom(withFormat(command, format));
            EXPECT_EQ(result.status, 2) << command << format;
            EXPECT_EQ(result.err, "mail_audit: standard output: No space left on device\n");
        }
    const ProcessResult result = auditWithoutRoom("--help");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "mail_audit: standard output: No space left on device\n");
}

TEST_F(AuditFormatsTest, ReaderThatHasSeenEnoughIsNoNews) {
    damageMuch();
    for (const char* command : {"check", "diff", "show"}) {
        const ProcessResult result = auditWithoutReader(command);
        EXPECT_EQ(result.status, 128 + SIGPIPE) << command;
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(AuditFormatsTest, UsageErrorIsOneLineOnStandardErrorAndStatusTwo) {
    for (const Arguments& arguments : {Arguments{},
                                       {"repair"},
                                       {"diff", "--fix"},
                                       {"diff", "--format", "xml"},
                                       {"check", "--domain", "a"},
                                       {"show", "--mailbox", "info"}}) {
        const ProcessResult result = audit(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, StartsWith("mail_audit: "));
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1);
    }
}

TEST_F(AuditFormatsTest, HelpAndVersionGoToStandardOutput) {
    for (const char* option : {"--help", "--version"}) {
        const ProcessResult result = audit({option});
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.out, HasSubstr("mail_audit"));
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(AuditFormatsTest, WhatIsBrokenOffIsAWholeDocument) {
    std::filesystem::remove(PanelDatabase::SOCKET_LINK);
    for (const std::string command : {"diff", "show"}) {
        const ProcessResult result = audit({command, "--format", "json"});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(faultsOf(result.out, command + "_document"), "");
        const Json document = Json::parse(result.out);
        EXPECT_TRUE(document["summary"].is_null());
        EXPECT_EQ(document["not_looked_at"],
                  Json::array({"the panel database: connection failed: nothing was looked at"}));
        EXPECT_THAT(
            result.err,
            EndsWith("mail_audit: " + document["not_looked_at"][0].get<std::string>() + "\n"));
        EXPECT_EQ(audit({command}).out, "");
    }
    EXPECT_EQ(audit({"check"}).status, 1);
}

class AuditShowTest : public AuditFormatsTest {
protected:
    static std::vector<std::string> shown(Arguments arguments) {
        arguments.insert(arguments.begin(), {"show", "--quiet"});
        const ProcessResult result = audit(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        std::vector<std::string> lines;
        std::istringstream stream(result.out);
        for (std::string line; std::getline(stream, line);)
            lines.push_back(std::regex_replace(line, std::regex(" +"), " "));
        return lines;
    }
};

TEST_F(AuditShowTest, DomainIsShownWithItsMailnamesAndCertificates) {
    EXPECT_THAT(
        shown({"--domain", "SHOP.*"}),
        ElementsAre("domain shop.example.net: on",
                    "catchall shop.example.net: bounce \"There is nobody of that name in "
                    "this shop.\"",
                    "mailname orders@shop.example.net", "mailbox orders@shop.example.net: delivers",
                    "quota orders@shop.example.net: 52428800 bytes",
                    "mail-alias orders@shop.example.net: sales"));
    EXPECT_THAT(
        shown({"--domain", "example.org"}),
        ElementsAre("certificate example.org: cert-701", "certificate mail.example.org: cert-701"));
}

TEST_F(AuditShowTest, MailboxIsShownWithoutItsDomain) {
    EXPECT_THAT(shown({"--mailbox", "part*@example.com"}),
                ElementsAre("mailname partners@example.com",
                            "mailbox partners@example.com: does not deliver",
                            "quota partners@example.com: 104857600 bytes",
                            "forward partners@example.com: anna@xn--bcher-kva.example",
                            "forward partners@example.com: orders@shop.example.net"));
}

TEST_F(AuditShowTest, ScopeThatMeansNothingIsTold) {
    const ProcessResult result = audit({"show", "--domain", "nowhere.example"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "0 domains, 0 mail names.\n");
    EXPECT_EQ(result.err,
              "mail_audit: nothing that the panel knows is meant by --domain and --mailbox\n");
}

TEST_F(AuditShowTest, WhatIsSwitchedOffIsShownAsOff) {
    panel.execute(
        "UPDATE DomainServices SET status=16 WHERE dom_id=1;"
        "UPDATE domain_aliases SET status=2;"
        "UPDATE ServiceNodeConfiguration SET value='open' WHERE name='relay';"
        "UPDATE ServiceNodeConfiguration SET value='' WHERE name='rbl_server';"
        "UPDATE ServiceNodeConfiguration SET value='false' WHERE name='message_submission';"
        "UPDATE misc SET val='false' WHERE param='reject_mail_when_overquota'");
    const std::vector<std::string> lines = shown({});
    for (const char* line :
         {"domain example.com: off", "domain-alias example.com: example.org, off",
          "rbl-servers none", "submission off",
          "relaying open, SMTP authentication off, POP before SMTP off, lock time 30 minutes",
          "over-quota rejection off, permanent off", "recipient-canonical in use"})
        EXPECT_THAT(lines, Contains(line));
}

TEST_F(AuditShowTest, WhatTheWalkCouldNotReadIsStatusTwo) {
    panel.execute(
        "ALTER TABLE DomainServices MODIFY status VARCHAR(9);"
        "UPDATE DomainServices SET status='many' WHERE dom_id=3");
    const ProcessResult result = audit({"show"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, EndsWith("), ignored\nmail_audit: the panel database was not read "
                                     "whole: see the 1 line above\n"));
    EXPECT_THAT(result.out, HasSubstr("\nrecipient-canonical"));
    EXPECT_THAT(result.out, EndsWith("\n2 domains, 6 mail names.\n"));
}

TEST_F(AuditShowTest, PanelIsOnlyRead) {
    GeneralLog server(panel);
    EXPECT_EQ(audit({"show"}).status, 0);
    for (const std::string& statement : server.statements())
        EXPECT_THAT(statement, ::testing::ContainsRegex("^[0-9]+\\. (SET NAMES utf8|SELECT )"));
}

}  // namespace
}  // namespace corvo::test::runs
