#include "mail/quota/maildir_usage.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <functional>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/quota/maildir_fixture.h"

namespace {

/// Sees each entry that is read from a directory; an errno other than 0 fails the whole read.
std::function<int(dirent64*)> onEntry;

int lookAtEntries(char* buffer, ssize_t length) {
    for (ssize_t position = 0; onEntry && position < length;) {
        auto* const entry = reinterpret_cast<dirent64*>(buffer + position);
        position += entry->d_reclen;
        if (const int error = onEntry(entry))
            return error;
    }
    return 0;
}

}  // namespace

extern "C" ssize_t getdents64(int directory, void* buffer, std::size_t size) {
    static const auto real =
        reinterpret_cast<ssize_t (*)(int, void*, std::size_t)>(dlsym(RTLD_NEXT, "getdents64"));
    const ssize_t length = real(directory, buffer, size);
    const int error = lookAtEntries(static_cast<char*>(buffer), length);
    if (error == 0)
        return length;
    errno = error;
    return -1;
}

namespace corvo::test {
namespace {

constexpr std::time_t PAST = 1000000000;

/// Starts in an empty Maildir, as the current directory.
class MaildirUsageTest : public LoggingTest {
protected:
    MaildirUsageTest() {
        for (const char* part : {"new", "cur", "tmp"})
            makeDirectory(MAILDIR + "/" + part);
        EXPECT_EQ(chdir(MAILDIR.c_str()), 0);
        descriptors = openDescriptors();
    }

    void TearDown() override {
        onEntry = nullptr;
        EXPECT_EQ(openDescriptors(), descriptors);
    }

    int count() { return get_maildirpp_messages_usage(&bytes, &messages, &newest); }

    void expectUsage(long long expectedBytes, long long expectedMessages) {
        EXPECT_EQ(count(), 1);
        EXPECT_EQ(bytes, expectedBytes);
        EXPECT_EQ(messages, expectedMessages);
    }

