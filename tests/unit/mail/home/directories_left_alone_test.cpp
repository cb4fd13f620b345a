// Directories that are as they should be, and those that are not.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "mail/home/differences.h"
#include "mail/home/fs_error.h"
#include "mail/home/maildir_manager.h"
#include "mail/home/skeleton.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

using corvo::mail::Differences;
using corvo::mail::directoryDifferences;
using corvo::mail::FSError;
using corvo::mail::MaildirManager;
using corvo::mail::SKELETON;
namespace fs = std::filesystem;

const std::string ROOT = MAILNAMES + "/example.com";
const std::string HOME = ROOT + "/info";

// The domain root, the home, and directories at each level below it.
const std::vector<std::string> PLACES = {ROOT,
                                         HOME,
                                         HOME + "/Maildir",
                                         HOME + "/Maildir/cur",
                                         HOME + "/Maildir/.Sent/new",
                                         HOME + "/@attachments"};

MaildirManager& manager() {
    return MaildirManager::getInstance();
}

void restore() {
    manager().createDomainRoot("example.com");
    manager().createMailnameHome("example.com", "info");
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

using Times = std::map<std::string, std::pair<std::time_t, long>>;

// When the inode of each directory last changed.
Times changeTimes() {
    Times times;
    for (const auto& entry : fs::recursive_directory_iterator(MAILNAMES)) {
        const timespec changed = statusOf(entry.path()).st_ctim;
        times[entry.path()] = {changed.tv_sec, changed.tv_nsec};
    }
    return times;
}

std::vector<std::string> changedSince(const Times& before) {
    std::vector<std::string> changed;
    for (const auto& [path, time] : changeTimes())
        if (!before.contains(path) || before.at(path) != time)
            changed.push_back(path);
    return changed;
}

// Until a change has another time than those before.
void awaitNextTick() {
    timespec begin{};
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &begin);
    do
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    while (now.tv_sec == begin.tv_sec && now.tv_nsec == begin.tv_nsec);
}

void makeReadOnly(const std::string& path) {
    ASSERT_EQ(::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
              0);
}

class DirectoriesLeftAloneTest : public SandboxTest {
protected:
    DirectoriesLeftAloneTest() { restore(); }
};

TEST_F(DirectoriesLeftAloneTest, AreThoseThatAreRight) {
    const Times before = changeTimes();
    ASSERT_EQ(before.size(), 2 + SKELETON.size());
    awaitNextTick();

    restore();

    EXPECT_EQ(changedSince(before), std::vector<std::string>());
}

TEST_F(DirectoriesLeftAloneTest, AreNotOpenedBelowTheHome) {
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    const int next = ::dup(0);  // the lowest number that is free
    ::close(next);
    const rlimit one{static_cast<rlim_t>(next) + 1, saved.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &one), 0);

    EXPECT_NO_THROW(manager().createMailnameHome("example.com", "info"));

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
}

TEST_F(DirectoriesLeftAloneTest, NeedNoFileSystemThatCanBeChanged) {
    makeReadOnly(MAILNAMES);
    EXPECT_NO_THROW(restore());
}

struct Damage {
    const char* name;
    uid_t uid;
    gid_t gid;
    mode_t bits;  // that are turned over
    Differences differences;
};

const Damage DAMAGES[] = {
    {"owner", STRANGER_UID, POPUSER_GID, 0, {.owner = true}},
    {"group", POPUSER_UID, STRANGER_GID, 0, {.group = true}},
    {"permissions", POPUSER_UID, POPUSER_GID, 0001, {.mode = true}},
    {"set-group-id", POPUSER_UID, POPUSER_GID, 02000, {.mode = true}},
    {"sticky", POPUSER_UID, POPUSER_GID, 01000, {.mode = true}},
    {"all", 0, 0, 0055, {.owner = true, .group = true, .mode = true}},
};

