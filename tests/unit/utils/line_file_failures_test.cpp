// Line files that cannot be changed as wanted: what is reported, and what stays.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/capabilities.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/utils/line_file_fixture.h"
#include "utils/file_lock.h"
#include "utils/guards.h"
#include "utils/line_file.h"

namespace corvo::test::lines {
namespace {

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

class LineFileWithoutMemoryTest : public WithoutMemoryTest {};

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

}  // namespace
}  // namespace corvo::test::lines
