#include "utils/file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

// MD5 of "/x".
const std::string LOCK_OF_X = "/run/lock/files/cc8755609ad61864910f145119713de9";

std::string lockPathOf(const char* path) {
    const corvo::UniqueCString lockPath(mk_flock_path(path));
    return lockPath.get();
}

/// Whether another process finds the lock on a path taken.
bool isBusyForOthers(const char* path) {
    const ProcessResult other = runForked([&] {
        const corvo::UniqueFd file(::open(lockPathOf(path).c_str(), O_RDWR | O_CLOEXEC));
        if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0)
            std::exit(errno == EAGAIN ? 1 : 2);
    });
    EXPECT_LE(other.status, 1);
    return other.status == 1;
}

class FileLockWithoutMemoryTest : public WithoutMemoryTest {};

/// A second process that holds the lock on a path.
class Holder {
public:
    explicit Holder(const char* path)
        : process_([path](const SecondProcess::Ready& ready) {
              if (!is_locked(mk_lock(path, 1)))
                  return;
              ready();
              ::pause();
          }) {}

private:
    SecondProcess process_;
};

class FileLockTest : public LoggingTest {};

TEST_F(FileLockTest, LockFileIsNamedAfterTheDigestOfThePath) {
    EXPECT_EQ(lockPathOf("/x"), LOCK_OF_X);
}

TEST_F(FileLockTest, LockFileIsMadeAndStays) {
    ::umask(0);
    lock_handle* const lock = mk_lock("/x", 1);
    ASSERT_TRUE(is_locked(lock));
    EXPECT_FALSE(is_already_locked(lock));
    EXPECT_EQ(lock->path, LOCK_OF_X);
    EXPECT_EQ(rm_lock(lock), 0);
    EXPECT_TRUE(exists(LOCK_OF_X));
    EXPECT_EQ(modeOf(LOCK_OF_X), "0644");
    EXPECT_FALSE(exists("/x"));
}

TEST_F(FileLockTest, WithoutNameTheFileItselfIsLocked) {
    const std::string path = MAILNAMES + "/self";
    lock_handle* const lock = mk_lock(path.c_str(), 0);
    ASSERT_TRUE(is_locked(lock));
    EXPECT_EQ(lock->path, path);
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(rm_lock(lock), 0);
    EXPECT_TRUE(namesIn("/run/lock/files").empty());
}

TEST_F(FileLockTest, BusyLockIsToldApartFromAFailedOne) {
    const Holder other("/x");
    lock_handle* const lock = mk_nonblock_lock("/x", 1);
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(lock->fd, 0);
    EXPECT_FALSE(is_locked(lock));
    EXPECT_TRUE(is_already_locked(lock));
    EXPECT_EQ(rm_lock(lock), 0);
}

TEST_F(FileLockTest, FreeLockIsTakenWithoutWaiting) {
    lock_handle* const lock = mk_nonblock_lock("/x", 1);
    EXPECT_TRUE(is_locked(lock));
    EXPECT_EQ(rm_lock(lock), 0);
}

TEST_F(FileLockTest, TwoProcessesNeverHoldTheLockTogether) {
    const std::string counter = MAILNAMES + "/counter";
    writeFile(counter, "0");
    const auto increment = [&] {
        for (int i = 0; i < 200; ++i) {
            lock_handle* const lock = mk_lock("/x", 1);
            if (!is_locked(lock))
                ::_exit(1);
            const int value = std::stoi(contentsOf(counter));
            ::sched_yield();
            writeFile(counter, std::to_string(value + 1));
            rm_lock(lock);
        }
    };
    SecondProcess other([&](const SecondProcess::Ready& ready) {
        ready();
        increment();
    });
    increment();
    EXPECT_TRUE(other.endedWell());
    EXPECT_EQ(contentsOf(counter), "400");
}

TEST_F(FileLockTest, OpenThatFailsIsReported) {
    std::filesystem::remove("/run/lock/files");
    lock_handle* const lock = mk_lock("/x", 1);
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(lock->fd, -1);
    EXPECT_FALSE(is_locked(lock));
    EXPECT_FALSE(is_already_locked(lock));
    EXPECT_EQ(message(), "Unable to open file \"" + LOCK_OF_X +
                             "\": No such file or directory.\n"
                             "System error 2: No such file or directory\n");
    EXPECT_EQ(rm_lock(lock), 0);
}

TEST_F(FileLockTest, FlockThatFailsIsNoBusyLock) {
    lock_handle* const lock = mk_lock_("/x", O_RDWR | O_CREAT, 0, 1);
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(lock->fd, -1);
    EXPECT_EQ(rm_lock(lock), 0);
}

TEST_F(FileLockTest, PlantedLinkIsNoLockFile) {
    writeFile("/var/qmail/canary", "alive");
    makeLink("/var/qmail/canary", LOCK_OF_X, POPUSER_UID);
    lock_handle* const lock = mk_lock("/x", 1);
    EXPECT_FALSE(is_locked(lock));
    EXPECT_EQ(message(), "Unable to open file \"" + LOCK_OF_X +
                             "\": Too many levels of symbolic links.\n"
                             "System error 40: Too many levels of symbolic links\n");
    EXPECT_EQ(contentsOf("/var/qmail/canary"), "alive");
    free_lock(lock);
}

