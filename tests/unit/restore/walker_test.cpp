#include "restore/walker.h"

#include <gtest/gtest.h>
#include <mysql.h>

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <new>
#include <string>
#include <vector>

#include "lib/db++/connect.h"
#include "tests/support/killed_connection.h"
#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

using corvo::mail::restore::domainsOfWalk;
using corvo::mail::restore::reportsOfLastWalk;
using corvo::mail::restore::walkMailServerEntities;
using corvo::mysql::Connection;

const std::string HEADER = "Restoring Mail Server Entities from Corvo DB:\n";

using WalkerTest = FullWalkTest;

const Calls EVERYTHING = {
    R"(registerDomain("example.com", false))",
    R"(setDomainCatchall("example.com", 2, "all@example.com"))",
    R"(registerDomainAlias("example.com", "example.org", false, false))",
    R"(registerMailname("example.com", "team"))",
    R"(registerMailbox("example.com", "team", true))",
    R"(setMailboxQuota("example.com", "team", 1048576))",
    R"(registerMailAlias("example.com", "team", "all", false))",
    R"(registerMailRedirect("example.com", "team", "a@b.example"))",
    R"(registerMailname("example.com", "zoe"))",
    R"(registerMailbox("example.com", "zoe", true))",
    R"(setMailboxQuota("example.com", "zoe", 1048576))",
    R"(registerDomainCertificate("example.com", "cert-a"))",
    R"(registerDomainCertificate("mail.example.com", "cert-a"))",
    R"(registerDomainCertificate("example.org", "cert-a"))",
    R"(registerDomainCertificate("mail.example.org", "cert-a"))",
    R"(addWhiteListNetwork("192.0.2.0", 24))",
    R"(addBlackListedDomain("spam.example"))",
    R"(setRBLServers(["zen.example"]))",
    "setSubmissionEnabled(true)",
    "setMaxMessageSize(10485760)",
    "setSmtpRelayAndAuth(2, true, true, 15)",
    "setShortNamesAuth(true, true)",
    "enableRejectOverquota(true, false)",
    "restoreRecipientCanonical()",
};

TEST_F(WalkerTest, EverythingIsReportedInAFixedOrder) {
    fill();
    Recorder recorder;
    recorder.bindAll();
    expectWalk(recorder, EVERYTHING);
}

TEST_F(WalkerTest, OwnConnectionThatCannotBeOpenedIsThrown) {
    refuseConnections();
    Recorder recorder{"restoreRecipientCanonical"};
    StreamCapture capture;
    EXPECT_THROW(walkMailServerEntities(recorder.callbacks), corvo::mysql::mError);
    EXPECT_EQ(capture.err(), refusal().err);
    EXPECT_EQ(capture.out(), refusal().out);
    EXPECT_EQ(recorder.lines(), Calls{});
}

TEST_F(WalkerTest, ProgressIsToldInDebugMode) {
    fill();
    Recorder recorder;
    recorder.bindAll();
    setDebug("1");
    expectWalk(
        recorder, EVERYTHING,
        progressText(HEADER +
                     " executing the central domain restoration cycle:\n"
                     "+  restoring catchall/reject settings for example.com... done\n"
                     "  restoring domain aliases for example.com... done\n"
                     "  executing mailnames restoration cycle for example.com:\n"
                     "   registering mailname team@example.com... done\n"
                     "   registering mailbox for team@example.com... done\n"
                     "   restoring mailbox quota settings for team@example.com... done\n"
                     "    restoring mail aliases for team@example.com... done\n"
                     "   executing mail group forwarding cycle for team@example.com... done\n"
                     "   registering mailname zoe@example.com... done\n"
                     "   registering mailbox for zoe@example.com... done\n"
                     "   restoring mailbox quota settings for zoe@example.com... done\n"
                     "    restoring mail aliases for zoe@example.com... done\n"
                     "  executing mailnames restoration cycle for example.com done\n"
                     " executing the central domain restoration cycle done\n"
                     " executing the central domain mail certificates restoration cycle:\n"
                     " executing the central domain mail certificates restoration cycle done\n"
                     " executing the whitelist networks restoration cycle... done\n"
                     " executing the blacklisted domains restoration cycle... done\n"
                     " restoring the RBL servers configuration... done\n"
                     " restoring the submission service configuration... done\n"
                     " restoring maximal message size limit... 10240KiB \n"
                     " done\n"
                     " restoring SMTP Relaying and Authentication options... done\n"
                     " restoring short names authentication option (if applicable)... done\n"
                     " restoring mail rejection when mailbox is over quota... done\n"
                     " restoring the recipient canonical mapper... done\n"));
}

