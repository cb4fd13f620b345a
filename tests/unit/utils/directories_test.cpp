#include "utils/directories.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>

#include "tests/support/capabilities.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"
#include "utils/safe_path.h"

namespace corvo::test {
namespace {

const std::string DIR_PATH = MAILNAMES + "/d";

class DirectoriesTest : public LoggingTest {};

/// Makes `depth` directories below `top`, each in the one before, all called "d".
void nest(const std::string& top, int depth) {
    makeDirectory(top);
    corvo::UniqueFd directory = corvo::safe_path::openDirectory(AT_FDCWD, top.c_str());
    for (int i = 0; i < depth && directory; ++i)
        directory = corvo::safe_path::makeDirectories(directory.get(), "d", 0700);
    ASSERT_TRUE(directory);
}

std::string found(char* path) {
    const UniqueCString owner(path);
    return path != nullptr ? path : "";
}

TEST_F(DirectoriesTest, MakeDirGivesOwnerAndModeWhateverTheUmask) {
    ::umask(077);
    errno = EIO;
    EXPECT_EQ(make_dir(DIR_PATH.c_str(), 5, 6, 02755), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(ownerOf(DIR_PATH), "5:6");
    EXPECT_EQ(modeOf(DIR_PATH), "2755");
}

TEST_F(DirectoriesTest, MakeDirChangesAnExistingDirectory) {
    writeFile(DIR_PATH + "/file", "kept");
    EXPECT_EQ(make_dir((DIR_PATH + "/").c_str(), 5, 6, 0700), 0);
    EXPECT_EQ(ownerOf(DIR_PATH), "5:6");
    EXPECT_EQ(modeOf(DIR_PATH), "0700");
    EXPECT_EQ(contentsOf(DIR_PATH + "/file"), "kept");
}

TEST_F(DirectoriesTest, MakeDirWithoutParentFails) {
    const std::string path = DIR_PATH + "/e";
    EXPECT_EQ(make_dir(path.c_str(), 5, 6, 0700), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), "ERROR: Unable to mkdir " + path +
                             ": No such file or directory\n"
                             "\nSystem error 2: No such file or directory\n");
}

TEST_F(DirectoriesTest, MakeDirTellsChownFromChmod) {
    makeDirectory(DIR_PATH);
    ASSERT_EQ(::chown(DIR_PATH.c_str(), POPUSER_UID, POPUSER_GID), 0);
    {
        const WithoutCapabilities limit({CAP_CHOWN});
        EXPECT_EQ(make_dir(DIR_PATH.c_str(), 5, 6, 0700), -1);
        EXPECT_EQ(errno, EPERM);
    }
    EXPECT_EQ(message(), "ERROR: Unable to chown " + DIR_PATH +
                             ": Operation not permitted\n"
                             "\nSystem error 1: Operation not permitted\n");
    {
        const WithoutCapabilities limit({CAP_FOWNER});
        EXPECT_EQ(make_dir(DIR_PATH.c_str(), POPUSER_UID, POPUSER_GID, 0700), -1);
        EXPECT_EQ(errno, EPERM);
    }
    EXPECT_EQ(message(), "ERROR: Unable to chmod " + DIR_PATH +
                             ": Operation not permitted\n"
                             "\nSystem error 1: Operation not permitted\n");
}

TEST_F(DirectoriesTest, MakeDirAtAPlantedLinkIsAFailedChown) {
    makeDirectory("/var/qmail/canary");
    makeLink("/var/qmail/canary", DIR_PATH, POPUSER_UID);
    EXPECT_EQ(make_dir(DIR_PATH.c_str(), 5, 6, 0777), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(message(), "ERROR: Unable to chown " + DIR_PATH +
                             ": Too many levels of symbolic links\n"
                             "\nSystem error 40: Too many levels of symbolic links\n");
    EXPECT_EQ(ownerOf("/var/qmail/canary"), "0:0");
}

TEST_F(DirectoriesTest, MakeDirAtADanglingLinkIsNoFailure) {
    makeLink("/var/qmail/nowhere", DIR_PATH);
    EXPECT_EQ(make_dir(DIR_PATH.c_str(), 5, 6, 0700), 0);
    EXPECT_FALSE(exists("/var/qmail/nowhere"));
}

TEST_F(DirectoriesTest, MakeDirPMakesParentsWithPlainBits) {
    ::umask(077);
    EXPECT_EQ(make_dir_p((DIR_PATH + "/e/f").c_str(), 5, 6, 01775), 0);
    EXPECT_EQ(listTree(MAILNAMES),
              "d 0775 5:6 d\n"
              "d 0775 5:6 d/e\n"
              "d 1775 5:6 d/e/f\n");
    EXPECT_EQ(::umask(0), 077U);
}

TEST_F(DirectoriesTest, MakeDirRecObeysTheUmask) {
    ::umask(027);
    EXPECT_EQ(make_dir_rec((DIR_PATH + "//e/").c_str(), 5, 6, 0777), 0);
    EXPECT_EQ(listTree(MAILNAMES), "d 0750 5:6 d\nd 0750 5:6 d/e\n");
}

TEST_F(DirectoriesTest, MakeDirRecWorksRelativeToTheWorkingDirectory) {
    ASSERT_EQ(::chdir(MAILNAMES.c_str()), 0);
    EXPECT_EQ(make_dir_rec("d/e", 5, 6, 0700), 0);
    EXPECT_TRUE(exists(DIR_PATH + "/e"));
}

TEST_F(DirectoriesTest, MakeDirRecLeavesWhatExists) {
    makeDirectory(DIR_PATH);
    EXPECT_EQ(make_dir_rec(DIR_PATH.c_str(), 5, 6, 0700), 0);
    EXPECT_EQ(ownerOf(DIR_PATH), "0:0");
    EXPECT_EQ(modeOf(DIR_PATH), "0755");
}

TEST_F(DirectoriesTest, MakeDirRecReportsAFailedChownAndGoesOn) {
    {
        const WithoutCapabilities limit({CAP_CHOWN});
        EXPECT_EQ(make_dir_rec(DIR_PATH.c_str(), 5, 6, 0700), 0);
    }
    EXPECT_EQ(message(), "Cannot chown " + DIR_PATH +
                             ": Operation not permitted\n"
                             "System error 1: Operation not permitted\n");
    EXPECT_TRUE(exists(DIR_PATH));
}

TEST_F(DirectoriesTest, MakeDirRecEndsTheProcessWhenItCannot) {
    writeFile(DIR_PATH, "a file");
    const ProcessResult result =
        runForked([] { make_dir_rec((DIR_PATH + "/e").c_str(), 5, 6, 0700); });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "Cannot create directory " + DIR_PATH +
                              "/e: Not a directory\n"
                              "System error 20: Not a directory\n");
    EXPECT_EQ(result.out, result.err);
}

TEST_F(DirectoriesTest, MakeDirRecEndsTheProcessForPathsBeyondTheLimit) {
    for (const std::string& path : {std::string(), std::string(PATH_MAX + 10, '/') + "x"}) {
        const int error = path.empty() ? ENOENT : ENAMETOOLONG;
        const ProcessResult result = runForked([&] { make_dir_p(path.c_str(), 5, 6, 0700); });
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "Cannot create directory " + path + ": " + std::strerror(error) +
                                  "\nSystem error " + std::to_string(error) + ": " +
                                  std::strerror(error) + "\n");
        EXPECT_EQ(result.out, result.err);
    }
}

TEST_F(DirectoriesTest, NestedDirectoryIsCreated) {
    ::umask(027);
    EXPECT_EQ(createNestedDirectory((DIR_PATH + "/e").c_str(), 0777), 0);
    EXPECT_EQ(createNestedDirectory((DIR_PATH + "/e").c_str(), 0777), 0);
    EXPECT_EQ(listTree(MAILNAMES), "d 0750 0:0 d\nd 0750 0:0 d/e\n");
}

TEST_F(DirectoriesTest, NestedDirectoryThatCannotBeCreatedIsReported) {
    writeFile(DIR_PATH, "a file");
    EXPECT_EQ(createNestedDirectory(DIR_PATH.c_str(), 0777), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(message(), "Unable to create directory " + DIR_PATH +
                             ": Not a directory\n"
                             "\nSystem error 20: Not a directory\n");
}

TEST_F(DirectoriesTest, RenameMovesADirectory) {
    writeFile(DIR_PATH + "/file", "contents");
    const std::string to = MAILNAMES + "/e";
    EXPECT_EQ(rename_dir(DIR_PATH.c_str(), to.c_str()), 0);
    EXPECT_FALSE(exists(DIR_PATH));
    EXPECT_EQ(contentsOf(to + "/file"), "contents");
}

TEST_F(DirectoriesTest, RenameOfNothingIsNoFailure) {
    makeDirectory(MAILNAMES + "/e");
    EXPECT_EQ(rename_dir(DIR_PATH.c_str(), (MAILNAMES + "/e").c_str()), 0);
}

TEST_F(DirectoriesTest, RenameNeverReplaces) {
    makeDirectory(DIR_PATH);
    const std::string to = MAILNAMES + "/e";
    makeDirectory(to);
    EXPECT_EQ(rename_dir(DIR_PATH.c_str(), to.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(message(), "Directory rename error: target directory " + to + " already exists.\n");
    EXPECT_TRUE(exists(DIR_PATH));
}

TEST_F(DirectoriesTest, RenameThatFailsIsReported) {
    makeDirectory(DIR_PATH);
    const std::string to = DIR_PATH + "/e";
    EXPECT_EQ(rename_dir(DIR_PATH.c_str(), to.c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(message(), "Remaming " + DIR_PATH + " to " + to +  // sic
                             " failed: Invalid argument\n\nSystem error 22: Invalid argument\n");
}

TEST_F(DirectoriesTest, SizeIsTheSumOfAllThatIsNoDirectory) {
    writeFile(DIR_PATH + "/a", "12345");
    writeFile(DIR_PATH + "/e/b", "123");
    writeFile("/var/qmail/large", "1234567890");
    makeLink("/var/qmail/large", DIR_PATH + "/e/link");  // counts the 16 bytes of its target's name
    makeLink("/var/qmail", DIR_PATH + "/e/folder", POPUSER_UID);  // and 10 here
    ASSERT_EQ(::mkfifo((DIR_PATH + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(get_dir_size(DIR_PATH.c_str()), 5 + 3 + 16 + 10);
}

TEST_F(DirectoriesTest, SizeOfAnEmptyDirectoryIsZero) {
    makeDirectory(DIR_PATH + "/e");
    EXPECT_EQ(get_dir_size(DIR_PATH.c_str()), 0);
}

TEST_F(DirectoriesTest, SizeOfNoDirectoryIsAFailure) {
    EXPECT_EQ(get_dir_size(DIR_PATH.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    writeFile(DIR_PATH, "");
    EXPECT_EQ(get_dir_size(DIR_PATH.c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(DirectoriesTest, SizeBeyondTheLargestNumberIsHeldThere) {
    makeDirectory(DIR_PATH);
    for (const char* name : {"/a", "/b"}) {
        const corvo::UniqueFd file(
            ::open((DIR_PATH + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_EQ(::ftruncate(file.get(), LLONG_MAX), 0);
    }
    EXPECT_EQ(get_dir_size(DIR_PATH.c_str()), LLONG_MAX);
}

// What is listed is gone when it is looked at, or when it is entered.
TEST_F(DirectoriesTest, SizeLeavesOutWhatVanishesMeanwhile) {
    writeFile(DIR_PATH + "/e/file", "12345");
    for (const long vanished : {SYS_newfstatat, SYS_openat}) {
        const ProcessResult result = runForked([&] {
            failSystemCall(vanished, ENOENT);
            ::_exit(get_dir_size(DIR_PATH.c_str()) == 0 ? 0 : 1);
        });
        EXPECT_EQ(result.status, 0) << "system call " << vanished;
    }
}

TEST_F(DirectoriesTest, SizeIsUnknownWhereAnEntryCannotBeSeen) {
    writeFile(DIR_PATH + "/e/file", "12345");
    for (const long failing : {SYS_newfstatat, SYS_openat}) {
        const ProcessResult result = runForked([&] {
            failSystemCall(failing, EIO);
            ::_exit(get_dir_size(DIR_PATH.c_str()) == -1 && errno == EIO ? 0 : 1);
        });
        EXPECT_EQ(result.status, 0) << "system call " << failing;
    }
}

TEST_F(DirectoriesTest, TreesAreEnteredToTheDepthLimit) {
    nest(MAILNAMES + "/deep", corvo::safe_path::MAX_DEPTH);
    EXPECT_EQ(get_dir_size((MAILNAMES + "/deep").c_str()), 0);
    EXPECT_EQ(found(find_file((MAILNAMES + "/deep").c_str(), "x")), "");
    EXPECT_EQ(errno, ENOENT);
    nest(MAILNAMES + "/deeper", corvo::safe_path::MAX_DEPTH + 1);
    EXPECT_EQ(get_dir_size((MAILNAMES + "/deeper").c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(found(find_file((MAILNAMES + "/deeper").c_str(), "x")), "");
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(DirectoriesTest, EntriesOfTheWorkingDirectoryAreCounted) {
    ASSERT_EQ(::chdir(MAILNAMES.c_str()), 0);
    EXPECT_EQ(count_cur_dir(), 0);
    writeFile(MAILNAMES + "/.hidden", "");
    makeDirectory(MAILNAMES + "/e/f");
    EXPECT_EQ(count_cur_dir(), 2);
}

TEST_F(DirectoriesTest, RemovedWorkingDirectoryHasNoEntries) {
    makeDirectory(DIR_PATH);
    ASSERT_EQ(::chdir(DIR_PATH.c_str()), 0);
    std::filesystem::remove(DIR_PATH);
    EXPECT_EQ(count_cur_dir(), 0);
}

TEST_F(DirectoriesTest, WorkingDirectoryThatMayNotBeReadCannotBeCounted) {
    makeDirectory(DIR_PATH);
    ASSERT_EQ(::chmod(DIR_PATH.c_str(), 0700), 0);
    ASSERT_EQ(::chown(DIR_PATH.c_str(), POPUSER_UID, POPUSER_GID), 0);
    ASSERT_EQ(::chdir(DIR_PATH.c_str()), 0);
    const WithoutCapabilities limit({CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH});
    EXPECT_EQ(count_cur_dir(), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(DirectoriesTest, FileIsFoundHereBeforeBelow) {
    writeFile(DIR_PATH + "/e/f/wanted", "");
    makeDirectory(DIR_PATH + "/g");
    writeFile(DIR_PATH + "/file", "");
    EXPECT_EQ(found(find_file(DIR_PATH.c_str(), "wanted")), DIR_PATH + "/e/f/wanted");
    makeLink("/nowhere", DIR_PATH + "/e/wanted");
    EXPECT_EQ(found(find_file(DIR_PATH.c_str(), "wanted")), DIR_PATH + "/e/wanted");
    makeDirectory(DIR_PATH + "/wanted");
    EXPECT_EQ(found(find_file(DIR_PATH.c_str(), "wanted")), DIR_PATH + "/wanted");
}

TEST_F(DirectoriesTest, FileBehindALinkIsNotFound) {
    writeFile("/var/qmail/outside/wanted", "");
    makeLink("/var/qmail/outside", DIR_PATH + "/link");
    EXPECT_EQ(found(find_file(DIR_PATH.c_str(), "wanted")), "");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(DirectoriesTest, OnlyANameCanBeFound) {
    makeDirectory(DIR_PATH);
    for (const char* name : {"", ".", "..", "a/b"}) {
        EXPECT_EQ(found(find_file(MAILNAMES.c_str(), name)), "") << name;
        EXPECT_EQ(errno, EINVAL) << name;
    }
    EXPECT_EQ(found(find_file((DIR_PATH + "/missing").c_str(), "x")), "");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(DirectoriesTest, PathsBeyondTheLimitCannotBeFound) {
    const std::string name(200, 'n');
    makeDirectory(DIR_PATH);
    corvo::UniqueFd directory = corvo::safe_path::openDirectory(AT_FDCWD, DIR_PATH.c_str());
    for (std::size_t length = 0; length < PATH_MAX; length += name.size())
        directory = corvo::safe_path::makeDirectories(directory.get(), name.c_str(), 0700);
    ASSERT_EQ(::mkdirat(directory.get(), "wanted", 0700), 0);
    EXPECT_EQ(found(find_file(DIR_PATH.c_str(), "wanted")), "");
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(DirectoriesTest, FileIsFoundInAnyCase) {
    writeFile(DIR_PATH + "/ReadMe", "");
    EXPECT_EQ(found(find_case_file_in_dir(DIR_PATH.c_str(), "README")), "ReadMe");
    writeFile(DIR_PATH + "/README", "");
    writeFile(DIR_PATH + "/readme", "");
    EXPECT_EQ(found(find_case_file_in_dir(DIR_PATH.c_str(), "readme")), "readme");
    EXPECT_EQ(found(find_case_file_in_dir(DIR_PATH.c_str(), "README")), "README");
}

TEST_F(DirectoriesTest, FileOfAnotherNameIsNotFoundInAnyCase) {
    writeFile(DIR_PATH + "/e/readme", "");
    EXPECT_EQ(found(find_case_file_in_dir(DIR_PATH.c_str(), "readme")), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(found(find_case_file_in_dir((DIR_PATH + "/e/readme").c_str(), "x")), "");
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(DirectoriesTest, NoDescriptorStaysBehind) {
    writeFile(DIR_PATH + "/e/f/file", "");
    const int before = openDescriptors();
    (void)make_dir((DIR_PATH + "/g").c_str(), 1, 2, 0700);
    (void)make_dir_p((DIR_PATH + "/h/i").c_str(), 1, 2, 0700);
    (void)createNestedDirectory((DIR_PATH + "/j/k").c_str(), 0700);
    (void)rename_dir((DIR_PATH + "/g").c_str(), (DIR_PATH + "/l").c_str());
    (void)get_dir_size(DIR_PATH.c_str());
    (void)count_cur_dir();
    (void)found(find_file(DIR_PATH.c_str(), "file"));
    (void)found(find_case_file_in_dir(DIR_PATH.c_str(), "E"));
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace corvo::test
