// A `maildirsize` that is as it should be, and those that are not.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "mail/quota/maildirpp_quota.h"
#include "mail/quota/maildirsize_file.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/quota/maildir_fixture.h"

namespace {

/// What happens while the file is read, which is after the count.
std::function<void()> onRead;

}  // namespace

extern "C" ssize_t pread(int fd, void* data, std::size_t size, off_t offset) {
    static const auto real =
        reinterpret_cast<ssize_t (*)(int, void*, std::size_t, off_t)>(dlsym(RTLD_NEXT, "pread"));
    if (onRead)
        onRead();
    return real(fd, data, size, offset);
}

namespace corvo::test {
namespace {

using corvo::mail::Differences;
using corvo::mail::lookAtMaildirsize;
using corvo::mail::maildirsizeOwnership;

constexpr std::time_t LONG_AGO = 1000000000;
constexpr std::time_t FUTURE = 4000000000;

class MaildirsizeLeftAloneTest : public QuotaTest {
protected:
    MaildirsizeLeftAloneTest() {
        writeFile(MAILDIR + "/cur/1.M1P1.host,S=1200:2,S", "");
        writeFile(MAILDIR + "/.Sent/cur/2.host", std::string(400, 'x'));
        EXPECT_EQ(store(QUOTA), 1);
        makeOld();
    }

    void TearDown() override {
        onRead = nullptr;
        QuotaTest::TearDown();
    }

    /// So that new times are seen.
    void makeOld() {
        setMtime(QUOTA_FILE, LONG_AGO);
        inode = inodeOf(QUOTA_FILE);
    }

    /// From now on nothing is written or flushed.
    static void forbidWriting() {
        onFsync = [](int) {
            ADD_FAILURE() << "a flush";
            return 0;
        };
        onWrite = [](int, const void*, std::size_t size) {
            ADD_FAILURE() << "a write";
            return static_cast<ssize_t>(size);
        };
    }

