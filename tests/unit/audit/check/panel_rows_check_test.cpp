#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "tests/support/panel.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class PanelRowsCheckTest : public CheckTest {
protected:
    static Results results() {
        return resultsOf([](const auto& sink) {
            mysql::Connection connection(/*open_now=*/true);
            audit::checkPanelRows(sink, connection);
        });
    }

    // Those that are not ok.
    static Results faults() {
        Results found = results();
        std::erase_if(found, [](const std::string& result) { return result.starts_with("ok|"); });
        return found;
    }

    PanelDatabase panel;
};

TEST_F(PanelRowsCheckTest, EachKindOfRowIsOkWhereNoneIsAtFault) {
    auto domain = panel.domain("example.com").defaultQuota(1 << 20);
    domain.mailname("info").quota(-1);
    domain.mailname("team").group().redirect("info@bücher.example");
    EXPECT_THAT(results(),
                ElementsAre("ok|domain statuses|all are numbers|", "ok|domains passed over|none|",
                            "ok|mail names without mail service|none|",
                            "ok|spellings of domains|each domain has one|",
                            "ok|spellings of mail names|each mail name has one|",
                            "ok|names of domains|all are names of directories|",
                            "ok|names of mail names|all are names of directories|",
                            "ok|characters of names|all reach the program|",
                            "ok|domains in other letters|all are in their ASCII form|",
                            "ok|domains of the mail names root|none has the name of another "
                            "thing there|",
                            "ok|quotas of mail names|all are numbers|",
                            "ok|default quotas|all are numbers|",
                            "ok|redirects of mail names that are no group|none|",
                            "ok|redirects of groups|all can be forwards|"));
}

TEST_F(PanelRowsCheckTest, AStatusThatIsNoNumberIsAProblem) {
    panel.execute("ALTER TABLE DomainServices MODIFY status TEXT");
    const std::pair<const char*, const char*> texts[] = {
        {"NULL", "NULL"},
        {"'1\n'", "'1\n'"},
        {"''", "''"},
        {"'off'", "'off'"},
        {"'1 '", "'1 '"},
        {"'0x1'", "'0x1'"},
        {"'9223372036854775808'", "'9223372036854775808'"},
    };
    panel.domain("Example.com");
    for (const auto& [value, shown] : texts) {
        panel.execute("UPDATE DomainServices SET status=" + std::string(value));
        EXPECT_THAT(faults(),
                    ElementsAre("problem|domain statuses|example.com: " + std::string(shown) +
                                " is no number, and ends the run before this domain and "
                                "all after it|set the status of its mail service to 0, "
                                "or to the reason why it is off"));
    }
    for (const std::string value : {"0", "-1", "'+16'", "'9223372036854775807'"}) {
        panel.execute("UPDATE DomainServices SET status=" + value);
        EXPECT_THAT(faults(), IsEmpty()) << value;
    }
}

TEST_F(PanelRowsCheckTest, DomainsThatTheWalkPassesOverAreNamedWithTheirNumberOfMailNames) {
    auto passed = panel.domain("passed.example");
    passed.mailname("one");
    passed.mailname("two");
    panel.execute("DELETE FROM Parameters");
    EXPECT_THAT(faults(),
                ElementsAre("warning|domains passed over|passed.example: its mail service lacks "
                            "nonexist_mail; mail names: 2|set in the panel what happens to mail "
                            "for unknown recipients"));
}

TEST_F(PanelRowsCheckTest, MailNamesThatNoMailServiceHasAreNamed) {
    panel.domain("off.example").mailname("one");
    panel.execute("DELETE FROM DomainServices");
    panel.execute("INSERT INTO mail (dom_id, mail_name) VALUES (4711, 'a'), (4711, 'b')");
    const std::string advice =
        "|nothing, unless they should have mail: then switch the service on in the panel";
    EXPECT_THAT(
        faults(),
        UnorderedElementsAre(
            "warning|mail names without mail service|off.example; mail names: 1" + advice,
            "warning|mail names without mail service|no domain has the id 4711; mail names: 2" +
                advice));
}

TEST_F(PanelRowsCheckTest, NamesInTwoSpellingsAreNamed) {
    panel.execute("ALTER TABLE mail DROP KEY address");
    auto domain = panel.domain("example.com");
    domain.mailname("Info");
    domain.mailname("info");
    panel.domain("Example.COM").mailname("office");
    domain.mailname("office");
    const std::string advice = "|rename or delete all but one in the panel";
    EXPECT_THAT(
        faults(),
        UnorderedElementsAre(
            "warning|spellings of domains|example.com: one directory for 2 domains" + advice,
            "warning|spellings of mail names|info@example.com: one home for 2 mail names, of "
            "which the last one read counts" +
                advice,
            "warning|spellings of mail names|office@example.com: one home for 2 mail names, of "
            "which the last one read counts" +
                advice));
}