    const std::string MAILDIR = MAILNAMES + "/example.com/info/Maildir";
    int descriptors = 0;
    long long bytes = -1;
    long long messages = -1;
    std::time_t newest = 0;
};

TEST_F(MaildirUsageTest, SizesComeFromNamesOrElseFromTheDisk) {
    writeFile("cur/1.M1P1.host,S=1200:2,S", "");
    writeFile("new/2.host,S=300", "");
    writeFile("cur/3.host", std::string(400, 'x'));
    expectUsage(1900, 3);
}

TEST_F(MaildirUsageTest, OnlyDigitsUpToTheEndOrAColonAreASize) {
    const struct {
        const char* name;
        long long size;
    } cases[] = {
        {"1,S=5", 5},
        {"1,S=5:2,S", 5},
        {"1,S=005", 5},
        {",S=0", 0},
        {"1,W=9,S=5:2,", 5},
        {"1,S=9223372036854775807", LLONG_MAX},
        {"1,S=5,W=6", 7},
        {"1,S=5 ", 7},
        {"1,S=5;2,S", 7},
        {"1,S=", 7},
        {"1,S=:2,S", 7},
        {"1,S=+5", 7},
        {"1,S=-5", 7},
        {"1,S= 5", 7},
        {"1,s=5", 7},
        {"1S=5", 7},
        {"1,S=9223372036854775808", 7},
        {"1,S=99999999999999999999", 7},
        {"1,S=5x,S=6", 6},
        {"1,S=5,S=6", 6},
        {"1,S=,S=6", 6},
        {"1,S=99999999999999999999,S=8:2,S", 8},
        {"1,S=1:2,S=3", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = std::string("cur/") + c.name;
        writeFile(path, "7 bytes");
        expectUsage(c.size, 1);
        ASSERT_EQ(unlink(path.c_str()), 0);
    }
}

TEST_F(MaildirUsageTest, BytesAreHeldAtTheLargestValue) {
    writeFile("cur/1,S=9223372036854775807", "");
    writeFile("cur/2,S=9223372036854775807", "");
    writeFile("new/3", "x");
    expectUsage(LLONG_MAX, 3);
}

TEST_F(MaildirUsageTest, CountersStartAtZero) {
    bytes = 500;
    messages = 5;
    expectUsage(0, 0);
}

TEST_F(MaildirUsageTest, MissingNewAndCurCountAsEmpty) {
    ASSERT_EQ(rmdir("new"), 0);
    ASSERT_EQ(rmdir("cur"), 0);
    expectUsage(0, 0);
    EXPECT_EQ(newest, 0);
}

TEST_F(MaildirUsageTest, DirectoriesWithALeadingDotAreFolders) {
    writeFile(".Sent/cur/1,S=1", "");
    writeFile(".Sent.2024/new/2,S=10", "");
    writeFile("..odd/new/3,S=100", "");
    writeFile("Other/new/4,S=1000", "");
    writeFile(".Sent/.Deeper/new/5,S=10000", "");
    writeFile(".Sent/tmp/6,S=100000", "");
    writeFile("tmp/7,S=1000000", "");
    writeFile("./.subscriptions", "not a folder");
    expectUsage(111, 3);
}

TEST_F(MaildirUsageTest, LinkToAFolderIsNotScanned) {
    writeFile("/var/qmail/elsewhere/new/1,S=5", "");
    makeLink("/var/qmail/elsewhere", "./.Shared");
    expectUsage(0, 0);
}

TEST_F(MaildirUsageTest, EntriesOfEveryKindAreMessages) {
    makeDirectory("cur/1.directory,S=1");
    ASSERT_EQ(mkfifo("cur/2.fifo", 0600), 0);
    makeLink("nowhere", "new/3.link", POPUSER_UID);
    writeFile("new/.hidden", "12345");
    expectUsage(1 + 0 + 7 + 5, 4);
}

TEST_F(MaildirUsageTest, LinksOfTheMailAccountInPlaceOfNewAndCurCountAsEmpty) {
    writeFile("/var/qmail/elsewhere/1,S=5", "");
    for (const char* part : {"./new", "./cur"}) {
        ASSERT_EQ(rmdir(part), 0);
        makeLink("/var/qmail/elsewhere", part, POPUSER_UID);
    }
    expectUsage(0, 0);
}

TEST_F(MaildirUsageTest, LinksOfRootInPlaceOfNewAreFollowed) {
    writeFile("/var/qmail/elsewhere/1,S=5", "");
    ASSERT_EQ(rmdir("new"), 0);
    makeLink("/var/qmail/elsewhere", "./new");
    expectUsage(5, 1);
}

TEST_F(MaildirUsageTest, MessagesThatVanishMeanwhileAreLeftOut) {
    writeFile("cur/1", "12345");
    writeFile("cur/2,S=7", "");
    writeFile("new/3", "12345");
    onEntry = [](dirent64* entry) {
        (void)unlink((std::string("cur/") + entry->d_name).c_str());
        return 0;
    };
    expectUsage(7 + 5, 2);
}

TEST_F(MaildirUsageTest, EntriesOfUnknownTypeAreLookedAt) {
    writeFile(".Sent/cur/1,S=5", "");
    writeFile("./.file", "");
    makeLink(".Sent", "./.Link");
    onEntry = [](dirent64* entry) {
        entry->d_type = DT_UNKNOWN;
        return 0;
    };
    expectUsage(5, 1);
}

TEST_F(MaildirUsageTest, EntryOfUnknownTypeThatVanishesIsNamedAndSkipped) {
    writeFile(".gone/cur/1,S=5", "");
    writeFile(".stays/cur/1,S=6", "");
    onEntry = [](dirent64* entry) {
        entry->d_type = DT_UNKNOWN;
        if (std::string(entry->d_name) == ".gone")
            (void)std::rename(".gone", "gone");
        return 0;
    };
    expectUsage(6, 1);
    EXPECT_EQ(streams.err(), "unable to stat('.gone'). Continue.\n");
    EXPECT_EQ(streams.out(), "");
}

TEST_F(MaildirUsageTest, ReadErrorAnywhereEndsTheCount) {
    for (const char* last : {"in-new", "in-cur", ".folder", "in-folder"}) {
        SCOPED_TRACE(last);
        writeFile("new/in-new", "");
        writeFile("cur/in-cur", "");
        writeFile(".folder/cur/in-folder", "");
        onEntry = [last](dirent64* entry) { return std::string(entry->d_name) == last ? EIO : 0; };
        EXPECT_EQ(count(), 0);
        EXPECT_EQ(errno, EIO);
    }
}

TEST_F(MaildirUsageTest, MessageThatCannotBeLookedAtEndsTheCount) {
    writeFile("cur/1", "12345", STRANGER_UID, STRANGER_GID, 0600);
    ASSERT_EQ(chown("cur", STRANGER_UID, STRANGER_GID), 0);
    ASSERT_EQ(chmod("cur", 0400), 0);
    const AsStranger rights;
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(MaildirUsageTest, MaildirThatCannotBeOpenedFails) {
    long long counted[2] = {};
    std::time_t time = 0;
    const NoDescriptors limit;
    EXPECT_EQ(get_maildirpp_messages_usage(&counted[0], &counted[1], &time), 0);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(MaildirUsageTest, NewestFolderTimeIsTheLatestOfNewAndCurAnywhere) {
    for (const char* part : {"new", "cur", ".Sent/new", ".Sent/cur"}) {
        makeDirectory(part);
        setMtime(part, PAST);
    }
    for (const char* part : {"new", "cur", ".Sent/new", ".Sent/cur"}) {
        SCOPED_TRACE(part);
        setMtime(part, PAST + 60);
        newest = 0;
        EXPECT_EQ(count(), 1);
        EXPECT_EQ(newest, PAST + 60);
        newest = 0;
        EXPECT_EQ(get_maildirpp_mtime(&newest), 1);
        EXPECT_EQ(newest, PAST + 60);
        setMtime(part, PAST);
    }
}

TEST_F(MaildirUsageTest, NewestTimeIsOnlyRaised) {
    setMtime("new", PAST);
    newest = PAST + 1;
    EXPECT_EQ(process_maildir_subdir("new", &bytes, &messages, &newest), 1);
    EXPECT_EQ(newest, PAST + 1);
    EXPECT_EQ(get_maildirpp_folder_mtime("new/..", &newest), 1);
    EXPECT_GT(newest, PAST + 1);  // that of cur
}

TEST_F(MaildirUsageTest, NewestTimeIsInWholeSeconds) {
    setMtime("new", {PAST, 999999999});
    setMtime("cur", {PAST, 1});
    newest = PAST;
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(newest, PAST);
    EXPECT_EQ(get_maildirpp_mtime(&newest), 1);
    EXPECT_EQ(newest, PAST);
}

TEST_F(MaildirUsageTest, SubdirectoryAddsToWhatTheCountersHold) {
    writeFile("cur/1,S=5", "");
    bytes = 10;
    messages = 1;
    EXPECT_EQ(process_maildir_subdir("cur", &bytes, &messages, &newest), 1);
    EXPECT_EQ(bytes, 15);
    EXPECT_EQ(messages, 2);
}

TEST_F(MaildirUsageTest, SubfolderAddsItsNewAndCur) {
    writeFile(".Sent/new/1,S=5", "");
    writeFile(".Sent/cur/2,S=7", "");
    bytes = 10;
    messages = 1;
    EXPECT_EQ(process_maildirpp_subfolder(".Sent", &bytes, &messages, &newest), 1);
    EXPECT_EQ(bytes, 22);
    EXPECT_EQ(messages, 3);
}

/// A path of exactly `length` characters to `name` in the current directory.
std::string longPath(std::size_t length, const std::string& name) {
    std::string path = (length - name.size()) % 2 == 0 ? "" : "/";
    while (path.size() + name.size() < length)
        path.insert(0, "./");
    return path + name;
}

TEST_F(MaildirUsageTest, MessagePathMayHave4095Characters) {
    const std::string name(200, 'm');
    writeFile("cur/" + name, "12345");
    for (const std::size_t length : {4095U, 4096U}) {
        SCOPED_TRACE(length);
        const std::string directory = longPath(length - 1 - name.size(), "cur");
        bytes = 0;
        messages = 0;
        errno = 0;
        const int counted = process_maildir_subdir(directory.c_str(), &bytes, &messages, &newest);
        EXPECT_EQ(counted, length == 4095 ? 1 : 0);
        EXPECT_EQ(bytes, length == 4095 ? 5 : 0);
        EXPECT_EQ(errno, length == 4095 ? 0 : ENAMETOOLONG);
    }
}

TEST_F(MaildirUsageTest, MessageWithItsSizeInTheNameNeedsNoPath) {
    writeFile("cur/" + std::string(200, 'm') + ",S=5", "");
    const std::string directory = longPath(4000, "cur");
    bytes = 0;
    EXPECT_EQ(process_maildir_subdir(directory.c_str(), &bytes, &messages, &newest), 1);
    EXPECT_EQ(bytes, 5);
}

TEST_F(MaildirUsageTest, FolderPathMustLeaveRoomForItsMarkerFile) {
    // "/maildirfolder" has 14 characters
    makeDirectory(".Sent");
    for (const std::size_t length : {4081U, 4082U}) {
        SCOPED_TRACE(length);
        const std::string folder = longPath(length, ".Sent");
        errno = 0;
        EXPECT_EQ(process_maildirpp_subfolder(folder.c_str(), &bytes, &messages, &newest),
                  length == 4081 ? 1 : 0);
        EXPECT_EQ(errno == ENAMETOOLONG, length == 4082);
    }
}

TEST_F(MaildirUsageTest, FolderTimeOfATooLongPathFails) {
    EXPECT_EQ(get_maildirpp_folder_mtime(longPath(4092, ".").c_str(), &newest), 0);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(MaildirUsageTest, FolderTimeLeavesOutWhatIsMissing) {
    makeDirectory(".Sent/cur");
    setMtime(".Sent/cur", PAST);
    EXPECT_EQ(get_maildirpp_folder_mtime(".Sent", &newest), 1);
    EXPECT_EQ(newest, PAST);
    EXPECT_EQ(get_maildirpp_folder_mtime(".none", &newest), 1);
    EXPECT_EQ(newest, PAST);
}

TEST_F(MaildirUsageTest, FolderTimeBehindALinkOfTheMailAccountCannotBeTold) {
    makeDirectory(".Sent/cur");
    makeLink("/var/qmail", ".Sent/new", POPUSER_UID);
    EXPECT_EQ(get_maildirpp_folder_mtime(".Sent", &newest), 0);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(get_maildirpp_mtime(&newest), 0);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(MaildirUsageTest, TimeOfTheMaildirItselfMayBeUntellable) {
    ASSERT_EQ(rmdir("cur"), 0);
    makeLink("/var/qmail", "./cur", POPUSER_UID);
    EXPECT_EQ(get_maildirpp_mtime(&newest), 0);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(MaildirUsageTest, EntryNamedAsAFolderThatIsNoneIsLogged) {
    writeFile("./.subscriptions", "");
    const std::string text =
        "Bad/unrecognized entry .subscriptions within Maildir folder " + MAILDIR + "\n";
    errno = EACCES;
    EXPECT_EQ(get_maildirpp_mtime(&newest), 1);
    EXPECT_EQ(message(), text);
}

TEST_F(MaildirUsageTest, EntryNamedAsAFolderThatVanishesIsLogged) {
    makeDirectory("./.gone");
    onEntry = [](dirent64* entry) {
        entry->d_type = DT_UNKNOWN;
        (void)rmdir(".gone");
        return 0;
    };
    EXPECT_EQ(get_maildirpp_mtime(&newest), 1);
    EXPECT_EQ(message(), "Bad/unrecognized entry .gone within Maildir folder " + MAILDIR + "\n");
}

TEST_F(MaildirUsageTest, FolderTimesAreFoundWithUnknownTypesToo) {
    makeDirectory(".Sent/cur");
    setMtime(".Sent/cur", PAST);
    setMtime("new", 0);
    setMtime("cur", 0);
    onEntry = [](dirent64* entry) {
        entry->d_type = DT_UNKNOWN;
        return 0;
    };
    EXPECT_EQ(get_maildirpp_mtime(&newest), 1);
    EXPECT_EQ(newest, PAST);
}

TEST_F(MaildirUsageTest, MaildirThatCannotBeOpenedIsLogged) {
    const std::string text =
        "Unable to open Maildir folder. Has it just been removed?\n"
        "System error 24: Too many open files\n";
    std::time_t time = 0;
    const NoDescriptors limit;
    EXPECT_EQ(get_maildirpp_mtime(&time), 0);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(message(), text);
}

TEST_F(MaildirUsageTest, MaildirThatCannotBeReadToItsEndIsLogged) {
    onEntry = [](dirent64*) { return EIO; };
    EXPECT_EQ(get_maildirpp_mtime(&newest), 0);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(message(),
              "Unable to open Maildir folder. Has it just been removed?\n"
              "System error 5: Input/output error\n");
}

/// Delivers a message, has it read and removes it, again and again until the parent is gone.
[[noreturn]] void moveMailForEver(pid_t parent) {
    for (unsigned i = 0; getppid() == parent; ++i) {
        const std::string name = std::to_string(i);
        writeFile("tmp/" + name, "1");
        (void)std::rename(("tmp/" + name).c_str(), ("new/" + name).c_str());
        (void)std::rename(("new/" + name).c_str(), ("cur/" + name + ":2,S").c_str());
        (void)unlink(("cur/" + name + ":2,S").c_str());
    }
    _exit(0);
}

TEST_F(MaildirUsageTest, DeliveriesMeanwhileDoNotDisturbTheCount) {
    writeFile("cur/0,S=1000", "");
    const ProcessResult result = runForked([this] {
        const pid_t counter = getpid();
        if (fork() == 0)
            moveMailForEver(counter);
        int counted = 0;
        for (int i = 0; i < 2000; ++i)
            counted += count() == 1 && bytes >= 1000 && messages >= 1;
        std::printf("%d", counted);
    });
    EXPECT_EQ(result.out, "2000");
}

}  // namespace
}  // namespace corvo::test
