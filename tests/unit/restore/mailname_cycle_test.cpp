#include "restore/mailname_cycle.h"

#include <gtest/gtest.h>

#include "tests/support/killed_connection.h"
#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

class MailnameCycleTest : public WalkTest {
protected:
    /// Sets a column of all mail names to a value as SQL has it.
    void setAll(const std::string& column, const std::string& value) {
        panel.execute("UPDATE mail SET " + column + "=" + value);
    }

    void makeText(const std::string& column) {
        panel.execute("ALTER TABLE mail MODIFY " + column + " varchar(30)");
    }

    void setDefaultQuota(const std::string& value) {
        domain.defaultQuota(1048576);
        panel.execute("ALTER TABLE Limits MODIFY value varchar(30)");
        panel.execute("UPDATE Limits SET value=" + value);
    }

    static void expectQuota(const std::string& quota, const Printed& printed = {}) {
        Recorder recorder{"setMailboxQuota"};
        expectWalk(recorder, {"setMailboxQuota(\"example.com\", \"info\", " + quota + ")"},
                   printed);
    }

    static Printed queryWarning(const std::string& label, const std::string& statement) {
        return warning("Warning: MySQL Query error on " + label + ": " + errorOf(statement) +
                       ", ignored");
    }

    static Printed quotaWarning(const std::string& text) {
        return warning("Warning: invalid mailbox quota value '" + text +
                       "' stored in Corvo DB, ignored");
    }

    static Printed defaultQuotaWarning(const std::string& text) {
        return warning("Warning: invalid default mailbox quota value '" + text +
                       "' stored in Corvo DB, ignored");
    }

    PanelDatabase::Domain domain = panel.domain("example.com");
};

TEST_F(MailnameCycleTest, EveryMailNameIsReportedInLowerCase) {
    domain.mailname("Info");
    domain.mailname("sales").postbox(false);
    Recorder recorder{"registerMailname"};
    expectWalk(recorder, {R"(registerMailname("example.com", "info"))",
                          R"(registerMailname("example.com", "sales"))"});
}

TEST_F(MailnameCycleTest, MailboxDeliversWithPostboxAndDelivery) {
    domain.mailname("both");
    domain.mailname("stopped").delivery(false);
    domain.mailname("forwards").postbox(false);
    domain.mailname("nothing").postbox(false).delivery(false);
    Recorder recorder{"registerMailbox"};
    expectWalk(recorder, {R"(registerMailbox("example.com", "both", true))",
                          R"(registerMailbox("example.com", "stopped", false))",
                          R"(registerMailbox("example.com", "forwards", false))",
                          R"(registerMailbox("example.com", "nothing", false))"});
}

TEST_F(MailnameCycleTest, OnlyTheLowerCaseWordTrueCountsForAMailbox) {
    domain.mailname("info");
    for (const char* column : {"postbox", "delivery"}) {
        makeText(column);
        for (const char* value : {"'TRUE'", "'1'", "' true'", "''", "NULL"}) {
            SCOPED_TRACE(column + std::string(" ") + value);
            setAll(column, value);
            Recorder recorder{"registerMailbox"};
            expectWalk(recorder, {R"(registerMailbox("example.com", "info", false))"});
        }
        setAll(column, "'true'");
    }
}

TEST_F(MailnameCycleTest, QuotaOfTheMailNameComesFirst) {
    domain.defaultQuota(1048576);
    for (const long long quota : {10485760LL, 1LL, 0LL, -2LL, 9223372036854775807LL}) {
        panel.execute("DELETE FROM mail");
        domain.mailname("info").quota(quota);
        expectQuota(std::to_string(quota));
    }
}

TEST_F(MailnameCycleTest, QuotaMinusOneIsTheDefault) {
    domain.defaultQuota(1048576).mailname("info").quota(-1);
    expectQuota("1048576");
    domain.defaultQuota(0);
    expectQuota("0");
    domain.defaultQuota(-1);
    expectQuota("-1");
}

TEST_F(MailnameCycleTest, QuotaMinusOneWithoutADefaultStaysMinusOne) {
    domain.mailname("info").quota(-1);
    expectQuota("-1");
}

TEST_F(MailnameCycleTest, DefaultQuotaOfOneDomainIsNotThatOfTheNext) {
    domain.defaultQuota(1048576).mailname("info");
    panel.domain("next.example").mailname("info");
    Recorder recorder{"setMailboxQuota"};
    expectWalk(recorder, {R"(setMailboxQuota("example.com", "info", 1048576))",
                          R"(setMailboxQuota("next.example", "info", -1))"});
}

TEST_F(MailnameCycleTest, QuotaThatIsNoNumberIsAWarningAndTheDefault) {
    domain.defaultQuota(1048576).mailname("info");
    makeText("mbox_quota");
    for (const std::string text :
         {"", "many", " 1", "1 ", "1.5", "10M", "-", "9223372036854775808"}) {
        SCOPED_TRACE(text);
        setAll("mbox_quota", "'" + text + "'");
        expectQuota("1048576", quotaWarning(text));
    }
    setAll("mbox_quota", "NULL");
    expectQuota("1048576", quotaWarning(""));
}

