// What a walk asks the server.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/general_log.h"
#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

using WalkerStatementsTest = FullWalkTest;

TEST_F(WalkerStatementsTest, WalkRunsTheseStatementsOnTheseConnectionsAndNoMore) {
    fill();
    const int next = panel.domain("next.example").id();
    panel.execute("INSERT INTO mail (id, mail_name, dom_id) VALUES (3, 'solo', " +
                  std::to_string(next) + ")");
    Recorder recorder;
    recorder.bindAll();
    GeneralLog log(panel);
    EXPECT_EQ(walk(recorder), Printed{});
    const std::string names = "SET NAMES utf8";
    const std::vector<std::string> expected = {
        "1. " + names,
        "1. " + statement::DOMAINS,
        "2. " + names,
        "2. " + statement::catchallParameter("nonexist_mail", domain),
        "2. " + statement::mailStatus(domain),
        "2. " + statement::catchallParameter("catch_addr", domain),
        "2. " + statement::domainAliases(domain),
        "2. " + statement::defaultQuota(domain),
        "2. " + statement::mailnames(domain),
        "3. " + names,
        "3. " + statement::mailAliases(1),
        "3. " + statement::mailRedirects(1),
        "4. " + names,
        "4. " + statement::mailAliases(2),
        "5. " + names,
        "5. " + statement::catchallParameter("nonexist_mail", next),
        "5. " + statement::mailStatus(next),
        "5. " + statement::domainAliases(next),
        "5. " + statement::defaultQuota(next),
        "5. " + statement::mailnames(next),
        "6. " + names,
        "6. " + statement::mailAliases(3),
        "1. " + statement::CERTIFICATES,
        "1. " + statement::WHITE_LIST,
        "1. " + statement::BLACK_LIST,
        "1. " + statement::mailServer("rbl_server"),
        "1. " + statement::mailServer("message_submission"),
        "1. " + statement::mailServer("ml_size"),
        "1. " + statement::mailServer("relay"),
        "1. " + statement::mailServer("disable_smtp_auth"),
        "1. " + statement::mailServer("disable_pop_auth"),
        "1. " + statement::mailServer("poplock_time"),
        "1. " + statement::misc("postfix-allow-short-mail-names"),
        "1. " + statement::misc("allow_short_pop3_names"),
        "1. " + statement::misc("reject_mail_when_overquota_with_permfail"),
        "1. " + statement::misc("reject_mail_when_overquota"),
    };
    EXPECT_EQ(log.statements(), expected);
    EXPECT_EQ(log.connections(), 6U);
}

TEST_F(WalkerStatementsTest, EmptySetOfCallbacksOpensAConnectionAndClosesIt) {
    fill();
    Recorder recorder;
    GeneralLog log(panel);
    expectWalk(recorder, {});
    waitUntilDisconnected();
    EXPECT_EQ(log.statements(), std::vector<std::string>{"1. SET NAMES utf8"});
    EXPECT_EQ(log.connections(), 1U);
}

TEST_F(WalkerStatementsTest, WalkOfOneSlotAsksForNothingElse) {
    fill();
    const struct {
        const char* slot;
        std::vector<std::string> statements;
    } cases[] = {
        {"restoreRecipientCanonical", {}},
        {"enableRejectOverquota",
         {"1. " + statement::misc("reject_mail_when_overquota_with_permfail"),
          "1. " + statement::misc("reject_mail_when_overquota")}},
        {"addBlackListedDomain", {"1. " + statement::BLACK_LIST}},
        {"registerMailForwarding",
         {"1. " + statement::DOMAINS, "2. SET NAMES utf8", "2. " + statement::mailnames(domain),
          "3. SET NAMES utf8", "4. SET NAMES utf8"}},
    };
    for (const auto& [slot, statements] : cases) {
        SCOPED_TRACE(slot);
        Recorder recorder{slot};
        GeneralLog log(panel);
        EXPECT_EQ(walk(recorder), Printed{});
        std::vector<std::string> expected = {"1. SET NAMES utf8"};
        expected.insert(expected.end(), statements.begin(), statements.end());
        EXPECT_EQ(log.statements(), expected);
    }
}

TEST_F(WalkerStatementsTest, ConnectionInPlaceOfALostOneIsAskedForItsCharactersAndTheNextStep) {
    fill();
    Recorder recorder{"registerDomain", "addWhiteListNetwork", "setSubmissionEnabled",
                      "restoreRecipientCanonical"};
    recorder.on("addWhiteListNetwork", [this] { killConnections(); });
    GeneralLog log(panel);
    EXPECT_EQ(walk(recorder), Printed{});
    const std::vector<std::string> expected = {
        "1. SET NAMES utf8",
        "1. " + statement::DOMAINS,
        "2. SET NAMES utf8",
        "2. " + statement::mailnames(domain),
        "3. SET NAMES utf8",
        "4. SET NAMES utf8",
        "1. " + statement::WHITE_LIST,
        "5. SET NAMES utf8",
        "5. " + statement::mailServer("message_submission"),
    };
    EXPECT_EQ(log.statements(), expected);
    EXPECT_EQ(log.connections(), 5U);
}

}  // namespace
}  // namespace corvo::test