/// All slots bound, and all of them failing but the one whose failure would hide most others.
void bindFailing(Recorder& recorder) {
    recorder.bindAll();
    for (const char* slot :
         {"setDomainCatchall", "registerDomainAlias", "registerMailname", "registerMailbox",
          "setMailboxQuota", "registerMailAlias", "registerMailRedirect",
          "registerDomainCertificate", "addWhiteListNetwork", "addBlackListedDomain",
          "setRBLServers", "setSubmissionEnabled", "setMaxMessageSize", "setSmtpRelayAndAuth",
          "setShortNamesAuth", "enableRejectOverquota", "restoreRecipientCanonical"})
        recorder.on(slot, throwing(std::runtime_error("no")));
}

TEST_F(WalkerTest, EveryFailureIsOneLineOfStandardError) {
    fill();
    Recorder recorder;
    bindFailing(recorder);
    const std::string lines =
        "  restoring catchall/reject settings for example.com failed (no), ignored\n"
        "  restoring domain aliases for example.com failed (no), ignored\n"
        "   registering mailname team@example.com failed (no), ignored\n"
        "   registering mailbox for team@example.com failed (no), ignored\n"
        "   restoring mailbox quota settings for team@example.com failed (no), ignored\n"
        "    restoring mail aliases for team@example.com failed (no), ignored\n"
        "   executing mail group forwarding cycle for team@example.com failed (no), ignored\n"
        "   registering mailname zoe@example.com failed (no), ignored\n"
        "   registering mailbox for zoe@example.com failed (no), ignored\n"
        "   restoring mailbox quota settings for zoe@example.com failed (no), ignored\n"
        " executing the central domain mail certificates restoration cycle failed (no), ignored\n"
        " executing the whitelist networks restoration cycle failed (no), ignored\n"
        " executing the blacklisted domains restoration cycle failed (no), ignored\n"
        " restoring the RBL servers configuration failed (no), ignored\n"
        " restoring the submission service configuration failed (no), ignored\n"
        " restoring maximal message size limit failed (no), ignored\n"
        " restoring SMTP Relaying and Authentication options failed (no), ignored\n"
        " restoring short names authentication option (if applicable) failed (no), ignored\n"
        " restoring mail rejection when mailbox is over quota failed (no), ignored\n"
        " restoring the recipient canonical mapper failed (no), ignored\n";
    EXPECT_EQ(walk(recorder), progressText(lines));
}

TEST_F(WalkerTest, FailureLinesAreCountedInEachWalk) {
    fill();
    Recorder failing;
    bindFailing(failing);
    walk(failing);
    EXPECT_EQ(reportsOfLastWalk(), 20U);
    Recorder sound;
    sound.bindAll();
    walk(sound);
    EXPECT_EQ(reportsOfLastWalk(), 0U);
}

TEST_F(WalkerTest, DomainsAreToldBeforeTheFirstIsReported) {
    fill();
    panel.domain("example.net");
    Recorder recorder{"registerDomain"};
    std::vector<std::size_t> told;
    recorder.on("registerDomain", [&] { told.push_back(domainsOfWalk()); });
    walk(recorder);
    EXPECT_EQ(told, (std::vector<std::size_t>{2, 2}));
    Recorder other{"restoreRecipientCanonical"};
    walk(other);
    EXPECT_EQ(domainsOfWalk(), 0U);
}