TEST_F(FileLockTest, LockFileIsEmptied) {
    writeFile(LOCK_OF_X, "4711\n");
    free_lock(mk_lock("/x", 1));
    EXPECT_EQ(contentsOf(LOCK_OF_X), "");
}

TEST_F(FileLockTest, FileWithSeveralNamesIsNotEmptied) {
    writeFile(MAILNAMES + "/mine", "alive", POPUSER_UID, POPUSER_GID, 0600);
    std::filesystem::create_hard_link(MAILNAMES + "/mine", MAILNAMES + "/second");
    lock_handle* const lock = mk_lock((MAILNAMES + "/second").c_str(), 0);
    EXPECT_TRUE(is_locked(lock));
    EXPECT_EQ(contentsOf(MAILNAMES + "/mine"), "alive");
    free_lock(lock);
}

TEST_F(FileLockTest, WithoutTruncationTheFileStaysAsItIs) {
    writeFile(LOCK_OF_X, "4711\n");
    lock_handle* const lock = mk_lock_("/x", O_RDONLY, LOCK_SH, 1);
    EXPECT_TRUE(is_locked(lock));
    EXPECT_EQ(contentsOf(LOCK_OF_X), "4711\n");
    free_lock(lock);
}

TEST_F(FileLockTest, NoLockIsNoLock) {
    EXPECT_FALSE(is_locked(nullptr));
    EXPECT_TRUE(is_already_locked(nullptr));
    EXPECT_EQ(rm_lock(nullptr), -1);
    free_lock(nullptr);
    keep_lock(nullptr);
}

TEST_F(FileLockTest, CloseThatFailsIsReported) {
    lock_handle* const lock = mk_lock("/x", 1);
    ASSERT_TRUE(is_locked(lock));
    ::close(lock->fd);
    EXPECT_EQ(rm_lock(lock), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(message(), "An error occured during closing '" + LOCK_OF_X +  // sic
                             "' file: Bad file descriptor\n"
                             "\nSystem error 9: Bad file descriptor\n");
}

TEST_F(FileLockTest, FreeingIsSilentAndKeepsErrno) {
    lock_handle* const lock = mk_lock("/x", 1);
    ASSERT_TRUE(is_locked(lock));
    ::close(lock->fd);
    errno = ENOENT;
    free_lock(lock);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileLockTest, KeptLockExcludesOthersOnly) {
    keep_lock(mk_lock("/x", 1));
    EXPECT_TRUE(isBusyForOthers("/x"));
    lock_handle* const again = mk_nonblock_lock("/x", 1);
    EXPECT_TRUE(is_locked(again));
    EXPECT_EQ(rm_lock(again), 0);
    EXPECT_FALSE(isBusyForOthers("/x"));
}

TEST_F(FileLockTest, KeptLockOutlastsOtherLocksAndNoLock) {
    keep_lock(mk_lock("/x", 1));
    EXPECT_EQ(rm_lock(mk_lock("/y", 1)), 0);
    keep_lock(nullptr);
    EXPECT_TRUE(isBusyForOthers("/x"));
    free_lock(mk_lock("/x", 1));
}

TEST_F(FileLockTest, OneLockIsKeptAtMost) {
    const int before = openDescriptors();
    for (const char* path : {"/x", "/x", "/y", "/z"}) {
        keep_lock(mk_lock(path, 1));
        EXPECT_EQ(openDescriptors(), before + 1) << path;
    }
    EXPECT_FALSE(isBusyForOthers("/x"));
    EXPECT_FALSE(isBusyForOthers("/y"));
    EXPECT_TRUE(isBusyForOthers("/z"));
    free_lock(mk_lock("/z", 1));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FileLockTest, KeptLockEndsWithTheProcess) {
    const ProcessResult keeper = runForked([] { keep_lock(mk_lock("/x", 1)); });
    EXPECT_EQ(keeper.status, 0);
    EXPECT_FALSE(isBusyForOthers("/x"));
}

TEST_F(FileLockTest, DescriptorZeroIsNotTakenForBusy) {
    const ProcessResult result = runForked([] {
        ::close(0);
        lock_handle* const lock = mk_lock("/x", 1);
        const bool sound = is_locked(lock) && (::fcntl(lock->fd, F_GETFD) & FD_CLOEXEC) != 0;
        free_lock(lock);
        std::exit(sound ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(FileLockWithoutMemoryTest, ThereIsNoHandle) {
    const ProcessResult result = runForked([] {
        exhaustMemory();
        const bool refused = mk_flock_path("/x") == nullptr && mk_lock("/x", 1) == nullptr &&
                             mk_lock("/x", 0) == nullptr && errno == ENOMEM;
        std::exit(refused ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(namesIn("/run/lock/files").empty());
}

TEST_F(FileLockTest, NoDescriptorStaysBehind) {
    const int before = openDescriptors();
    EXPECT_EQ(rm_lock(mk_lock("/x", 1)), 0);
    free_lock(mk_lock("/x", 1));
    {
        const Holder other("/x");
        free_lock(mk_nonblock_lock("/x", 1));
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace corvo::test
