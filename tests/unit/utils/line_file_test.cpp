#include "utils/line_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/capabilities.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/second_process.h"
#include "utils/file_lock.h"
#include "utils/guards.h"

using namespace corvo::test;

namespace {

/// Descriptors of files below this path are closed, and the close reported as failed.
const char* closesThatFail = nullptr;

/// What is written by calls of write(), one entry each, while it is wanted.
std::vector<std::string>* writes = nullptr;

/// Whether the last byte of a file cannot be read.
bool isLastByteUnreadable = false;

/// A file that gets this size as soon as something is read.
struct Growth {
    const char* path = nullptr;
    off_t size = 0;
} growth;

/// A file that others write to as soon as something is read.
const char* writtenToWhenRead = nullptr;

/// What the kernel does when somebody writes who is not root.
void loseSpecialBits(const char* path) {
    struct stat seen = {};
    if (::stat(path, &seen) != 0 || ::chmod(path, seen.st_mode & ACCESSPERMS) != 0)
        std::abort();
}

}  // namespace

// In front of the C library's.
extern "C" int close(int fd) {
    char path[PATH_MAX] = {};
    if (closesThatFail != nullptr) {
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        (void)!::readlink(link.c_str(), path, sizeof path - 1);
    }
    const int result = static_cast<int>(::syscall(SYS_close, fd));
    if (closesThatFail == nullptr || !std::string_view(path).starts_with(closesThatFail))
        return result;
    errno = EIO;
    return -1;
}

// In front of the C library's.
extern "C" ssize_t read(int fd, void* block, std::size_t size) {
    if (growth.path != nullptr && ::truncate(growth.path, growth.size) != 0)
        std::abort();
    if (writtenToWhenRead != nullptr)
        loseSpecialBits(writtenToWhenRead);
    return ::syscall(SYS_read, fd, block, size);
}

// In front of the C library's.
extern "C" ssize_t write(int fd, const void* block, std::size_t size) {
    if (writes != nullptr)
        writes->emplace_back(static_cast<const char*>(block), size);
    return ::syscall(SYS_write, fd, block, size);
}

// In front of the C library's.
extern "C" ssize_t pread(int fd, void* block, std::size_t size, off_t offset) {
    if (!isLastByteUnreadable)
        return ::syscall(SYS_pread64, fd, block, size, offset);
    errno = EIO;
    return -1;
}

namespace {

const std::string HOME = MAILNAMES + "/example.com/info";
const std::string PATH = HOME + "/.qmail";
const std::string TEMPORARY = PATH + ".tmp";

/// file_strings with a list that ends by itself.
int change(const std::vector<const char*>& lines, int action, int where,
           const std::string& path = PATH) {
    std::vector<const char*> list = lines;
    list.push_back(nullptr);
    return file_strings(path.c_str(), list.data(), action, where);
}

/// A message with the suffix that messlog2 adds.
std::string withError(const std::string& text, int error) {
    return text + "\nSystem error " + std::to_string(error) + ": " + std::strerror(error) + "\n";
}

std::string unableToOpen(const std::string& path, int error) {
    return withError("Unable to open file " + path + ": " + std::strerror(error) + "\n", error);
}

std::string unableToStat(int error) {
    return withError("file_str: Unable to stat file " + PATH + ": " + std::strerror(error) + "\n",
                     error);
}

class LineFileTest : public LoggingTest {
protected:
    LineFileTest() { makeDirectory(HOME); }

    void haveFile(const std::string& contents) {
        writeFile(PATH, contents, POPUSER_UID, POPUSER_GID, 0600);
    }

