// Results that no panel database gives: rows that cannot be fetched, columns that are missing, and
// a mail service that one statement finds and the next one does not. The statements of the walk are
// changed on their way to the server.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <mysql.h>

#include <string>
#include <utility>

#include "tests/unit/restore/walk_fixture.h"

namespace {

/// In statements that contain `marker` each `from` becomes `to`. None while the marker is empty.
struct Rewriting {
    std::string marker;
    std::string from;
    std::string to;

    std::string apply(std::string statement) const {
        if (marker.empty() || statement.find(marker) == std::string::npos)
            return statement;
        for (auto at = statement.find(from); at != std::string::npos;
             at = statement.find(from, at + to.size()))
            statement.replace(at, from.size(), to);
        return statement;
    }
};
Rewriting rewriting;

/// Two columns of one name make every fetch fail.
Rewriting unfetchable(const std::string& marker) {
    return {marker, "SELECT ", "SELECT 1 AS c, 2 AS c, "};
}

}  // namespace

/// In front of the client library's.
extern "C" int STDCALL mysql_real_query(MYSQL* handle, const char* text, unsigned long length) {
    static const auto original =
        reinterpret_cast<decltype(&mysql_real_query)>(::dlsym(RTLD_NEXT, "mysql_real_query"));
    const std::string statement = rewriting.apply({text, length});
    return original(handle, statement.data(), statement.size());
}

namespace corvo::test {
namespace {

class ResultFailuresTest : public WalkTest {
protected:
    ResultFailuresTest() {
        domain.defaultQuota(1048576).alias("alias.example").alias("other.example");
        domain.parameter("nonexist_mail", "bounce").parameter("bounce_mess", "gone");
        for (const char* name : {"anna", "bert"})
            domain.mailname(name).group().alias("a").redirect("a@b.example");
        panel.execute("INSERT INTO certificates (id, name, cert_file) VALUES (5, 'c', 'cert-a')");
        domain.parameter("mail_certificate_id", "5");
        panel.execute("INSERT INTO smtp_poplocks (ip_address, ip_mask) VALUES ('192.0.2.0', '24')");
        panel.execute("INSERT INTO badmailfrom (domain) VALUES ('spam.example')");
    }
    void TearDown() override { rewriting = {}; }

    /// Walks with one slot bound while statements are rewritten.
    static void expectWalk(const std::string& slot, Rewriting rule, const Calls& calls,
                           const Printed& printed) {
        Recorder recorder{slot};
        rewriting = std::move(rule);
        WalkTest::expectWalk(recorder, calls, printed);
        rewriting = {};
    }

    /// The label comes with its separator.
    static Printed fetchWarning(const std::string& label) {
        return warning("Warning: MySQL Fetch Row Error on " + label +
                       "duplicated field c in query, row ignored");
    }

    static Printed missing(const std::string& label, const std::string& column) {
        return failure(label + " failed (No field named " + column + " in result set), ignored");
    }

