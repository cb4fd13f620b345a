#include "tests/support/panel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Rows = std::vector<std::string>;

class PanelTest : public SandboxTest {
protected:
    // The first column of the first row, as the login that /etc/vhc names sees it.
    static ProcessResult askAsPanel(const PanelDatabase& panel, const std::string& statement) {
        std::string password = contentsOf("/etc/vhc/.vhc.shadow");
        password.pop_back();
        return run({"mariadb", "--no-defaults", "--skip-column-names", "--socket",
                    PanelDatabase::SOCKET_LINK, "--user", panel.user(), "--password=" + password,
                    panel.name(), "--execute", statement});
    }

    static std::string count(PanelDatabase& panel, const std::string& table) {
        return panel.query("SELECT COUNT(*) FROM " + table).at(0);
    }
};

TEST_F(PanelTest, WritesTheFilesThatLeadToIt) {
    const PanelDatabase panel;
    EXPECT_EQ(contentsOf("/etc/vhc/private/dsn.ini"),
              "[corvo]\nhost = localhost\nusername = " + panel.user() +
                  "\ndbname = " + panel.name() + "\n");
    EXPECT_EQ(contentsOf("/etc/vhc/vhc.conf"), "MYSQL_SOCKET /etc/vhc/mysql.sock\n");
    EXPECT_EQ(std::filesystem::read_symlink("/etc/vhc/mysql.sock"), PanelDatabase::socket());
    EXPECT_EQ(modeOf("/etc/vhc/private/dsn.ini"), "0600");
    EXPECT_EQ(modeOf("/etc/vhc/.vhc.shadow"), "0600");
}

TEST_F(PanelTest, LetsItsLoginDoAnythingInItsDatabaseOnly) {
    const PanelDatabase mine;
    const PanelDatabase other;
    writeFile("/etc/vhc/vhc.conf", "");

    EXPECT_EQ(askAsPanel(mine, "DROP TABLE misc; SELECT 'done'").out, "done\n");
    EXPECT_NE(askAsPanel(mine, "SELECT * FROM " + other.name() + ".misc").status, 0);
    EXPECT_NE(askAsPanel(mine, "SELECT * FROM mysql.user").status, 0);
}

TEST_F(PanelTest, LeavesNothingInTheServer) {
    PanelDatabase server;
    std::optional<PanelDatabase> panel(std::in_place);
    const std::string name = panel->name();
    const auto databases = "SHOW DATABASES LIKE '" + name + "'";
    const auto logins = "SELECT User FROM mysql.user WHERE User='" + name + "'";
    EXPECT_THAT(server.query(databases), ElementsAre(name));
    EXPECT_THAT(server.query(logins), ElementsAre(name));

    panel.reset();

    EXPECT_THAT(server.query(databases), IsEmpty());
    EXPECT_THAT(server.query(logins), IsEmpty());
}

TEST_F(PanelTest, StartsEmpty) {
    PanelDatabase panel;
    const Rows tables = panel.query("SHOW TABLES");
    EXPECT_EQ(tables.size(), 15U);
    for (const std::string& table : tables)
        EXPECT_EQ(count(panel, table), "0") << table;
}

TEST_F(PanelTest, GivesTheRowsOfTheLastStatement) {
    PanelDatabase panel;
    EXPECT_THAT(panel.query("SELECT 1; SELECT 2, NULL, '' UNION ALL SELECT 3, 'x', 'y'"),
                ElementsAre("2|NULL|", "3|x|y"));
}

TEST_F(PanelTest, ThrowsForAStatementThatFails) {
    PanelDatabase panel;
    EXPECT_THROW(panel.execute("nonsense"), std::runtime_error);
    EXPECT_THROW(panel.execute("SELECT 1; nonsense"), std::runtime_error);
}

TEST_F(PanelTest, SetsParametersOnceEach) {
    PanelDatabase panel;
    panel.misc("param", "first");
    panel.misc("param", "it's");
    panel.mailServer("relay", "open");
    panel.mailServer("relay", "closed");
    EXPECT_THAT(panel.query("SELECT * FROM misc"), ElementsAre("param|it's"));
    EXPECT_THAT(panel.query("SELECT * FROM ServiceNodeConfiguration"),
                ElementsAre("1|mailServer|relay|closed"));
}

