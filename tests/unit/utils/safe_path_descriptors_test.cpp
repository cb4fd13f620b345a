#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/utils/safe_path_fixture.h"
#include "utils/safe_path.h"

namespace corvo::test::paths {
namespace {

using ::testing::AnyOf;

/// What a way comes to while only so many descriptors can be opened.
int errorWithDescriptors(unsigned left, const Way& way) {
    struct rlimit former {};
    ::getrlimit(RLIMIT_NOFILE, &former);
    const int lowestFree = ::dup(STDERR_FILENO);
    ::close(lowestFree);
    const struct rlimit limit = {static_cast<rlim_t>(lowestFree) + left, former.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int error = way.error();
    ::setrlimit(RLIMIT_NOFILE, &former);
    return error;
}

TEST_F(SafePathTest, NoDescriptorStaysBehind) {
    makeLink(HOME, DOMAIN + "/trusted");
    makeLink(HOME, DOMAIN + "/foreign", POPUSER_UID);
    const int before = openDescriptors();
    for (const std::string& home : {HOME, DOMAIN + "/trusted", DOMAIN + "/foreign"})
        for (const Way& way : waysTo(home))
            (void)way.error();
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SafePathTest, ScarceDescriptorsAreAFailureAndNoneIsLost) {
    makeLink(HOME, DOMAIN + "/trusted");
    writeFile(HOME + "/e/f/file", "");
    const int before = openDescriptors();
    for (const std::string& home : {HOME, DOMAIN + "/trusted"}) {
        for (const Way& way : waysTo(home))
            EXPECT_EQ(errorWithDescriptors(0, way), EMFILE) << way.name;
        for (unsigned left = 1; left < 5; ++left)
            for (const Way& way : waysTo(home))
                EXPECT_THAT(errorWithDescriptors(left, way), AnyOf(0, EMFILE, ENOENT, EEXIST))
                    << way.name << " with " << left;
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SafePathTest, LocateNeedsADescriptorOfItsOwn) {
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    safe_path::Location place;
    const Way way = {
        "locate",
        [&] { return errorOf(safe_path::locate(home.get(), ".qmail", LastLink::keep, place)); }};
    EXPECT_EQ(errorWithDescriptors(0, way), EMFILE);
    EXPECT_FALSE(place.parent);
    EXPECT_EQ(errorWithDescriptors(1, way), 0);
}

TEST_F(SafePathTest, OpenedDescriptorsAreCloseOnExec) {
    makeLink(HOME, DOMAIN + "/trusted");
    for (const std::string& home : {HOME, DOMAIN + "/trusted"}) {
        const UniqueFd directory = safe_path::openDirectory(AT_FDCWD, home.c_str());
        const UniqueFd file = safe_path::openFile(AT_FDCWD, (home + "/.qmail").c_str(), O_RDONLY);
        EXPECT_EQ(::fcntl(directory.get(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(file.get(), F_GETFD), FD_CLOEXEC);
    }
}

class AccessTimeTest : public SafePathTest {
protected:
    AccessTimeTest() {
        for (const std::string& path : {FILE_PATH, HOME}) {
            const timespec longAgo[] = {{1000000000, 0}, {2000000000, 0}};  // older than the change
            EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), longAgo, 0), 0);
        }
    }

    static bool isKept(const std::string& path) {
        struct stat seen = {};
        EXPECT_EQ(::stat(path.c_str(), &seen), 0);
        return seen.st_atim.tv_sec == 1000000000;
    }

    static bool readsAll() {
        char text[4];
        const UniqueFd file = safe_path::openFile(AT_FDCWD, FILE_PATH.c_str(), O_RDONLY);
        return safe_path::openEntries(AT_FDCWD, HOME.c_str()).next() != nullptr &&
               safe_path::openEntries(AT_FDCWD, HOME.c_str(), LastLink::keep).next() != nullptr &&
               ::read(file.get(), text, sizeof text) == sizeof text;
    }
};

TEST_F(AccessTimeTest, ReadingSetsItUnlessItIsToBeKept) {
    const ProcessResult keeping = runForked([] {
        safe_path::keepAccessTimes();
        EXPECT_TRUE(readsAll());
        EXPECT_TRUE(isKept(FILE_PATH) && isKept(HOME));
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(keeping.status, 0) << keeping.out;
    EXPECT_TRUE(readsAll());
    EXPECT_FALSE(isKept(FILE_PATH) || isKept(HOME));
}

TEST_F(AccessTimeTest, WhereItCannotBeKeptFilesAreReadAllTheSame) {
    EXPECT_EQ(::chmod(FILE_PATH.c_str(), 0644), 0);
    EXPECT_EQ(::chmod(HOME.c_str(), 0755), 0);
    const ProcessResult stranger = runForked([] {
        safe_path::keepAccessTimes();
        std::_Exit(asStranger(readsAll));
    });
    EXPECT_EQ(stranger.status, 0);
}

}  // namespace
}  // namespace corvo::test::paths
