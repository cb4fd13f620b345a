#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;

using AccountCheckTest = CheckTest;

TEST_F(AccountCheckTest, NamesTheNumbers) {
    EXPECT_THAT(
        resultsOf(audit::checkAccount),
        ElementsAre("ok|account popuser|uid 1031, gid 1032|", "ok|group popuser|gid 1032|"));
}

TEST_F(AccountCheckTest, AMissingAccountIsAProblem) {
    removeUser("popuser");
    EXPECT_THAT(resultsOf(audit::checkAccount),
                ElementsAre("problem|account popuser|there is no such account|"
                            "make it again, with the numbers that own the mail tree",
                            "ok|group popuser|gid 1032|"));
}

TEST_F(AccountCheckTest, AMissingGroupIsAProblem) {
    removeGroup("popuser");
    EXPECT_THAT(resultsOf(audit::checkAccount),
                ElementsAre("ok|account popuser|uid 1031, gid 1032|",
                            "problem|group popuser|there is no such group|"
                            "make it again, with the number that owns the mail tree"));
}

TEST_F(AccountCheckTest, AnAccountWithRootsNumberIsAProblem) {
    removeUser("popuser");
    writeFile("/etc/passwd", contentsOf("/etc/passwd") + "popuser:x:0:1032::/:/bin/false\n");
    EXPECT_EQ(resultsOf(audit::checkAccount).at(0),
              "problem|account popuser|its uid is root's|give it a uid of its own");
}

}  // namespace
}  // namespace corvo::test
