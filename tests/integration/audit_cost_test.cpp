// What mail_audit costs: system calls, as strace counts them.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/integration/instrumented.h"
#include "tests/integration/whole_run_fixture.h"
#include "tests/support/process.h"
#include "tests/support/skip.h"
#include "tests/support/system_calls.h"

namespace corvo::test::runs {
namespace {

class AuditCostTest : public WholeRunTest {
protected:
    static constexpr int MORE = 20;
    static constexpr int NOT_WHOLE = 2;  // the walk is made, and nobody is meant

    void SetUp() override {
        if (INSTRUMENTED)
            skipTest("the sanitizers and coverage make calls of their own");
    }

    // What so many more mailboxes in order cost a call of the program.
    long costOfMore(const std::vector<std::string>& command, int status) {
        const long before = calls(command, status);
        for (int i = 0; i < MORE; ++i)
            domain.mailname("user" + std::to_string(next_++)).quota(1048576);
        EXPECT_EQ(mailRebuild().status, 0);
        return calls(command, status) - before;
    }

    static long calls(const std::vector<std::string>& command, int status = 0) {
        const SystemCalls counted(command);
        EXPECT_EQ(counted.result().status, status) << counted.result().out << counted.result().err;
        return counted.total();
    }

    PanelDatabase::Domain domain = panel.domain("example.com");

private:
    int next_ = 0;
};

TEST_F(AuditCostTest, MailboxInOrderCostsAtMostSixtyCallsBeyondItsConnection) {
    EXPECT_EQ(mailRebuild().status, 0);
    const long walk = costOfMore({mailAuditBinary(), "diff", "--domain", "nobody"}, NOT_WHOLE);
    const long all = costOfMore({mailAuditBinary(), "diff"}, 0);
    EXPECT_LE(all - walk, 60 * MORE);
    EXPECT_GE(all - walk, 30 * MORE) << "something is not looked at";
}

TEST_F(AuditCostTest, DiffCostsLessThanASecondRun) {
    EXPECT_EQ(mailRebuild().status, 0);
    for (int i = 0; i < MORE; ++i)
        domain.mailname("user" + std::to_string(i)).quota(1048576);
    EXPECT_EQ(mailRebuild().status, 0);
    EXPECT_LT(calls({mailAuditBinary(), "diff"}), calls({mailRebuildBinary(), "--all"}));
}

}  // namespace
}  // namespace corvo::test::runs
