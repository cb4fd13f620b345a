// What a run needs and whether it gives everything back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

#if defined(__SANITIZE_ADDRESS__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

namespace corvo::test {
namespace {

using ::testing::IsEmpty;

const std::string LOG = "/run/valgrind.log";

// What valgrind says about descriptors that the program opened and left, and about lost memory.
std::vector<std::string> complaintsIn(const std::string& log) {
    std::vector<std::string> complaints;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        // Some releases count the log itself.
        const bool isOpen = line.find("== Open ") != std::string::npos && !line.ends_with(LOG);
        if (isOpen || line.find("lost in loss record") != std::string::npos)
            complaints.push_back(line);
    }
    return complaints;
}

class ResourcesTest : public SandboxTest {
protected:
    ResourcesTest() { installMailServer(); }

    // Fills the panel by one statement per table: thousands of sentences would take longer than the
    // run.
    void mailboxes(int firstDomain, int domains, int perDomain) {
        for (int i = firstDomain; i < firstDomain + domains; ++i) {
            const int id = panel.domain("d" + std::to_string(i) + ".example").id();
            std::string rows;
            for (int j = 0; j < perDomain; ++j)
                rows += (j > 0 ? "," : "") + std::string("(") + std::to_string(id) + ",'m" +
                        std::to_string(j) + "','true','true','false',1048576)";
            panel.execute(
                "INSERT INTO mail (dom_id, mail_name, postbox, delivery, mail_group, mbox_quota)"
                " VALUES " +
                rows);
        }
    }

    static long peakKiBOfARun() {
        const ProcessResult result = run(
            {mailRebuildBinary()},
            {{"LD_PRELOAD", preloadable(CORVO_PEAK_REPORTER)}, {"CORVO_PEAK_FILE", "/run/peak"}});
        EXPECT_EQ(result.status, 0);
        return std::stol(contentsOf("/run/peak"));
    }

    PanelDatabase panel;
};

TEST_F(ResourcesTest, TenTimesTheMailboxesNeedNoMoreMemory) {
    if (SANITIZED)
        GTEST_SKIP() << "a sanitizer's memory is not the program's";
    mailboxes(0, 10, 10);
    const long hundred = peakKiBOfARun();
    mailboxes(10, 90, 10);

    const long thousand = peakKiBOfARun();

    EXPECT_EQ(quotaRows().size(), 1000U);
    // The heap grows in steps of 132 KiB; the result that lists the domains is longer by 90 rows.
    // A mailbox that kept as little as 200 bytes would show.
    EXPECT_LE(thousand, hundred + 132);
}

TEST_F(ResourcesTest, SqliteGoesWithoutMutexesAndMemoryStatistics) {
    if (SANITIZED)
        GTEST_SKIP() << "a sanitizer must be loaded before all else";
    mailboxes(0, 1, 1);
    const ProcessResult result = run(
        {mailRebuildBinary()},
        {{"LD_PRELOAD", preloadable(CORVO_SQLITE_REPORTER)}, {"CORVO_SQLITE_FILE", "/run/sqlite"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(quotaRows().size(), 1U);
    EXPECT_EQ(contentsOf("/run/sqlite"), "mutexes 0, statistics 0");
}

TEST_F(ResourcesTest, ValgrindFindsNoErrorLeakOrOpenDescriptor) {
    if (SANITIZED)
        GTEST_SKIP() << "valgrind and a sanitizer exclude each other";
    loadSample(panel);
    // A home that is blocked takes the paths where something is left open.
    writeFile(MAILNAMES + "/example.com/team", "in the way");
    for (const std::string mode : {"--all", "--fast", "--handlers-only", "--unknown"}) {
        SCOPED_TRACE(mode);
        const ProcessResult result =
            run({"valgrind", "--quiet", "--track-fds=yes", "--leak-check=full",
                 "--show-leak-kinds=definite,indirect,possible", "--error-exitcode=99",
                 "--log-file=" + LOG, mailRebuildBinary(), mode});

        EXPECT_EQ(result.status, mode == "--unknown" ? 1 : 0);
        EXPECT_THAT(complaintsIn(contentsOf(LOG)), IsEmpty());
    }
}

// The ids of the panel user's connections in the server's general log, and those of them that said
// goodbye.
struct Connections {
    std::set<std::string> opened;
    std::set<std::string> closed;
};

Connections connectionsOf(const std::string& user, const std::string& log) {
    static const std::regex entry(R"((\d+) (Connect|Quit)\s(\S*))");
    Connections connections;
    std::istringstream lines(log);
    std::smatch part;
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_search(line, part, entry))
            continue;
        if (part[2] == "Connect" && part[3].str().starts_with(user + "@"))
            connections.opened.insert(part[1]);
        if (part[2] == "Quit" && connections.opened.contains(part[1]))
            connections.closed.insert(part[1]);
    }
    return connections;
}

TEST_F(ResourcesTest, EveryConnectionIsClosed) {
    loadSample(panel);
    panel.execute("SET GLOBAL general_log = 1");

    run({mailRebuildBinary()});

    const std::string log = panel.query("SELECT @@general_log_file").at(0);
    const Connections connections = connectionsOf(panel.user(), contentsOf(log));
    // The walk's own, one for each of 3 domains and one for each of 7 mail names.
    EXPECT_EQ(connections.opened.size(), 11U);
    EXPECT_EQ(connections.closed, connections.opened);
}

}  // namespace
}  // namespace corvo::test
