#include "utils/line_file.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "tests/unit/utils/line_file_fixture.h"
#include "utils/file_lock.h"
#include "utils/guards.h"

using namespace corvo::test::lines;

namespace {

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

namespace corvo::test::lines {
namespace {

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

}  // namespace
}  // namespace corvo::test::lines
