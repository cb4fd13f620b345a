#include "restore/server_settings.h"

#include <gtest/gtest.h>

#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

class ServerSettingsTest : public WalkTest {
protected:
    /// Walks with one slot bound.
    static void expectCalls(const std::string& slot, const Calls& calls,
                            const Printed& printed = {}) {
        Recorder recorder{slot};
        expectWalk(recorder, calls, printed);
    }

    void relay(const std::string& kind) { panel.mailServer("relay", kind); }

    void relayAuth(const std::string& disableSmtp, const std::string& disablePop,
                   const std::string& lockTime) {
        relay("auth");
        panel.mailServer("disable_smtp_auth", disableSmtp);
        panel.mailServer("disable_pop_auth", disablePop);
        panel.mailServer("poplock_time", lockTime);
    }

    void expectMessageSize(const Calls& calls, const Printed& printed = {}) {
        expectCalls("setMaxMessageSize", calls, printed);
    }

    void expectRelay(const std::string& arguments, const Printed& printed = {}) {
        expectCalls("setSmtpRelayAndAuth", {"setSmtpRelayAndAuth(" + arguments + ")"}, printed);
    }

    static Printed accessWarning(const std::string& statement) {
        return warning("Warning: MySQL Error on Mail Authentication Type query: " +
                       errorOf(statement) + ", ignored");
    }
};

TEST_F(ServerSettingsTest, SubmissionIsOnWhenTheParameterSaysTrue) {
    panel.mailServer("message_submission", "true");
    expectCalls("setSubmissionEnabled", {"setSubmissionEnabled(true)"});
}

TEST_F(ServerSettingsTest, SubmissionIsOffWithoutAParameter) {
    expectCalls("setSubmissionEnabled", {"setSubmissionEnabled(false)"});
}

TEST_F(ServerSettingsTest, SubmissionThatCannotBeReadIsOffWithAWarning) {
    drop("ServiceNodeConfiguration");
    expectCalls("setSubmissionEnabled", {"setSubmissionEnabled(false)"},
                accessWarning(statement::mailServer("message_submission")));
}

TEST_F(ServerSettingsTest, MessageSizeIsReportedInBytes) {
    const struct {
        const char* kib;
        const char* bytes;
    } cases[] = {
        {"10240", "10485760"},
        {"+1", "1024"},
        {"0", "0"},
        {"-1", "-1024"},
        {"9007199254740991", "9223372036854774784"},
        {"-9007199254740992", "-9223372036854775808"},
    };
    for (const auto& [kib, bytes] : cases) {
        SCOPED_TRACE(kib);
        panel.mailServer("ml_size", kib);
        expectMessageSize({"setMaxMessageSize(" + std::string(bytes) + ")"});
    }
}

TEST_F(ServerSettingsTest, MessageSizeThatDoesNotFitIntoBytesLosesItsUpperBits) {
    const struct {
        const char* kib;
        const char* bytes;
    } cases[] = {
        {"9007199254740992", "-9223372036854775808"},
        {"9223372036854775807", "-1024"},
        {"-9223372036854775808", "0"},
    };
    for (const auto& [kib, bytes] : cases) {
        SCOPED_TRACE(kib);
        panel.mailServer("ml_size", kib);
        expectMessageSize({"setMaxMessageSize(" + std::string(bytes) + ")"});
    }
}

TEST_F(ServerSettingsTest, MessageSizeThatIsNoNumberIsAWarningAndNoCall) {
    for (const std::string text : {"", " 10", "10 ", "10k", "++1", "-", "0x10", "1,000", "1e3",
                                   "9223372036854775808", "-9223372036854775809"}) {
        SCOPED_TRACE(text);
        panel.mailServer("ml_size", text);
        expectMessageSize({}, warning("Warning: invalid Maximal Message Size " + text +
                                      " stored in Corvo DB, ignored"));
    }
}

TEST_F(ServerSettingsTest, MissingMessageSizeIsNoCallAndNoWarning) {
    expectMessageSize({});
    panel.execute(
        "INSERT INTO ServiceNodeConfiguration (serviceNodeId, section, name, value) VALUES "
        "(1, 'mailServer', 'ml_size', NULL)");
    expectMessageSize({});
}

