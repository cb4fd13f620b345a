#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "audit/check/checks.h"
#include "tests/unit/audit/check/check_fixture.h"

namespace corvo::test {
namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;

const std::string FOLDER = "/run/lock/files";
const std::string MAKING = "install -d -o root -g root -m 0700 /run/lock/files";

using LockFolderCheckTest = CheckTest;

TEST_F(LockFolderCheckTest, RootsAloneIsRight) {
    EXPECT_THAT(resultsOf(audit::checkLockFolder), ElementsAre("ok|lock folder|/run/lock/files|"));
}

TEST_F(LockFolderCheckTest, AMissingOneIsAProblem) {
    fs::remove(FOLDER);
    EXPECT_THAT(resultsOf(audit::checkLockFolder),
                ElementsAre("problem|lock folder|/run/lock/files is not there: new mailboxes "
                            "discard their mail|" +
                            MAKING));
}

TEST_F(LockFolderCheckTest, AFileInItsPlaceIsAProblem) {
    fs::remove(FOLDER);
    writeFile(FOLDER, "");
    EXPECT_THAT(
        resultsOf(audit::checkLockFolder),
        ElementsAre("problem|lock folder|/run/lock/files is no directory|remove it; " + MAKING));
}

TEST_F(LockFolderCheckTest, AnothersIsAProblem) {
    chownToPopuser(FOLDER);
    EXPECT_THAT(
        resultsOf(audit::checkLockFolder),
        ElementsAre("problem|lock folder|/run/lock/files is not root's: 1031:1032 0700|" + MAKING));
}

TEST_F(LockFolderCheckTest, OneThatIsOpenToOthersIsWarnedOf) {
    fs::permissions(FOLDER, fs::perms(0755));
    EXPECT_THAT(resultsOf(audit::checkLockFolder),
                ElementsAre("warning|lock folder|/run/lock/files is open to others, who can block "
                            "a run: 0:0 0755|" +
                            MAKING));
}

}  // namespace
}  // namespace corvo::test