    /// What came on standard error alone.
    std::string errorLine() {
        EXPECT_EQ(streams.out(), "");
        return streams.err();
    }
};

class LineFileWithoutMemoryTest : public WithoutMemoryTest {};

struct Case {
    std::string before;
    std::vector<const char*> lines;
    int action;
    int where;
    std::string after;
};

const std::string LONG(9000, 'l');
const std::string LONG_LINE = LONG + "\n";
const std::string PIECE(4096, 'p');

const Case CASES[] = {
    // Appending, with and without newlines.
    {"a\n", {"b"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, "a\nb\n"},
    {"a\n", {"b\n", "c"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, "a\nb\nc\n"},
    {"a", {"b"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, "ab\n"},
    {"a\n", {""}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, "a\n\n"},
    {"a\n", {}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, "a\n"},
    {"", {LONG.c_str()}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, LONG_LINE},

    // Prepending.
    {"a\n", {"b"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND, "b\na\n"},
    {"a\nb", {"c\n", "d"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND, "c\nd\na\nb"},
    {"", {"a"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND, "a\n"},
    {LONG_LINE + "z", {"a"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND, "a\n" + LONG_LINE + "z"},
    {std::string("x\0y\n", 4),
     {"a"},
     FILE_STRINGS_ADD,
     FILE_STRINGS_PREPEND,
     std::string("a\nx\0y\n", 6)},

    // Exact lines; `where` does not matter.
    {"a\nab\n", {"a"}, FILE_STRINGS_REMOVE, 1, "ab\n"},
    {"a\nab\n", {"a\n"}, FILE_STRINGS_REMOVE, 0, "ab\n"},
    {"ab\na", {"a\n"}, FILE_STRINGS_REMOVE, 7, "ab\n"},
    {"a\nb\na\nc\n", {"a", "c"}, FILE_STRINGS_REMOVE, 1, "b\n"},
    {"a\n\nb\n", {""}, FILE_STRINGS_REMOVE, 1, "a\nb\n"},
    {"a \n", {"a"}, FILE_STRINGS_REMOVE, 1, "a \n"},
    {"a\r\n", {"a"}, FILE_STRINGS_REMOVE, 1, "a\r\n"},
    {"a\nb", {}, FILE_STRINGS_REMOVE, 1, "a\nb"},
    {LONG_LINE + "a\n", {LONG.c_str()}, FILE_STRINGS_REMOVE, 1, "a\n"},
    {PIECE + "a\n", {"a"}, FILE_STRINGS_REMOVE, 1, PIECE + "a\n"},
    {std::string("a\0b\na\n", 6), {"a"}, FILE_STRINGS_REMOVE, 1, std::string("a\0b\n", 4)},

    // Patterns.
    {"abc\nbc\nc\n", {"ab"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_PREFIX, "bc\nc\n"},
    {"abc\nab\n", {"ab\n"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_PREFIX, "abc\n"},
    {"abc\nbc\ncb", {"bc"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUFFIX, "cb"},
    {"a\nb", {"b"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUFFIX, "a\n"},
    {"a\n", {"a\n"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUFFIX, "a\n"},
    {"abc\nbd\nc\n", {"b"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUBSTRING, "c\n"},
    {"a\nb\nc\n", {"c", "a"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUBSTRING, "b\n"},
    {"a\nb\n", {"a"}, FILE_STRINGS_REMOVE_PATTERN, 3, "a\nb\n"},
    {PIECE + "end\na\n", {"end"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_SUFFIX, "a\n"},
    {PIECE + "x\n", {"x"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_PREFIX, PIECE + "x\n"},

    // Neither adding nor removing.
    {"a\n", {"b"}, FILE_STRINGS_ADD, 2, "a\n"},
    {"a\n", {"a"}, 3, 0, "a\n"},
};

}  // namespace

TEST_F(LineFileTest, ChangesLinesAndNothingElse) {
    for (const Case& c : CASES) {
        haveFile(c.before);
        const int before = openDescriptors();
        EXPECT_EQ(change(c.lines, c.action, c.where), 0);
        EXPECT_EQ(contentsOf(PATH), c.after)
            << "action " << c.action << ", where " << c.where << ", before: " << c.before;
        EXPECT_EQ(ownerOf(PATH), popuser());
        EXPECT_EQ(modeOf(PATH), "0600");
        EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
        EXPECT_EQ(openDescriptors(), before);
    }
}

TEST_F(LineFileTest, OneLineIsAListOfOne) {
    haveFile("a\n");
    EXPECT_EQ(file_str(PATH.c_str(), "b", FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 0);
    EXPECT_EQ(file_str(PATH.c_str(), "a", FILE_STRINGS_REMOVE, 1), 0);
    EXPECT_EQ(contentsOf(PATH), "b\n");
}

TEST_F(LineFileTest, SpecialModeBitsStayWithRootsFilesInRootsDirectories) {
    const struct {
        const char* what;
        uid_t fileOwner;
        uid_t folderOwner;
        mode_t folderMode;
        const char* mode;
    } cases[] = {{"root's in root's", 0, 0, 0755, "7751"},
                 {"popuser's in root's", POPUSER_UID, 0, 0755, "0751"},
                 {"root's in popuser's", 0, POPUSER_UID, 0755, "0751"},
                 {"root's where others may write", 0, 0, 0777, "0751"}};
    for (const auto& [what, fileOwner, folderOwner, folderMode, mode] : cases) {
        SCOPED_TRACE(what);
        for (const int action : {FILE_STRINGS_ADD, FILE_STRINGS_REMOVE}) {
            writeFile(PATH, "a\nb\n", fileOwner, STRANGER_GID, 07751);
            ASSERT_EQ(::chown(HOME.c_str(), folderOwner, 0), 0);
            ASSERT_EQ(::chmod(HOME.c_str(), folderMode), 0);
            EXPECT_EQ(change({"a"}, action, FILE_STRINGS_APPEND), 0);
            EXPECT_EQ(modeOf(PATH), mode) << "action " << action;
            EXPECT_EQ(ownerOf(PATH),
                      std::to_string(fileOwner) + ":" + std::to_string(STRANGER_GID));
        }
    }
}

TEST_F(LineFileTest, SpecialModeBitsThatVanishWhileTheFileIsReadStayAway) {
    for (const int action : {FILE_STRINGS_ADD, FILE_STRINGS_REMOVE, FILE_STRINGS_REMOVE_PATTERN}) {
        writeFile(PATH, "a\nb\n", 0, STRANGER_GID, 02775);
        writtenToWhenRead = PATH.c_str();
        EXPECT_EQ(change({"a"}, action, 0), 0);
        writtenToWhenRead = nullptr;
        EXPECT_EQ(modeOf(PATH), "0775") << "action " << action;
    }
}

TEST_F(LineFileTest, LockFileOfThePathStays) {
    haveFile("a\n");
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 0);
    const corvo::UniqueCString lockPath(mk_flock_path(PATH.c_str()));
    EXPECT_TRUE(exists(lockPath.get()));
    lock_handle* const lock = mk_nonblock_lock(PATH.c_str(), 1);
    EXPECT_TRUE(is_locked(lock));
    free_lock(lock);
}

TEST_F(LineFileTest, AppendingToAMissingFileCreatesItForTheProcess) {
    ::umask(027);
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 0);
    EXPECT_EQ(contentsOf(PATH), "a\n");
    EXPECT_EQ(ownerOf(PATH), "0:0");
    EXPECT_EQ(modeOf(PATH), "0640");
}

TEST_F(LineFileTest, PrependingToAMissingFileFails) {
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), unableToOpen(PATH, ENOENT));
    EXPECT_TRUE(namesIn(HOME).empty());
}

TEST_F(LineFileTest, RemovingFromAMissingFileFailsSilently) {
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(namesIn(HOME).empty());
}

TEST_F(LineFileTest, RemovingByPatternFromAMissingFileFails) {
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_PREFIX), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), unableToOpen(PATH, ENOENT));
    EXPECT_TRUE(namesIn(HOME).empty());
}

TEST_F(LineFileTest, AnythingElseWithAMissingFileDoesNothing) {
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, 2), 0);
    EXPECT_EQ(change({"a"}, 3, 0), 0);
    EXPECT_TRUE(namesIn(HOME).empty());
}

TEST_F(LineFileTest, MissingFolderIsAMissingFile) {
    const std::string path = HOME + "/missing/.qmail";
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, path), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), unableToOpen(path, ENOENT));
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1, path), 1);
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND, path), 1);
    EXPECT_EQ(message(), unableToOpen(path + ".tmp", ENOENT));
}

TEST_F(LineFileTest, WithoutLockNothingIsChanged) {
    haveFile("a\n");
    std::filesystem::remove_all("/run/lock/files");
    const corvo::UniqueCString lockPath(mk_flock_path(PATH.c_str()));
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), std::string("Unable to open file \"") + lockPath.get() +
                             "\": No such file or directory.\n"
                             "System error 2: No such file or directory\n" +
                             withError("Error occurred while locking the file " + PATH +
                                           ": No such file or directory\n",
                                       ENOENT));
    EXPECT_EQ(contentsOf(PATH), "a\n");
}

