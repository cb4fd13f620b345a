// What the tests of the walker share: a panel database, a walk with both streams looked at, and the
// statements that a walk runs.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/db++/connection.h"
#include "restore/walker.h"
#include "tests/support/capture.h"
#include "tests/support/panel.h"
#include "tests/support/recorder.h"
#include "tests/support/sandbox.h"

namespace corvo::test {

/// What is printed on the two streams.
struct Printed {
    std::string out;
    std::string err;

    bool operator==(const Printed&) const = default;
};

inline void PrintTo(const Printed& printed, std::ostream* stream) {
    *stream << "standard output:\n" << printed.out << "standard error:\n" << printed.err;
}

inline Printed operator+(const Printed& first, const Printed& second) {
    return {first.out + second.out, first.err + second.err};
}

/// A line of corvo::uerr.
inline Printed warning(const std::string& line) {
    return {line + "\n", line + "\n"};
}

/// A line of standard error alone.
inline Printed failure(const std::string& line) {
    return {"", line + "\n"};
}

/// Progress, which comes without line ends of its own.
inline Printed progressText(const std::string& text) {
    return {"", text};
}

using Calls = std::vector<std::string>;

class WalkTest : public SandboxTest {
protected:
    WalkTest() { ::unsetenv("CORVO_INSTALLER_DEBUG"); }

    static void setDebug(const char* value) { ::setenv("CORVO_INSTALLER_DEBUG", value, 1); }

    static Printed walk(Recorder& recorder) {
        StreamCapture capture;
        mail::restore::walkMailServerEntities(recorder.callbacks);
        return {capture.out(), capture.err()};
    }

    /// Walks and compares all calls and everything printed.
    static void expectWalk(Recorder& recorder, const Calls& calls, const Printed& printed = {}) {
        EXPECT_EQ(walk(recorder), printed);
        EXPECT_EQ(recorder.lines(), calls);
    }

    /// The text of the exception with which the database layer refuses a statement.
    static std::string errorOf(const std::string& statement) {
        mysql::Connection connection(true);
        try {
            (void)(connection << statement << mysql::Query::fetch);
        } catch (const mysql::mError& error) {
            return error.what();
        }
        throw std::logic_error("runs: " + statement);
    }

    void drop(const std::string& table) { panel.execute("DROP TABLE " + table); }

    /// No further connection can be opened; each attempt says so.
    static void refuseConnections() { std::filesystem::remove("/etc/vhc/.vhc.shadow"); }

    static Printed refusal() {
        return warning(
            "Unable to open admin password file: No such file or directory\n"
            "System error 2: No such file or directory");
    }

    /// Leaves the program's login the right to read every table but one.
    void hide(const std::string& table) {
        const std::string login = "'" + panel.user() + "'@'localhost'";
        panel.execute("REVOKE ALL PRIVILEGES ON `" + panel.name() + "`.* FROM " + login);
        const auto allow = [&](const std::string& name) {
            panel.execute("GRANT SELECT ON `" + panel.name() + "`.`" + name + "` TO " + login);
        };
        for (const std::string& name : panel.query("SHOW TABLES"))
            if (name != table)
                allow(name);
    }

    /// Has the server end the program's connections, and waits until it has.
    void killConnections() {
        const std::string mine =
            "SELECT id FROM information_schema.processlist WHERE user='" + panel.user() + "'";
        for (const std::string& id : panel.query(mine))
            panel.execute("KILL " + id);
        while (!panel.query(mine).empty()) {
        }
    }

    PanelDatabase panel;
};

/// A walk over a panel that has something for every slot.
class FullWalkTest : public WalkTest {
protected:
    void fill() {
        domain = panel.domain("example.com").defaultQuota(1048576).alias("example.org").id();
        panel.execute("UPDATE Parameters SET value='catch'");
        panel.execute(
            "INSERT INTO Parameters SELECT id, 'catch_addr', 'all@example.com' FROM "
            "Parameters");
        panel.execute("INSERT INTO certificates (id, name, cert_file) VALUES (5, 'c', 'cert-a')");
        panel.execute(
            "INSERT INTO Parameters SELECT DISTINCT id, 'mail_certificate_id', '5' FROM "
            "Parameters");
        fillMailnames();
        fillServer();
    }

    void fillMailnames() {
        panel.execute(
            "INSERT INTO mail (id, mail_name, dom_id, postbox, mail_group) VALUES "
            "(1, 'team', " +
            std::to_string(domain) +
            ", 'true', 'true'), "
            "(2, 'zoe', " +
            std::to_string(domain) + ", 'true', 'false')");
        panel.execute("INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'all')");
        panel.execute("INSERT INTO mail_redir (mn_id, address) VALUES (1, 'a@b.example')");
    }

