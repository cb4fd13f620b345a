#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "audit/check/checks.h"
#include "audit/check/processes.h"
#include "tests/support/second_process.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;

using ProcessCheckTest = CheckTest;

TEST_F(ProcessCheckTest, NothingUnderWayIsRight) {
    const ProcessTable processes;
    processes.add(12, "mail_rebuilder");
    writeFile("/proc/cpuinfo", "mail_rebuild\n");
    EXPECT_THAT(resultsOf(audit::checkProcesses),
                ElementsAre("ok|restorations|none|", "ok|deliveries|none|"));
}

TEST_F(ProcessCheckTest, RunsAndDeliveriesAreNamedWithTheirNumbers) {
    const ProcessTable processes;
    processes.add(12, "mail_rebuild");
    processes.add(40, "dovecot-lda");
    processes.add(31, "deliverquota");
    EXPECT_THAT(resultsOf(audit::checkProcesses),
                ElementsAre("warning|restorations|under way: mail_rebuild 12|let it end before "
                            "the next one starts",
                            "warning|deliveries|under way: deliverquota 31, dovecot-lda 40|hold "
                            "deliveries where .qmail files are missing or damaged"));
}

TEST_F(ProcessCheckTest, HiddenProcessesAreWarnedOf) {
    const ProcessTable processes;
    std::filesystem::remove_all("/proc/1");
    EXPECT_THAT(
        resultsOf(audit::checkProcesses),
        ElementsAre("warning|restorations|the processes of others cannot be seen|check as root",
                    "warning|deliveries|the processes of others cannot be seen|check as root"));
}

TEST_F(ProcessCheckTest, TheKernelsNamesAreFound) {
    const SecondProcess other([](const SecondProcess::Ready& ready) {
        ::prctl(PR_SET_NAME, "some delivery");
        ready();
        ::pause();
    });
    bool isFound = false;
    EXPECT_TRUE(audit::forEachProcess(
        [&](pid_t, std::string_view name) { isFound = isFound || name == "some delivery"; }));
    EXPECT_TRUE(isFound);
}

}  // namespace
}  // namespace corvo::test