    PanelDatabase::Domain domain = panel.domain("example.com");
};

const std::string DOMAIN_STEP = " executing the central domain restoration cycle";

TEST_F(ResultFailuresTest, DomainsThatCannotBeFetchedArePassedOver) {
    panel.domain("next.example");
    const Printed line = fetchWarning("top Domains cycle");
    expectWalk("registerDomain", unfetchable("AS nonExisting"), {}, line + line);
}

TEST_F(ResultFailuresTest, DomainsThatCannotBeFetchedAreMarkedInDebugMode) {
    panel.domain("next.example");
    const Printed line = fetchWarning("top Domains cycle") + progressText("!");
    setDebug("1");
    expectWalk(
        "registerDomain", unfetchable("AS nonExisting"), {},
        progressText("Restoring Mail Server Entities from Corvo DB:\n" + DOMAIN_STEP + ":\n") +
            line + line + progressText(DOMAIN_STEP + " done\n"));
}

TEST_F(ResultFailuresTest, CatchallParameterThatCannotBeFetchedIsEmpty) {
    expectWalk("setDomainCatchall", unfetchable("FROM Parameters p"),
               {R"(setDomainCatchall("example.com", 0, ""))"},
               fetchWarning("Domain Catcall configuration for domain example.com"));  // sic
}

TEST_F(ResultFailuresTest, MailStatusThatCannotBeFetchedMeansOn) {
    expectWalk("setDomainCatchall", unfetchable("SELECT status FROM DomainServices"),
               {R"(setDomainCatchall("example.com", 1, "gone"))"},
               fetchWarning("Domain Mail status detection for domain example.com"));
}

TEST_F(ResultFailuresTest, MailStatusWithoutARowMeansOn) {
    expectWalk("setDomainCatchall",
               {"SELECT status FROM DomainServices", "type='mail'", "type='none'"},
               {R"(setDomainCatchall("example.com", 1, "gone"))"}, {});
}

TEST_F(ResultFailuresTest, DomainAliasesThatCannotBeFetchedArePassedOver) {
    const Printed line = fetchWarning("Domains Alias cycle for domain example.com");
    expectWalk("registerDomainAlias", unfetchable("FROM domain_aliases"), {}, line + line);
}

TEST_F(ResultFailuresTest, DefaultQuotaThatCannotBeFetchedIsUnknown) {
    expectWalk("setMailboxQuota", unfetchable("FROM SubscriptionProperties"),
               {R"(setMailboxQuota("example.com", "anna", -1))",
                R"(setMailboxQuota("example.com", "bert", -1))"},
               fetchWarning("Default Mailbox Quota for example.com"));
}

TEST_F(ResultFailuresTest, MailNamesThatCannotBeFetchedArePassedOver) {
    const Printed line = fetchWarning("Mail names cycle for example.com");
    expectWalk("registerMailname", unfetchable("FROM mail  WHERE"), {}, line + line);
}

TEST_F(ResultFailuresTest, MailAliasesThatCannotBeFetchedArePassedOver) {
    expectWalk("registerMailAlias", unfetchable("FROM mail_aliases"), {},
               fetchWarning("Mail Aliases cycle for anna@example.com") +
                   fetchWarning("Mail Aliases cycle for bert@example.com"));
}

TEST_F(ResultFailuresTest, MailRedirectsThatCannotBeFetchedArePassedOver) {
    expectWalk("registerMailRedirect", unfetchable("FROM mail_redir"), {},
               fetchWarning("Mail Forwards cycle for anna@example.com") +
                   fetchWarning("Mail Forwards cycle for bert@example.com"));
}

TEST_F(ResultFailuresTest, ListRowsThatCannotBeFetchedArePassedOver) {
    const Printed certificate = fetchWarning("top Domains Certificates cycle: ");
    expectWalk("registerDomainCertificate", unfetchable("certificates c"), {},
               certificate + certificate + certificate);
    expectWalk("addWhiteListNetwork", unfetchable("smtp_poplocks"), {},
               fetchWarning("White IPs/Networks cycle: "));
    expectWalk("addBlackListedDomain", unfetchable("badmailfrom"), {},
               fetchWarning("Blacklisted Domains cycle: "));
}

TEST_F(ResultFailuresTest, ColumnMissingFromTheDomainsEndsTheCycle) {
    for (const std::string column : {"id", "name", "status", "nonExisting"}) {
        SCOPED_TRACE(column);
        expectWalk("registerDomain", {"AS nonExisting", "AS " + column, "AS x"}, {},
                   missing(DOMAIN_STEP, column));
    }
}

TEST_F(ResultFailuresTest, ColumnMissingFromADomainsStageFailsTheStage) {
    const std::string catchall = "  restoring catchall/reject settings for example.com";
    expectWalk("setDomainCatchall", {"FROM Parameters p", "AS value", "AS x"}, {},
               missing(catchall, "value"));
    expectWalk("setDomainCatchall", {"SELECT status FROM", "SELECT status", "SELECT status AS x"},
               {}, missing(catchall, "status"));
    expectWalk("registerDomainAlias", {"FROM domain_aliases", "AS name", "AS x"}, {},
               missing("  restoring domain aliases for example.com", "name"));
}

TEST_F(ResultFailuresTest, ColumnMissingFromTheMailNamesEndsThoseOfTheDomain) {
    const std::string cycle = "  executing mailnames restoration cycle for example.com";
    for (const std::string column : {"id", "postbox", "delivery", "mail_group"}) {
        SCOPED_TRACE(column);
        expectWalk("registerMailname", {"FROM mail  WHERE", column + ",", column + " AS x,"}, {},
                   missing(cycle, column));
    }
    expectWalk("setMailboxQuota", {"FROM SubscriptionProperties", "AS value", "AS x"}, {},
               missing(cycle, "value"));
}

TEST_F(ResultFailuresTest, ColumnMissingFromAMailNamesStageFailsTheStage) {
    const std::string aliases = "    restoring mail aliases for ";
    expectWalk("registerMailAlias", {"FROM mail_aliases", "AS alias", "AS x"}, {},
               missing(aliases + "anna@example.com", "alias") +
                   missing(aliases + "bert@example.com", "alias"));
    const std::string group = "   executing mail group forwarding cycle for ";
    expectWalk("registerMailRedirect", {"FROM mail_redir", "SELECT address", "SELECT address AS x"},
               {},
               missing(group + "anna@example.com", "address") +
                   missing(group + "bert@example.com", "address"));
}

TEST_F(ResultFailuresTest, ColumnMissingFromAListFailsTheStep) {
    expectWalk(
        "registerDomainCertificate", {"certificates c", "AS certFile", "AS x"}, {},
        missing(" executing the central domain mail certificates restoration cycle", "certFile"));
    expectWalk("addWhiteListNetwork", {"smtp_poplocks", "ip_mask", "ip_mask AS x"}, {},
               missing(" executing the whitelist networks restoration cycle", "ip_mask"));
    expectWalk("addBlackListedDomain", {"badmailfrom", "SELECT domain", "SELECT domain AS x"}, {},
               missing(" executing the blacklisted domains restoration cycle", "domain"));
}

TEST_F(ResultFailuresTest, ColumnMissingFromAParameterIsADatabaseError) {
    panel.misc("reject_mail_when_overquota", "false");
    panel.mailServer("relay", "open");
    panel.mailServer("rbl_server", "zen.example");
    expectWalk("enableRejectOverquota", {"FROM misc", "  val", "  val AS x"},
               {"enableRejectOverquota(true, false)"},
               warning("Warning: MySQL Error on Mail Authentication Type query: No field named val "
                       "in result set, ignored"));
    const std::string configuration = "FROM ServiceNodeConfiguration";
    expectWalk("setSmtpRelayAndAuth", {configuration, "  value", "  value AS x"}, {},
               missing(" restoring SMTP Relaying and Authentication options", "value"));
    expectWalk("setRBLServers", {configuration, "  value", "  value AS x"}, {},
               warning("Warning: MySQL Error on RBL Servers query: No field named value in result "
                       "set, ignored"));
}

}  // namespace
}  // namespace corvo::test