TEST_F(ServerSettingsTest, MessageSizeThatCannotBeReadIsAWarningAndNoCall) {
    drop("ServiceNodeConfiguration");
    expectMessageSize({}, accessWarning(statement::mailServer("ml_size")));
}

TEST_F(ServerSettingsTest, MessageSizeInDebugModeEndsItsLineInTheMiddle) {
    panel.mailServer("ml_size", "10240");
    setDebug("1");
    expectMessageSize({"setMaxMessageSize(10485760)"},
                      progressText("Restoring Mail Server Entities from Corvo DB:\n"
                                   " restoring maximal message size limit... 10240KiB \n done\n"));
}

TEST_F(ServerSettingsTest, RelayKindsWithoutAuthenticationIgnoreTheOtherParameters) {
    relayAuth("0", "0", "15");
    relay("open");
    expectRelay("0, false, false, 30");
    relay("closed");
    expectRelay("1, false, false, 30");
}

TEST_F(ServerSettingsTest, UnknownRelayKindsMeanSmtpAuthenticationOnly) {
    relayAuth("1", "0", "15");
    for (const char* kind : {"Closed", "OPEN", "Auth", "", "auth ", " auth", "2"}) {
        SCOPED_TRACE(kind);
        relay(kind);
        expectRelay("2, true, false, 30");
    }
}

TEST_F(ServerSettingsTest, MissingRelayKindMeansSmtpAuthenticationOnly) {
    expectRelay("2, true, false, 30");
}

TEST_F(ServerSettingsTest, RelayAfterAuthenticationReadsItsParameters) {
    const struct {
        const char* disableSmtp;
        const char* disablePop;
        const char* lockTime;
        const char* expected;
    } cases[] = {
        {"0", "0", "15", "2, true, true, 15"},
        {"1", "0", "15", "2, false, true, 15"},
        {"-1", "0", "+15", "2, false, true, 15"},
        {"0", "1", "15", "2, true, false, 30"},
        {"0", "-2147483648", "x", "2, true, false, 30"},
        {"0", "", "x", "2, true, false, 30"},
        {"+0", "-0", "-32768", "2, true, true, -32768"},
        {"2147483647", "0", "32767", "2, false, true, 32767"},
        {"0", "0", "0", "2, true, true, 0"},
    };
    for (const auto& [disableSmtp, disablePop, lockTime, expected] : cases) {
        SCOPED_TRACE(expected);
        relayAuth(disableSmtp, disablePop, lockTime);
        expectRelay(expected);
    }
}

TEST_F(ServerSettingsTest, SmtpFlagThatIsNoNumberIsAWarningAndNoAuthentication) {
    for (const std::string text : {"", "no", " 0", "0 ", "2147483648", "0.0"}) {
        SCOPED_TRACE(text);
        relayAuth(text, "1", "15");
        expectRelay("2, false, false, 30",
                    warning("Warning: invalid SMTP Auth Disable flag value '" + text +
                            "' stored in Corvo DB, ignored"));
    }
}

TEST_F(ServerSettingsTest, PopFlagThatIsNoNumberIsAWarningAndNoPopBeforeSmtp) {
    for (const std::string text : {"no", " ", "0 ", "2147483648"}) {
        SCOPED_TRACE(text);
        relayAuth("0", text, "15");
        expectRelay("2, true, false, 30",
                    warning("Warning: invalid POP3 Auth Disable flag value '" + text +
                            "' stored in Corvo DB, ignored"));
    }
}

TEST_F(ServerSettingsTest, LockTimeThatIsNoShortNumberIsAWarningAndTheDefault) {
    for (const std::string text : {"", "40000", "-32769", " 15", "15min", "ten"}) {
        SCOPED_TRACE(text);
        relayAuth("0", "0", text);
        expectRelay("2, true, true, 30", warning("Warning: invalid POP3 lock time value " + text +
                                                 " stored in Corvo DB, ignored"));
    }
}

TEST_F(ServerSettingsTest, MissingSmtpFlagIsWarnedOfAndMissingPopFlagIsNot) {
    relay("auth");
    expectRelay("2, false, false, 30",
                warning("Warning: invalid SMTP Auth Disable flag value '' stored in Corvo DB, "
                        "ignored"));
}

TEST_F(ServerSettingsTest, MissingLockTimeIsWarnedOf) {
    relay("auth");
    panel.mailServer("disable_smtp_auth", "0");
    panel.mailServer("disable_pop_auth", "0");
    expectRelay("2, true, true, 30",
                warning("Warning: invalid POP3 lock time value  stored in Corvo DB, ignored"));
}