TEST_F(LineFileTest, LockThatCannotBeReleasedIsAFailureOfAFinishedChange) {
    haveFile("a\n");
    const corvo::UniqueCString lockPath(mk_flock_path(PATH.c_str()));
    const std::string text =
        withError(std::string("An error occured during closing '") + lockPath.get() +  // sic
                      "' file: Input/output error\n",
                  EIO) +
        withError("Error occurred while unlocking the file " + PATH + ": Input/output error\n",
                  EIO);
    closesThatFail = "/run/lock/files/";
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(message(), text);
    EXPECT_EQ(change({"b"}, FILE_STRINGS_REMOVE, 1, PATH + "x"), 1);
    closesThatFail = nullptr;
    EXPECT_EQ(errno, ENOENT) << "the first failure counts";
    EXPECT_NE(message().find("Error occurred while unlocking the file " + PATH + "x: "),
              std::string::npos);
    EXPECT_EQ(contentsOf(PATH), "a\nb\n");
}

TEST_F(LineFileTest, FileThatCannotBeLookedAtKeepsItsLockFromOthersOnly) {
    makeLink(PATH, PATH, POPUSER_UID);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
        EXPECT_EQ(errno, ELOOP);
        EXPECT_EQ(message(), unableToStat(ELOOP));
    }
    const ProcessResult other = runForked([] {
        const corvo::UniqueCString lockPath(mk_flock_path(PATH.c_str()));
        const corvo::UniqueFd file(::open(lockPath.get(), O_RDWR | O_CLOEXEC));
        if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0 || errno != EAGAIN)
            std::exit(1);
    });
    EXPECT_EQ(other.status, 0);
    free_lock(mk_lock(PATH.c_str(), 1));
}

