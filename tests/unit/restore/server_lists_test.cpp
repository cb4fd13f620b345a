#include "restore/server_lists.h"

#include <gtest/gtest.h>

#include <boost/ref.hpp>

#include "tests/unit/restore/walk_fixture.h"

namespace corvo::test {
namespace {

using corvo::mail::restore::MailsrvEntitiesCallbacks;

class ServerListsTest : public WalkTest {
protected:
    void certificate(PanelDatabase::Domain domain, const std::string& file) {
        const auto ids = panel.query("INSERT INTO certificates (name, cert_file) VALUES ('c', '" +
                                     file + "') RETURNING id");
        domain.parameter("mail_certificate_id", ids.at(0));
    }

    /// Values as SQL has them.
    void whiteListed(const std::string& address, const std::string& mask,
                     const std::string& lockTime = "NULL") {
        panel.execute("INSERT INTO smtp_poplocks (ip_address, ip_mask, lock_time) VALUES (" +
                      address + ", " + mask + ", " + lockTime + ")");
    }

    void blackListed(const std::string& domain) {
        panel.execute("INSERT INTO badmailfrom (domain) VALUES ('" + domain + "')");
    }

    static Printed queryWarning(const std::string& cycle, const std::string& statement) {
        return warning("Warning: MySQL Query error on " + cycle + ": " + errorOf(statement) +
                       ", ignored");
    }
};

TEST_F(ServerListsTest, CertificateIsReportedForTheDomainAndForItsMailHost) {
    certificate(panel.domain("Example.com"), "cert-a");
    panel.domain("plain.example");
    Recorder recorder{"registerDomainCertificate"};
    expectWalk(recorder, {R"(registerDomainCertificate("example.com", "cert-a"))",
                          R"(registerDomainCertificate("mail.example.com", "cert-a"))"});
}

TEST_F(ServerListsTest, AliasesWithMailCarryTheirDomainsCertificateAfterAllDomains) {
    auto first = panel.domain("first.example");
    first.alias("Alias.example").alias("nomail.example", false);
    certificate(first, "cert-a");
    certificate(panel.domain("second.example"), "cert-b");
    Recorder recorder{"registerDomainCertificate"};
    expectWalk(recorder, {R"(registerDomainCertificate("first.example", "cert-a"))",
                          R"(registerDomainCertificate("mail.first.example", "cert-a"))",
                          R"(registerDomainCertificate("second.example", "cert-b"))",
                          R"(registerDomainCertificate("mail.second.example", "cert-b"))",
                          R"(registerDomainCertificate("alias.example", "cert-a"))",
                          R"(registerDomainCertificate("mail.alias.example", "cert-a"))"});
}

TEST_F(ServerListsTest, CertificatesThatCannotBeReadAreAWarning) {
    drop("certificates");
    Recorder recorder{"registerDomainCertificate", "restoreRecipientCanonical"};
    expectWalk(recorder, {"restoreRecipientCanonical()"},
               queryWarning("top Domains Certificates cycle", statement::CERTIFICATES));
}

TEST_F(ServerListsTest, CertificateThatIsRefusedEndsTheListButNotTheWalk) {
    certificate(panel.domain("first.example"), "cert-a");
    certificate(panel.domain("second.example"), "cert-b");
    Recorder recorder{"registerDomainCertificate", "restoreRecipientCanonical"};
    recorder.on("registerDomainCertificate", throwing(std::runtime_error("no such file")));
    expectWalk(
        recorder,
        {R"(registerDomainCertificate("first.example", "cert-a"))", "restoreRecipientCanonical()"},
        failure(" executing the central domain mail certificates restoration cycle failed "
                "(no such file), ignored"));
}

TEST_F(ServerListsTest, WhiteListMasksAreDecimalNumbersOrOneHost) {
    const struct {
        const char* mask;
        const char* expected;
    } cases[] = {
        {"24", "24"}, {"0", "0"},           {" +8 ", "8"},        {"+", "0"},
        {"33", "33"}, {"4294967295", "-1"}, {"", "32"},           {" ", "32"},
        {"-1", "32"}, {"24/8", "32"},       {"4294967296", "32"}, {"255.255.255.0", "32"},
    };
    for (const auto& [mask, expected] : cases) {
        SCOPED_TRACE(mask);
        panel.execute("DELETE FROM smtp_poplocks");
        whiteListed("'192.0.2.0'", "'" + std::string(mask) + "'");
        Recorder recorder{"addWhiteListNetwork"};
        expectWalk(recorder, {"addWhiteListNetwork(\"192.0.2.0\", " + std::string(expected) + ")"});
    }
}

TEST_F(ServerListsTest, WhiteListRowsWithANullAndPopLocksAreLeftOut) {
    whiteListed("NULL", "'24'");
    whiteListed("'192.0.2.1'", "NULL");
    whiteListed("'192.0.2.2'", "'24'", "'2020-01-01 00:00:00'");
    whiteListed("'2001:db8::'", "'64'");
    Recorder recorder{"addWhiteListNetwork"};
    expectWalk(recorder, {R"(addWhiteListNetwork("2001:db8::", 64))"});
}

TEST_F(ServerListsTest, WhiteListThatCannotBeReadIsAWarning) {
    panel.execute("ALTER TABLE smtp_poplocks DROP COLUMN lock_time");
    Recorder recorder{"addWhiteListNetwork"};
    expectWalk(recorder, {}, queryWarning("White IPs/Networks cycle", statement::WHITE_LIST));
}

TEST_F(ServerListsTest, WhiteListRefusalEndsTheListWithTheStepsLine) {
    whiteListed("'192.0.2.1'", "'32'");
    whiteListed("'192.0.2.2'", "'32'");
    Recorder recorder{"addWhiteListNetwork"};
    recorder.on("addWhiteListNetwork", throwing(std::runtime_error("no")));
    expectWalk(recorder, {R"(addWhiteListNetwork("192.0.2.1", 32))"},
               failure(" executing the whitelist networks restoration cycle failed (no), ignored"));
}

// A slot that empties itself when it is called; bound by reference, so that it outlives that.
struct UnbindsItself {
    MailsrvEntitiesCallbacks& callbacks;
    void operator()(const std::string&, int) const { callbacks.addWhiteListNetwork.clear(); }
};

TEST_F(ServerListsTest, SlotThatIsEmptyWhenCalledFailsTheStep) {
    whiteListed("'192.0.2.1'", "'32'");
    whiteListed("'192.0.2.2'", "'32'");
    Recorder recorder{"restoreRecipientCanonical"};
    const UnbindsItself unbinding{recorder.callbacks};
    recorder.callbacks.addWhiteListNetwork = boost::ref(unbinding);
    expectWalk(recorder, {"restoreRecipientCanonical()"},
               failure(" executing the whitelist networks restoration cycle failed "
                       "(call to empty boost::function), ignored"));
}

TEST_F(ServerListsTest, BlackListedDomainsArriveInAsciiForm) {
    blackListed("spam.example");
    blackListed("BÜCHER.example");
    Recorder recorder{"addBlackListedDomain"};
    expectWalk(recorder, {R"(addBlackListedDomain("xn--bcher-kva.example"))",
                          R"(addBlackListedDomain("spam.example"))"});
}

TEST_F(ServerListsTest, BlackListedDomainWithoutAnAsciiFormIsLeftOutWithAWarning) {
    const std::string tooLong = std::string(64, 'a') + ".example";
    blackListed(tooLong);
    blackListed("spam.example");
    Recorder recorder{"addBlackListedDomain"};
    expectWalk(recorder, {R"(addBlackListedDomain("spam.example"))"},
               warning("Warning: unable to de-IDN'ize domain name '" + tooLong +
                       "': Invalid length, ignored"));
}

TEST_F(ServerListsTest, BlackListThatCannotBeReadIsAWarning) {
    hide("badmailfrom");
    Recorder recorder{"addBlackListedDomain"};
    expectWalk(recorder, {}, queryWarning("Blacklisted Domains cycle", statement::BLACK_LIST));
}

TEST_F(ServerListsTest, BlackListRefusalIsNoConversionFailure) {
    blackListed("a.example");
    blackListed("b.example");
    Recorder recorder{"addBlackListedDomain"};
    recorder.on("addBlackListedDomain", throwing(std::runtime_error("no")));
    expectWalk(
        recorder, {R"(addBlackListedDomain("a.example"))"},
        failure(" executing the blacklisted domains restoration cycle failed (no), ignored"));
}

TEST_F(ServerListsTest, RblServersAreSplitAtEachSeparatorAndEmptyPiecesDropped) {
    const struct {
        const char* value;
        const char* servers;
    } cases[] = {
        {"a.example,b.example c.example;d.example\te.example",
         R"(["a.example", "b.example", "c.example", "d.example", "e.example"])"},
        {"zen.example", R"(["zen.example"])"},
        {"; a.example, ,b.example;", R"(["a.example", "b.example"])"},
        {"", "[]"},
        {" ,;\t", "[]"},
        {"a.example\nb.example", "[\"a.example\nb.example\"]"},
    };
    for (const auto& [value, servers] : cases) {
        panel.mailServer("rbl_server", value);
        Recorder recorder{"setRBLServers"};
        expectWalk(recorder, {"setRBLServers(" + std::string(servers) + ")"});
    }
}

TEST_F(ServerListsTest, MissingRblServersAreAnEmptyList) {
    Recorder recorder{"setRBLServers"};
    expectWalk(recorder, {"setRBLServers([])"});
}

TEST_F(ServerListsTest, RblServersThatCannotBeReadAreAWarningAndNoCall) {
    hide("ServiceNodeConfiguration");
    Recorder recorder{"setRBLServers"};
    expectWalk(recorder, {},
               warning("Warning: MySQL Error on RBL Servers query: " +
                       errorOf(statement::mailServer("rbl_server")) + ", ignored"));
}

TEST_F(ServerListsTest, RblServersThatAreRefusedFailTheStep) {
    Recorder recorder{"setRBLServers"};
    recorder.on("setRBLServers", throwing(std::runtime_error("no")));
    expectWalk(recorder, {"setRBLServers([])"},
               failure(" restoring the RBL servers configuration failed (no), ignored"));
}

}  // namespace
}  // namespace corvo::test