TEST_F(MailnameCycleTest, QuotaMayCarryASign) {
    domain.defaultQuota(1048576).mailname("info");
    makeText("mbox_quota");
    const struct {
        const char* text;
        const char* expected;
    } cases[] = {{"+7", "7"},
                 {"007", "7"},
                 {"-01", "1048576"},
                 {"-9223372036854775808", "-9223372036854775808"}};
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        setAll("mbox_quota", "'" + std::string(text) + "'");
        expectQuota(expected);
    }
}

TEST_F(MailnameCycleTest, DefaultQuotaThatIsNoNumberIsAWarningAndUnknown) {
    domain.mailname("info");
    setDefaultQuota("'plenty'");
    expectQuota("-1", defaultQuotaWarning("plenty"));
    setDefaultQuota("NULL");
    expectQuota("-1", defaultQuotaWarning(""));
}

TEST_F(MailnameCycleTest, DefaultQuotaThatCannotBeReadIsAWarningAndUnknown) {
    domain.defaultQuota(1048576).mailname("info");
    drop("Limits");
    expectQuota("-1", queryWarning("Default Mailbox Quota for example.com",
                                   statement::defaultQuota(domain.id())));
}

TEST_F(MailnameCycleTest, DefaultQuotaIsNotAskedForWithoutNeed) {
    domain.mailname("info");
    drop("Limits");
    Recorder recorder{"registerMailname"};
    expectWalk(recorder, {R"(registerMailname("example.com", "info"))"});
}

TEST_F(MailnameCycleTest, QuotaWarningComesBeforeTheStagesOpeningText) {
    domain.mailname("info");
    makeText("mbox_quota");
    setAll("mbox_quota", "'many'");
    setDebug("1");
    Recorder recorder{"setMailboxQuota"};
    expectWalk(recorder, {R"(setMailboxQuota("example.com", "info", -1))"},
               progressText("Restoring Mail Server Entities from Corvo DB:\n"
                            " executing the central domain restoration cycle:\n"
                            "+  executing mailnames restoration cycle for example.com:\n") +
                   quotaWarning("many") +
                   progressText("   restoring mailbox quota settings for info@example.com... done\n"
                                "  executing mailnames restoration cycle for example.com done\n"
                                " executing the central domain restoration cycle done\n"));
}

TEST_F(MailnameCycleTest, AliasesAreReportedInLowerCaseWithoutConversion) {
    domain.mailname("info").alias("Hello").alias("BÜRO");
    panel.domain("off.example").status(4).mailname("sales").alias("shop");
    Recorder recorder{"registerMailAlias"};
    expectWalk(recorder, {R"(registerMailAlias("example.com", "info", "hello", false))",
                          R"(registerMailAlias("example.com", "info", "büro", false))",
                          R"(registerMailAlias("off.example", "sales", "shop", true))"});
}

TEST_F(MailnameCycleTest, RedirectsOfAGroupArriveInAsciiForm) {
    domain.mailname("team").group().redirect("Jörg@BÜCHER.example").redirect("plain");
    Recorder recorder{"registerMailRedirect"};
    expectWalk(recorder,
               {R"(registerMailRedirect("example.com", "team", "Jörg@xn--bcher-kva.example"))",
                R"(registerMailRedirect("example.com", "team", "plain"))"});
}

TEST_F(MailnameCycleTest, RedirectsOfAMailNameThatIsNoGroupAreNotReported) {
    domain.mailname("info").redirect("a@b.example");
    Recorder recorder{"registerMailRedirect"};
    expectWalk(recorder, {});
    makeText("mail_group");
    for (const char* value : {"'TRUE'", "'yes'", "NULL"}) {
        setAll("mail_group", value);
        expectWalk(recorder, {});
    }
}

TEST_F(MailnameCycleTest, MailForwardingIsNeverCalledButMakesTheCycleRun) {
    domain.mailname("team").group().redirect("a@b.example");
    Recorder recorder{"registerMailForwarding"};
    expectWalk(recorder, {});
    drop("domains");
    expectWalk(recorder, {}, queryWarning("top Domains cycle", statement::DOMAINS));
}

TEST_F(MailnameCycleTest, MailNamesThatCannotBeListedAreAWarning) {
    domain.mailname("info");
    panel.execute("ALTER TABLE mail CHANGE mail_group is_group int");
    Recorder recorder{"registerMailname", "restoreRecipientCanonical"};
    expectWalk(recorder, {"restoreRecipientCanonical()"},
               queryWarning("Mail names cycle for example.com", statement::mailnames(domain.id())));
}

TEST_F(MailnameCycleTest, AliasesThatCannotBeReadAreAWarningAndTheGroupGoesOn) {
    const auto team = domain.mailname("team").group().redirect("a@b.example");
    hide("mail_aliases");
    Recorder recorder{"registerMailAlias", "registerMailRedirect"};
    expectWalk(
        recorder, {R"(registerMailRedirect("example.com", "team", "a@b.example"))"},
        queryWarning("Mail Aliases cycle for team@example.com", statement::mailAliases(team.id())));
}

