#include "driver/check_quota_handler.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/installation.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::test {
namespace {

using Rows = std::vector<std::string>;

const std::string FOREIGN =
    "1|5|1|10|spam|info@example.com|/usr/local/vhc/handlers/hooks/spam|none|0";

std::string record(const std::string& queue, const std::string& context) {
    return queue + "|4|1|10|check-quota|all-recipients|/usr/local/vhc/handlers/hooks/check-quota|" +
           context + "|0";
}

const Rows TEMPORARY = {record("1", "none"), record("4", "none"), FOREIGN};
const Rows PERMANENT = {record("1", "permanent"), record("4", "permanent"), FOREIGN};

class CheckQuotaHandlerTest : public LoggingTest {
protected:
    CheckQuotaHandlerTest() { installMailServer(); }

    /// From now on what adds or removes records for which `condition` holds fails.
    static void refuse(const std::string& condition) {
        refuseRows(HANDLERS, "handlers", condition);
    }
};

const std::string NOT_ADDED = "Unable to add check-quota mail handler.";
const std::string NOT_INSERTED =
    "Unable to execute insert record into handlers database: integer overflow";

TEST_F(CheckQuotaHandlerTest, EveryPairOfSettings) {
    const struct {
        int reject;
        int permanent;
        Rows rows;
    } settings[] = {
        {0, 0, {FOREIGN}}, {0, 1, {FOREIGN}},  {1, 0, TEMPORARY},
        {1, 1, PERMANENT}, {-5, 7, PERMANENT},
    };
    for (const auto& [reject, permanent, rows] : settings) {
        EXPECT_EQ(restore_check_quota_handler(reject, permanent), 0);
        EXPECT_EQ(handlerRows(), rows) << reject << ", " << permanent;
    }
}

TEST_F(CheckQuotaHandlerTest, RunningTwiceIsRunningOnce) {
    EXPECT_EQ(restore_check_quota_handler(1, 1), 0);
    EXPECT_EQ(restore_check_quota_handler(1, 1), 0);
    EXPECT_EQ(handlerRows(), PERMANENT);
}

TEST_F(CheckQuotaHandlerTest, ReplacesWhateverHasItsName) {
    sqliteExecute(HANDLERS,
                  "INSERT INTO handlers VALUES (9, 9, 0, 9, 'check-quota', 'x@y.z', 'e', 'c', 1);"
                  "INSERT INTO handlers VALUES (1, 4, 0, 9, 'check-quota', 'all', 'e', 'c', 1)");
    EXPECT_EQ(restore_check_quota_handler(0, 1), 0);
    EXPECT_EQ(handlerRows(), Rows{FOREIGN});
}

TEST_F(CheckQuotaHandlerTest, SettingAloneRemovesNothing) {
    sqliteExecute(HANDLERS,
                  "INSERT INTO handlers VALUES (1, 4, 0, 9, 'check-quota', 'all', 'e', 'c', 1)");
    EXPECT_EQ(set_check_quota_handler(0), 0);
    EXPECT_EQ(handlerRows().size(), 4U);
}

TEST_F(CheckQuotaHandlerTest, FirstFailureMeansNoSecondAdd) {
    refuse("queue = 1");
    EXPECT_EQ(restore_check_quota_handler(1, 0), -1);
    expectLogged({NOT_INSERTED, NOT_ADDED});
    EXPECT_EQ(handlerRows(), Rows{FOREIGN});
}

TEST_F(CheckQuotaHandlerTest, SecondFailureLeavesTheFirstRecord) {
    refuse("queue = 4");
    EXPECT_EQ(restore_check_quota_handler(1, 0), -1);
    expectLogged({NOT_INSERTED, NOT_ADDED});
    EXPECT_EQ(handlerRows(), (Rows{record("1", "none"), FOREIGN}));
}

TEST_F(CheckQuotaHandlerTest, FailedRemovalIsIgnored) {
    sqliteExecute(HANDLERS,
                  "INSERT INTO handlers VALUES (7, 4, 0, 9, 'check-quota', 'all', 'e', 'old', 1)");
    refuse("enabled = 0");
    EXPECT_EQ(restore_check_quota_handler(1, 0), 0);
    expectLogged({"Unable to execute do action on handlers database: integer overflow"});
    EXPECT_EQ(handlerRows().size(), 4U);
    EXPECT_EQ(restore_check_quota_handler(0, 0), 0);
    expectLogged({"Unable to execute do action on handlers database: integer overflow"});
}

TEST_F(CheckQuotaHandlerTest, MissingDatabaseIsReportedByEachStep) {
    std::filesystem::remove_all("/var/lib/corvo/mail");
    const std::string notOpened =
        "Unable to open database " + HANDLERS + ": unable to open database file";
    EXPECT_EQ(restore_check_quota_handler(0, 0), 0);
    expectLogged({notOpened});
    EXPECT_EQ(restore_check_quota_handler(1, 0), -1);
    expectLogged({notOpened, notOpened, NOT_ADDED});
}

}  // namespace
}  // namespace corvo::test