TEST_F(WalkerTest, WarningsAreCounted) {
    fill();
    drop("mail_redir");  // asked for two groups
    panel.execute("INSERT INTO badmailfrom VALUES ('" + std::string(70, 'x') + ".example')");
    Recorder recorder;
    recorder.bindAll();
    walk(recorder);
    EXPECT_EQ(reportsOfLastWalk(), 2U);
}

TEST_F(WalkerTest, EveryFailureInDebugModeIsPartOfTheProgress) {
    fill();
    Recorder recorder;
    bindFailing(recorder);
    setDebug("1");
    const std::string lines =
        " executing the central domain restoration cycle:\n"
        "+  restoring catchall/reject settings for example.com... failed (no), ignored\n"
        "  restoring domain aliases for example.com... failed (no), ignored\n"
        "  executing mailnames restoration cycle for example.com:\n"
        "   registering mailname team@example.com... failed (no), ignored\n"
        "   registering mailbox for team@example.com... failed (no), ignored\n"
        "   restoring mailbox quota settings for team@example.com... failed (no), ignored\n"
        "    restoring mail aliases for team@example.com... failed (no), ignored\n"
        "   executing mail group forwarding cycle for team@example.com... failed (no), ignored\n"
        "   registering mailname zoe@example.com... failed (no), ignored\n"
        "   registering mailbox for zoe@example.com... failed (no), ignored\n"
        "   restoring mailbox quota settings for zoe@example.com... failed (no), ignored\n"
        "    restoring mail aliases for zoe@example.com... done\n"
        "  executing mailnames restoration cycle for example.com done\n"
        " executing the central domain restoration cycle done\n"
        " executing the central domain mail certificates restoration cycle:\n"
        " executing the central domain mail certificates restoration cycle failed (no), ignored\n"
        " executing the whitelist networks restoration cycle..."
        " executing the whitelist networks restoration cycle failed (no), ignored\n"
        " executing the blacklisted domains restoration cycle..."
        " executing the blacklisted domains restoration cycle failed (no), ignored\n"
        " restoring the RBL servers configuration..."
        " restoring the RBL servers configuration failed (no), ignored\n"
        " restoring the submission service configuration..."
        " restoring the submission service configuration failed (no), ignored\n"
        " restoring maximal message size limit... 10240KiB \n"
        " restoring maximal message size limit failed (no), ignored\n"
        " restoring SMTP Relaying and Authentication options..."
        " restoring SMTP Relaying and Authentication options failed (no), ignored\n"
        " restoring short names authentication option (if applicable)..."
        " restoring short names authentication option (if applicable) failed (no), ignored\n"
        " restoring mail rejection when mailbox is over quota..."
        " restoring mail rejection when mailbox is over quota failed (no), ignored\n"
        " restoring the recipient canonical mapper..."
        " restoring the recipient canonical mapper failed (no), ignored\n";
    EXPECT_EQ(walk(recorder), progressText(HEADER + lines));
}

TEST_F(WalkerTest, MailNamesThatCannotBeWalkedAreAWholeLineInDebugMode) {
    fill();
    Recorder recorder{"registerMailname"};
    recorder.on("registerMailname", refuseConnections);
    setDebug("1");
    expectWalk(recorder, {R"(registerMailname("example.com", "team"))"},
               progressText(HEADER + " executing the central domain restoration cycle:\n"
                                     "+  executing mailnames restoration cycle for example.com:\n"
                                     "   registering mailname team@example.com... done\n") +
                   refusal() +
                   progressText("  executing mailnames restoration cycle for example.com failed "
                                "(connection failed), ignored\n"
                                " executing the central domain restoration cycle done\n"));
}

TEST_F(WalkerTest, DebugModeIsAnyValueButZeroAndIsLookedAtInEveryWalk) {
    const struct {
        const char* value;
        bool debug;
    } cases[] = {{"1", true}, {"0", false}, {"00", true}, {"", true}, {"no", true}, {"0", false}};
    Recorder recorder;
    for (const auto& [value, debug] : cases) {
        SCOPED_TRACE(value);
        setDebug(value);
        EXPECT_EQ(walk(recorder), debug ? progressText(HEADER) : Printed{});
    }
}