TEST_F(LineFileTest, PathWithoutAFileIsNoFile) {
    const std::string path = HOME + "/";
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, path), 1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(message(), unableToOpen(path, EISDIR));
    const std::string tooLong = HOME + "/" + std::string(NAME_MAX + 1, 'n');
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, tooLong), 1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(message(),
              withError("file_str: Unable to stat file " + tooLong + ": File name too long\n",
                        ENAMETOOLONG));
    free_lock(mk_lock(tooLong.c_str(), 1));
}

TEST_F(LineFileTest, TemporaryNameThatIsTooLongLeavesTheFile) {
    const std::string path = HOME + "/" + std::string(NAME_MAX, 'n');
    writeFile(path, "a\n");
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1, path), 1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(errorLine(), "Unable to open file " + path + ".tmp: File name too long\n");
    EXPECT_EQ(contentsOf(path), "a\n");
}

TEST_F(LineFileTest, StaleTemporaryFileIsReplaced) {
    for (const int action : {FILE_STRINGS_ADD, FILE_STRINGS_REMOVE, FILE_STRINGS_REMOVE_PATTERN}) {
        haveFile("a\nb\n");
        writeFile(TEMPORARY, "left by a crash, and longer than what is written now\n");
        EXPECT_EQ(change({"a"}, action, 0), 0);
        EXPECT_EQ(contentsOf(PATH), action == FILE_STRINGS_ADD ? "a\na\nb\n" : "b\n");
        EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
    }
}

TEST_F(LineFileTest, PlantedTemporaryFileIsNotFollowed) {
    writeFile("/var/qmail/canary", "alive", 0, 0, 0600);
    for (const uid_t owner : {uid_t{0}, POPUSER_UID}) {
        haveFile("a\nb\n");
        makeLink("/var/qmail/canary", TEMPORARY, owner);
        EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 0);
        EXPECT_EQ(contentsOf(PATH), "b\n");
    }
    haveFile("a\nb\n");
    std::filesystem::create_hard_link("/var/qmail/canary", TEMPORARY);
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 0);
    EXPECT_EQ(contentsOf("/var/qmail/canary"), "alive");
    EXPECT_EQ(ownerOf("/var/qmail/canary"), "0:0");
}

TEST_F(LineFileTest, TemporaryFileThatCannotBeMadeIsReported) {
    haveFile("a\n");
    makeDirectory(TEMPORARY);
    const std::string text = "Unable to open file " + TEMPORARY + ": Is a directory\n";
    for (const int action : {FILE_STRINGS_REMOVE, FILE_STRINGS_REMOVE_PATTERN}) {
        EXPECT_EQ(change({"a"}, action, 0), 1);
        EXPECT_EQ(errno, EISDIR);
        EXPECT_EQ(errorLine(), text);
    }
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND), 1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(message(), withError(text, EISDIR));
    EXPECT_EQ(contentsOf(PATH), "a\n");
}

TEST_F(LineFileTest, RootsLinksWorkAsWithPlainCalls) {
    writeFile("/var/qmail/real/.qmail", "a\n", POPUSER_UID, POPUSER_GID, 0600);
    makeLink("/var/qmail/real/.qmail", PATH);
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 0);
    EXPECT_EQ(contentsOf("/var/qmail/real/.qmail"), "a\nb\n");
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(PATH)) << "the rename replaces the link";
    EXPECT_EQ(contentsOf(PATH), "b\n");
    EXPECT_EQ(ownerOf(PATH), popuser());
    EXPECT_EQ(modeOf(PATH), "0600");
}

TEST_F(LineFileTest, RootsLinkAsFolderIsFollowed) {
    haveFile("a\n");
    std::filesystem::rename(HOME, "/var/qmail/real");
    makeLink("/var/qmail/real", HOME);
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND), 0);
    EXPECT_EQ(contentsOf("/var/qmail/real/.qmail"), "b\na\n");
}

