#include "utils/safe_path.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "tests/support/acl.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/lease_holder.h"
#include "tests/support/process.h"
#include "tests/support/race.h"
#include "tests/support/sandbox.h"
#include "tests/unit/utils/safe_path_fixture.h"
#include "utils/accounts.h"

namespace corvo::test::paths {
namespace {

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

}  // namespace
}  // namespace corvo::test::paths
