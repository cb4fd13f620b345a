// What a full restore costs beside what it has to cost: the floor program makes the calls that the
// job needs, and the product no others but those for which cost_reasons.h gives a reason.

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/integration/cost_reasons.h"
#include "tests/integration/generated_panel.h"
#include "tests/integration/instrumented.h"
#include "tests/support/files.h"
#include "tests/support/general_log.h"
#include "tests/support/installation.h"
#include "tests/support/panel.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/system_calls.h"

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
            std::filesystem::remove_all(std::filesystem::path(MAILNAMES) / name);
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
            const std::string home = std::filesystem::path(MAILNAMES) / name;
            writeFile(home + "/Maildir/cur/1.M1P1.host,S=1200:2,S", "sized by its name");
            writeFile(home + "/Maildir/new/2.host,S=300", "");
            writeFile(home + "/Maildir/cur/3.host", std::string(400, 'x'));
            writeFile(home + "/Maildir/.Spam/cur/4.host,S=x,S=50:2,", "");
            writeFile(home + "/Maildir/.Archive/cur/5.host,S=7", "");
            writeFile(home + "/@attachments/deep/file", std::string(1000, 'x'));
            writeFile(home + "/.qmail", "./Maildir/\n&old@example.net\n", 0, 0, 0644);
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

// The database client pauses in each connect, but in one that the end of a second falls into.
void expectNoPausesButThoseOfConnects(const SystemCalls& calls) {
    EXPECT_EQ(calls.count("clock_nanosleep"),
              calls.given("clock_nanosleep", "{tv_sec=0, tv_nsec=1000}"));
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
    kinds.erase("clock_nanosleep");
    expectNoPausesButThoseOfConnects(most.calls);
    expectNoPausesButThoseOfConnects(least.calls);
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
        const long names = leavesAlone ? 0 : size.names;
        const long forwards = leavesAlone ? 0 : size.forwards;
        const long records = leavesAlone ? 0 : handlerTransactions();

        // Each maildirsize once; at the end the folders of both databases, and the file system.
        EXPECT_EQ(calls.count("fsync"), names + 2);
        EXPECT_EQ(calls.count("syncfs"), 1);

        // Each transaction its journal twice, their directory and the file; each .qmail once when
        // it is put in place, and once for every forward.
        EXPECT_EQ(calls.count("fdatasync"), 4 * (names + records) + names + forwards);
        EXPECT_EQ(calls.given("unlink", "userdb.db-journal"), names);
        EXPECT_EQ(calls.given("unlink", "handlers.db-journal"), records);
        EXPECT_EQ(calls.given("rename", "\".qmail\""), names + forwards);
        EXPECT_EQ(calls.given("rename", "\"maildirsize\""), names);

        // The walk's own connection, one for each domain and one for each mail name.
        const long connections = 1 + size.domains + size.names;
        EXPECT_EQ(static_cast<long>(measured.connections), connections);
        EXPECT_EQ(calls.given("connect", PanelDatabase::SOCKET_LINK), connections);

        // At the start; for the owner of .qmail when it is restored and for each forward; for that
        // of maildirsize.
        EXPECT_EQ(calls.given("open", "\"/etc/passwd\""),
                  1 + size.names + size.forwards + size.names);
    }
}

constexpr int MORE = 20;

// What that many more of a thing add to the calls of a run.
class CallsOfEachTest : public MeasuredRestoreTest {
protected:
    CallsOfEachTest() : domain(panel.domain("example.com").defaultQuota(1048576)) {}

    template <typename Add>
    void measureWithMore(Add add) {
        without.emplace(measure(product()));
        for (int i = 0; i < MORE; ++i)
            add(std::to_string(i));
        with.emplace(measure(product()));
    }

    long total() const { return with->calls.total() - without->calls.total(); }

    long count(const std::string& kind) const {
        return with->calls.count(kind) - without->calls.count(kind);
    }

    long given(const std::string& kind, const std::string& text) const {
        return with->calls.given(kind, text) - without->calls.given(kind, text);
    }

    void expectNoChange() const {
        for (const char* kind : {"fsync", "fdatasync", "rename", "unlink", "mkdir", "chown",
                                 "chmod", "ftruncate", "pwrite64"})
            EXPECT_EQ(count(kind), 0) << kind;
        EXPECT_EQ(count("write"), given("write", "(2, ")) << "elsewhere than to standard error";
    }

    PanelDatabase::Domain domain;
    std::optional<Measured> without;
    std::optional<Measured> with;
};

TEST_P(CallsOfEachTest, MailboxAreBoundedAndChangeNothingThatIsRight) {
    const bool isNew = GetParam() == Tree::fresh;

    measureWithMore([&](const std::string& number) { domain.mailname("user" + number); });

    EXPECT_LE(total(), (isNew ? 370 : 220) * MORE);
    EXPECT_EQ(with->connections - without->connections, std::size_t{MORE});
    if (!isNew)
        return expectNoChange();
    EXPECT_EQ(count("fsync"), MORE);
    EXPECT_EQ(given("rename", "\"maildirsize\""), MORE);
    EXPECT_EQ(count("fdatasync"), (4 + 1) * MORE);
    EXPECT_EQ(given("unlink", "userdb.db-journal"), MORE);
    EXPECT_EQ(given("rename", "\".qmail\""), MORE);
}

TEST_P(CallsOfEachTest, ForwardAreBoundedAndChangeNothingThatIsRight) {
    const bool isNew = GetParam() == Tree::fresh;
    PanelDatabase::Mailname group = domain.mailname("group").group();

    measureWithMore([&](const std::string& number) { group.redirect(number + "@example.net"); });

    EXPECT_LE(total(), (isNew ? 46 : 20) * MORE);
    EXPECT_EQ(with->connections, without->connections);
    if (!isNew)
        return expectNoChange();
    EXPECT_EQ(count("fsync"), 0);
    EXPECT_EQ(count("fdatasync"), MORE);
    EXPECT_EQ(given("rename", "\".qmail\""), MORE);
}

std::string nameOf(const ::testing::TestParamInfo<Tree>& tree) {
    return tree.param == Tree::fresh ? "FreshTree" : "ExistingTree";
}

const auto TREES = ::testing::Values(Tree::fresh, Tree::existing);

INSTANTIATE_TEST_SUITE_P(Cost, CallsOfAFullRestoreTest, TREES, nameOf);
INSTANTIATE_TEST_SUITE_P(Cost, CallsOfEachTest, TREES, nameOf);

}  // namespace
}  // namespace corvo::test
