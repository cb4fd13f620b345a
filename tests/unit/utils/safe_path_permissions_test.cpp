#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/utils/safe_path_fixture.h"
#include "utils/safe_path.h"

namespace {

/// The next calls that fail.
struct Failures {
    int left = 0;
    int error = 0;

    /// Whether this call fails; errno is then set.
    bool next() {
        if (left == 0)
            return false;
        --left;
        errno = error;
        return true;
    }
};
Failures failuresOfFchown;
Failures failuresOfFchmod;

}  // namespace

// In front of the C library's.
extern "C" {

int fchown(int file, uid_t uid, gid_t gid) noexcept {
    return failuresOfFchown.next() ? -1 : static_cast<int>(::syscall(SYS_fchown, file, uid, gid));
}

int fchmod(int file, mode_t mode) noexcept {
    return failuresOfFchmod.next() ? -1 : static_cast<int>(::syscall(SYS_fchmod, file, mode));
}

}  // extern "C"

namespace corvo::test::paths {
namespace {

TEST_F(SafePathTest, PermissionsAreSetOnFilesAndDirectories) {
    PermissionStep failed = PermissionStep::open;
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, HOME.c_str(), 5, 6, 02750, &failed), 0);
    EXPECT_EQ(ownerOf(HOME), "5:6");
    EXPECT_EQ(modeOf(HOME), "2750");
    EXPECT_EQ(failed, PermissionStep::open) << "untouched";
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, FILE_PATH.c_str(), 7, 8, 0640, nullptr), 0);
    EXPECT_EQ(ownerOf(FILE_PATH), "7:8");
    EXPECT_EQ(modeOf(FILE_PATH), "0640");
}

TEST_F(SafePathTest, PermissionFailuresNameTheirStep) {
    PermissionStep failed = PermissionStep::chmod;
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, "/missing", 0, 0, 0600, &failed), -1);
    EXPECT_EQ(failed, PermissionStep::open);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, "/missing", 0, 0, 0600, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    const UniqueFd path(::open(FILE_PATH.c_str(), O_PATH | O_CLOEXEC));
    EXPECT_EQ(safe_path::setOwnerAndMode(path.get(), 0, 0, 0600, &failed), -1);
    EXPECT_EQ(failed, PermissionStep::chown);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(safe_path::setOwnerAndMode(path.get(), 0, 0, 0600, nullptr), -1);
    const UniqueFd file(::open(FILE_PATH.c_str(), O_RDONLY | O_CLOEXEC));
    failuresOfFchmod = {1, EPERM};
    EXPECT_EQ(safe_path::setOwnerAndMode(file.get(), 0, 0, 0600, &failed), -1);
    EXPECT_EQ(failed, PermissionStep::chmod);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(SafePathTest, PermissionStepsAreRepeatedWhenASignalInterruptsThem) {
    failuresOfFchown = {2, EINTR};
    failuresOfFchmod = {2, EINTR};
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, FILE_PATH.c_str(), 5, 6, 0640, nullptr), 0);
    EXPECT_EQ(failuresOfFchown.left, 0);
    EXPECT_EQ(failuresOfFchmod.left, 0);
    EXPECT_EQ(ownerOf(FILE_PATH), "5:6");
    EXPECT_EQ(modeOf(FILE_PATH), "0640");
}

TEST_F(SafePathTest, PermissionsOfAnUnopenedFileAreSet) {
    makeLink(FILE_PATH, HOME + "/link");
    for (const std::string& path : {FILE_PATH, HOME + "/link"}) {
        writeFile(FILE_PATH, "old\n", POPUSER_UID, POPUSER_GID, 0600);
        PermissionStep failed = PermissionStep::open;
        EXPECT_EQ(unopenedPermissionError(path, failed), 0);
        EXPECT_EQ(failed, PermissionStep::open) << "untouched";
        EXPECT_EQ(ownerOf(FILE_PATH) + " " + modeOf(FILE_PATH), "5:6 2640");
    }
}

TEST_F(SafePathTest, PermissionFailuresOfAnUnopenedFileNameTheirStep) {
    makeLink(FILE_PATH, HOME + "/link", POPUSER_UID);
    const struct {
        std::string path;
        int error;
    } cases[] = {{HOME + "/missing", ENOENT}, {HOME, EINVAL}, {HOME + "/link", ELOOP}};
    for (const auto& [path, error] : cases) {
        PermissionStep failed = PermissionStep::chmod;
        EXPECT_EQ(unopenedPermissionError(path, failed), error) << path;
        EXPECT_EQ(failed, PermissionStep::open) << path;
    }
    const ProcessResult result = runForked([] {
        failSystemCall(SYS_chmod, EROFS);
        PermissionStep failed = PermissionStep::open;
        if (unopenedPermissionError(FILE_PATH, failed) != EROFS || failed != PermissionStep::chmod)
            std::exit(1);
        failSystemCall(SYS_fchownat, EPERM);
        if (unopenedPermissionError(FILE_PATH, failed) != EPERM || failed != PermissionStep::chown)
            std::exit(2);
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(SafePathTest, ModeOfAnUnopenedFileNeedsProc) {
    const ProcessResult result = runForked([] {
        hideProc();
        PermissionStep failed = PermissionStep::open;
        const int error = unopenedPermissionError(FILE_PATH, failed);
        ::_exit(error == ENOENT && failed == PermissionStep::chmod ? 0 : 1);  // as above
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(modeOf(FILE_PATH), "0600");
}

}  // namespace
}  // namespace corvo::test::paths