TEST_F(LineFileTest, LinksOfOthersAreRefusedAtEachLevel) {
    for (const std::string& level : {MAILNAMES, MAILNAMES + "/example.com", HOME, PATH}) {
        resetSandbox();
        haveFile("a\n");
        std::filesystem::rename(level, "/var/qmail/real");
        makeLink("/var/qmail/real", level, POPUSER_UID);
        const std::string before = fingerprint("/var/qmail");
        for (const int action : {FILE_STRINGS_ADD, FILE_STRINGS_REMOVE}) {
            EXPECT_EQ(change({"a"}, action, 1), 1) << level;
            EXPECT_EQ(errno, ELOOP) << level;
            EXPECT_EQ(message(), unableToStat(ELOOP));
        }
        EXPECT_EQ(fingerprint("/var/qmail"), before);
    }
    free_lock(mk_lock(PATH.c_str(), 1));
}

TEST_F(LineFileTest, ForeignHardLinksAreNeitherWrittenNorHandedOut) {
    writeFile("/var/qmail/secret", "secret\n", 0, 0, 0600);
    chownToPopuser(HOME);
    std::filesystem::create_hard_link("/var/qmail/secret", PATH);
    const std::string before = fingerprint("/var/qmail");
    const Case cases[] = {{"", {"a"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND, ""},
                          {"", {"a"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND, ""},
                          {"", {"a"}, FILE_STRINGS_REMOVE, 1, ""},
                          {"", {"a"}, FILE_STRINGS_REMOVE_PATTERN, 1, ""}};
    for (const Case& c : cases) {
        EXPECT_EQ(change(c.lines, c.action, c.where), 1) << c.action;
        EXPECT_EQ(errno, EPERM) << c.action;
        EXPECT_EQ(message(), unableToOpen(PATH, EPERM));
    }
    EXPECT_EQ(fingerprint("/var/qmail"), before);
}

TEST_F(LineFileTest, FurtherNamesInADirectoryOfRootsDoNotMatter) {
    for (const int action : {FILE_STRINGS_ADD, FILE_STRINGS_REMOVE}) {
        writeFile(PATH, "a\nb\n", 0, 0, 0600);
        std::filesystem::create_hard_link(PATH, "/var/qmail/backup");
        EXPECT_EQ(change({"a"}, action, FILE_STRINGS_APPEND), 0) << action;
        std::filesystem::remove("/var/qmail/backup");
    }
    EXPECT_EQ(contentsOf(PATH), "b\n");
}

TEST_F(LineFileTest, WhatIsNoFileIsRefusedAtOnce) {
    ASSERT_EQ(::mkfifo(PATH.c_str(), 0666), 0);
    for (const int action : {FILE_STRINGS_ADD, FILE_STRINGS_REMOVE}) {
        EXPECT_EQ(change({"a"}, action, 1), 1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(message(), unableToOpen(PATH, EINVAL));
    }
}

TEST_F(LineFileTest, HugeFilesAreNotRewritten) {
    haveFile("");
    ASSERT_EQ(::truncate(PATH.c_str(), (off_t{64} << 20) + 1), 0);
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(message(), unableToOpen(PATH, EFBIG));
    EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
}

TEST_F(LineFileTest, FileThatGrowsWhileItIsReadIsNotRewritten) {
    const std::string text = withError("Unable to read file " + PATH + ": File too large\n", EFBIG);
    for (const int action : {FILE_STRINGS_ADD, FILE_STRINGS_REMOVE, FILE_STRINGS_REMOVE_PATTERN}) {
        haveFile("a\nb\n");
        growth = {PATH.c_str(), (off_t{64} << 20) + 1};
        EXPECT_EQ(change({"a"}, action, 0), 1) << action;
        EXPECT_EQ(errno, EFBIG) << action;
        growth = {};
        EXPECT_EQ(message(), text);
        EXPECT_EQ(contentsOf(PATH).substr(0, 4), "a\nb\n");
        EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
    }
}

TEST_F(LineFileTest, FileThatGrowsToTheLimitIsRewritten) {
    haveFile("a\nb\n");
    growth = {PATH.c_str(), off_t{64} << 20};
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 0);
    growth = {};
    EXPECT_EQ(std::filesystem::file_size(PATH), (std::uintmax_t{64} << 20) - 2);
}

TEST_F(LineFileTest, OwnerThatCannotBeKeptLeavesTheOldFile) {
    haveFile("a\nb\n");
    {
        const WithoutCapabilities limit({CAP_CHOWN});
        EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 1);
        EXPECT_EQ(errno, EPERM);
    }
    EXPECT_EQ(message(), "file_str: ERROR: Unable to chown file " + PATH +
                             ": Operation not permitted\n"
                             "System error 1: Operation not permitted\n");
    EXPECT_EQ(contentsOf(PATH), "a\nb\n");
    EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
}

TEST_F(LineFileTest, ModeThatCannotBeKeptLeavesTheOldFile) {
    haveFile("a\nb\n");
    {
        const WithoutCapabilities limit({CAP_FOWNER});
        EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 1);
        EXPECT_EQ(errno, EPERM);
    }
    EXPECT_EQ(message(), "file_str: ERROR: Unable to chmod file " + PATH +
                             ": Operation not permitted\n"
                             "System error 1: Operation not permitted\n");
    EXPECT_EQ(contentsOf(PATH), "a\nb\n");
    EXPECT_EQ(ownerOf(PATH), popuser());
    EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
}