struct StepLine {
    const char* slot;
    const char* label;
};

// The step that each slot's failure ends when it is more than a stage's.
const StepLine STEP_OF_SLOT[] = {
    {"registerDomain", " executing the central domain restoration cycle"},
    {"registerDomainAlias", " executing the central domain restoration cycle"},
    {"setDomainCatchall", " executing the central domain restoration cycle"},
    {"registerDomainCertificate",
     " executing the central domain mail certificates restoration cycle"},
    {"registerMailname", " executing the central domain restoration cycle"},
    {"registerMailAlias", " executing the central domain restoration cycle"},
    {"registerMailRedirect", " executing the central domain restoration cycle"},
    {"addWhiteListNetwork", " executing the whitelist networks restoration cycle"},
    {"addBlackListedDomain", " executing the blacklisted domains restoration cycle"},
    {"setRBLServers", " restoring the RBL servers configuration"},
    {"setSubmissionEnabled", " restoring the submission service configuration"},
    {"setMaxMessageSize", " restoring maximal message size limit"},
    {"setSmtpRelayAndAuth", " restoring SMTP Relaying and Authentication options"},
    {"setShortNamesAuth", " restoring short names authentication option (if applicable)"},
    {"registerMailbox", " executing the central domain restoration cycle"},
    {"setMailboxQuota", " executing the central domain restoration cycle"},
    {"enableRejectOverquota", " restoring mail rejection when mailbox is over quota"},
};

TEST_F(WalkerTest, OutOfMemoryEndsTheStepAndTheWalkGoesOn) {
    fill();
    for (const auto& [slot, label] : STEP_OF_SLOT) {
        SCOPED_TRACE(slot);
        Recorder recorder{slot, "restoreRecipientCanonical"};
        recorder.on(slot, throwing(std::bad_alloc()));
        EXPECT_EQ(walk(recorder),
                  failure(std::string(label) + " failed (std::bad_alloc), ignored"));
        ASSERT_EQ(recorder.lines().size(), 2U);
        EXPECT_EQ(recorder.lines().back(), "restoreRecipientCanonical()");
    }
}

TEST_F(WalkerTest, OutOfMemoryInAStageInDebugModeIsTheStepsLineAlone) {
    fill();
    Recorder recorder{"registerMailbox"};
    recorder.on("registerMailbox", throwing(std::bad_alloc()));
    setDebug("1");
    EXPECT_EQ(walk(recorder),
              progressText(HEADER + " executing the central domain restoration cycle:\n"
                                    "+  executing mailnames restoration cycle for example.com:\n"
                                    "   registering mailbox for team@example.com..."
                                    " executing the central domain restoration cycle failed "
                                    "(std::bad_alloc), ignored\n"));
}

TEST_F(WalkerTest, ForeignExceptionLeavesTheWalkWithoutAWord) {
    fill();
    for (const auto& [slot, label] : STEP_OF_SLOT) {
        SCOPED_TRACE(slot);
        Recorder recorder{slot, "restoreRecipientCanonical"};
        recorder.on(slot, throwing(7));
        StreamCapture capture;
        EXPECT_THROW(walkMailServerEntities(recorder.callbacks), int);
        EXPECT_EQ(recorder.lines().size(), 1U);
    }
}

TEST_F(WalkerTest, OwnConnectionIsClosedWhicheverWayTheWalkEnds) {
    fill();
    Recorder recorder{"restoreRecipientCanonical"};
    expectWalk(recorder, {"restoreRecipientCanonical()"});
    waitUntilDisconnected();
    recorder.on("restoreRecipientCanonical", throwing(7));
    EXPECT_THROW(walkMailServerEntities(recorder.callbacks), int);
    waitUntilDisconnected();
}

