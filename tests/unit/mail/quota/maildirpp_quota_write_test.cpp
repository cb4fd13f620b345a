#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "mail/quota/maildirpp_quota.h"
#include "tests/support/capture.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/race.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/quota/maildir_fixture.h"

using namespace corvo::test;

namespace {

template <typename Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" unsigned int sleep(unsigned int seconds) {
    static const auto real = original<unsigned(unsigned)>("sleep");
    return onSleep ? onSleep(seconds) : real(seconds);
}

extern "C" int fsync(int fd) {
    static const auto real = original<int(int)>("fsync");
    return onFsync ? onFsync(fd) : real(fd);
}

extern "C" int close(int fd) {
    static const auto real = original<int(int)>("close");
    const int result = real(fd);
    return onClose ? onClose(result) : result;
}

extern "C" ssize_t write(int fd, const void* data, std::size_t size) {
    static const auto real = original<ssize_t(int, const void*, std::size_t)>("write");
    if (!onWrite)
        return real(fd, data, size);
    const ssize_t allowed = onWrite(fd, data, size);
    return allowed < 0 ? allowed : real(fd, data, static_cast<std::size_t>(allowed));
}

extern "C" int gethostname(char* name, std::size_t size) noexcept {
    static const auto real = original<int(char*, std::size_t)>("gethostname");
    return onGethostname ? onGethostname(name, size) : real(name, size);
}

namespace corvo::test {
namespace {

constexpr std::time_t FUTURE = 4000000000;

class WriteMaildirsizeTest : public QuotaTest {
protected:
    int write(long long byteLimit = 5, long long countLimit = 0) {
        return write_maildirpp_maildirsize(MAILDIR.c_str(), POPUSER_UID, POPUSER_GID, byteLimit,
                                           countLimit);
    }

