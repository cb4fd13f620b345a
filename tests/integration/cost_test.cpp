// What a full restore costs beside what it has to cost: the floor program makes the calls that the
// job needs, and the product no others but those for which cost_reasons.h gives a reason.

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/integration/cost_reasons.h"
#include "tests/integration/generated_panel.h"
#include "tests/support/files.h"
#include "tests/support/general_log.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/system_calls.h"

#ifdef CORVO_INSTRUMENTED
constexpr bool INSTRUMENTED = true;
#else
constexpr bool INSTRUMENTED = false;
#endif

namespace corvo::test {
namespace {

using Command = std::vector<std::string>;

Command product() {
    return {mailRebuildBinary(), "--all"};
}

Command floorProgram() {
    return {CORVO_FLOOR, "--all"};
}

class CostTest : public SandboxTest {
protected:
    CostTest() { installMailServer(); }

    // Takes everything away that runs have made.
    static void startAfresh() {
        for (const std::string& name : namesIn(MAILNAMES))
            std::filesystem::remove_all(MAILNAMES + "/" + name);
        std::filesystem::remove(USERDB);
        std::filesystem::remove(HANDLERS);
        installMailServer();
    }

    long count(const std::string& what) {
        return std::stol(panel.query("SELECT COUNT(*) FROM " + what).at(0));
    }

    PanelDatabase panel;
};

// What a run prints and leaves.
std::string outcomeOf(const Command& command) {
    const ProcessResult result = run(command);
    return "status " + std::to_string(result.status) + "\n" + result.out + result.err +
           restoredState();
}

class FloorProgramTest : public CostTest {
protected:
    // Mail, attachments and damage in the home of each mailbox with room in it.
    void use() {
        const auto homes = panel.query(
            "SELECT CONCAT(LOWER(d.name), '/', LOWER(mail_name)) FROM mail JOIN domains d ON"
            " d.id=dom_id WHERE mbox_quota>0");
        ASSERT_FALSE(homes.empty());
        for (const std::string& name : homes) {
            const std::string home = MAILNAMES + "/" + name;
            writeFile(home + "/Maildir/cur/1.M1P1.host,S=1200:2,S", "sized by its name");
            writeFile(home + "/Maildir/new/2.host,S=300", "");
            writeFile(home + "/Maildir/cur/3.host", std::string(400, 'x'));
            writeFile(home + "/Maildir/.Spam/cur/4.host,S=x,S=50:2,", "");
            writeFile(home + "/Maildir/.Archive/cur/5.host,S=7", "");
            writeFile(home + "/@attachments/deep/file", std::string(1000, 'x'));
            writeFile(home + "/.qmail", "./Maildir/\n", 0, 0, 0644);
            std::filesystem::remove_all(home + "/Maildir/.Drafts");
        }
    }

    // After the first run, and after another one over the used tree.
    std::vector<std::string> outcomes(const Command& command) {
        startAfresh();
        std::vector<std::string> all = {outcomeOf(command)};
        use();
        all.push_back(outcomeOf(command));
        return all;
    }
};

TEST_F(FloorProgramTest, RestoresWhatTheProductRestores) {
    panel.execute(generatedPanel(4, 30));
    const std::vector<std::string> expected = outcomes(product());

    EXPECT_EQ(outcomes(floorProgram()), expected);

    EXPECT_TRUE(expected[0].starts_with("status 0\n"));
    EXPECT_NE(expected[1].find("S,0C\n        1957           5\n"), std::string::npos);
}

// The system calls and statements of a run.
struct Measured {
    SystemCalls calls;
    std::vector<std::string> statements;
    std::size_t connections;
};

class MeasuredRestoreTest : public CostTest, public ::testing::WithParamInterface<Tree> {
protected:
    void SetUp() override {
        if (INSTRUMENTED)
            GTEST_SKIP() << "an instrumented program makes calls of its own";
    }

