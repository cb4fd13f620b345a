// What status tells of links.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"
#include "utils/safe_path.h"

namespace corvo::test {
namespace {

namespace safe_path = corvo::safe_path;
using safe_path::LastLink;

const std::string FOLDER = "/var/qmail/links";

class StatusOfLinksTest : public SandboxTest {
protected:
    StatusOfLinksTest() {
        writeFile(FOLDER + "/file", "text");
        makeLink("file", FOLDER + "/root's");
        makeLink("file", FOLDER + "/popuser's", POPUSER_UID);
        directory_ = safe_path::openDirectory(AT_FDCWD, FOLDER.c_str());
    }

    // The type of what is found by the name alone and by a path, which are one; 0 for none.
    mode_t typeOf(const std::string& name, LastLink last) const {
        struct stat byName {};
        struct stat byPath {};
        const int result = safe_path::status(directory_.get(), name.c_str(), byName, last);
        EXPECT_EQ(safe_path::status(AT_FDCWD, (FOLDER + "/" + name).c_str(), byPath, last), result);
        EXPECT_EQ(byName.st_ino, byPath.st_ino);
        return byName.st_mode & S_IFMT;
    }

private:
    corvo::UniqueFd directory_;
};

TEST_F(StatusOfLinksTest, IsOfTheTargetWhereTheyAreFollowed) {
    EXPECT_EQ(typeOf("file", LastLink::follow), S_IFREG);
    EXPECT_EQ(typeOf("root's", LastLink::follow), S_IFREG);
    EXPECT_EQ(typeOf("popuser's", LastLink::follow), 0U);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(StatusOfLinksTest, IsTheirOwnWhereTheyAreKept) {
    EXPECT_EQ(typeOf("file", LastLink::keep), S_IFREG);
    EXPECT_EQ(typeOf("root's", LastLink::keep), S_IFLNK);
    EXPECT_EQ(typeOf("popuser's", LastLink::keep), S_IFLNK);
    EXPECT_EQ(typeOf("none", LastLink::keep), 0U);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace corvo::test
