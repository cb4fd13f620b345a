#include "utils/safe_path.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/acl.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/lease_holder.h"
#include "tests/support/process.h"
#include "tests/support/race.h"
#include "tests/support/sandbox.h"
#include "utils/accounts.h"

namespace safe_path = corvo::safe_path;
using namespace corvo::test;
using corvo::DirEntries;
using corvo::UniqueFd;
using safe_path::LastLink;
using safe_path::PermissionStep;
using ::testing::AnyOf;

namespace {

/// The next calls that fail.
struct Failures {
    int left = 0;
    int error = 0;

    /// Whether this call fails; errno is then set.
    bool next() {
        if (left == 0)
            return false;
        --left;
        errno = error;
        return true;
    }
};
Failures failuresOfFchown;
Failures failuresOfFchmod;

}  // namespace

// In front of the C library's.
extern "C" {

int fchown(int file, uid_t uid, gid_t gid) noexcept {
    return failuresOfFchown.next() ? -1 : static_cast<int>(::syscall(SYS_fchown, file, uid, gid));
}

int fchmod(int file, mode_t mode) noexcept {
    return failuresOfFchmod.next() ? -1 : static_cast<int>(::syscall(SYS_fchmod, file, mode));
}

}  // extern "C"

namespace {

const std::string DOMAIN = MAILNAMES + "/example.com";
const std::string HOME = DOMAIN + "/info";
const std::string FILE_PATH = HOME + "/.qmail";

class SafePathTest : public SandboxTest {
protected:
    SafePathTest() { writeFile(FILE_PATH, "old\n", POPUSER_UID, POPUSER_GID, 0600); }
};

/// 0, or the errno of a failure.
int errorOf(const UniqueFd& file) {
    return file ? 0 : errno;
}
int errorOf(int result) {
    return result >= 0 ? 0 : errno;
}

int openError(const std::string& path, int flags) {
    return errorOf(safe_path::openFile(AT_FDCWD, path.c_str(), flags, 0600));
}

int statusError(const std::string& path) {
    struct stat seen {};
    return errorOf(safe_path::status(AT_FDCWD, path.c_str(), seen));
}

int permissionError(const std::string& path) {
    PermissionStep failed{};
    return errorOf(safe_path::setOwnerAndMode(AT_FDCWD, path.c_str(), POPUSER_UID, POPUSER_GID,
                                              0600, &failed));
}

int unopenedPermissionError(const std::string& path, PermissionStep& failed) {
    return errorOf(
        safe_path::setOwnerAndModeUnopened(AT_FDCWD, path.c_str(), 5, 6, 02640, &failed));
}

void makeSocket(const std::string& path) {
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<struct sockaddr*>(&address), sizeof address),
              0);
}

/// Moves an entry away and puts a link to it in its place.
void replaceByLink(const std::string& path, uid_t owner) {
    const std::string moved = "/var/qmail/elsewhere";
    std::filesystem::rename(path, moved);
    makeLink(moved, path, owner);
}

/// Every way into the file, by the name of the call.
struct Way {
    const char* name;
    std::function<int()> error;
};

std::vector<Way> waysTo(const std::string& directory) {
    const std::string file = directory + "/.qmail";
    return {
        {"openFile", [=] { return openError(file, O_RDONLY); }},
        {"openFile to write", [=] { return openError(file, O_WRONLY | O_CREAT | O_TRUNC); }},
        {"openFile to create", [=] { return openError(file + "x", O_WRONLY | O_CREAT | O_EXCL); }},
        {"status", [=] { return statusError(file); }},
        {"setOwnerAndMode", [=] { return permissionError(file); }},
        {"openDirectory",
         [=] { return errorOf(safe_path::openDirectory(AT_FDCWD, directory.c_str())); }},
        {"openEntries",
         [=] { return safe_path::openEntries(AT_FDCWD, directory.c_str()) ? 0 : errno; }},
        {"makeDirectory",
         [=] {
             return errorOf(safe_path::makeDirectory(AT_FDCWD, (directory + "/d").c_str(), 0700));
         }},
        {"makeDirectories",
         [=] {
             return errorOf(
                 safe_path::makeDirectories(AT_FDCWD, (directory + "/e/f").c_str(), 0700));
         }},
        {"renameEntry",
         [=] {
             return errorOf(safe_path::renameEntry(AT_FDCWD, (directory + "/d").c_str(),
                                                   (directory + "/g").c_str()));
         }},
        {"unlinkEntry",
         [=] { return errorOf(safe_path::unlinkEntry(AT_FDCWD, (file + "x").c_str())); }},
        {"removeTree",
         [=] { return errorOf(safe_path::removeTree(AT_FDCWD, (directory + "/e").c_str())); }},
        {"changeDirectory", [=] { return errorOf(safe_path::changeDirectory(directory.c_str())); }},
    };
}

/// What a way comes to while only so many descriptors can be opened.
int errorWithDescriptors(unsigned left, const Way& way) {
    struct rlimit former {};
    ::getrlimit(RLIMIT_NOFILE, &former);
    const int lowestFree = ::dup(STDERR_FILENO);
    ::close(lowestFree);
    const struct rlimit limit = {static_cast<rlim_t>(lowestFree) + left, former.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int error = way.error();
    ::setrlimit(RLIMIT_NOFILE, &former);
    return error;
}

/// Asks a question with the rights of an ordinary account; 0 when the answer is yes.
int asStranger(const std::function<bool()>& question) {
    if (::seteuid(STRANGER_UID) != 0)
        return 99;
    const bool answer = question();
    return ::seteuid(0) == 0 && answer ? 0 : 1;
}

/// Nothing is at /proc for this process from now on: for forked children.
void hideProc() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0)
        std::abort();
}

}  // namespace