TEST_F(PanelRowsCheckTest, WhatACollationTakesForEqualIsTwoNames) {
    panel.execute("ALTER TABLE mail DROP KEY address");
    auto domain = panel.domain("example.com");
    domain.mailname("jose");
    domain.mailname("josé");
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(PanelRowsCheckTest, NamesThatAreNoDirectorysAreNamed) {
    auto domain = panel.domain("example.com");
    for (const std::string name : {"", ".", "..", "a/b"})
        domain.mailname(name);
    domain.mailname("...");
    panel.domain("..");
    panel.execute("INSERT INTO mail (dom_id, mail_name) VALUES (" + std::to_string(domain.id()) +
                  ", REPEAT('€', 86)), (" + std::to_string(domain.id()) + ", REPEAT('€', 85))");
    std::string longName;
    for (int i = 0; i < 86; ++i)
        longName += "€";
    const std::string subject = "warning|names of mail names|'";
    const std::string rest = "' of example.com is no name of a directory|rename it in the panel";
    EXPECT_THAT(faults(),
                UnorderedElementsAre(
                    "warning|names of domains|'..' is no name of a directory|rename it in the "
                    "panel",
                    subject + rest, subject + "." + rest, subject + ".." + rest,
                    subject + "a/b" + rest, subject + longName + rest));
}

TEST_F(PanelRowsCheckTest, CharactersThatDoNotComeThroughAreNamed) {
    panel.execute("ALTER TABLE mail MODIFY mail_name VARCHAR(191) CHARACTER SET utf8mb4 NOT NULL");
    panel.domain("example.com").mailname("smile\xf0\x9f\x98\x80");
    EXPECT_THAT(faults(), ElementsAre("warning|characters of names|smile?@example.com: a '?' may "
                                      "stand for a character that does not come through|rename it "
                                      "in the panel"));
}

TEST_F(PanelRowsCheckTest, DomainsInOtherLettersAreNamed) {
    panel.domain("bücher.example");
    EXPECT_THAT(faults(),
                ElementsAre("warning|domains in other letters|bücher.example: quotas are not "
                            "restored, for it is not in its ASCII form|give the domain its ASCII "
                            "form in the panel"));
}

TEST_F(PanelRowsCheckTest, DomainsNamedLikeSomethingElseInTheRootAreNamed) {
    panel.domain("lost+found");
    panel.domain(".Default_Delivery");
    const std::string rest =
        ": the mail names root has something else of this name|delete it in "
        "the panel";
    EXPECT_THAT(faults(), UnorderedElementsAre(
                              "warning|domains of the mail names root|lost+found" + rest,
                              "warning|domains of the mail names root|.default_delivery" + rest));
}

TEST_F(PanelRowsCheckTest, QuotasThatAreNoNumbersAreNamed) {
    panel.domain("example.com").defaultQuota(1).mailname("info");
    panel.execute("ALTER TABLE mail MODIFY mbox_quota TEXT; ALTER TABLE Limits MODIFY value TEXT");
    panel.execute("UPDATE mail SET mbox_quota='10M'; UPDATE Limits SET value=NULL");
    EXPECT_THAT(faults(),
                ElementsAre("warning|quotas of mail names|info@example.com: '10M' is no number, "
                            "and the domain's default is taken|set its quota in the panel",
                            "warning|default quotas|example.com: NULL is no number, and no limit "
                            "is taken|set the domain's default quota in the panel"));
}

TEST_F(PanelRowsCheckTest, RedirectsOfMailNamesThatAreNoGroupAreNamed) {
    panel.domain("example.com").mailname("info").redirect("a@b.example").redirect("c@d.example");
    EXPECT_THAT(faults(), ElementsAre("warning|redirects of mail names that are no group|"
                                      "info@example.com: redirects that are not restored: 2|"
                                      "nothing, unless it should be a group: then make it one in "
                                      "the panel"));
}

TEST_F(PanelRowsCheckTest, RedirectsThatCanBeNoForwardsAreNamed) {
    const std::string tooLong = "a@" + std::string(64, 'x') + ".example";
    const std::string twoLines = "a@b.example\n|true";
    auto team = panel.domain("example.com").mailname("team").group();
    team.redirect("a@bücher.example");
    Results expected;
    for (const std::string& address : {std::string("nobody"), tooLong, twoLines}) {
        team.redirect(address);
        expected.push_back("warning|redirects of groups|team@example.com: '" + address +
                           "' can be no forward, and is missing with those after it|correct or "
                           "delete it in the panel");
    }
    EXPECT_EQ(faults(), expected);
}

TEST_F(PanelRowsCheckTest, AStatementThatFailsIsAProblemAndTheOthersGoOn) {
    panel.execute("DROP TABLE mail_redir");
    const Results found = faults();
    ASSERT_EQ(found.size(), 2U);
    EXPECT_TRUE(
        found[0].starts_with("problem|redirects of mail names that are no group|MySQL "
                             "error 1146: Table '" +
                             panel.name() + ".mail_redir' doesn't exist"));
}

}  // namespace
}  // namespace corvo::test