    /// Writes, and gives the name of the one file that is in "tmp" meanwhile.
    std::string temporaryName() {
        std::vector<std::string> names;
        onFsync = [&](int) {
            names = namesIn(MAILDIR + "/tmp");
            return 0;
        };
        EXPECT_EQ(write(), 1);
        EXPECT_EQ(names.size(), 1U);
        return names.empty() ? "" : names[0];
    }
};

TEST_F(WriteMaildirsizeTest, LimitsAreWrittenAsGiven) {
    EXPECT_EQ(write(0, 25), 1);
    EXPECT_EQ(header(), "0S,25C");
}

TEST_F(WriteMaildirsizeTest, RelativePathsAreFromTheCurrentDirectory) {
    EXPECT_EQ(write_maildirpp_maildirsize("mailnames/example.com/info/Maildir/", STRANGER_UID,
                                          STRANGER_GID, 5, 0),
              1);
    EXPECT_EQ(ownerOf(QUOTA_FILE),
              std::to_string(STRANGER_UID) + ":" + std::to_string(STRANGER_GID));
}

TEST(WriteMaildirsizeWithoutDescriptorsTest, CurrentDirectoryThatCannotBeRememberedFailsSilently) {
    const StreamCapture nothingSaid;
    const NoDescriptors limit;
    EXPECT_EQ(write_maildirpp_maildirsize("/", POPUSER_UID, POPUSER_GID, 5, 0), 0);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(WriteMaildirsizeTest, RemovedCurrentDirectoryFailsSilently) {
    const InRemovedDirectory here;
    expectFailure(write(), ENOENT);
    expectFailure(store_maildirpp_quota_raw(MAILDIR.c_str(), 5), ENOENT);
}

TEST_F(WriteMaildirsizeTest, HostNameThatCannotBeReadFails) {
    onGethostname = [](char*, std::size_t) {
        errno = EPERM;
        return -1;
    };
    expectFailure(write(), EPERM);
    EXPECT_EQ(message(), "Unable to receive hostname\nSystem error 1: Operation not permitted\n");
}

TEST_F(WriteMaildirsizeTest, TemporaryNameHasTimeProcessAndHostWithoutSlashes) {
    onGethostname = [](char* name, std::size_t size) {
        EXPECT_EQ(size, 65U);
        std::memcpy(name, "mail/1/x", 9);
        return 0;
    };
    const std::time_t before = std::time(nullptr);
    const std::string name = temporaryName();
    EXPECT_GE(std::stoll(name), before);
    EXPECT_LE(std::stoll(name), std::time(nullptr));
    EXPECT_EQ(name.substr(name.find('.')),
              "." + std::to_string(getpid()) + ".mail_1_x-maildirsize");
}

TEST_F(WriteMaildirsizeTest, HostNameIsCutWhereItsBufferEnds) {
    onGethostname = [](char* name, std::size_t size) {
        std::memset(name, 'h', size);
        return 0;
    };
    const std::string name = temporaryName();
    EXPECT_EQ(name.substr(name.rfind('.')), "." + std::string(64, 'h') + "-maildirsize");
}

const std::string ATTEMPTS_EXCEEDED =
    "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
    "System error 11: Resource temporarily unavailable\n";

TEST_F(WriteMaildirsizeTest, MissingTmpFailsAfterFivePausesOfTwoSeconds) {
    std::filesystem::remove(MAILDIR + "/tmp");
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(message(), ATTEMPTS_EXCEEDED);
    EXPECT_EQ(pauses, std::vector<unsigned>(5, 2));
    EXPECT_FALSE(exists(QUOTA_FILE));
}

TEST_F(WriteMaildirsizeTest, FifthAttemptMaySucceed) {
    std::filesystem::remove(MAILDIR + "/tmp");
    onSleep = [this](unsigned seconds) {
        pauses.push_back(seconds);
        if (pauses.size() == 4)
            makeDirectory(MAILDIR + "/tmp");
        return 0U;
    };
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(pauses, std::vector<unsigned>(4, 2));
}

TEST_F(WriteMaildirsizeTest, FileThatWasThereBeforeIsNeitherUsedNorRemoved) {
    onGethostname = [](char* name, std::size_t) {
        std::memcpy(name, "h", 2);
        return 0;
    };
    const std::time_t now = std::time(nullptr);
    for (std::time_t second = now; second < now + 60; ++second)
        writeFile(MAILDIR + "/tmp/" + std::to_string(second) + "." + std::to_string(getpid()) +
                      ".h-maildirsize",
                  "theirs");
    const std::string before = fingerprint(MAILDIR);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(message(), ATTEMPTS_EXCEEDED);
    EXPECT_EQ(pauses, std::vector<unsigned>(5, 2));
    EXPECT_EQ(fingerprint(MAILDIR), before);
}

TEST_F(WriteMaildirsizeTest, OwnerThatCannotBeSetFailsSilently) {
    ASSERT_EQ(chown((MAILDIR + "/tmp").c_str(), STRANGER_UID, STRANGER_GID), 0);
    const AsStranger rights;
    expectFailure(write(), EPERM);
}

TEST_F(WriteMaildirsizeTest, MessagesThatCannotBeCountedFailSilently) {
    writeFile(MAILDIR + "/cur/1", "12345");
    for (const char* part : {"/tmp", "/cur"})
        ASSERT_EQ(chown((MAILDIR + part).c_str(), STRANGER_UID, STRANGER_GID), 0);
    ASSERT_EQ(chmod((MAILDIR + "/cur").c_str(), 0400), 0);
    const AsStranger rights;
    expectFailure(write_maildirpp_maildirsize(MAILDIR.c_str(), STRANGER_UID, getegid(), 5, 0),
                  EACCES);
}

TEST_F(WriteMaildirsizeTest, FullDiskFailsAndKeepsTheOldFile) {
    const SmallDisk disk(MAILDIR, 1);
    makeDirectory(MAILDIR + "/tmp");
    writeFile(QUOTA_FILE, "old");
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(message(),
              "unable to write data to file\nSystem error 28: No space left on device\n");
    EXPECT_EQ(maildirsize(), "old");
    EXPECT_EQ(namesIn(MAILDIR + "/tmp"), std::vector<std::string>());
}

TEST_F(WriteMaildirsizeTest, WriteIsRepeatedUntilAllIsWritten) {
    const std::vector<int> errors = {EINTR, EAGAIN, 0, EINTR, 0};
    std::size_t calls = 0;
    onWrite = [&](int, const void*, std::size_t size) -> ssize_t {
        errno = calls < errors.size() ? errors[calls] : 0;
        ++calls;
        return errno != 0 ? -1 : static_cast<ssize_t>(std::min<std::size_t>(size, 10));
    };
    EXPECT_EQ(write(), 1);
    onWrite = nullptr;
    EXPECT_EQ(calls, 3U + 4U);
    EXPECT_EQ(maildirsize(), "5S,0C\n           0           0\n");
}

const std::string NOT_COMMITTED =
    "unable to commit written data to file\nSystem error 5: Input/output error\n";

TEST_F(WriteMaildirsizeTest, FileThatIsNotSyncedFails) {
    onFsync = [](int) {
        errno = EIO;
        return -1;
    };
    expectFailure(write(), EIO);
    EXPECT_EQ(message(), NOT_COMMITTED);
}

TEST_F(WriteMaildirsizeTest, FileThatIsNotClosedWellFails) {
    onFsync = [](int) {
        onClose = [](int) {
            onClose = nullptr;
            errno = EIO;
            return -1;
        };
        return 0;
    };
    expectFailure(write(), EIO);
    EXPECT_EQ(message(), NOT_COMMITTED);
}

TEST_F(WriteMaildirsizeTest, FileThatCannotBeRenamedFailsSilently) {
    makeDirectory(QUOTA_FILE);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(namesIn(MAILDIR + "/tmp"), std::vector<std::string>());
}

TEST_F(WriteMaildirsizeTest, FileHasTheCurrentTimeWhenNothingArrived) {
    writeFile(MAILDIR + "/new/1", "12345");
    writeFile(MAILDIR + "/.Sent/cur/1", "12345");
    const std::time_t before = std::time(nullptr) - 1;
    EXPECT_EQ(write(), 1);
    EXPECT_GE(statusOf(QUOTA_FILE).st_mtime, before);
}

TEST_F(WriteMaildirsizeTest, FileIsDatedBackWhenMailArrivedMeanwhile) {
    for (const char* part : {"new", "cur", ".Sent/new", ".Sent/cur"})
        makeDirectory(MAILDIR + "/" + part);
    for (const char* part : {"new", "cur", ".Sent/new", ".Sent/cur"}) {
        SCOPED_TRACE(part);
        const std::time_t counted = FUTURE;
        setMtime(MAILDIR + "/cur", counted);
        onFsync = [&](int fd) {
            const timespec longAgo[] = {{0, 0}, {0, 0}};
            EXPECT_EQ(futimens(fd, longAgo), 0);
            writeFile(MAILDIR + "/" + part + "/late,S=50", "");
            setMtime(MAILDIR + "/" + part, counted + 1);
            return 0;
        };
        const std::time_t now = std::time(nullptr);
        EXPECT_EQ(write(), 1);
        EXPECT_EQ(statusOf(QUOTA_FILE).st_mtime, counted - 960);
        EXPECT_GE(statusOf(QUOTA_FILE).st_atime, now - 1);
        EXPECT_LE(statusOf(QUOTA_FILE).st_atime, now + 60);
        onFsync = nullptr;
        std::filesystem::remove(MAILDIR + "/" + part + "/late,S=50");
        std::filesystem::remove(QUOTA_FILE);
        setMtime(MAILDIR + "/" + part, 0);
    }
}

TEST_F(WriteMaildirsizeTest, FileIsDatedBackWhenMailArrivedWithinTheSecondOfTheCount) {
    const std::string folder = MAILDIR + "/new";
    setMtime(folder, {FUTURE, 5});
    onFsync = [&](int) {
        writeFile(folder + "/late,S=50", "");
        setMtime(folder, {FUTURE, 6});
        return 0;
    };
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(statusOf(QUOTA_FILE).st_mtime, FUTURE - 960);
}

TEST_F(WriteMaildirsizeTest, FileHasTheCurrentTimeWhenNothingArrivedWithinTheSecondOfTheCount) {
    setMtime(MAILDIR + "/new", {FUTURE, 5});
    setMtime(MAILDIR + "/cur", {FUTURE, 4});
    const std::time_t before = std::time(nullptr) - 1;
    EXPECT_EQ(write(), 1);
    EXPECT_GE(statusOf(QUOTA_FILE).st_mtime, before);
    EXPECT_LT(statusOf(QUOTA_FILE).st_mtime, FUTURE - 960);
}

TEST_F(WriteMaildirsizeTest, FileIsDatedBackWhenArrivalsCannotBeTold) {
    setMtime(MAILDIR + "/new", FUTURE);
    onFsync = [this](int) {
        std::filesystem::remove(MAILDIR + "/cur");
        makeLink("/var/qmail", MAILDIR + "/cur", POPUSER_UID);
        return 0;
    };
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(statusOf(QUOTA_FILE).st_mtime, FUTURE - 960);
}

TEST_F(WriteMaildirsizeTest, EntryNamedAsAFolderThatIsNoneIsLoggedAndSkipped) {
    writeFile(MAILDIR + "/.subscriptions", "");
    const std::time_t before = std::time(nullptr) - 1;
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(message(),
              "Bad/unrecognized entry .subscriptions within Maildir folder " + MAILDIR + "\n");
    EXPECT_GE(statusOf(QUOTA_FILE).st_mtime, before);
}

/// Delivers messages of 10 bytes into "new", as it seems a second after each other, until the
/// parent is gone.
[[noreturn]] void deliverForEver(const std::string& maildir, pid_t parent) {
    std::filesystem::current_path(maildir);
    for (std::time_t second = FUTURE; getppid() == parent; ++second) {
        const std::string name = std::to_string(second) + ",S=10";
        writeFile("tmp/" + name, "0123456789");
        std::filesystem::rename("tmp/" + name, "new/" + name);
        setMtime("new", second);
    }
    _exit(0);
}

/// Whether the file has a time before that of a folder, which is of now or of the last delivery.
bool isDatedBack(const std::string& file) {
    const std::time_t time = statusOf(file).st_mtime;
    return time < std::time(nullptr) - 900 || (time >= FUTURE - 960 && time < FUTURE + 1000000);
}

TEST_F(WriteMaildirsizeTest, DeliveriesByAnotherProcessDateTheFileBack) {
    constexpr int READ_BEFORE = 2000;  // so that the count takes its time
    for (int i = 0; i < READ_BEFORE; ++i)
        writeFile(MAILDIR + "/cur/" + std::to_string(i), "x");
    const ProcessResult result = runForked([this] {
        const pid_t parent = getpid();
        if (fork() == 0)
            deliverForEver(MAILDIR, parent);
        int datedBack = 0;
        for (int i = 0; i < 1000 && datedBack < 10; ++i) {
            long long bytes = 0;
            long long messages = 0;
            if (write() != 1 || get_maildirpp_usage(MAILDIR.c_str(), &bytes, &messages) != 1 ||
                bytes - READ_BEFORE != 10 * (messages - READ_BEFORE))
                std::exit(3);
            datedBack += isDatedBack(QUOTA_FILE);
        }
        std::printf("%d", datedBack);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "10");
}

/// What the mail account may plant in place of a directory or file, and what it points at.
class PlantedLinkTest : public WriteMaildirsizeTest {
protected:
    PlantedLinkTest() { writeFile(TARGET + "/keep,S=7", "precious"); }

    void TearDown() override {
        EXPECT_EQ(fingerprint(TARGET), before);
        WriteMaildirsizeTest::TearDown();
    }

    void plant(const std::string& path, const std::string& target) {
        std::filesystem::remove_all(path);
        makeLink(target, path, POPUSER_UID);
        before = fingerprint(TARGET);
    }

    const std::string TARGET = "/var/qmail/precious";
    std::string before;
};

TEST_F(PlantedLinkTest, MaildirIsRefused) {
    makeDirectory(TARGET + "/tmp");
    plant(MAILDIR, TARGET);
    EXPECT_EQ(store(5), 0);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(PlantedLinkTest, TmpIsRefusedByEveryAttempt) {
    plant(MAILDIR + "/tmp", TARGET);
    EXPECT_EQ(store(5), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(message(), ATTEMPTS_EXCEEDED);
}

TEST_F(PlantedLinkTest, NewAndCurCountAsEmptyAndTheFileIsDatedBack) {
    for (const char* part : {"/new", "/cur"}) {
        SCOPED_TRACE(part);
        plant(MAILDIR + part, TARGET);
        EXPECT_EQ(store(5), 1);
        EXPECT_EQ(maildirsize(), "5S,0C\n           0           0\n");
        EXPECT_LT(statusOf(QUOTA_FILE).st_mtime, std::time(nullptr) - 900);
        std::filesystem::remove(MAILDIR + part);
        makeDirectory(MAILDIR + part);
    }
}

TEST_F(PlantedLinkTest, MaildirsizeIsReplacedNotFollowed) {
    plant(QUOTA_FILE, TARGET + "/keep,S=7");
    EXPECT_EQ(store(5), 1);
    EXPECT_TRUE(S_ISREG(statusOf(QUOTA_FILE).st_mode));
    EXPECT_EQ(header(), "5S,0C");
}

TEST_F(PlantedLinkTest, LinkPutInPlaceOfTheNewFileIsNotDatedBack) {
    setMtime(TARGET + "/keep,S=7", FUTURE);
    plant(MAILDIR + "/tmp/link", TARGET + "/keep,S=7");
    onFsync = [this](int) {
        setMtime(MAILDIR + "/cur", FUTURE);
        return 0;
    };
    onClose = [this](int result) {
        const int error = errno;
        if (exists(QUOTA_FILE) && S_ISREG(statusOf(QUOTA_FILE).st_mode))
            (void)std::rename((MAILDIR + "/tmp/link").c_str(), QUOTA_FILE.c_str());
        errno = error;
        return result;
    };
    EXPECT_EQ(write(), 1);
    onClose = nullptr;
    EXPECT_TRUE(S_ISLNK(statusOf(QUOTA_FILE).st_mode));
    EXPECT_EQ(statusOf(TARGET + "/keep,S=7").st_mtime, FUTURE);
}

TEST_F(PlantedLinkTest, LinkThatTakesTurnsWithTmpLeadsNoWriteOut) {
    plant(MAILDIR + "/link", TARGET);
    int hosts = 0;
    // What an exchange kept from being removed must not stand in the way of the next file.
    onGethostname = [&hosts](char* name, std::size_t size) {
        (void)std::snprintf(name, size, "host%d", ++hosts);
        return 0;
    };
    const Racer swapping([this] { exchange(MAILDIR + "/tmp", MAILDIR + "/link"); });
    Outcomes seen;
    long long quota = 5;
    while (seen.wantsMore()) {
        quota = quota == 5 ? 6 : 5;  // so that there is something to write
        seen.note(store(quota) == 1);
        (void)message();
    }
    EXPECT_TRUE(seen.both()) << seen;
    EXPECT_EQ(maildirsize().substr(1), "S,0C\n           0           0\n");
    EXPECT_EQ(ownerOf(QUOTA_FILE), popuser());
}

TEST_F(PlantedLinkTest, MaildirsizeIsNotRead) {
    writeFile(TARGET + "/maildirsize", "1000S,0C\n");
    plant(QUOTA_FILE, TARGET + "/maildirsize");
    long long bytes = 0;
    long long messages = 0;
    long long byteLimit = 0;
    long long countLimit = 0;
    EXPECT_EQ(get_maildirpp_usage_and_limits(MAILDIR.c_str(), 1, &bytes, &messages, &byteLimit,
                                             &countLimit),
              0);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(WriteMaildirsizeTest, LinksOfRootAreFollowed) {
    std::filesystem::rename(MAILDIR, "/var/qmail/disk2");
    makeLink("/var/qmail/disk2", MAILDIR);
    writeFile(MAILDIR + "/cur/1,S=5", "");
    EXPECT_EQ(store(1000), 1);
    EXPECT_EQ(contentsOf("/var/qmail/disk2/maildirsize"), "1000S,0C\n           5           1\n");
}

}  // namespace
}  // namespace corvo::test