TEST_F(SafePathTest, HonestPathsAreOpen) {
    for (const Way& way : waysTo(HOME))
        EXPECT_EQ(way.error(), 0) << way.name;
}

TEST_F(SafePathTest, RootsLinksAreFollowedAtEachLevel) {
    for (const std::string& level : {MAILNAMES, DOMAIN, HOME}) {
        resetSandbox();
        writeFile(FILE_PATH, "old\n");
        replaceByLink(level, 0);
        for (const Way& way : waysTo(HOME))
            EXPECT_EQ(way.error(), 0) << way.name << " through a link at " << level;
    }
}

TEST_F(SafePathTest, LinksOfOthersAreRefusedAtEachLevel) {
    for (const std::string& level : {MAILNAMES, DOMAIN, HOME}) {
        resetSandbox();
        writeFile(FILE_PATH, "old\n");
        replaceByLink(level, POPUSER_UID);
        const std::string before = fingerprint("/var/qmail");
        for (const Way& way : waysTo(HOME))
            EXPECT_EQ(way.error(), ELOOP) << way.name << " through a link at " << level;
        EXPECT_EQ(fingerprint("/var/qmail"), before);
    }
}

TEST_F(SafePathTest, LinksAsFilesAreFollowedWhenRootOwnsThem) {
    replaceByLink(FILE_PATH, 0);
    EXPECT_EQ(openError(FILE_PATH, O_WRONLY | O_TRUNC), 0);
    EXPECT_EQ(contentsOf("/var/qmail/elsewhere"), "");
    EXPECT_EQ(statusError(FILE_PATH), 0);
    EXPECT_EQ(permissionError(FILE_PATH), 0);
}

TEST_F(SafePathTest, LinksAsFilesAreRefusedWhenOthersOwnThem) {
    replaceByLink(FILE_PATH, POPUSER_UID);
    EXPECT_EQ(openError(FILE_PATH, O_RDONLY), ELOOP);
    EXPECT_EQ(openError(FILE_PATH, O_WRONLY | O_CREAT | O_TRUNC), ELOOP);
    EXPECT_EQ(statusError(FILE_PATH), ELOOP);
    EXPECT_EQ(permissionError(FILE_PATH), ELOOP);
    EXPECT_EQ(contentsOf("/var/qmail/elsewhere"), "old\n");
}

TEST_F(SafePathTest, StatusOfANameInAnOpenDirectoryLooksThroughTrustedLinksOnly) {
    makeLink("/etc/passwd", HOME + "/trusted");
    makeLink("/etc/passwd", HOME + "/foreign", POPUSER_UID);
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    struct stat seen {};
    ASSERT_EQ(safe_path::status(home.get(), "trusted", seen), 0);
    EXPECT_EQ(seen.st_ino, inodeOf("/etc/passwd"));
    EXPECT_EQ(safe_path::status(home.get(), "foreign", seen), -1);
    EXPECT_EQ(errno, ELOOP);
    ASSERT_EQ(safe_path::status(home.get(), ".qmail", seen), 0);
    EXPECT_EQ(seen.st_ino, inodeOf(FILE_PATH));
}

TEST_F(SafePathTest, RelativeTargetsStartWhereTheLinkStands) {
    makeLink("../../example.com/info/", DOMAIN + "/folder/link");
    EXPECT_EQ(openError(DOMAIN + "/folder/link/.qmail", O_RDONLY), 0);
    EXPECT_EQ(openError(DOMAIN + "/folder//link//.qmail", O_RDONLY), 0);
}

TEST_F(SafePathTest, FortyLinksAreFollowedAndNotOneMore) {
    makeLink(FILE_PATH, DOMAIN + "/l1");
    for (int i = 2; i <= 41; ++i)
        makeLink("l" + std::to_string(i - 1), DOMAIN + "/l" + std::to_string(i));
    EXPECT_EQ(openError(DOMAIN + "/l40", O_RDONLY), 0);
    EXPECT_EQ(openError(DOMAIN + "/l41", O_RDONLY), ELOOP);
}

TEST_F(SafePathTest, LinkThatPointsAtItselfIsALoop) {
    makeLink("loop", DOMAIN + "/loop");
    EXPECT_EQ(openError(DOMAIN + "/loop", O_RDONLY), ELOOP);
    EXPECT_EQ(statusError(DOMAIN + "/loop/below"), ELOOP);
}

TEST_F(SafePathTest, HardLinkToRootsLinkIsRefused) {
    chownToPopuser(HOME);
    makeLink("/etc/passwd", "/var/qmail/link");
    ASSERT_EQ(::linkat(AT_FDCWD, "/var/qmail/link", AT_FDCWD, (HOME + "/l").c_str(), 0), 0);
    EXPECT_EQ(openError(HOME + "/l", O_RDONLY), ELOOP);
}

