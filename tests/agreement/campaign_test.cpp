#include "tests/agreement/campaign.h"

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"
#include "tests/support/skip.h"

namespace corvo::agreement::test {

namespace {

constexpr std::size_t OBJECTS = 100;
constexpr std::uint64_t FIRST_SEED = 1;

class CampaignTest : public corvo::test::SandboxTest {
protected:
    Campaign campaign_;
};

TEST_F(CampaignTest, AuditForetellsRun) {
#ifdef __SANITIZE_ADDRESS__
    corvo::test::skipTest("the sanitizers' library has to come before what the runs preload");
#endif
    std::size_t objects = 0;
    for (std::uint64_t seed = FIRST_SEED; objects < OBJECTS; ++seed) {
        const Result result = campaign_.attempt(seed);
        objects += result.objects;
        EXPECT_EQ(result.violations, Violations{}) << "seed " << seed << "\n" << result.account;
    }
}

}  // namespace

}  // namespace corvo::agreement::test
