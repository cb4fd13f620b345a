#include "restore/domain_cycle.h"

#include <gtest/gtest.h>

#include <utility>

#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

class DomainCycleTest : public WalkTest {
protected:
    /// Walks with the catch-all slot bound; expects one call with these arguments.
    static void expectCatchall(const std::string& arguments, const Printed& printed = {}) {
        Recorder recorder{"setDomainCatchall"};
        expectWalk(recorder, {"setDomainCatchall(" + arguments + ")"}, printed);
    }

    /// Sets a domain's mail status to a value as SQL has it.
    void setStatus(int domain, const std::string& value) {
        panel.execute("UPDATE DomainServices SET status=" + value +
                      " WHERE dom_id=" + std::to_string(domain));
    }

    static std::string queryWarning(const std::string& label, const std::string& statement) {
        return "Warning: MySQL Query error on " + label + ": " + errorOf(statement) + ", ignored";
    }

    static inline const std::string NO_NUMBER =
        "bad lexical cast: source type value could not be interpreted as target";
    static inline const std::string CYCLE = " executing the central domain restoration cycle";
};

TEST_F(DomainCycleTest, DomainsAreReportedInLowerCaseWithTheirStatus) {
    panel.domain("Example.COM");
    panel.domain("off.example").status(2);
    panel.domain("negative.example").status(-1);
    Recorder recorder{"registerDomain"};
    expectWalk(recorder,
               {R"(registerDomain("example.com", false))", R"(registerDomain("off.example", true))",
                R"(registerDomain("negative.example", true))"});
}

TEST_F(DomainCycleTest, DomainsWithoutMailServiceOrItsParameterAreNotListed) {
    panel.domain("web.example");
    panel.execute("UPDATE DomainServices SET type='web'");
    panel.domain("bare.example");
    panel.execute("DELETE FROM Parameters");
    panel.domain("mail.example");
    Recorder recorder{"registerDomain"};
    expectWalk(recorder, {R"(registerDomain("mail.example", false))"});
}

TEST_F(DomainCycleTest, DomainThatIsListedTwiceIsReportedTwice) {
    panel.execute("ALTER TABLE DomainServices DROP KEY service");
    const int id = panel.domain("example.com").id();
    panel.execute(
        "INSERT INTO DomainServices (dom_id, type, status, parameters_id) SELECT dom_id, "
        "type, 1, parameters_id FROM DomainServices WHERE dom_id=" +
        std::to_string(id));
    Recorder recorder{"registerDomain"};
    expectWalk(recorder, {R"(registerDomain("example.com", false))",
                          R"(registerDomain("example.com", true))"});
}

TEST_F(DomainCycleTest, DomainsThatCannotBeListedAreAWarning) {
    drop("Parameters");
    Recorder recorder{"registerDomain", "restoreRecipientCanonical"};
    expectWalk(recorder, {"restoreRecipientCanonical()"},
               warning(queryWarning("top Domains cycle", statement::DOMAINS)));
}

TEST_F(DomainCycleTest, StatusThatIsNoNumberEndsTheWholeCycle) {
    panel.execute("ALTER TABLE DomainServices MODIFY status varchar(30) DEFAULT '0'");
    panel.domain("first.example");
    const int second = panel.domain("second.example").id();
    panel.domain("third.example");
    const Printed line = failure(CYCLE + " failed (" + NO_NUMBER + "), ignored");
    for (const std::string status :
         {"'on'", "''", "' 0'", "'0 '", "'9223372036854775808'", "NULL"}) {
        SCOPED_TRACE(status);
        setStatus(second, status);
        Recorder recorder{"registerDomain", "restoreRecipientCanonical"};
        expectWalk(recorder,
                   {R"(registerDomain("first.example", false))", "restoreRecipientCanonical()"},
                   line);
    }
}

TEST_F(DomainCycleTest, StatusMayCarryASign) {
    panel.execute("ALTER TABLE DomainServices MODIFY status varchar(30) DEFAULT '0'");
    panel.domain("example.com");
    const struct {
        const char* status;
        const char* off;
    } cases[] = {{"+0", "false"},
                 {"-0", "false"},
                 {"00", "false"},
                 {"+1", "true"},
                 {"-9223372036854775808", "true"},
                 {"9223372036854775807", "true"}};
    for (const auto& [status, off] : cases) {
        SCOPED_TRACE(status);
        panel.execute("UPDATE DomainServices SET status='" + std::string(status) + "'");
        Recorder recorder{"registerDomain"};
        expectWalk(recorder, {"registerDomain(\"example.com\", " + std::string(off) + ")"});
    }
}