TEST_F(SafePathTest, RunningUserFollowsOwnLinks) {
    makeLink(FILE_PATH, "/var/qmail/own", STRANGER_UID);
    makeLink(FILE_PATH, "/var/qmail/other", POPUSER_UID);
    ASSERT_EQ(::chmod(FILE_PATH.c_str(), 0644), 0);
    const ProcessResult result = runForked([] {
        std::exit(asStranger([] {
            return openError("/var/qmail/own", O_RDONLY) == 0 &&
                   openError("/var/qmail/other", O_RDONLY) == ELOOP;
        }));
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(SafePathTest, DanglingTrustedLinkLeadsACreationToItsTarget) {
    makeLink("made", HOME + "/link");
    EXPECT_EQ(openError(HOME + "/link", O_RDONLY), ENOENT);
    EXPECT_EQ(openError(HOME + "/link", O_WRONLY | O_CREAT | O_EXCL), EEXIST);
    EXPECT_FALSE(exists(HOME + "/made"));
    EXPECT_EQ(openError(HOME + "/link", O_WRONLY | O_CREAT), 0);
    EXPECT_EQ(modeOf(HOME + "/made"), "0600");
}

TEST_F(SafePathTest, ExclusiveCreationBehindATrustedLinkWorks) {
    makeLink(HOME, DOMAIN + "/link");
    EXPECT_EQ(openError(DOMAIN + "/link/new", O_WRONLY | O_CREAT | O_EXCL), 0);
    EXPECT_EQ(openError(DOMAIN + "/link/new", O_WRONLY | O_CREAT | O_EXCL), EEXIST);
}

TEST_F(SafePathTest, OnlyRegularFilesAreOpenedAsFiles) {
    ASSERT_EQ(::mkfifo((HOME + "/fifo").c_str(), 0666), 0);
    makeSocket(HOME + "/socket");
    ASSERT_EQ(::mknod((HOME + "/device").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    for (const char* name : {"/fifo", "/socket", "/device"}) {
        EXPECT_EQ(openError(HOME + name, O_RDONLY), EINVAL) << name;
        EXPECT_EQ(openError(HOME + name, O_WRONLY | O_CREAT | O_TRUNC), EINVAL) << name;
        EXPECT_EQ(openError(HOME + name, O_RDWR), EINVAL) << name;
        EXPECT_EQ(permissionError(HOME + name), EINVAL) << name;
        EXPECT_EQ(statusError(HOME + name), 0) << name;
        EXPECT_EQ(errorOf(safe_path::openDirectory(AT_FDCWD, (HOME + name).c_str())), ENOTDIR);
    }
    EXPECT_EQ(openError(HOME, O_RDONLY), EINVAL);
    EXPECT_EQ(openError(HOME, O_WRONLY), EISDIR);
}

TEST_F(SafePathTest, LeasesAreWaitedFor) {
    makeLink(HOME, DOMAIN + "/trusted");
    for (const std::string& path : {FILE_PATH, DOMAIN + "/trusted/.qmail"}) {
        for (const int flags : {O_RDONLY, O_RDWR, O_WRONLY | O_CREAT | O_TRUNC}) {
            LeaseHolder holder(FILE_PATH);
            EXPECT_EQ(openError(path, flags), 0) << path << " with " << flags;
            EXPECT_TRUE(holder.gaveWay());
        }
        LeaseHolder holder(FILE_PATH);
        EXPECT_EQ(permissionError(path), 0) << path;
        EXPECT_TRUE(holder.gaveWay());
    }
    EXPECT_EQ(contentsOf(FILE_PATH), "");
}

TEST_F(SafePathTest, LeasesAreWaitedForWhereTheKernelCannotWalkAlone) {
    LeaseHolder holder(FILE_PATH);
    const ProcessResult result = runForked([] {
        failSystemCall(SYS_openat2, ENOSYS);
        std::exit(openError(FILE_PATH, O_RDWR));
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(holder.gaveWay());
}

TEST_F(SafePathTest, LeasesAreNotWaitedForWithoutProc) {
    const LeaseHolder holder(FILE_PATH);
    const ProcessResult result = runForked([] {
        hideProc();
        ::_exit(openError(FILE_PATH, O_RDWR));  // a sanitizer's exit needs /proc
    });
    EXPECT_EQ(result.status, EAGAIN);
}

TEST_F(SafePathTest, NothingIsWaitedForButTheLeaseOnARegularFile) {
    ASSERT_EQ(::mkfifo((HOME + "/fifo").c_str(), 0666), 0);
    makeLink(FILE_PATH, HOME + "/trusted");
    makeLink(HOME, DOMAIN + "/folder");
    makeLink(FILE_PATH, HOME + "/foreign", POPUSER_UID);
    const struct {
        std::string path;
        int flags;
        int error;
    } cases[] = {{FILE_PATH, O_RDONLY, 0},
                 {FILE_PATH, O_WRONLY | O_CREAT | O_NOFOLLOW, 0},
                 {HOME + "/trusted", O_RDONLY, 0},
                 {DOMAIN + "/folder/.qmail", O_RDONLY | O_NOFOLLOW, 0},
                 {HOME + "/trusted", O_RDONLY | O_NOFOLLOW, EAGAIN},
                 {DOMAIN + "/folder/trusted", O_RDONLY | O_NOFOLLOW, EAGAIN},
                 {HOME + "/foreign", O_RDONLY, EAGAIN},
                 {HOME + "/fifo", O_RDONLY, EAGAIN},
                 {HOME, O_RDONLY, EAGAIN},
                 {HOME + "/missing", O_WRONLY | O_CREAT, EAGAIN}};
    for (const auto& [path, flags, error] : cases) {
        errno = EAGAIN;
        EXPECT_EQ(errorOf(safe_path::awaitLease(UniqueFd(), AT_FDCWD, path.c_str(),
                                                flags | O_NONBLOCK | O_CLOEXEC)),
                  error)
            << path << " with " << flags;
    }
    EXPECT_FALSE(exists(HOME + "/missing"));
    errno = EACCES;
    EXPECT_EQ(errorOf(safe_path::awaitLease(UniqueFd(), AT_FDCWD, FILE_PATH.c_str(), O_RDONLY)),
              EACCES);
}

TEST_F(SafePathTest, ForeignHardLinksAreNotWritten) {
    chownToPopuser(HOME);
    writeFile("/var/qmail/secret", "secret\n", 0, 0, 0600);
    std::filesystem::create_hard_link("/var/qmail/secret", HOME + "/planted");
    EXPECT_EQ(openError(HOME + "/planted", O_WRONLY | O_CREAT | O_TRUNC), EPERM);
    EXPECT_EQ(openError(HOME + "/planted", O_RDWR), EPERM);
    EXPECT_EQ(permissionError(HOME + "/planted"), EPERM);
    EXPECT_EQ(openError(HOME + "/planted", O_RDONLY), 0);
    EXPECT_EQ(contentsOf("/var/qmail/secret"), "secret\n");
    EXPECT_EQ(ownerOf("/var/qmail/secret"), "0:0");
}

TEST_F(SafePathTest, PopusersOwnHardLinksAreWritten) {
    std::filesystem::create_hard_link(FILE_PATH, HOME + "/second");
    EXPECT_EQ(openError(FILE_PATH, O_WRONLY | O_TRUNC), 0);
    EXPECT_EQ(permissionError(FILE_PATH), 0);
    EXPECT_EQ(contentsOf(HOME + "/second"), "");
}

TEST_F(SafePathTest, WithoutPopuserEveryHardLinkIsForeign) {
    std::filesystem::create_hard_link(FILE_PATH, HOME + "/second");
    chownToPopuser(HOME);
    removeUser("popuser");
    EXPECT_EQ(openError(FILE_PATH, O_WRONLY | O_TRUNC), EPERM);
    EXPECT_EQ(contentsOf(FILE_PATH), "old\n");
}

TEST_F(SafePathTest, OnlyTheOwnHardLinksOfTheStoragesOwnerAreWritten) {
    std::filesystem::create_hard_link(FILE_PATH, HOME + "/second");
    chownToPopuser(HOME);
    safe_path::setStorageOwner([](uid_t uid) noexcept { return uid == POPUSER_UID + 1; });
    const int error = openError(FILE_PATH, O_WRONLY | O_TRUNC);
    safe_path::setStorageOwner(is_popuser);
    EXPECT_EQ(error, EPERM);
    EXPECT_EQ(contentsOf(FILE_PATH), "old\n");
}

TEST_F(SafePathTest, FurtherNamesAreRefusedWhereOthersMayHaveMadeThem) {
    const struct {
        const char* what;
        uid_t owner;
        mode_t mode;
        int fileError;
        int linkError;
    } cases[] = {{"root's alone", 0, 0755, 0, 0},
                 {"root's, to read for nobody", 0, 0700, 0, 0},
                 {"popuser's", POPUSER_UID, 0755, EPERM, ELOOP},
                 {"popuser's, who must not write", POPUSER_UID, 0555, EPERM, ELOOP},
                 {"the group's, too (or an ACL's)", 0, 0775, EPERM, ELOOP},
                 {"everybody's", 0, 0777, EPERM, ELOOP},
                 {"everybody's with a sticky bit", 0, 01777, EPERM, ELOOP}};
    writeFile(DOMAIN + "/folder/file", "", STRANGER_UID, STRANGER_GID, 0600);
    makeLink("file", DOMAIN + "/folder/link");
    std::filesystem::create_hard_link(DOMAIN + "/folder/file", "/var/qmail/file");
    std::filesystem::create_hard_link(DOMAIN + "/folder/link", "/var/qmail/link");
    makeLink("folder/file", DOMAIN + "/leads-to-file");
    for (const auto& [what, owner, mode, fileError, linkError] : cases) {
        SCOPED_TRACE(what);
        ASSERT_EQ(::chown((DOMAIN + "/folder").c_str(), owner, 0), 0);
        ASSERT_EQ(::chmod((DOMAIN + "/folder").c_str(), mode), 0);
        for (const std::string name : {"/folder/file", "/leads-to-file"}) {
            writeFile(DOMAIN + "/folder/file", "", STRANGER_UID, STRANGER_GID, 0600);
            EXPECT_EQ(openError(DOMAIN + name, O_WRONLY | O_CREAT), fileError);
            EXPECT_EQ(permissionError(DOMAIN + name), fileError);
            writeFile(DOMAIN + "/folder/file", "", STRANGER_UID, STRANGER_GID, 0600);
            PermissionStep failed{};
            EXPECT_EQ(unopenedPermissionError(DOMAIN + name, failed), fileError);
        }
        EXPECT_EQ(statusError(DOMAIN + "/folder/link"), linkError);
        char target[PATH_MAX];
        EXPECT_EQ(errorOf(static_cast<int>(safe_path::readTrustedLink(
                      AT_FDCWD, (DOMAIN + "/folder/link").c_str(), target, sizeof target))),
                  linkError);
    }
}

TEST_F(SafePathTest, AclThatLetsAnotherWriteIsSeenInTheGroupsBits) {
    writeFile(HOME + "/file", "", 0, 0, 0600);
    std::filesystem::create_hard_link(HOME + "/file", "/var/qmail/file");
    EXPECT_EQ(openError(HOME + "/file", O_WRONLY), 0);
    letPopuserWorkIn(HOME);
    EXPECT_EQ(openError(HOME + "/file", O_WRONLY), EPERM);
}

TEST_F(SafePathTest, EntryOfRootsIsThatOfTheNameItself) {
    writeFile(HOME + "/file", "", 0, 0, 0600);
    makeLink("file", HOME + "/link");
    struct stat file {};
    ASSERT_EQ(::stat((HOME + "/file").c_str(), &file), 0);
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    EXPECT_TRUE(safe_path::isRootsEntry(home.get(), "file", file));
    for (const char* name : {"link", ".qmail", "missing"})
        EXPECT_FALSE(safe_path::isRootsEntry(home.get(), name, file)) << name;
    ASSERT_EQ(safe_path::changeDirectory(HOME.c_str()), 0);
    EXPECT_TRUE(safe_path::isRootsEntry(AT_FDCWD, "file", file));
    EXPECT_FALSE(safe_path::isRootsEntry(-1, "file", file));
}

TEST_F(SafePathTest, OpenFileTellsTheStatusBeforeTheTruncation) {
    struct stat seen {};
    const UniqueFd file =
        safe_path::openFile(AT_FDCWD, FILE_PATH.c_str(), O_WRONLY | O_TRUNC, 0, seen);
    ASSERT_TRUE(file);
    EXPECT_EQ(seen.st_size, 4);
    EXPECT_EQ(seen.st_ino, inodeOf(FILE_PATH));
    EXPECT_EQ(contentsOf(FILE_PATH), "");
}

TEST_F(SafePathTest, ErrnosAreThoseOfPlainCalls) {
    const std::string longName(NAME_MAX + 1, 'n');
    const std::string longPath = "/" + std::string(PATH_MAX, '/') + "x";
    const struct {
        std::string path;
        int error;
    } cases[] = {
        {"", ENOENT},
        {HOME + "/missing", ENOENT},
        {FILE_PATH + "/below", ENOTDIR},
        {FILE_PATH + "/", ENOTDIR},
        {HOME + "/" + longName, ENAMETOOLONG},
        {longPath, ENAMETOOLONG},
    };
    for (const auto& [path, error] : cases) {
        EXPECT_EQ(statusError(path), error) << path;
        EXPECT_EQ(openError(path, O_RDONLY), error) << path;
        EXPECT_EQ(permissionError(path), error) << path;
        EXPECT_EQ(errorOf(safe_path::unlinkEntry(AT_FDCWD, path.c_str())), error) << path;
    }
}

TEST_F(SafePathTest, TheSameHoldsWhereTheKernelCannotWalkAlone) {
    makeLink(HOME, DOMAIN + "/trusted");
    makeLink(HOME, DOMAIN + "/foreign", POPUSER_UID);
    for (const int error : {ENOSYS, EPERM}) {
        const ProcessResult result = runForked([error] {
            failSystemCall(SYS_openat2, error);
            int failures = 0;
            for (const Way& way : waysTo(HOME))
                failures += way.error() != 0 ? 1 : 0;
            for (const Way& way : waysTo(DOMAIN + "/trusted"))
                failures += way.error() != 0 ? 1 : 0;
            for (const Way& way : waysTo(DOMAIN + "/foreign"))
                failures += way.error() != ELOOP ? 1 : 0;
            failures += statusError("") != ENOENT ? 1 : 0;
            failures += openError("", O_RDONLY) != ENOENT ? 1 : 0;
            failures += statusError("/") != 0 ? 1 : 0;
            failures += statusError(FILE_PATH + "/") != ENOTDIR ? 1 : 0;
            failures += statusError(HOME + "/missing/x") != ENOENT ? 1 : 0;
            failures += statusError(HOME + "/../info/./.qmail") != 0 ? 1 : 0;
            failures += statusError(HOME + "/" + std::string(NAME_MAX + 1, 'n')) != ENAMETOOLONG;
            failures += statusError(std::string(PATH_MAX + 1, '/')) != ENAMETOOLONG ? 1 : 0;
            failures += safe_path::changeDirectory(FILE_PATH.c_str()) == 0 ? 1 : 0;
            std::exit(failures);
        });
        EXPECT_EQ(result.status, 0) << "openat2 fails with " << std::strerror(error);
    }
}

TEST_F(SafePathTest, TargetsThatDoNotFitAreTooLong) {
    makeLink("/" + std::string(PATH_MAX - 300, '/'), DOMAIN + "/link");
    EXPECT_EQ(statusError(DOMAIN + "/link"), 0);
    EXPECT_EQ(statusError(DOMAIN + "/link" + std::string(400, '/')), ENAMETOOLONG);
}

TEST_F(SafePathTest, PermissionsAreSetOnFilesAndDirectories) {
    PermissionStep failed = PermissionStep::open;
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, HOME.c_str(), 5, 6, 02750, &failed), 0);
    EXPECT_EQ(ownerOf(HOME), "5:6");
    EXPECT_EQ(modeOf(HOME), "2750");
    EXPECT_EQ(failed, PermissionStep::open) << "untouched";
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, FILE_PATH.c_str(), 7, 8, 0640, nullptr), 0);
    EXPECT_EQ(ownerOf(FILE_PATH), "7:8");
    EXPECT_EQ(modeOf(FILE_PATH), "0640");
}

TEST_F(SafePathTest, PermissionFailuresNameTheirStep) {
    PermissionStep failed = PermissionStep::chmod;
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, "/missing", 0, 0, 0600, &failed), -1);
    EXPECT_EQ(failed, PermissionStep::open);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, "/missing", 0, 0, 0600, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    const UniqueFd path(::open(FILE_PATH.c_str(), O_PATH | O_CLOEXEC));
    EXPECT_EQ(safe_path::setOwnerAndMode(path.get(), 0, 0, 0600, &failed), -1);
    EXPECT_EQ(failed, PermissionStep::chown);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(safe_path::setOwnerAndMode(path.get(), 0, 0, 0600, nullptr), -1);
    const UniqueFd file(::open(FILE_PATH.c_str(), O_RDONLY | O_CLOEXEC));
    failuresOfFchmod = {1, EPERM};
    EXPECT_EQ(safe_path::setOwnerAndMode(file.get(), 0, 0, 0600, &failed), -1);
    EXPECT_EQ(failed, PermissionStep::chmod);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(SafePathTest, PermissionStepsAreRepeatedWhenASignalInterruptsThem) {
    failuresOfFchown = {2, EINTR};
    failuresOfFchmod = {2, EINTR};
    EXPECT_EQ(safe_path::setOwnerAndMode(AT_FDCWD, FILE_PATH.c_str(), 5, 6, 0640, nullptr), 0);
    EXPECT_EQ(failuresOfFchown.left, 0);
    EXPECT_EQ(failuresOfFchmod.left, 0);
    EXPECT_EQ(ownerOf(FILE_PATH), "5:6");
    EXPECT_EQ(modeOf(FILE_PATH), "0640");
}

TEST_F(SafePathTest, PermissionsOfAnUnopenedFileAreSet) {
    makeLink(FILE_PATH, HOME + "/link");
    for (const std::string& path : {FILE_PATH, HOME + "/link"}) {
        writeFile(FILE_PATH, "old\n", POPUSER_UID, POPUSER_GID, 0600);
        PermissionStep failed = PermissionStep::open;
        EXPECT_EQ(unopenedPermissionError(path, failed), 0);
        EXPECT_EQ(failed, PermissionStep::open) << "untouched";
        EXPECT_EQ(ownerOf(FILE_PATH) + " " + modeOf(FILE_PATH), "5:6 2640");
    }
}

TEST_F(SafePathTest, PermissionFailuresOfAnUnopenedFileNameTheirStep) {
    makeLink(FILE_PATH, HOME + "/link", POPUSER_UID);
    const struct {
        std::string path;
        int error;
    } cases[] = {{HOME + "/missing", ENOENT}, {HOME, EINVAL}, {HOME + "/link", ELOOP}};
    for (const auto& [path, error] : cases) {
        PermissionStep failed = PermissionStep::chmod;
        EXPECT_EQ(unopenedPermissionError(path, failed), error) << path;
        EXPECT_EQ(failed, PermissionStep::open) << path;
    }
    const ProcessResult result = runForked([] {
        failSystemCall(SYS_chmod, EROFS);
        PermissionStep failed = PermissionStep::open;
        if (unopenedPermissionError(FILE_PATH, failed) != EROFS || failed != PermissionStep::chmod)
            std::exit(1);
        failSystemCall(SYS_fchownat, EPERM);
        if (unopenedPermissionError(FILE_PATH, failed) != EPERM || failed != PermissionStep::chown)
            std::exit(2);
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(SafePathTest, ModeOfAnUnopenedFileNeedsProc) {
    const ProcessResult result = runForked([] {
        hideProc();
        PermissionStep failed = PermissionStep::open;
        const int error = unopenedPermissionError(FILE_PATH, failed);
        ::_exit(error == ENOENT && failed == PermissionStep::chmod ? 0 : 1);  // as above
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(modeOf(FILE_PATH), "0600");
}

TEST_F(SafePathTest, ComponentIsTheNameOfAnEntry) {
    using namespace std::string_view_literals;
    for (const std::string_view name : {"a"sv, "..."sv, ".a"sv, "..a"sv, " "sv})
        EXPECT_TRUE(safe_path::isComponent(name)) << name;
    for (const std::string_view name : {""sv, "."sv, ".."sv, "/"sv, "a/"sv, "/a"sv, "a\0b"sv})
        EXPECT_FALSE(safe_path::isComponent(name)) << name;
}

TEST_F(SafePathTest, LocateNamesTheParent) {
    safe_path::Location place;
    for (const char* name : {".qmail", "missing"}) {
        ASSERT_EQ(safe_path::locate(AT_FDCWD, (HOME + "/" + name).c_str(), LastLink::keep, place),
                  0);
        EXPECT_STREQ(place.name, name);
        struct stat seen {};
        ASSERT_EQ(::fstat(place.parent.get(), &seen), 0);
        EXPECT_EQ(seen.st_ino, inodeOf(HOME));
    }
}

TEST_F(SafePathTest, LocateWorksRelativeToItsBase) {
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    for (const LastLink last : {LastLink::keep, LastLink::follow}) {
        safe_path::Location place;
        ASSERT_EQ(safe_path::locate(home.get(), ".qmail", last, place), 0);
        EXPECT_NE(place.parent.get(), home.get());
        struct stat seen {};
        ASSERT_EQ(::fstatat(place.parent.get(), place.name, &seen, 0), 0);
        EXPECT_EQ(seen.st_ino, inodeOf(FILE_PATH));
    }
}

TEST_F(SafePathTest, LocateFollowsTheLastLinkOnlyWhenAsked) {
    makeLink("../info/target", DOMAIN + "/folder/trusted");
    makeLink("target", HOME + "/foreign", POPUSER_UID);
    const std::string trusted = DOMAIN + "/folder/trusted";
    safe_path::Location place;
    ASSERT_EQ(safe_path::locate(AT_FDCWD, trusted.c_str(), LastLink::keep, place), 0);
    EXPECT_STREQ(place.name, "trusted");
    ASSERT_EQ(safe_path::locate(AT_FDCWD, trusted.c_str(), LastLink::follow, place), 0);
    EXPECT_STREQ(place.name, "target");
    struct stat seen {};
    ASSERT_EQ(::fstat(place.parent.get(), &seen), 0);
    EXPECT_EQ(seen.st_ino, inodeOf(HOME));
    EXPECT_EQ(safe_path::locate(AT_FDCWD, (HOME + "/foreign").c_str(), LastLink::follow, place),
              -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(SafePathTest, LocateNeedsALastComponent) {
    makeLink(HOME + "/.", DOMAIN + "/dot");
    const std::string dot = DOMAIN + "/dot";
    safe_path::Location place;
    for (const std::string& path : {std::string(), std::string("/"), std::string("."),
                                    std::string(".."), HOME + "/", HOME + "/..", HOME + "/."}) {
        EXPECT_EQ(safe_path::locate(AT_FDCWD, path.c_str(), LastLink::keep, place), -1) << path;
        EXPECT_EQ(errno, EINVAL) << path;
    }
    EXPECT_EQ(safe_path::locate(AT_FDCWD, dot.c_str(), LastLink::follow, place), -1);
    EXPECT_EQ(errno, EINVAL);
    const std::string longName(NAME_MAX + 1, 'n');
    EXPECT_EQ(safe_path::locate(AT_FDCWD, longName.c_str(), LastLink::keep, place), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(SafePathTest, MakeDirectorySaysWhatItFound) {
    makeLink("/nowhere", HOME + "/dangling", POPUSER_UID);
    ::umask(027);
    const struct {
        std::string path;
        int result;
    } cases[] = {{HOME + "/new", 0}, {HOME + "/new", 1},      {HOME + "/slash/", 0},
                 {FILE_PATH, 1},     {HOME + "/dangling", 1}, {HOME + "/..", 1},
                 {"/", 1},           {HOME + "/a/b", -1}};
    for (const auto& [path, result] : cases)
        EXPECT_EQ(safe_path::makeDirectory(AT_FDCWD, path.c_str(), 0777), result) << path;
    EXPECT_EQ(modeOf(HOME + "/new"), "0750");
    EXPECT_FALSE(exists("/nowhere"));
}

TEST_F(SafePathTest, MakeDirectoriesMakesWhatIsMissing) {
    ::umask(077);
    const std::string path = MAILNAMES + "/d//e/../f/";
    const UniqueFd directory = safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0777);
    ASSERT_TRUE(directory);
    struct stat seen {};
    ASSERT_EQ(::fstat(directory.get(), &seen), 0);
    EXPECT_EQ(seen.st_ino, inodeOf(MAILNAMES + "/d/f"));
    EXPECT_EQ(modeOf(MAILNAMES + "/d"), "0700");
    EXPECT_TRUE(exists(MAILNAMES + "/d/e"));
    EXPECT_EQ(errorOf(safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0777)), 0);
}

TEST_F(SafePathTest, MakeDirectoriesWorksRelativeToItsBase) {
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    EXPECT_EQ(errorOf(safe_path::makeDirectories(home.get(), "Maildir/cur", 0700)), 0);
    EXPECT_EQ(modeOf(HOME + "/Maildir/cur"), "0700");
}

TEST_F(SafePathTest, MakeDirectoriesMakesNothingBehindADanglingLink) {
    makeLink("/var/qmail/unmounted", DOMAIN + "/link");
    const std::string path = DOMAIN + "/link/home";
    EXPECT_EQ(errorOf(safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0700)), ENOENT);
    EXPECT_FALSE(exists("/var/qmail/unmounted"));
}

TEST_F(SafePathTest, MakeDirectoriesFailsAsPlainCallsDo) {
    const struct {
        std::string path;
        int error;
    } cases[] = {{"", ENOENT},
                 {FILE_PATH, ENOTDIR},
                 {FILE_PATH + "/below", ENOTDIR},
                 {HOME + "/a/" + std::string(NAME_MAX + 1, 'n'), ENAMETOOLONG},
                 {std::string(PATH_MAX, '/'), ENAMETOOLONG}};
    for (const auto& [path, error] : cases)
        EXPECT_EQ(errorOf(safe_path::makeDirectories(AT_FDCWD, path.c_str(), 0700)), error) << path;
}

TEST_F(SafePathTest, RenameAndUnlinkActOnLinksThemselves) {
    makeLink(FILE_PATH, HOME + "/link", POPUSER_UID);
    ASSERT_EQ(safe_path::renameEntry(AT_FDCWD, (HOME + "/link").c_str(), (HOME + "/to").c_str()),
              0);
    EXPECT_EQ(std::filesystem::read_symlink(HOME + "/to"), FILE_PATH);
    ASSERT_EQ(safe_path::unlinkEntry(AT_FDCWD, (HOME + "/to").c_str()), 0);
    EXPECT_FALSE(exists(HOME + "/to"));
    EXPECT_EQ(contentsOf(FILE_PATH), "old\n");
}

TEST_F(SafePathTest, RemoveTreeRemovesAllAndFollowsNoLink) {
    writeFile(HOME + "/Maildir/cur/1", "mail");
    makeLink("/var/qmail/canary", HOME + "/Maildir/trusted");
    makeLink("/var/qmail/canary", HOME + "/Maildir/foreign", POPUSER_UID);
    writeFile("/var/qmail/canary/file", "alive");
    ASSERT_EQ(safe_path::removeTree(AT_FDCWD, DOMAIN.c_str()), 0);
    EXPECT_FALSE(exists(DOMAIN));
    EXPECT_EQ(contentsOf("/var/qmail/canary/file"), "alive");
}

TEST_F(SafePathTest, RemoveTreeOfALinkRemovesTheLink) {
    makeLink(HOME, DOMAIN + "/link");
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (DOMAIN + "/link").c_str()), 0);
    EXPECT_FALSE(exists(DOMAIN + "/link"));
    EXPECT_TRUE(exists(FILE_PATH));
}

TEST_F(SafePathTest, RemoveTreeOfNothingIsNoFailure) {
    for (const std::string& path : {std::string(), HOME + "/missing", HOME + "/missing/below"})
        EXPECT_EQ(safe_path::removeTree(AT_FDCWD, path.c_str()), 0) << path;
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (FILE_PATH + "/below").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(SafePathTest, RemoveTreeStopsAtTheDepthLimit) {
    const auto nest = [](int depth) {
        UniqueFd directory = safe_path::openDirectory(AT_FDCWD, DOMAIN.c_str());
        for (int i = 0; i < depth && directory; ++i)
            directory = safe_path::makeDirectories(directory.get(), "d", 0700);
        ASSERT_TRUE(directory);
    };
    nest(safe_path::MAX_DEPTH);
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (DOMAIN + "/d").c_str()), 0);
    nest(safe_path::MAX_DEPTH + 1);
    EXPECT_EQ(safe_path::removeTree(AT_FDCWD, (DOMAIN + "/d").c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(SafePathTest, EntriesComeWithoutDots) {
    writeFile(HOME + "/..odd", "");
    DirEntries entries = safe_path::openEntries(AT_FDCWD, HOME.c_str());
    ASSERT_TRUE(entries);
    std::vector<std::string> names;
    while (const auto* const entry = entries.next())
        names.emplace_back(entry->d_name);
    EXPECT_EQ(errno, 0);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"..odd", ".qmail"}));
}

TEST_F(SafePathTest, EntriesOfALastLinkAreReadOnlyWhenAsked) {
    makeLink(HOME, DOMAIN + "/link");
    const std::string link = DOMAIN + "/link";
    EXPECT_TRUE(safe_path::openEntries(AT_FDCWD, link.c_str()));
    EXPECT_FALSE(safe_path::openEntries(AT_FDCWD, link.c_str(), LastLink::keep));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(safe_path::openEntries(AT_FDCWD, (HOME + "/missing/x").c_str(), LastLink::keep));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SafePathTest, LinkIsReadWhenItIsFollowed) {
    char target[PATH_MAX] = {};
    makeLink("elsewhere", DOMAIN + "/ours");
    makeLink("elsewhere", DOMAIN + "/his", POPUSER_UID);
    const auto read = [&](const char* name) {
        return safe_path::readTrustedLink(AT_FDCWD, (DOMAIN + name).c_str(), target, sizeof target);
    };
    EXPECT_EQ(read("/ours"), 9);
    EXPECT_STREQ(target, "elsewhere");
    EXPECT_EQ(read("/his"), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(read("/missing"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read("/missing/x"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SafePathTest, ChangeDirectoryEntersWhatMayBeSearchedOnly) {
    ASSERT_EQ(::chmod(HOME.c_str(), 0711), 0);
    const ProcessResult result = runForked([] {
        std::exit(asStranger([] { return safe_path::changeDirectory(HOME.c_str()) == 0; }));
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(SafePathTest, NoDescriptorStaysBehind) {
    makeLink(HOME, DOMAIN + "/trusted");
    makeLink(HOME, DOMAIN + "/foreign", POPUSER_UID);
    const int before = openDescriptors();
    for (const std::string& home : {HOME, DOMAIN + "/trusted", DOMAIN + "/foreign"})
        for (const Way& way : waysTo(home))
            (void)way.error();
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SafePathTest, ScarceDescriptorsAreAFailureAndNoneIsLost) {
    makeLink(HOME, DOMAIN + "/trusted");
    writeFile(HOME + "/e/f/file", "");
    const int before = openDescriptors();
    for (const std::string& home : {HOME, DOMAIN + "/trusted"}) {
        for (const Way& way : waysTo(home))
            EXPECT_EQ(errorWithDescriptors(0, way), EMFILE) << way.name;
        for (unsigned left = 1; left < 5; ++left)
            for (const Way& way : waysTo(home))
                EXPECT_THAT(errorWithDescriptors(left, way), AnyOf(0, EMFILE, ENOENT, EEXIST))
                    << way.name << " with " << left;
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SafePathTest, LocateNeedsADescriptorOfItsOwn) {
    const UniqueFd home = safe_path::openDirectory(AT_FDCWD, HOME.c_str());
    safe_path::Location place;
    const Way way = {
        "locate",
        [&] { return errorOf(safe_path::locate(home.get(), ".qmail", LastLink::keep, place)); }};
    EXPECT_EQ(errorWithDescriptors(0, way), EMFILE);
    EXPECT_FALSE(place.parent);
    EXPECT_EQ(errorWithDescriptors(1, way), 0);
}

TEST_F(SafePathTest, OpenedDescriptorsAreCloseOnExec) {
    makeLink(HOME, DOMAIN + "/trusted");
    for (const std::string& home : {HOME, DOMAIN + "/trusted"}) {
        const UniqueFd directory = safe_path::openDirectory(AT_FDCWD, home.c_str());
        const UniqueFd file = safe_path::openFile(AT_FDCWD, (home + "/.qmail").c_str(), O_RDONLY);
        EXPECT_EQ(::fcntl(directory.get(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(file.get(), F_GETFD), FD_CLOEXEC);
    }
}

// What the link points at must stay.
TEST_F(SafePathTest, RacedLinksAreNeverFollowed) {
    writeFile("/var/qmail/canary", "alive", 0, 0, 0600);
    const std::string link = HOME + "/link";
    makeLink("/var/qmail/canary", link, POPUSER_UID);
    const Racer racer([&] { exchange(FILE_PATH, link); });
    int met = 0;
    // On a busy machine the other process may not run for a long while.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int i = 0; i < 4000 || (met == 0 && std::chrono::steady_clock::now() < deadline); ++i) {
        met += openError(FILE_PATH, O_WRONLY | O_CREAT | O_TRUNC) == ELOOP ? 1 : 0;
        met += permissionError(FILE_PATH) == ELOOP ? 1 : 0;
    }
    EXPECT_GT(met, 0) << "the race was never on";
    EXPECT_EQ(contentsOf("/var/qmail/canary"), "alive");
    EXPECT_EQ(ownerOf("/var/qmail/canary"), "0:0");
}
