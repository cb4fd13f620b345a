// What the tests of whole runs share.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <future>
#include <sstream>
#include <string>

#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::test::runs {

// The installer's foreign handler, and what a run adds to it.
inline const std::string SPAM_ROW =
    "1|5|1|10|spam|info@example.com|/usr/local/vhc/handlers/hooks/spam|none|0";

inline std::string checkQuotaRow(int queue, const std::string& context) {
    return std::to_string(queue) +
           "|4|1|10|check-quota|all-recipients|/usr/local/vhc/handlers/hooks/check-quota|" +
           context + "|0";
}

inline std::string debugQuota(long long quota) {
    return "DEBUG setMailboxQuota(..., " + std::to_string(quota) + ")\n";
}

inline std::string sortedLines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    std::string sorted;
    for (const std::string& line : lines)
        sorted += line + "\n";
    return sorted;
}

class WholeRunTest : public SandboxTest {
protected:
    WholeRunTest() { installMailServer(); }

    static ProcessResult mailRebuild(const std::vector<std::string>& arguments = {},
                                     const Environment& environment = {}) {
        std::vector<std::string> command = {mailRebuildBinary()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command, environment);
    }

    // Both streams lead into a pipe that nobody reads.
    static ProcessResult mailRebuildWithoutReader(const std::vector<std::string>& arguments) {
        return runForked([&] {
            ::signal(SIGPIPE, SIG_DFL);
            std::vector<char*> argv = {const_cast<char*>("mail_rebuild")};
            for (const std::string& argument : arguments)
                argv.push_back(const_cast<char*>(argument.c_str()));
            argv.push_back(nullptr);
            int ends[2] = {};
            (void)!::pipe2(ends, O_CLOEXEC);
            ::close(ends[0]);
            ::dup2(ends[1], STDOUT_FILENO);
            ::dup2(ends[1], STDERR_FILENO);
            ::execv(mailRebuildBinary().c_str(), argv.data());
            ::_exit(127);
        });
    }

    static std::string home(const std::string& mailname, const std::string& domain) {
        return MAILNAMES + "/" + domain + "/" + mailname;
    }

    // After a run whose only mailbox, info@example.com, got no delivery line for the logged
    // `reason`.
    static void expectNoDelivery(const ProcessResult& result, const std::string& reason) {
        const std::string qmail = home("info", "example.com") + "/.qmail";
        const std::string logged = reason + "Unable to add delivery string to '" + qmail + "'\n";
        EXPECT_EQ(result.err,
                  logged + "   registering mailbox for info@example.com failed (unable to modify " +
                      qmail + ": No such file or directory), ignored\n" + debugQuota(-1));
        EXPECT_EQ(result.out, logged);
        EXPECT_EQ(contentsOf(qmail), "| true\n");
    }

    // What --all would repair and --fast must leave alone.
    static void damage() {
        std::filesystem::remove_all(home("info", "example.com") + "/Maildir/cur");
        std::filesystem::remove_all(MAILNAMES + "/shop.example.net");
        writeFile(home("team", "example.com") + "/.qmail", "half a li", 0, 0, 0666);
        writeFile(home("team", "example.com") + "/Maildir/maildirsize", "", 0, 0, 0600);
        sqliteExecute(USERDB, "DELETE FROM mailbox_quota WHERE mailbox_name = 'office'");
    }

    PanelDatabase panel;
};

}  // namespace corvo::test::runs