void inflict(const Damage& damage, const std::string& path) {
    const mode_t mode = (statusOf(path).st_mode & 07777) ^ damage.bits;
    ASSERT_EQ(::chown(path.c_str(), damage.uid, damage.gid), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

TEST_F(DirectoriesLeftAloneTest, AreAllButTheOneThatDiffers) {
    const std::string sound = listTree(MAILNAMES);
    for (const std::string& path : PLACES)
        for (const Damage& damage : DAMAGES) {
            SCOPED_TRACE(path + ": " + damage.name);
            inflict(damage, path);
            const Times before = changeTimes();
            awaitNextTick();

            restore();

            EXPECT_EQ(listTree(MAILNAMES), sound);
            EXPECT_EQ(changedSince(before), std::vector<std::string>{path});
        }
}

TEST_F(DirectoriesLeftAloneTest, AreAllButTheOneThatWasMissingAndItsParent) {
    const std::string sound = listTree(MAILNAMES);
    for (const std::string entry : {"/Maildir/cur", "/Maildir/.Sent/new", "/@attachments"}) {
        SCOPED_TRACE(entry);
        const fs::path path = HOME + entry;
        fs::remove(path);
        const Times before = changeTimes();
        awaitNextTick();

        restore();

        EXPECT_EQ(listTree(MAILNAMES), sound);
        EXPECT_EQ(changedSince(before), (std::vector<std::string>{path.parent_path(), path}));
    }
}

TEST_F(DirectoriesLeftAloneTest, AreThoseBehindALinkOfRoot) {
    const std::string elsewhere = "/var/lib/corvo/elsewhere";
    fs::copy(HOME + "/Maildir", elsewhere, fs::copy_options::recursive);
    fs::remove_all(HOME + "/Maildir");
    makeLink(elsewhere, HOME + "/Maildir");
    restore();
    const timespec before = statusOf(elsewhere + "/cur").st_ctim;
    awaitNextTick();

    restore();

    EXPECT_EQ(ownerOf(elsewhere + "/cur"), popuser());
    EXPECT_EQ(statusOf(elsewhere + "/cur").st_ctim.tv_nsec, before.tv_nsec);
}

TEST_F(DirectoriesLeftAloneTest, AreNoneThatDifferWhereNothingCanBeChanged) {
    for (const Damage& damage : DAMAGES) {
        SCOPED_TRACE(damage.name);
        const std::string path = HOME + "/Maildir/.Sent/new";
        inflict(damage, path);
        makeReadOnly(MAILNAMES);
        try {
            restore();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const FSError& error) {
            EXPECT_EQ(std::string(error.what()),
                      "filesystem error: chown: Read-only file system [" + path + "]");
        }
        ASSERT_EQ(::umount2(MAILNAMES.c_str(), MNT_DETACH), 0);
        restore();
    }
}

Differences look(const std::string& path) {
    return directoryDifferences(
        AT_FDCWD, path.c_str(),
        path == ROOT ? manager().domainRootOwnership() : manager().homeOwnership());
}

TEST_F(DirectoriesLeftAloneTest, LookTellsWhatDiffers) {
    for (const std::string& path : PLACES) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(look(path).any());
        for (const Damage& damage : DAMAGES) {
            inflict(damage, path);
            EXPECT_EQ(look(path), damage.differences) << damage.name;
            restore();
        }
    }
}

TEST_F(DirectoriesLeftAloneTest, LookTellsWhatIsNoDirectory) {
    writeFile(HOME + "/file", "", POPUSER_UID, POPUSER_GID, 0700);
    makeLink(HOME + "/Maildir", HOME + "/link", POPUSER_UID);
    EXPECT_EQ(look(HOME + "/file"), Differences{.kind = true});
    EXPECT_EQ(look(HOME + "/link"), Differences{.kind = true});
    EXPECT_EQ(look(HOME + "/none"), Differences{.missing = true});
    EXPECT_EQ(look(HOME + "/file/none"), Differences{.missing = true});
    EXPECT_EQ(look(HOME + "/" + std::string(256, 'x')), Differences{.unknown = true});
}

}  // namespace
}  // namespace corvo::test
