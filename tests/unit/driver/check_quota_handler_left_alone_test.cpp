// Records of the check-quota handler that are as they should be.

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <string>
#include <vector>

#include "driver/check_quota_handler.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::test {
namespace {

class CheckQuotaHandlerLeftAloneTest : public SandboxTest {
protected:
    CheckQuotaHandlerLeftAloneTest() { installMailServer(); }

    // From now on nothing can be changed there.
    static void makeReadOnly() {
        ASSERT_EQ(::mount(nullptr, "/var/lib/corvo", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    }

    const StreamCapture nothingSaid_;
};

TEST_F(CheckQuotaHandlerLeftAloneTest, IsEveryPairOfSettings) {
    for (const int reject : {0, 1})
        for (const int permanent : {0, 1}) {
            SCOPED_TRACE(reject * 10 + permanent);
            resetSandbox();
            installMailServer();
            EXPECT_EQ(restore_check_quota_handler(reject, permanent), 0);
            const std::string before = contentsOf(HANDLERS);
            makeReadOnly();
            EXPECT_EQ(restore_check_quota_handler(reject, permanent), 0);
            EXPECT_EQ(contentsOf(HANDLERS), before);
        }
}

TEST_F(CheckQuotaHandlerLeftAloneTest, IsNoneWhereARecordDiffers) {
    EXPECT_EQ(restore_check_quota_handler(1, 0), 0);
    for (const std::string change :
         {"UPDATE handlers SET protected = 1 WHERE name = 'check-quota' AND queue = 4",
          "UPDATE handlers SET enabled = 0 WHERE name = 'check-quota' AND queue = 1",
          "DELETE FROM handlers WHERE name = 'check-quota' AND queue = 1",
          "INSERT INTO handlers VALUES (9, 9, 0, 9, 'check-quota', 'x@y.z', 'e', 'c', 1)"}) {
        SCOPED_TRACE(change);
        sqliteExecute(HANDLERS, change);
        EXPECT_EQ(restore_check_quota_handler(1, 0), 0);
        EXPECT_EQ(sqliteRows(HANDLERS,
                             "SELECT queue, type, enabled, priority, address, "
                             "executable, context, protected FROM handlers WHERE name = "
                             "'check-quota' ORDER BY queue"),
                  (std::vector<std::string>{
                      "1|4|1|10|all-recipients|/usr/local/vhc/handlers/hooks/check-quota|none|0",
                      "4|4|1|10|all-recipients|/usr/local/vhc/handlers/hooks/check-quota|none|0"}));
    }
}

}  // namespace
}  // namespace corvo::test