TEST_F(DomainCycleTest, DomainWhoseRegistrationFailsIsLeftOut) {
    panel.domain("example.com").alias("alias.example").mailname("info");
    panel.domain("next.example");
    Recorder recorder{"registerDomain", "setDomainCatchall", "registerDomainAlias",
                      "registerMailname"};
    bool first = true;
    recorder.on("registerDomain", [&first] {
        if (std::exchange(first, false))
            throw std::runtime_error("disk full");
    });
    expectWalk(
        recorder,
        {R"(registerDomain("example.com", false))", R"(registerDomain("next.example", false))",
         R"(setDomainCatchall("next.example", 0, ""))"},
        failure("  restoring basic records for example.com failed (disk full), ignored"));
}

TEST_F(DomainCycleTest, RegistrationFailureInDebugModeIsAWholeLine) {
    panel.domain("example.com");
    Recorder recorder{"registerDomain"};
    recorder.on("registerDomain", throwing(std::runtime_error("disk full")));
    setDebug("1");
    expectWalk(recorder, {R"(registerDomain("example.com", false))"},
               progressText("Restoring Mail Server Entities from Corvo DB:\n" + CYCLE +
                            ":\n+  restoring basic records for example.com failed (disk full), "
                            "ignored\n" +
                            CYCLE + " done\n"));
}

TEST_F(DomainCycleTest, SecondConnectionThatCannotBeOpenedEndsTheWholeCycle) {
    panel.domain("example.com").mailname("info");
    panel.domain("next.example");
    Recorder recorder{"registerDomain", "registerMailname", "restoreRecipientCanonical"};
    recorder.on("registerDomain", refuseConnections);
    expectWalk(recorder, {R"(registerDomain("example.com", false))", "restoreRecipientCanonical()"},
               refusal() + failure(CYCLE + " failed (connection failed), ignored"));
}

TEST_F(DomainCycleTest, CatchallFollowsTheParametersOfTheMailService) {
    const struct {
        const char* mode;
        const char* parameter;
        const char* value;
        const char* expected;
    } cases[] = {
        {"reject", "bounce_mess", "gone", R"(0, "")"},
        {"bounce", "bounce_mess", "Nobody here", R"(1, "Nobody here")"},
        {"bounce", "bounce_mess", "", R"(0, "")"},
        {"bounce", "catch_addr", "all@example.com", R"(0, "")"},
        {"catch", "catch_addr", "all@example.com", R"(2, "all@example.com")"},
        {"catch", "catch_addr", "", R"(0, "")"},
        {"catch", "bounce_mess", "gone", R"(0, "")"},
        {"Bounce", "bounce_mess", "gone", R"(0, "")"},
        {"catch ", "catch_addr", "all@example.com", R"(0, "")"},
        {"", "catch_addr", "all@example.com", R"(0, "")"},
        {"discard", "catch_addr", "all@example.com", R"(0, "")"},
    };
    auto domain = panel.domain("example.com");
    for (const auto& [mode, parameter, value, expected] : cases) {
        SCOPED_TRACE(std::string(mode) + " " + parameter + " " + value);
        panel.execute("DELETE FROM Parameters");
        domain.parameter("nonexist_mail", mode).parameter(parameter, value);
        expectCatchall("\"example.com\", " + std::string(expected));
    }
}

TEST_F(DomainCycleTest, CatchallValuesArriveInAsciiForm) {
    auto domain = panel.domain("example.com");
    domain.parameter("nonexist_mail", "catch").parameter("catch_addr", "jörg@bücher.example");
    expectCatchall(R"("example.com", 2, "jörg@xn--bcher-kva.example")");
    domain.parameter("nonexist_mail", "bounce").parameter("bounce_mess", "Ask info@bücher.example");
    expectCatchall(R"("example.com", 1, "Ask info@xn--bcher-kva.example")");
}

TEST_F(DomainCycleTest, NullCatchallParameterIsEmpty) {
    panel.domain("example.com").parameter("nonexist_mail", "bounce").parameter("bounce_mess", "x");
    panel.execute("UPDATE Parameters SET value=NULL WHERE parameter='bounce_mess'");
    expectCatchall(R"("example.com", 0, "")");
}

TEST_F(DomainCycleTest, FirstRowOfACatchallParameterCounts) {
    panel.execute("ALTER TABLE Parameters DROP PRIMARY KEY");
    panel.domain("example.com");
    panel.execute("UPDATE Parameters SET value='bounce'");
    for (const char* text : {"first", "second"})
        panel.execute("INSERT INTO Parameters SELECT DISTINCT id, 'bounce_mess', '" +
                      std::string(text) + "' FROM Parameters");
    expectCatchall(R"("example.com", 1, "first")");
}