    void makeReadOnly() {
        ASSERT_EQ(mount(MAILDIR.c_str(), MAILDIR.c_str(), nullptr, MS_BIND, nullptr), 0);
        ASSERT_EQ(
            mount(nullptr, MAILDIR.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    }

    bool isReplaced() const { return inodeOf(QUOTA_FILE) != inode; }

    static constexpr long long QUOTA = 104857600;
    const std::string TEXT = "104857600S,0C\n        1600           2\n";
    ino_t inode = 0;
};

TEST_F(MaildirsizeLeftAloneTest, IsOneThatIsRightButForItsTimes) {
    const timespec tmp = statusOf(MAILDIR + "/tmp").st_ctim;
    const std::time_t before = std::time(nullptr) - 1;
    forbidWriting();

    EXPECT_EQ(store(QUOTA), 1);

    EXPECT_FALSE(isReplaced());
    EXPECT_EQ(maildirsize(), TEXT);
    EXPECT_EQ(statusOf(MAILDIR + "/tmp").st_ctim.tv_nsec, tmp.tv_nsec);
    for (const timespec& time : {statusOf(QUOTA_FILE).st_mtim, statusOf(QUOTA_FILE).st_atim}) {
        EXPECT_GE(time.tv_sec, before);
        EXPECT_LE(time.tv_sec, std::time(nullptr));
    }
}

TEST_F(MaildirsizeLeftAloneTest, NeedsNeitherTmpNorHostName) {
    std::filesystem::remove(MAILDIR + "/tmp");
    onGethostname = [](char*, std::size_t) {
        ADD_FAILURE() << "a look at the host name";
        return -1;
    };
    EXPECT_EQ(store(QUOTA), 1);
    EXPECT_FALSE(isReplaced());
    EXPECT_TRUE(pauses.empty());
}

TEST_F(MaildirsizeLeftAloneTest, HasTheModeOfANewFileByTheUmask) {
    for (const auto& [itsMask, mode] : {std::pair{077U, 0600U}, {0U, 0644U}, {027U, 0640U}}) {
        SCOPED_TRACE(itsMask);
        mask = itsMask;
        umask(mask);
        makeOld();
        ASSERT_EQ(chmod(QUOTA_FILE.c_str(), mode), 0);
        EXPECT_EQ(store(QUOTA), 1);
        EXPECT_FALSE(isReplaced());
        ASSERT_EQ(chmod(QUOTA_FILE.c_str(), 0604), 0);
        EXPECT_EQ(store(QUOTA), 1);
        EXPECT_TRUE(isReplaced());
        EXPECT_EQ(statusOf(QUOTA_FILE).st_mode & 07777, mode);
    }
}

TEST_F(MaildirsizeLeftAloneTest, IsDatedBackWhenMailArrivedSinceTheCount) {
    setMtime(MAILDIR + "/new", FUTURE);
    forbidWriting();
    onRead = [this] { setMtime(MAILDIR + "/.Sent/cur", {FUTURE, 1}); };
    const std::time_t now = std::time(nullptr);

    EXPECT_EQ(store(QUOTA), 1);

    EXPECT_FALSE(isReplaced());
    EXPECT_EQ(statusOf(QUOTA_FILE).st_mtime, FUTURE - 960);
    EXPECT_GE(statusOf(QUOTA_FILE).st_atime, now - 1);
}

TEST_F(MaildirsizeLeftAloneTest, StillHasItsFoldersLookedAtTwice) {
    writeFile(MAILDIR + "/.subscriptions", "");
    EXPECT_EQ(store(QUOTA), 1);
    EXPECT_EQ(message(),
              "Bad/unrecognized entry .subscriptions within Maildir folder " + MAILDIR + "\n");
    EXPECT_FALSE(isReplaced());
}

TEST_F(MaildirsizeLeftAloneTest, NeedsNoFileSystemThatCanBeChanged) {
    makeReadOnly();
    EXPECT_EQ(store(QUOTA), 1);
    EXPECT_EQ(statusOf(QUOTA_FILE).st_mtime, LONG_AGO);
}

TEST_F(MaildirsizeLeftAloneTest, IsNoneThatDiffersWhereNothingCanBeChanged) {
    makeReadOnly();
    EXPECT_EQ(store(QUOTA + 1), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(message(),
              "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
              "System error 11: Resource temporarily unavailable\n");
    EXPECT_EQ(pauses, std::vector<unsigned>(5, 2));
}

TEST_F(MaildirsizeLeftAloneTest, IsNoneOfAnotherQuotaOrUsage) {
    EXPECT_EQ(store(QUOTA + 1), 1);
    EXPECT_TRUE(isReplaced());
    EXPECT_EQ(maildirsize(), "104857601S,0C\n        1600           2\n");
    makeOld();
    writeFile(MAILDIR + "/new/3.host,S=7", "");
    EXPECT_EQ(store(QUOTA + 1), 1);
    EXPECT_TRUE(isReplaced());
    EXPECT_EQ(maildirsize(), "104857601S,0C\n        1607           3\n");
}

struct Damage {
    const char* name;
    Differences differences;
    std::function<void(const std::string& file)> inflict;
};

void rewrite(const std::string& file, const std::string& text) {
    writeFile(file, text, POPUSER_UID, POPUSER_GID, 0644);
}

const Damage DAMAGES[] = {
    {"owner",
     {.owner = true},
     [](const std::string& file) { ASSERT_EQ(chown(file.c_str(), STRANGER_UID, POPUSER_GID), 0); }},
    {"group",
     {.group = true},
     [](const std::string& file) { ASSERT_EQ(chown(file.c_str(), POPUSER_UID, STRANGER_GID), 0); }},
    {"permissions",
     {.mode = true},
     [](const std::string& file) { ASSERT_EQ(chmod(file.c_str(), 0600), 0); }},
    {"set-user-id",
     {.mode = true},
     [](const std::string& file) { ASSERT_EQ(chmod(file.c_str(), 04644), 0); }},
    {"second name",
     {.names = true},
     [](const std::string& file) { std::filesystem::create_hard_link(file, file + ".too"); }},
    {"line of a delivery",
     {.contents = true},
     [](const std::string& file) { rewrite(file, contentsOf(file) + "7 1\n"); }},
    {"cut", {.contents = true}, [](const std::string& file) { rewrite(file, "104857600S,0C\n"); }},
    {"empty", {.contents = true}, [](const std::string& file) { rewrite(file, ""); }},
    {"zero byte",
     {.contents = true},
     [](const std::string& file) { rewrite(file, contentsOf(file) + std::string(1, '\0')); }},
    {"long",
     {.contents = true},
     [](const std::string& file) { rewrite(file, contentsOf(file) + std::string(9000, '\n')); }},
    {"link of popuser",
     {.kind = true},
     [](const std::string& file) {
         std::filesystem::rename(file, file + ".target");
         makeLink("maildirsize.target", file, POPUSER_UID);
     }},
    {"link of root",
     {.kind = true},
     [](const std::string& file) {
         std::filesystem::rename(file, file + ".target");
         makeLink("maildirsize.target", file);
     }},
    {"pipe",
     {.kind = true},
     [](const std::string& file) {
         std::filesystem::remove(file);
         ASSERT_EQ(mkfifo(file.c_str(), 0644), 0);
     }},
    {"none", {.missing = true}, [](const std::string& file) { std::filesystem::remove(file); }},
};

TEST_F(MaildirsizeLeftAloneTest, IsNoneThatDiffers) {
    for (const Damage& damage : DAMAGES) {
        SCOPED_TRACE(damage.name);
        damage.inflict(QUOTA_FILE);
        const std::string damaged =
            exists(QUOTA_FILE) ? std::to_string(statusOf(QUOTA_FILE).st_ino) : "";
        int flushes = 0;
        onFsync = [&flushes](int) { return ++flushes, 0; };

        EXPECT_EQ(store(QUOTA), 1);

        EXPECT_EQ(flushes, 1);
        EXPECT_NE(std::to_string(inodeOf(QUOTA_FILE)), damaged);
        EXPECT_TRUE(S_ISREG(statusOf(QUOTA_FILE).st_mode));
        EXPECT_EQ(statusOf(QUOTA_FILE).st_nlink, 1U);
        EXPECT_EQ(modeOf(QUOTA_FILE) + " " + ownerOf(QUOTA_FILE), "0644 " + popuser());
        EXPECT_EQ(maildirsize(), TEXT);
        std::filesystem::remove(QUOTA_FILE + ".too");
        std::filesystem::remove(QUOTA_FILE + ".target");
    }
}

TEST_F(MaildirsizeLeftAloneTest, IsWrittenWithTheCountThatFoundItWrong) {
    rewrite(QUOTA_FILE, "1S,0C\n");
    setMtime(MAILDIR + "/cur", FUTURE);
    onRead = [this] {
        writeFile(MAILDIR + "/new/late,S=50", "");
        setMtime(MAILDIR + "/new", {FUTURE, 1});
    };
    EXPECT_EQ(store(QUOTA), 1);
    EXPECT_EQ(maildirsize(), TEXT);
    EXPECT_EQ(statusOf(QUOTA_FILE).st_mtime, FUTURE - 960);
}

TEST_F(MaildirsizeLeftAloneTest, IsOneOfWhichTheMessagesCannotBeCounted) {
    writeFile(MAILDIR + "/cur/3", "12345");
    for (const char* part : {"/tmp", "/cur", "/maildirsize"})
        ASSERT_EQ(chown((MAILDIR + part).c_str(), STRANGER_UID, 0), 0);
    ASSERT_EQ(chmod((MAILDIR + "/cur").c_str(), 0400), 0);
    const AsStranger rights;
    EXPECT_EQ(write_maildirpp_maildirsize(MAILDIR.c_str(), STRANGER_UID, 0, QUOTA, 0), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(isReplaced());
    EXPECT_EQ(namesIn(MAILDIR + "/tmp"), std::vector<std::string>());
}

TEST_F(MaildirsizeLeftAloneTest, LookTellsWhatDiffers) {
    ASSERT_EQ(chdir(MAILDIR.c_str()), 0);
    const auto look = [this] {
        return lookAtMaildirsize(maildirsizeOwnership(POPUSER_UID, POPUSER_GID), TEXT).differences;
    };
    EXPECT_FALSE(look().any());
    for (const Damage& damage : DAMAGES) {
        damage.inflict(QUOTA_FILE);
        EXPECT_EQ(look(), damage.differences) << damage.name;
        std::filesystem::remove(QUOTA_FILE);
        std::filesystem::remove(QUOTA_FILE + ".too");
        rewrite(QUOTA_FILE, TEXT);
    }
    {
        const NoDescriptors limit;
        EXPECT_EQ(look(), Differences{.unknown = true});
    }
    ASSERT_EQ(chdir(directory.c_str()), 0);
}

}  // namespace
}  // namespace corvo::test