TEST_F(LineFileTest, AppendThatDoesNotReachTheDiskIsReported) {
    const SmallDisk disk(HOME, 4);
    haveFile("a\n");
    disk.fill();
    EXPECT_EQ(change({LONG.c_str()}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(message(),
              withError("Unable to write data into file " + PATH + ": No space left on device\n",
                        ENOSPC));
    EXPECT_EQ(contentsOf(PATH), "a\n");
    // Small enough to stay in the stream until it is closed, too large for what is left of the
    // page.
    EXPECT_EQ(change({std::string(4094, 'b').c_str()}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(message(),
              withError("Unable to close file " + PATH + ": No space left on device\n", ENOSPC));
    EXPECT_EQ(contentsOf(PATH), "a\n");
    EXPECT_EQ(change({"c"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 0);
    EXPECT_EQ(contentsOf(PATH), "a\nc\n");
}

TEST_F(LineFileTest, NewFileThatDoesNotReachTheDiskIsTakenBack) {
    const SmallDisk disk(HOME, 4);
    disk.fill(1);
    for (const std::string& line : {LONG, std::string(4094, 'b')}) {
        writeFile(HOME + "/rest", std::string(4096, 'x'));
        EXPECT_EQ(change({line.c_str()}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_NE(message(), "");
        EXPECT_FALSE(exists(PATH));
    }
}

TEST_F(LineFileTest, NewFileBehindRootsLinkIsEmptiedAndTheLinkStays) {
    const SmallDisk disk(HOME, 4);
    disk.fill();
    makeLink(HOME + "/real", PATH);
    EXPECT_EQ(change({"a"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
    EXPECT_EQ(message(),
              withError("Unable to close file " + PATH + ": No space left on device\n", ENOSPC));
    EXPECT_TRUE(std::filesystem::is_symlink(PATH));
    EXPECT_EQ(contentsOf(PATH), "");
}

TEST_F(LineFileTest, RewriteThatDoesNotReachTheDiskLeavesTheOldFile) {
    const SmallDisk disk(HOME, 4);
    const std::string contents = "a\n" + std::string(10000, 'b') + "\n" + std::string(500, 'c');
    haveFile(contents);
    const std::string longLine(10000, 'd');
    const std::string middleLine(10000, 'b');
    const Case cases[] = {
        {"", {longLine.c_str()}, FILE_STRINGS_ADD, 0, "Unable to write data into file "},
        {"", {"d"}, FILE_STRINGS_ADD, 0, "Unable to fputs to file "},
        {"", {"a"}, FILE_STRINGS_REMOVE_PATTERN, 0, "Unable to fputs to file "},
        {"", {"b"}, FILE_STRINGS_REMOVE_PATTERN, 0, "Unable to close file "},
        {"", {middleLine.c_str()}, FILE_STRINGS_REMOVE, 0, "Unable to close file "},
    };
    disk.fill();
    for (const Case& c : cases) {
        EXPECT_EQ(change(c.lines, c.action, c.where), 1) << c.after;
        EXPECT_EQ(errno, ENOSPC) << c.after;
        EXPECT_EQ(message(),
                  withError(c.after + TEMPORARY + ": No space left on device\n", ENOSPC));
        EXPECT_EQ(contentsOf(PATH), contents);
        EXPECT_FALSE(exists(TEMPORARY));
    }
}

TEST_F(LineFileTest, LineThatCannotBeWrittenEndsTheProcess) {
    const SmallDisk disk(HOME, 4);
    const std::string contents = "a\n" + std::string(10000, 'b') + "\n";
    haveFile(contents);
    disk.fill();
    const ProcessResult result = runForked([] { change({"a"}, FILE_STRINGS_REMOVE, 1); });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "cannot write a line to " + TEMPORARY +
                              "\nSystem error 28: No space left on device\n");
    EXPECT_EQ(result.out, result.err);
    EXPECT_EQ(contentsOf(PATH), contents);
    EXPECT_FALSE(exists(TEMPORARY));
}

TEST_F(LineFileTest, FileSizeLimitIsAFailureToo) {
    haveFile("a\n");
    const ProcessResult result = runForked([] {
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit former = {};
        ::getrlimit(RLIMIT_FSIZE, &former);
        const struct rlimit limit = {1, former.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        for (const int where : {FILE_STRINGS_PREPEND, FILE_STRINGS_APPEND}) {
            if (change({"b"}, FILE_STRINGS_ADD, where) != 1 || errno != EFBIG)
                std::exit(1);
        }
        ::setrlimit(RLIMIT_FSIZE, &former);  // a coverage build writes its counters at the end
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
              withError("Unable to close file " + TEMPORARY + ": File too large\n", EFBIG) +
                  withError("Unable to close file " + PATH + ": File too large\n", EFBIG));
    EXPECT_EQ(result.out, result.err);
    EXPECT_EQ(contentsOf(PATH), "a\n");
    EXPECT_FALSE(exists(TEMPORARY));
}

TEST_F(LineFileTest, ReadOnlyFolderRefusesEveryChange) {
    haveFile("a\n");
    const ReadOnlyDisk disk(HOME);
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND), 1);
    EXPECT_EQ(message(), unableToOpen(PATH, EROFS));
    EXPECT_EQ(change({"b"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND), 1);
    EXPECT_EQ(message(), unableToOpen(TEMPORARY, EROFS));
    EXPECT_EQ(change({"a"}, FILE_STRINGS_REMOVE, 1), 1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(errorLine(), "Unable to open file " + TEMPORARY + ": Read-only file system\n");
    EXPECT_EQ(contentsOf(PATH), "a\n");
}

// A mount point cannot be renamed over.
TEST_F(LineFileTest, RenameThatFailsIsReportedAndFails) {
    haveFile("a\nb\n");
    ASSERT_EQ(::mount(PATH.c_str(), PATH.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(change({"c"}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND), 1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(errorLine(), "Unable to rename file " + TEMPORARY + ": Device or resource busy\n");
    for (const int action : {FILE_STRINGS_REMOVE, FILE_STRINGS_REMOVE_PATTERN}) {
        EXPECT_EQ(change({"a"}, action, 0), 1);
        EXPECT_EQ(errno, EBUSY);
        EXPECT_EQ(errorLine(),
                  "Error while rename file " + TEMPORARY + ": Device or resource busy\n");
    }
    ASSERT_EQ(::umount2(PATH.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(contentsOf(PATH), "a\nb\n");
    EXPECT_EQ(namesIn(HOME), std::vector<std::string>{".qmail"});
}

TEST_F(LineFileWithoutMemoryTest, LongLineLeavesTheOldFile) {
    makeDirectory(HOME);
    const std::string contents = "a\n" + std::string(1 << 20, 'b') + "\n";
    writeFile(PATH, contents);
    const ProcessResult result = runForked([] {
        exhaustMemory(std::size_t{64} * 1024);
        change({"a"}, FILE_STRINGS_REMOVE, 1);
    });
    EXPECT_EQ(result.err,
              withError("Unable to read file " + PATH + ": Cannot allocate memory\n", ENOMEM));
    EXPECT_EQ(contentsOf(PATH), contents);
    EXPECT_FALSE(exists(TEMPORARY));
}

TEST_F(LineFileWithoutMemoryTest, NothingIsLockedAndNothingChanged) {
    const ProcessResult result = runForked([] {
        exhaustMemory(64);
        std::exit(file_str(PATH.c_str(), "a", FILE_STRINGS_ADD, FILE_STRINGS_APPEND));
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "Can't allocate memory for error message\n");
    EXPECT_FALSE(exists(PATH));
    EXPECT_TRUE(namesIn("/run/lock/files").empty());
}

TEST_F(LineFileTest, AppendedLineContinuesNoOther) {
    const struct {
        std::string before;
        std::string after;
    } cases[] = {
        {"", "new\n"},
        {"\n", "\nnew\n"},
        {"old\n", "old\nnew\n"},
        {"old", "old\nnew\n"},
        {"old\n\n", "old\n\nnew\n"},
        {"old\nwithin", "old\nwithin\nnew\n"},
        {"old\r", "old\r\nnew\n"},
        {std::string("old\0", 4), std::string("old\0\nnew\n", 9)},
    };
    for (const auto& [before, after] : cases)
        for (const char* line : {"new", "new\n"}) {
            SCOPED_TRACE(before);
            writeFile(PATH, before, STRANGER_UID, STRANGER_GID, 0640);
            EXPECT_EQ(file_append_line(PATH.c_str(), line), 0);
            EXPECT_EQ(contentsOf(PATH), after);
            EXPECT_EQ(modeOf(PATH) + " " + ownerOf(PATH), "0640 1041:1042");
        }
}

TEST_F(LineFileTest, LineAppendedToAMissingFileCreatesIt) {
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 0);
    EXPECT_EQ(contentsOf(PATH), "new\n");
    EXPECT_EQ(modeOf(PATH) + " " + ownerOf(PATH), "0644 0:0");
}

TEST_F(LineFileTest, AppendedLineComesWithTheEndOfTheOneBeforeInOneWrite) {
    writeFile(PATH, "old");
    std::vector<std::string> seen;
    writes = &seen;
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 0);
    writes = nullptr;
    EXPECT_EQ(seen, std::vector<std::string>{"\nnew\n"});
}

TEST_F(LineFileTest, LineThatCannotBeAppendedLeavesTheOneBeforeAsItIs) {
    const SmallDisk disk(HOME, 4);
    const std::string page(4096, 'x');
    writeFile(PATH, page);
    disk.fill();
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(message(),
              withError("Unable to close file " + PATH + ": No space left on device\n", ENOSPC));
    EXPECT_EQ(contentsOf(PATH), page);
}

TEST_F(LineFileTest, FileWhoseEndCannotBeReadIsNotAppendedTo) {
    writeFile(PATH, "old");
    isLastByteUnreadable = true;
    EXPECT_EQ(file_append_line(PATH.c_str(), "new"), 1);
    isLastByteUnreadable = false;
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(message(), withError("Unable to read file " + PATH + ": Input/output error\n", EIO));
    EXPECT_EQ(contentsOf(PATH), "old");
}

TEST_F(LineFileTest, TwoProcessesLoseNoLine) {
    haveFile("");
    const auto work = [](const char* line) {
        int failures = 0;
        for (int i = 0; i < 100; ++i) {
            failures += change({line}, FILE_STRINGS_ADD, FILE_STRINGS_APPEND);
            failures += change({line}, FILE_STRINGS_ADD, FILE_STRINGS_PREPEND);
            failures += change({"nothing"}, FILE_STRINGS_REMOVE, 1);
        }
        return failures;
    };
    SecondProcess other([&](const SecondProcess::Ready& ready) {
        ready();
        if (work("b") != 0)
            ::_exit(1);
    });
    EXPECT_EQ(work("a"), 0);
    EXPECT_TRUE(other.endedWell());
    const std::string contents = contentsOf(PATH);
    EXPECT_EQ(std::count(contents.begin(), contents.end(), 'a'), 200);
    EXPECT_EQ(std::count(contents.begin(), contents.end(), 'b'), 200);
    EXPECT_EQ(contents.size(), 800U);
}

TEST_F(LineFileTest, StringsAreWrittenAsLines) {
    const char* const list[] = {"a", "b\n", "", "\n", nullptr};
    const corvo::UniqueFile stream(std::fopen((HOME + "/out").c_str(), "we"));
    EXPECT_EQ(write_strings(stream.get(), list), 0);
    (void)std::fflush(stream.get());
    EXPECT_EQ(contentsOf(HOME + "/out"), "a\nb\n\n\n");
}

/// Takes text, but no end of a line.
ssize_t refuseNewlines(void* /*cookie*/, const char* block, std::size_t size) {
    if (std::memchr(block, '\n', size) == nullptr)
        return static_cast<ssize_t>(size);
    errno = ENOSPC;
    return 0;
}

TEST_F(LineFileTest, ShortWriteOfTheAddedNewlineIsAFailure) {
    const char* const list[] = {"a", nullptr};
    const corvo::UniqueFile stream(
        ::fopencookie(nullptr, "w", {nullptr, refuseNewlines, nullptr, nullptr}));
    (void)std::setvbuf(stream.get(), nullptr, _IONBF, 0);
    EXPECT_EQ(write_strings(stream.get(), list), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(LineFileTest, ShortWriteIsAFailure) {
    const char* const list[] = {"a", nullptr};
    const corvo::UniqueFile stream(std::fopen("/dev/full", "we"));
    (void)std::setvbuf(stream.get(), nullptr, _IONBF, 0);
    EXPECT_EQ(write_strings(stream.get(), list), -1);
    EXPECT_EQ(errno, ENOSPC);
}