TEST_F(DomainCycleTest, OnlyTheSingleCharacterZeroIsAMailServiceThatIsOn) {
    panel.execute("ALTER TABLE DomainServices MODIFY status varchar(30) DEFAULT '0'");
    panel.domain("example.com").parameter("nonexist_mail", "bounce").parameter("bounce_mess", "x");
    for (const char* status : {"00", "1", "-0", "+0"}) {
        SCOPED_TRACE(status);
        panel.execute("UPDATE DomainServices SET status='" + std::string(status) + "'");
        expectCatchall(R"("example.com", 0, "")");
    }
}

TEST_F(DomainCycleTest, LastOfSeveralServiceRowsDecidesWhetherMailIsOn) {
    panel.execute("ALTER TABLE DomainServices DROP KEY service");
    auto domain = panel.domain("example.com");
    domain.parameter("nonexist_mail", "bounce").parameter("bounce_mess", "x");
    panel.execute("INSERT INTO DomainServices (dom_id, type, status, parameters_id) VALUES (" +
                  std::to_string(domain.id()) + ", 'mail', 1, 0)");
    expectCatchall(R"("example.com", 0, "")");
}

TEST_F(DomainCycleTest, BlankBeforeTheStatusThatAppearsOnTheWayMeansMailOff) {
    panel.execute("ALTER TABLE DomainServices MODIFY status varchar(30) DEFAULT '0'");
    panel.domain("example.com").parameter("nonexist_mail", "bounce").parameter("bounce_mess", "x");
    Recorder recorder{"registerDomain", "setDomainCatchall"};
    recorder.on("registerDomain",
                [this] { panel.execute("UPDATE DomainServices SET status=' 0'"); });
    expectWalk(recorder, {R"(registerDomain("example.com", false))",
                          R"(setDomainCatchall("example.com", 0, ""))"});
}

TEST_F(DomainCycleTest, ServiceThatVanishesOnTheWayHasNoCatchall) {
    panel.domain("example.com").parameter("nonexist_mail", "bounce").parameter("bounce_mess", "x");
    Recorder recorder{"registerDomain", "setDomainCatchall"};
    recorder.on("registerDomain", [this] { panel.execute("DELETE FROM DomainServices"); });
    expectWalk(recorder, {R"(registerDomain("example.com", false))",
                          R"(setDomainCatchall("example.com", 0, ""))"});
}

TEST_F(DomainCycleTest, CatchallParametersThatCannotBeReadAreWarningsAndEmpty) {
    const int id = panel.domain("example.com").id();
    Recorder recorder{"registerDomain", "setDomainCatchall"};
    recorder.on("registerDomain", [this] { drop("Parameters"); });
    const Printed printed = walk(recorder);
    EXPECT_EQ(printed,
              warning(queryWarning("Domain Catcall configuration for domain example.com",  // sic
                                   statement::catchallParameter("nonexist_mail", id))));
    EXPECT_EQ(recorder.lines(), (Calls{R"(registerDomain("example.com", false))",
                                       R"(setDomainCatchall("example.com", 0, ""))"}));
}

TEST_F(DomainCycleTest, BounceMessageThatCannotBeReadIsAWarningAndNoCatchall) {
    // Whoever asks for the message gets two rows where one is allowed.
    auto domain = panel.domain("example.com");
    domain.parameter("nonexist_mail", "bounce").parameter("bounce_mess", "x");
    panel.execute(
        "RENAME TABLE Parameters TO parameterRows;"
        "CREATE VIEW Parameters AS SELECT id, parameter, IF(parameter='bounce_mess',"
        " (SELECT 1 UNION ALL SELECT 2), value) AS value FROM parameterRows");
    expectCatchall(R"("example.com", 0, "")",
                   warning(queryWarning("Domain Catcall configuration for domain example.com",
                                        statement::catchallParameter("bounce_mess", domain.id()))));
}

TEST_F(DomainCycleTest, MailStatusThatCannotBeReadIsAWarningAndMeansOn) {
    auto domain = panel.domain("example.com");
    domain.parameter("nonexist_mail", "bounce").parameter("bounce_mess", "x");
    Recorder recorder{"registerDomain", "setDomainCatchall"};
    recorder.on("registerDomain",
                [this] { panel.execute("ALTER TABLE DomainServices CHANGE status state bigint"); });
    const std::string query = statement::mailStatus(domain.id());
    const Printed printed = walk(recorder);
    EXPECT_EQ(printed,
              warning(queryWarning("Domain Mail status detection for domain example.com", query)));
    EXPECT_EQ(recorder.lines(), (Calls{R"(registerDomain("example.com", false))",
                                       R"(setDomainCatchall("example.com", 1, "x"))"}));
}