TEST_F(PanelTest, JoinsADomainWithItsServiceAndParameters) {
    PanelDatabase panel;
    panel.domain("first.example");
    panel.domain("ü.example")
        .status(16)
        .parameter("nonexist_mail", "catch")
        .parameter("catch_addr", "post@ü.example");
    EXPECT_THAT(
        panel.query("SELECT d.name, s.status, p.parameter, p.value "
                    "FROM domains d, DomainServices s, Parameters p "
                    "WHERE d.id=s.dom_id AND s.type='mail' AND p.id=s.parameters_id "
                    "ORDER BY d.id, p.parameter"),
        ElementsAre("first.example|0|nonexist_mail|reject",
                    "ü.example|16|catch_addr|post@ü.example", "ü.example|16|nonexist_mail|catch"));
}

TEST_F(PanelTest, JoinsADomainWithItsDefaultQuota) {
    PanelDatabase panel;
    panel.domain("without.example");
    panel.domain("with.example").defaultQuota(1).defaultQuota(1048576);
    EXPECT_THAT(
        panel.query("SELECT d.name, l.value "
                    "FROM SubscriptionProperties sp, Subscriptions s, domains d, Limits l "
                    "WHERE sp.subscription_id=s.id AND object_type='domain' AND d.id=s.object_id "
                    "AND sp.name='limitsId' AND l.id=sp.value AND l.limit_name='mbox_quota'"),
        ElementsAre("with.example|1048576"));
}

TEST_F(PanelTest, AddsAliasesOfADomain) {
    PanelDatabase panel;
    panel.domain("example.com").alias("example.net").alias("example.org", false, 2);
    EXPECT_THAT(panel.query("SELECT name, mail, status FROM domain_aliases ORDER BY id"),
                ElementsAre("example.net|true|0", "example.org|false|2"));
}

TEST_F(PanelTest, AddsMailnamesWithWhatBelongsToThem) {
    PanelDatabase panel;
    PanelDatabase::Domain domain = panel.domain("example.com");
    domain.mailname("plain");
    PanelDatabase::Mailname team = domain.mailname("team");
    team.postbox(false).delivery(false).quota(0).group().alias("crew").redirect("a@b.c");

    EXPECT_THAT(panel.query("SELECT mail_name, dom_id, postbox, delivery, mail_group, mbox_quota "
                            "FROM mail ORDER BY id"),
                ElementsAre("plain|" + std::to_string(domain.id()) + "|true|true|false|-1",
                            "team|" + std::to_string(domain.id()) + "|false|false|true|0"));
    const std::string id = std::to_string(team.id());
    EXPECT_THAT(panel.query("SELECT mn_id, alias FROM mail_aliases"), ElementsAre(id + "|crew"));
    EXPECT_THAT(panel.query("SELECT mn_id, address FROM mail_redir"), ElementsAre(id + "|a@b.c"));
}

TEST_F(PanelTest, GivesEachKindOfIdARangeOfItsOwn) {
    PanelDatabase panel;
    panel.domain("example.com")
        .defaultQuota(1)
        .alias("a.b")
        .mailname("info")
        .alias("a")
        .redirect("b@c.d");
    EXPECT_THAT(panel.query("SELECT COUNT(DISTINCT id), COUNT(*) FROM ("
                            "SELECT id FROM domains UNION ALL SELECT id FROM DomainServices "
                            "UNION ALL SELECT id FROM Parameters UNION ALL SELECT id FROM Limits "
                            "UNION ALL SELECT id FROM Subscriptions UNION ALL SELECT id FROM mail "
                            "UNION ALL SELECT id FROM domain_aliases) AS ids"),
                ElementsAre("7|7"));
}

TEST(PanelSocketTest, CanBeNamedByTheEnvironment) {
    const ProcessResult child = runForked([] {
        ::setenv("CORVO_PANEL_SOCKET", "/somewhere/socket", 1);
        std::exit(PanelDatabase::socket() == "/somewhere/socket" ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
}

TEST(PanelSocketTest, FailsATestInOneLineWhenNoServerAnswers) {
    const ProcessResult child = runForked([] {
        ::setenv("CORVO_PANEL_SOCKET", "/somewhere/socket", 1);
        try {
            const PanelDatabase panel;
        } catch (const std::runtime_error& e) {
            (void)std::puts(e.what());
        }
    });
    EXPECT_EQ(child.out,
              "the private MariaDB server does not answer: "
              "Can't connect to local server through socket '/somewhere/socket' (2)\n");
}

}  // namespace
}  // namespace corvo::test