TEST_F(ServerSettingsTest, RelayParametersThatVanishAreWarnedOf) {
    // Only the relay kind stays readable: the others' names are refused by the view.
    relay("auth");
    panel.execute(
        "RENAME TABLE ServiceNodeConfiguration TO configuration;"
        "CREATE VIEW ServiceNodeConfiguration AS SELECT serviceNodeId, section, name,"
        " IF(name='relay', value, (SELECT 1 UNION ALL SELECT 2)) AS value FROM configuration");
    panel.execute(
        "INSERT INTO configuration (serviceNodeId, section, name, value) VALUES "
        "(1, 'mailServer', 'disable_smtp_auth', '0'), (1, 'mailServer', 'disable_pop_auth', '0')");
    expectRelay("2, false, false, 30",
                accessWarning(statement::mailServer("disable_smtp_auth")) +
                    warning("Warning: invalid SMTP Auth Disable flag value '' stored in Corvo DB, "
                            "ignored") +
                    accessWarning(statement::mailServer("disable_pop_auth")));
}

TEST_F(ServerSettingsTest, RelayKindThatCannotBeReadFailsTheStep) {
    drop("ServiceNodeConfiguration");
    expectCalls("setSmtpRelayAndAuth", {},
                failure(" restoring SMTP Relaying and Authentication options failed (" +
                        errorOf(statement::mailServer("relay")) + "), ignored"));
}

TEST_F(ServerSettingsTest, ShortNamesAreReportedPop3NamesFirst) {
    const struct {
        const char* mailNames;
        const char* pop3Names;
        const char* expected;
    } cases[] = {
        {"true", "disabled", "false, true"}, {"false", "enabled", "true, false"},
        {"true", "enabled", "true, true"},   {"enabled", "true", "false, false"},
        {"TRUE", "Enabled", "false, false"},
    };
    for (const auto& [mailNames, pop3Names, expected] : cases) {
        panel.misc("postfix-allow-short-mail-names", mailNames);
        panel.misc("allow_short_pop3_names", pop3Names);
        expectCalls("setShortNamesAuth", {"setShortNamesAuth(" + std::string(expected) + ")"});
    }
}

TEST_F(ServerSettingsTest, MissingShortNamesAreOff) {
    expectCalls("setShortNamesAuth", {"setShortNamesAuth(false, false)"});
}

TEST_F(ServerSettingsTest, ShortNamesThatCannotBeReadAreOffWithWarnings) {
    drop("misc");
    expectCalls("setShortNamesAuth", {"setShortNamesAuth(false, false)"},
                accessWarning(statement::misc("postfix-allow-short-mail-names")) +
                    accessWarning(statement::misc("allow_short_pop3_names")));
}

TEST_F(ServerSettingsTest, OverquotaMailIsRejectedUnlessThePanelSaysOtherwise) {
    expectCalls("enableRejectOverquota", {"enableRejectOverquota(true, false)"});
    panel.misc("reject_mail_when_overquota_with_permfail", "true");
    expectCalls("enableRejectOverquota", {"enableRejectOverquota(true, true)"});
    panel.misc("reject_mail_when_overquota", "false");
    expectCalls("enableRejectOverquota", {"enableRejectOverquota(false, true)"});
    panel.misc("reject_mail_when_overquota_with_permfail", "1");
    expectCalls("enableRejectOverquota", {"enableRejectOverquota(false, false)"});
}

TEST_F(ServerSettingsTest, OverquotaSettingsThatCannotBeReadTakeTheirDefaultsWithWarnings) {
    drop("misc");
    expectCalls("enableRejectOverquota", {"enableRejectOverquota(true, false)"},
                accessWarning(statement::misc("reject_mail_when_overquota_with_permfail")) +
                    accessWarning(statement::misc("reject_mail_when_overquota")));
}

TEST_F(ServerSettingsTest, RecipientCanonicalMapIsRestoredWithoutADatabase) {
    for (const char* table : {"misc", "ServiceNodeConfiguration"})
        drop(table);
    expectCalls("restoreRecipientCanonical", {"restoreRecipientCanonical()"});
}

}  // namespace
}  // namespace corvo::test
