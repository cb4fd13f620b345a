#include "utils/guards.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <type_traits>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"

using namespace corvo;

namespace corvo::test {
namespace {

class GuardsTest : public SandboxTest {};

int openNull() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}

template <typename Guard>
constexpr bool isNeverCopied =
    !std::is_copy_constructible_v<Guard> && !std::is_copy_assignable_v<Guard>;

static_assert(isNeverCopied<ErrnoGuard> && isNeverCopied<UniqueFd> && isNeverCopied<UniqueFile> &&
              isNeverCopied<UniqueCString> && isNeverCopied<UmaskGuard> &&
              isNeverCopied<WorkingDirectoryGuard>);

TEST_F(GuardsTest, ErrnoComesBack) {
    errno = ENOENT;
    {
        const ErrnoGuard guard;
        errno = EPERM;
    }
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(GuardsTest, InterruptedCallsAreRepeated) {
    int calls = 0;
    const int result = retryOnEintr([&] {
        errno = EINTR;
        return ++calls < 3 ? -1 : 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(calls, 3);
}

TEST_F(GuardsTest, OtherFailuresAreNotRepeated) {
    int calls = 0;
    const int result = retryOnEintr([&] {
        ++calls;
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(calls, 1);
}

TEST_F(GuardsTest, DescriptorIsClosedWithItsOwner) {
    const int fd = openNull();
    {
        const UniqueFd owner(fd);
        EXPECT_TRUE(owner);
        EXPECT_EQ(owner.get(), fd);
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(GuardsTest, ClosingADeadDescriptorKeepsErrno) {
    errno = ENOENT;
    { const UniqueFd owner(1 << 20); }
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(GuardsTest, DescriptorMovesToItsNewOwner) {
    UniqueFd first(openNull());
    const int fd = first.get();
    UniqueFd second(std::move(first));
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): the state after a move is promised
    EXPECT_EQ(second.get(), fd);
    UniqueFd third(openNull());
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_EQ(third.get(), fd);
    EXPECT_FALSE(isOpen(replaced));
    UniqueFd& same = third;
    third = std::move(same);
    EXPECT_TRUE(isOpen(fd));
}

TEST_F(GuardsTest, ReleasedDescriptorStaysOpen) {
    int fd = -1;
    {
        UniqueFd owner(openNull());
        fd = owner.release();
        EXPECT_FALSE(owner);
    }
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

TEST_F(GuardsTest, ExplicitCloseTellsItsResult) {
    UniqueFd owner(openNull());
    EXPECT_EQ(owner.close(), 0);
    EXPECT_FALSE(owner);
    UniqueFd dead(1 << 20);
    EXPECT_EQ(dead.close(), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(GuardsTest, StreamsAreClosedAndErrnoKept) {
    const int before = openDescriptors();
    errno = ENOENT;
    {
        const UniqueFile file(std::fopen("/dev/full", "we"));
        (void)std::fputs("never arrives", file.get());
        EXPECT_EQ(openDescriptors(), before + 1);
        errno = ENOENT;
    }
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(GuardsTest, StreamTakesTheFileOver) {
    const int before = openDescriptors();
    {
        const UniqueFile stream = openStream(UniqueFd(openNull()), "w");
        ASSERT_TRUE(stream);
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(GuardsTest, FileWithoutAStreamIsClosed) {
    const int before = openDescriptors();
    EXPECT_FALSE(openStream(UniqueFd(openNull()), "?"));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(openDescriptors(), before);
    errno = ENOENT;
    EXPECT_FALSE(openStream(UniqueFd(), "r"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(GuardsTest, AllocatedStringIsOwned) {
    const UniqueCString text(::strdup("text"));
    EXPECT_STREQ(text.get(), "text");
}

TEST_F(GuardsTest, UmaskComesBack) {
    ::umask(027);
    {
        const UmaskGuard guard(077);
        EXPECT_EQ(currentUmask(), 077U);
    }
    EXPECT_EQ(currentUmask(), 027U);
}

TEST_F(GuardsTest, WorkingDirectoryComesBackAfterItsParentWasRenamed) {
    makeDirectory(MAILNAMES + "/a/b");
    ASSERT_EQ(::chdir((MAILNAMES + "/a/b").c_str()), 0);
    errno = ENOENT;
    {
        const WorkingDirectoryGuard guard;
        EXPECT_TRUE(guard.remembered());
        ASSERT_EQ(::chdir("/"), 0);
        std::filesystem::rename(MAILNAMES + "/a", MAILNAMES + "/c");
        errno = ENOENT;
    }
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(std::filesystem::current_path(), MAILNAMES + "/c/b");
}

TEST_F(GuardsTest, ReleasedWorkingDirectoryStays) {
    {
        WorkingDirectoryGuard guard;
        ASSERT_EQ(::chdir(MAILNAMES.c_str()), 0);
        guard.release();
    }
    EXPECT_EQ(std::filesystem::current_path(), MAILNAMES);
}

TEST_F(GuardsTest, RemovedWorkingDirectoryIsNotRemembered) {
    makeDirectory(MAILNAMES + "/gone");
    ASSERT_EQ(::chdir((MAILNAMES + "/gone").c_str()), 0);
    std::filesystem::remove(MAILNAMES + "/gone");
    {
        const WorkingDirectoryGuard guard;
        EXPECT_FALSE(guard.remembered());
        EXPECT_EQ(errno, ENOENT);
        ASSERT_EQ(::chdir("/"), 0);
    }
    EXPECT_EQ(std::filesystem::current_path(), "/");
}

/// Makes directories and changes into them until the current one's path has so many bytes.
void goDown(std::size_t length) {
    ASSERT_EQ(::chdir(MAILNAMES.c_str()), 0);
    for (std::size_t now = MAILNAMES.size(); now < length;) {
        const std::size_t left = length - now;
        const std::string name(left > 250 ? 200 : left - 1, 'd');
        (void)::mkdir(name.c_str(), 0700);  // may be there already
        ASSERT_EQ(::chdir(name.c_str()), 0);
        now += 1 + name.size();
    }
}

TEST_F(GuardsTest, WorkingDirectoryIsRememberedUpToTheLongestPath) {
    goDown(PATH_MAX - 1);
    EXPECT_TRUE(WorkingDirectoryGuard().remembered());
    goDown(PATH_MAX);
    EXPECT_FALSE(WorkingDirectoryGuard().remembered());
    EXPECT_THAT(errno, testing::AnyOf(ERANGE, ENAMETOOLONG));
}

TEST_F(GuardsTest, WorkingDirectoryThatCannotBeRememberedIsSaid) {
    struct rlimit former {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const struct rlimit none = {0, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    {
        const WorkingDirectoryGuard guard;
        EXPECT_FALSE(guard.remembered());
        EXPECT_EQ(errno, EMFILE);
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
}

}  // namespace
}  // namespace corvo::test