TEST_F(MailnameCycleTest, RedirectsThatCannotBeReadAreAWarning) {
    const int team = domain.mailname("team").group().id();
    domain.mailname("zoe");
    drop("mail_redir");
    Recorder recorder{"registerMailname", "registerMailRedirect"};
    expectWalk(
        recorder,
        {R"(registerMailname("example.com", "team"))", R"(registerMailname("example.com", "zoe"))"},
        queryWarning("Mail Forwards cycle for team@example.com", statement::mailRedirects(team)));
}

TEST_F(MailnameCycleTest, RedirectWithoutAnAsciiFormEndsTheGroup) {
    domain.mailname("team")
        .group()
        .redirect("a@b.example")
        .redirect("a@" + std::string(64, 'x'))
        .redirect("c@d.example");
    Recorder recorder{"registerMailRedirect", "restoreRecipientCanonical"};
    expectWalk(recorder,
               {R"(registerMailRedirect("example.com", "team", "a@b.example"))",
                "restoreRecipientCanonical()"},
               failure("   executing mail group forwarding cycle for team@example.com failed "
                       "(Invalid length), ignored"));
}

TEST_F(MailnameCycleTest, StageFailuresStopNeitherOtherStagesNorOtherMailNames) {
    domain.mailname("team").group().quota(5).alias("all").redirect("a@b.example");
    domain.mailname("zoe").quota(6);
    Recorder recorder{"registerMailname", "registerMailbox", "setMailboxQuota", "registerMailAlias",
                      "registerMailRedirect"};
    for (const char* slot : {"registerMailname", "registerMailbox", "setMailboxQuota",
                             "registerMailAlias", "registerMailRedirect"})
        recorder.on(slot, throwing(std::runtime_error("no")));
    expectWalk(
        recorder,
        {R"(registerMailname("example.com", "team"))",
         R"(registerMailbox("example.com", "team", true))",
         R"(setMailboxQuota("example.com", "team", 5))",
         R"(registerMailAlias("example.com", "team", "all", false))",
         R"(registerMailRedirect("example.com", "team", "a@b.example"))",
         R"(registerMailname("example.com", "zoe"))",
         R"(registerMailbox("example.com", "zoe", true))",
         R"(setMailboxQuota("example.com", "zoe", 6))"},
        failure("   registering mailname team@example.com failed (no), ignored") +
            failure("   registering mailbox for team@example.com failed (no), ignored") +
            failure("   restoring mailbox quota settings for team@example.com failed (no), "
                    "ignored") +
            failure("    restoring mail aliases for team@example.com failed (no), ignored") +
            failure("   executing mail group forwarding cycle for team@example.com failed (no), "
                    "ignored") +
            failure("   registering mailname zoe@example.com failed (no), ignored") +
            failure("   registering mailbox for zoe@example.com failed (no), ignored") +
            failure("   restoring mailbox quota settings for zoe@example.com failed (no), "
                    "ignored"));
}

TEST_F(MailnameCycleTest, ConnectionThatCannotBeOpenedEndsTheMailNamesOfThatDomain) {
    domain.mailname("anna").alias("a");
    domain.mailname("bert");
    Recorder recorder{"registerMailname", "registerMailAlias", "restoreRecipientCanonical"};
    recorder.on("registerMailname", refuseConnections);
    expectWalk(recorder,
               {R"(registerMailname("example.com", "anna"))", "restoreRecipientCanonical()"},
               refusal() + failure("  executing mailnames restoration cycle for example.com failed "
                                   "(connection failed), ignored"));
}

TEST_F(MailnameCycleTest, KilledConnectionsLeaveStoredRowsAndNewConnectionsUsable) {
    domain.mailname("anna").alias("a").alias("b");
    domain.mailname("bert").alias("c");
    Recorder recorder{"registerMailname", "registerMailAlias"};
    recorder.on("registerMailname", [this] { killConnections(); });
    recorder.on("registerMailAlias", [this] { killConnections(); });
    expectWalk(recorder, {R"(registerMailname("example.com", "anna"))",
                          R"(registerMailAlias("example.com", "anna", "a", false))",
                          R"(registerMailAlias("example.com", "anna", "b", false))",
                          R"(registerMailname("example.com", "bert"))",
                          R"(registerMailAlias("example.com", "bert", "c", false))"});
}

TEST_F(MailnameCycleTest, ConnectionThatIsKilledBetweenTwoStatementsIsAWarning) {
    const auto team = domain.mailname("team").group().alias("a").redirect("a@b.example");
    Recorder recorder{"registerMailAlias", "registerMailRedirect"};
    recorder.on("registerMailAlias", [this] { killConnections(); });
    expectWalk(recorder, {R"(registerMailAlias("example.com", "team", "a", false))"},
               warning("Warning: MySQL Query error on Mail Forwards cycle for team@example.com: " +
                       errorOfKilledConnection(panel) +
                       " executing query: " + statement::mailRedirects(team.id()) + ", ignored"));
}

}  // namespace
}  // namespace corvo::test