    void fillServer() {
        panel.execute("INSERT INTO smtp_poplocks (ip_address, ip_mask) VALUES ('192.0.2.0', '24')");
        panel.execute("INSERT INTO badmailfrom (domain) VALUES ('spam.example')");
        panel.mailServer("rbl_server", "zen.example");
        panel.mailServer("message_submission", "true");
        panel.mailServer("ml_size", "10240");
        panel.mailServer("relay", "auth");
        panel.mailServer("disable_smtp_auth", "0");
        panel.mailServer("disable_pop_auth", "0");
        panel.mailServer("poplock_time", "15");
        panel.misc("postfix-allow-short-mail-names", "true");
        panel.misc("allow_short_pop3_names", "enabled");
    }

    int domain = 0;
};

/// The statements of a walk.
namespace statement {

inline const std::string DOMAINS =
    "SELECT    d.id AS id, LOWER(d.name) AS name,   s.status AS status,   p.value AS nonExisting "
    "FROM domains d, DomainServices s, Parameters p    WHERE d.id=s.dom_id AND s.type='mail'      "
    "AND p.id=s.parameters_id AND p.parameter='nonexist_mail'";

inline std::string mailStatus(int domain) {
    return "SELECT status FROM DomainServices WHERE type='mail' AND dom_id=" +
           std::to_string(domain);
}

inline std::string domainAliases(int domain) {
    return "SELECT    LOWER(name) AS name, status FROM domain_aliases WHERE dom_id='" +
           std::to_string(domain) + "'   AND mail='true'";
}

inline std::string catchallParameter(const std::string& name, int domain) {
    return "SELECT p.value AS value  FROM Parameters p, DomainServices ds    WHERE p.id = "
           "ds.parameters_id      AND p.parameter='" +
           name + "'      AND ds.type='mail'      AND ds.dom_id=" + std::to_string(domain);
}

inline std::string defaultQuota(int domain) {
    return "SELECT l.value AS value  FROM SubscriptionProperties as sp, Subscriptions as s, "
           "domains as d, Limits l  WHERE sp.subscription_id=s.id    AND object_type='domain' AND "
           "d.id=s.object_id    AND sp.name='limitsId' AND l.id=sp.value    AND "
           "l.limit_name='mbox_quota' AND d.id=" +
           std::to_string(domain);
}

inline std::string mailnames(int domain) {
    return "SELECT id, LOWER(mail_name) AS mail_name, postbox, delivery, mail_group, mbox_quota "
           "FROM mail  WHERE dom_id=" +
           std::to_string(domain);
}

inline std::string mailAliases(int mailname) {
    return "SELECT LOWER(alias) AS alias FROM mail_aliases WHERE mn_id=" + std::to_string(mailname);
}

inline std::string mailRedirects(int mailname) {
    return "SELECT address FROM mail_redir WHERE mn_id=" + std::to_string(mailname);
}

inline const std::string CERTIFICATES =
    "SELECT   LOWER(d.name) AS name, c.cert_file AS certFile FROM   domains d, DomainServices s, "
    "certificates c, Parameters p WHERE   d.id=s.dom_id AND s.type='mail' AND "
    "p.id=s.parameters_id    AND p.parameter='mail_certificate_id' AND p.value=c.id UNION ALL "
    "SELECT   LOWER(da.name) AS name, c.cert_file AS certFile FROM   domains d, domain_aliases "
    "da, DomainServices s, certificates c, Parameters p WHERE   d.id=da.dom_id AND "
    "da.mail='true'    AND d.id=s.dom_id AND s.type='mail' AND p.id=s.parameters_id    AND "
    "p.parameter='mail_certificate_id' AND p.value=c.id";

inline const std::string WHITE_LIST =
    "SELECT ip_address, ip_mask FROM smtp_poplocks WHERE lock_time IS NULL";

inline const std::string BLACK_LIST = "SELECT domain from badmailfrom";

inline std::string misc(const std::string& name) {
    return "SELECT    val  FROM misc    WHERE param='" + name + "'";
}

inline std::string mailServer(const std::string& name) {
    return "SELECT    value  FROM ServiceNodeConfiguration    WHERE name='" + name +
           "' AND serviceNodeId=1 AND section='mailServer'";
}

}  // namespace statement

}  // namespace corvo::test