TEST_F(DomainCycleTest, CatchAddressWithoutAnAsciiFormFailsTheStageOnly) {
    panel.domain("example.com")
        .parameter("nonexist_mail", "catch")
        .parameter("catch_addr", "a@" + std::string(64, 'x') + ".example")
        .alias("alias.example");
    Recorder recorder{"setDomainCatchall", "registerDomainAlias"};
    expectWalk(recorder, {R"(registerDomainAlias("example.com", "alias.example", false, false))"},
               failure("  restoring catchall/reject settings for example.com failed (Invalid "
                       "length), ignored"));
}

TEST_F(DomainCycleTest, AliasesWithMailAreReportedWithBothStatuses) {
    panel.domain("example.com")
        .alias("On.example")
        .alias("off.example", true, 1)
        .alias("nomail.example", false);
    panel.domain("off.com").status(16).alias("other.example");
    Recorder recorder{"registerDomainAlias"};
    expectWalk(recorder, {R"(registerDomainAlias("example.com", "on.example", false, false))",
                          R"(registerDomainAlias("example.com", "off.example", true, false))",
                          R"(registerDomainAlias("off.com", "other.example", false, true))"});
}

TEST_F(DomainCycleTest, AliasStatusThatIsNoNumberEndsTheAliasesOfThatDomain) {
    panel.execute("ALTER TABLE domain_aliases MODIFY status varchar(30)");
    auto domain = panel.domain("example.com");
    domain.alias("first.example").alias("second.example").alias("third.example");
    domain.mailname("info");
    panel.execute("UPDATE domain_aliases SET status=NULL WHERE name='second.example'");
    Recorder recorder{"registerDomainAlias", "registerMailname"};
    expectWalk(
        recorder,
        {R"(registerDomainAlias("example.com", "first.example", false, false))",
         R"(registerMailname("example.com", "info"))"},
        failure("  restoring domain aliases for example.com failed (" + NO_NUMBER + "), ignored"));
}

TEST_F(DomainCycleTest, AliasesThatCannotBeReadAreAWarning) {
    hide("domain_aliases");
    auto domain = panel.domain("example.com");
    domain.mailname("info");
    Recorder recorder{"registerDomainAlias", "registerMailname"};
    expectWalk(recorder, {R"(registerMailname("example.com", "info"))"},
               warning(queryWarning("Domains Alias cycle for domain example.com",
                                    statement::domainAliases(domain.id()))));
}

TEST_F(DomainCycleTest, StageFailuresOfOneDomainStopNeitherItsOtherStagesNorOtherDomains) {
    panel.domain("example.com").alias("alias.example").mailname("info");
    panel.domain("next.example").mailname("sales");
    Recorder recorder{"setDomainCatchall", "registerDomainAlias", "registerMailname"};
    recorder.on("setDomainCatchall", throwing(std::runtime_error("one")));
    recorder.on("registerDomainAlias", throwing(std::runtime_error("two")));
    expectWalk(
        recorder,
        {R"(setDomainCatchall("example.com", 0, ""))",
         R"(registerDomainAlias("example.com", "alias.example", false, false))",
         R"(registerMailname("example.com", "info"))",
         R"(setDomainCatchall("next.example", 0, ""))",
         R"(registerMailname("next.example", "sales"))"},
        failure("  restoring catchall/reject settings for example.com failed (one), ignored") +
            failure("  restoring domain aliases for example.com failed (two), ignored") +
            failure("  restoring catchall/reject settings for next.example failed (one), "
                    "ignored"));
}

TEST_F(DomainCycleTest, ConnectionThatIsKilledLeavesTheStoredDomainsReadable) {
    panel.domain("example.com").mailname("info");
    panel.domain("next.example").mailname("sales");
    Recorder recorder{"registerDomain", "registerMailname"};
    recorder.on("registerDomain", [this] { killConnections(); });
    expectWalk(recorder, {R"(registerDomain("example.com", false))",
                          R"(registerMailname("example.com", "info"))",
                          R"(registerDomain("next.example", false))",
                          R"(registerMailname("next.example", "sales"))"});
}

}  // namespace
}  // namespace corvo::test