    Measured measure(const Command& command) {
        startAfresh();
        if (GetParam() == Tree::existing) {
            EXPECT_EQ(run(command).status, 0);
        }
        GeneralLog log(panel);
        SystemCalls calls(command);
        EXPECT_EQ(calls.result().status, 0);
        std::vector<std::string> statements = log.statements();
        return {std::move(calls), std::move(statements), log.connections()};
    }
};

class CallsOfAFullRestoreTest : public MeasuredRestoreTest {
protected:
    CallsOfAFullRestoreTest() {
        panel.execute(generatedPanel(6, 50));
        size = {.runs = 1,
                .domains = count("domains"),
                .names = count("mail"),
                .deliveries = count("mail WHERE postbox='true' AND delivery='true'"),
                .forwards = count("mail_redir JOIN mail ON mn_id=mail.id WHERE mail_group='true'")};
    }

    // Once there is a handler to remove, its removal costs a transaction, too.
    static long handlerTransactions() { return GetParam() == Tree::fresh ? 2 : 3; }

    Size size;
};

TEST_P(CallsOfAFullRestoreTest, AreThoseOfTheFloorAndThoseWithAReason) {
    const Measured most = measure(product());
    const Measured least = measure(floorProgram());

    std::set<std::string> kinds;
    for (const auto& [kind, calls] : most.calls.counts())
        kinds.insert(kind);
    kinds.erase("brk");  // when the heap's end moves is the allocator's affair
    for (const std::string& kind : kinds) {
        const long more = most.calls.count(kind) - least.calls.count(kind);
        const long accounted = accountedFor(kind, GetParam(), size);
        EXPECT_LE(more, accounted) << kind << ": " << most.calls.count(kind) << " calls, the floor "
                                   << least.calls.count(kind);
        if (accounted > 0) {
            EXPECT_GT(more, accounted - size.names) << kind << ": there is a reason too many";
        }
    }
    EXPECT_EQ(most.statements, least.statements);
    EXPECT_EQ(most.connections, least.connections);
}

TEST_P(CallsOfAFullRestoreTest, FlushConnectAndLookUpAsOftenAsTheJobNeeds) {
    for (const Command& command : {product(), floorProgram()}) {
        SCOPED_TRACE(command[0]);
        const Measured measured = measure(command);
        const SystemCalls& calls = measured.calls;
        // The floor writes what is right, too.
        const bool leavesAlone = command == product() && GetParam() == Tree::existing;

        // Each maildirsize once; each transaction its journal twice, their directory and the file.
        EXPECT_EQ(calls.count("fsync"), leavesAlone ? 0 : size.names);
        const long rows = leavesAlone ? 0 : size.names;
        const long records = leavesAlone ? 0 : handlerTransactions();
        EXPECT_EQ(calls.count("fdatasync"), 4 * (rows + records));
        EXPECT_EQ(calls.given("unlink", "userdb.db-journal"), rows);
        EXPECT_EQ(calls.given("unlink", "handlers.db-journal"), records);

        // The walk's own connection, one for each domain and one for each mail name.
        const long connections = 1 + size.domains + size.names;
        EXPECT_EQ(static_cast<long>(measured.connections), connections);
        EXPECT_EQ(calls.given("connect", PanelDatabase::SOCKET_LINK), connections);

        // At the start; for .qmail's owner when it is reset, delivers and forwards; for the owner
        // and for the group of maildirsize.
        EXPECT_EQ(calls.given("open", "\"/etc/passwd\""),
                  1 + size.names + size.deliveries + size.forwards + 2 * size.names);
    }
}

using CallsOfAMailboxTest = MeasuredRestoreTest;

TEST_P(CallsOfAMailboxTest, AreFewerForOneThatIsSound) {
    constexpr int MAILBOXES = 20;
    const long most = GetParam() == Tree::fresh ? 400 : 265;
    PanelDatabase::Domain domain = panel.domain("example.com").defaultQuota(1048576);
    const long without = measure(product()).calls.total();
    for (int i = 0; i < MAILBOXES; ++i)
        domain.mailname("user" + std::to_string(i));

    const long with = measure(product()).calls.total();

    EXPECT_LE(with - without, most * MAILBOXES);
}

std::string nameOf(const ::testing::TestParamInfo<Tree>& tree) {
    return tree.param == Tree::fresh ? "FreshTree" : "ExistingTree";
}

const auto TREES = ::testing::Values(Tree::fresh, Tree::existing);

INSTANTIATE_TEST_SUITE_P(Cost, CallsOfAFullRestoreTest, TREES, nameOf);
INSTANTIATE_TEST_SUITE_P(Cost, CallsOfAMailboxTest, TREES, nameOf);

}  // namespace
}  // namespace corvo::test