TEST_F(WalkerTest, GivenConnectionIsUsedAndStaysOpen) {
    fill();
    Connection connection(true);
    Recorder recorder{"enableRejectOverquota"};
    refuseConnections();
    StreamCapture capture;
    walkMailServerEntities(recorder.callbacks, connection);
    walkMailServerEntities(recorder.callbacks, connection);
    EXPECT_EQ(recorder.lines(),
              (Calls{"enableRejectOverquota(true, false)", "enableRejectOverquota(true, false)"}));
}

TEST_F(WalkerTest, ConnectionThatIsLostDuringAStepIsReplacedBeforeTheNextOne) {
    fill();
    panel.misc("reject_mail_when_overquota", "false");
    panel.misc("reject_mail_when_overquota_with_permfail", "true");
    Recorder recorder;
    recorder.bindAll();
    for (const char* slot : {"registerMailbox", "registerDomainCertificate", "setRBLServers",
                             "setSubmissionEnabled", "setShortNamesAuth"})
        recorder.on(slot, [this] { killConnections(); });
    Calls calls = EVERYTHING;
    std::ranges::replace(calls, "enableRejectOverquota(true, false)",
                         "enableRejectOverquota(false, true)");
    expectWalk(recorder, calls);
}

/// The slots of steps that all ask the database but the last one, and what the steps between the
/// first and the last one say when they cannot.
const std::initializer_list<std::string> ASKING_SLOTS = {
    "addWhiteListNetwork", "addBlackListedDomain", "setSmtpRelayAndAuth", "enableRejectOverquota",
    "restoreRecipientCanonical"};

Printed failuresOfSteps(const std::string& gone) {
    const std::string error = gone + " executing query: ";
    const auto getterWarning = [&error](const std::string& name) {
        return warning("Warning: MySQL Error on Mail Authentication Type query: " + error +
                       statement::misc(name) + ", ignored");
    };
    return warning("Warning: MySQL Query error on Blacklisted Domains cycle: " + error +
                   statement::BLACK_LIST + ", ignored") +
           failure(" restoring SMTP Relaying and Authentication options failed (" + error +
                   statement::mailServer("relay") + "), ignored") +
           getterWarning("reject_mail_when_overquota_with_permfail") +
           getterWarning("reject_mail_when_overquota");
}

const Calls CALLS_WITHOUT_ANSWERS = {R"(addWhiteListNetwork("192.0.2.0", 24))",
                                     "enableRejectOverquota(true, false)",
                                     "restoreRecipientCanonical()"};

TEST_F(WalkerTest, LostConnectionThatCannotBeReplacedFailsTheStepsThatNeedItAndNoOther) {
    fill();
    Recorder recorder{ASKING_SLOTS};
    recorder.on("addWhiteListNetwork", [this] {
        std::filesystem::remove(PanelDatabase::SOCKET_LINK);
        killConnections();
    });
    expectWalk(recorder, CALLS_WITHOUT_ANSWERS, failuresOfSteps(errorOfKilledConnection(panel)));
}

TEST_F(WalkerTest, LostConnectionOfTheCallersStaysLost) {
    fill();
    st_mysql* const handle = db_connect();
    Connection borrowed(handle, false);
    Recorder recorder{ASKING_SLOTS};
    recorder.on("addWhiteListNetwork", [this] { killConnections(); });
    StreamCapture capture;
    walkMailServerEntities(recorder.callbacks, borrowed);
    EXPECT_EQ((Printed{capture.out(), capture.err()}),
              failuresOfSteps(errorOfKilledConnection(panel)));
    EXPECT_EQ(recorder.lines(), CALLS_WITHOUT_ANSWERS);
    EXPECT_EQ(connections(), std::vector<std::string>{});
    mysql_close(handle);
}

TEST_F(WalkerTest, SlotsThatDoNotFeedTheDomainCycleDoNotRunIt) {
    drop("domains");
    Recorder recorder{"enableRejectOverquota"};
    expectWalk(recorder, {"enableRejectOverquota(true, false)"});
}

}  // namespace
}  // namespace corvo::test
