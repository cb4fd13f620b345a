// What makeDirectories tells of the directory that it hands out.

#include <gtest/gtest.h>

#include <string>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"
#include "utils/safe_path.h"

namespace corvo::test {
namespace {

const std::string PARENT = "/var/qmail/made";

class MadeDirectoriesTest : public SandboxTest {
protected:
    MadeDirectoriesTest() { makeDirectory(PARENT); }

    static bool isMade(const std::string& path) {
        bool made = exists(path);  // the wrong answer
        const UniqueFd directory =
            corvo::safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0700, &made);
        EXPECT_TRUE(directory) << path;
        return made;
    }
};

TEST_F(MadeDirectoriesTest, AreToldFromThoseThatWereThere) {
    EXPECT_FALSE(isMade(PARENT));
    EXPECT_FALSE(isMade(PARENT + "/"));
    EXPECT_TRUE(isMade(PARENT + "/one"));
    EXPECT_FALSE(isMade(PARENT + "/one"));
    EXPECT_TRUE(isMade(PARENT + "/two/three/"));
    EXPECT_FALSE(isMade(PARENT + "/two/three"));
    EXPECT_FALSE(isMade(PARENT + "/two"));
}

}  // namespace
}  // namespace corvo::test
