// What the tests of the walker share: a panel database, and a walk with both streams looked at.

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
#include "tests/support/killed_connection.h"
#include "tests/support/panel.h"
#include "tests/support/recorder.h"
#include "tests/support/sandbox.h"
#include "tests/unit/restore/statements.h"

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

    /// The program's connections that the server has not ended yet, by id.
    std::vector<std::string> connections() {
        return panel.query("SELECT id FROM information_schema.processlist WHERE user='" +
                           panel.user() + "'");
    }

    void waitUntilDisconnected() {
        while (!connections().empty()) {
        }
    }

    /// Has the server end the program's connections, and waits until it has.
    void killConnections() {
        panel.execute("KILL USER '" + panel.user() + "'");
        waitUntilDisconnected();
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

}  // namespace corvo::test
