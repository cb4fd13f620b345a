// What the tests of Maildirs and their quotas share.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "mail/quota/maildirpp_quota.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"

namespace corvo::test {

// What stands in front of the C library's calls while a test wants it, see
// maildirpp_quota_write_test.cpp.
//
// onSleep and onFsync replace the call. onClose gets the result of the real call and gives what the
// caller sees. onWrite gives how much is really written, or -1. onGethostname replaces the call.
inline std::function<unsigned(unsigned)> onSleep;
inline std::function<int(int)> onFsync;
inline std::function<int(int)> onClose;
inline std::function<ssize_t(int, const void*, std::size_t)> onWrite;
inline std::function<int(char*, std::size_t)> onGethostname;

inline struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

inline void setMtime(const std::string& path, const timespec& time) {
    const timespec times[] = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

inline void setMtime(const std::string& path, std::time_t seconds) {
    setMtime(path, timespec{seconds, 0});
}

inline std::string currentDirectory() {
    std::array<char, PATH_MAX> path{};
    return getcwd(path.data(), path.size()) != nullptr ? path.data() : "";
}

/// While it lives, no descriptor can be opened; a sanitizer needs some to look at a virtual object.
class NoDescriptors {
public:
    NoDescriptors() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
        const rlimit none{0, saved_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &saved_), 0); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit saved_{};
};

/// While it lives, the current directory is one that has been removed.
class InRemovedDirectory {
public:
    InRemovedDirectory() {
        makeDirectory("/var/gone");
        EXPECT_EQ(chdir("/var/gone"), 0);
        EXPECT_EQ(rmdir("/var/gone"), 0);
    }
    ~InRemovedDirectory() { EXPECT_EQ(chdir(before_.c_str()), 0); }
    InRemovedDirectory(const InRemovedDirectory&) = delete;
    InRemovedDirectory& operator=(const InRemovedDirectory&) = delete;

private:
    const std::string before_ = currentDirectory();
};

/// While it lives, this process has the rights of an ordinary account.
class AsStranger {
public:
    AsStranger() { EXPECT_EQ(seteuid(STRANGER_UID), 0); }
    ~AsStranger() { EXPECT_EQ(seteuid(0), 0); }
    AsStranger(const AsStranger&) = delete;
    AsStranger& operator=(const AsStranger&) = delete;
};

/// A home with an empty Maildir. No path through the functions may leave the working directory, the
/// umask or a descriptor changed.
class QuotaTest : public LoggingTest {
protected:
    QuotaTest() {
        for (const char* part : {"new", "cur", "tmp"})
            makeDirectory(MAILDIR + "/" + part);
        EXPECT_EQ(chdir("/var/qmail"), 0);
        descriptors = openDescriptors();
        onSleep = [this](unsigned seconds) {
            pauses.push_back(seconds);
            return 0U;
        };
    }

    void TearDown() override {
        onSleep = nullptr;
        onFsync = nullptr;
        onClose = nullptr;
        onWrite = nullptr;
        onGethostname = nullptr;
        EXPECT_EQ(currentDirectory(), directory);
        EXPECT_EQ(currentUmask(), mask);
        EXPECT_EQ(openDescriptors(), descriptors);
        (void)umount2(MAILDIR.c_str(), MNT_DETACH);
    }

    int store(long long quota) { return store_mbox_quota("example.com", "info", quota); }

    std::string maildirsize() const { return contentsOf(QUOTA_FILE); }
    std::string header() const { return maildirsize().substr(0, maildirsize().find('\n')); }

    /// A failure that leaves nothing of itself: no new file, and no temporary one.
    void expectFailure(int result, int error) {
        EXPECT_EQ(std::strerror(errno), std::string(std::strerror(error)));
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(exists(QUOTA_FILE));
        EXPECT_EQ(namesIn(MAILDIR + "/tmp"), std::vector<std::string>());
    }

    const std::string HOME = MAILNAMES + "/example.com/info";
    const std::string MAILDIR = HOME + "/Maildir";
    const std::string QUOTA_FILE = MAILDIR + "/maildirsize";
    const std::string ATTACHMENTS = HOME + "/@attachments";
    std::string directory = "/var/qmail";
    mode_t mask = 022;
    int descriptors = 0;
    std::vector<unsigned> pauses;
};

}  // namespace corvo::test
