#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

using ::testing::ElementsAre;

const std::string LINKS_ARE_PROTECTED = "ok|hard links|fs.protected_hardlinks is on|";
const std::string FUSE_IS_CLOSED = "ok|file systems in user space|popuser's are closed to root|";

using ProtectionCheckTest = CheckTest;

TEST_F(ProtectionCheckTest, WhatIsProtectedIsRight) {
    const ProcessTable kernel;
    writeFile("/etc/fuse.conf", "# user_allow_other\nmount_max = 100\n");
    EXPECT_THAT(resultsOf(audit::checkProtection),
                ElementsAre(LINKS_ARE_PROTECTED, FUSE_IS_CLOSED));
}

TEST_F(ProtectionCheckTest, HardLinksThatAnybodyMayMakeAreWarnedOf) {
    const ProcessTable kernel;
    writeFile("/proc/sys/fs/protected_hardlinks", "0\n");
    EXPECT_THAT(resultsOf(audit::checkProtection),
                ElementsAre("warning|hard links|fs.protected_hardlinks is 0: popuser may link "
                            "others' files into mail|sysctl fs.protected_hardlinks=1",
                            FUSE_IS_CLOSED));
}

TEST_F(ProtectionCheckTest, FileSystemsThatAreOpenToOthersAreWarnedOf) {
    const ProcessTable kernel;
    writeFile("/etc/fuse.conf", "mount_max = 100\n  user_allow_other \n");
    EXPECT_THAT(resultsOf(audit::checkProtection),
                ElementsAre(LINKS_ARE_PROTECTED,
                            "warning|file systems in user space|/etc/fuse.conf has "
                            "user_allow_other: popuser may show links as root's|take the line "
                            "out"));
}

TEST_F(ProtectionCheckTest, WhatCannotBeReadIsSaid) {
    const ProcessTable kernel;
    std::filesystem::remove("/proc/sys/fs/protected_hardlinks");
    makeDirectory("/etc/fuse.conf");
    EXPECT_THAT(resultsOf(audit::checkProtection),
                ElementsAre("problem|hard links|/proc/sys/fs/protected_hardlinks: No such file or "
                            "directory|look at it by hand, or check as a user who may read it",
                            "problem|file systems in user space|/etc/fuse.conf: Invalid "
                            "argument|look at it by hand, or check as a user who may read it"));
}

}  // namespace
}  // namespace corvo::test
