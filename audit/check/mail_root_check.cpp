#include <fcntl.h>
#include <mntent.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "audit/check/checks.h"
#include "audit/check/look.h"
#include "audit/check/panel_query.h"
#include "audit/check/subject.h"
#include "audit/disk.h"
#include "mail/delivery/default_delivery.h"
#include "utils/accounts.h"
#include "utils/path_walk.h"
#include "utils/runtime_config.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

namespace fs = std::filesystem;

constexpr const char* MOUNT_TABLE = "/etc/fstab";

// A path with all the directories above it, from the top.
std::vector<std::string> directoriesTo(const fs::path& path) {
    std::vector<std::string> directories;
    fs::path reached;
    for (const fs::path& component : path) {
        reached /= component;
        if (!component.empty())
            directories.push_back(reached);
    }
    return directories;
}

// The same for the place that links lead to.
std::vector<std::string> waysTo(const std::string& root) {
    std::vector<std::string> directories = directoriesTo(root);
    std::error_code error;
    for (std::string& directory : directoriesTo(fs::canonical(root, error)))
        if (std::find(directories.begin(), directories.end(), directory) == directories.end())
            directories.push_back(std::move(directory));
    return directories;
}

bool maySearch(const passwd& account, const struct stat& directory) noexcept {
    if (directory.st_uid == account.pw_uid)
        return (directory.st_mode & S_IXUSR) != 0;
    return (directory.st_mode & (directory.st_gid == account.pw_gid ? S_IXGRP : S_IXOTH)) != 0;
}

// Says what is wrong with a directory on the way; false then. Without an account it is not asked
// what that may do.
bool judgeWay(const Subject& root, const std::string& path, const passwd* account) {
    struct stat seen = {};
    if (safe_path::status(AT_FDCWD, path.c_str(), seen) != 0) {
        root.unreadable(path, errno);
    } else if (mayOthersWrite(seen)) {
        root.warning(path + " can be changed by others: " + ownerAndMode(seen),
                     "chown root " + path + "; chmod go-w " + path);
    } else if (account != nullptr && !maySearch(*account, seen)) {
        root.problem(path + " is closed to popuser: " + ownerAndMode(seen), "chmod a+x " + path);
    } else {
        return true;
    }
    return false;
}

bool isWaySound(const Subject& root, const std::string& path) {
    const passwd* const account = ::getpwnam(POPUSER);
    const std::vector<std::string> ways = waysTo(path);
    return std::all_of(ways.begin(), ways.end(), [&](const std::string& directory) {
        return judgeWay(root, directory, account);
    });
}

struct MountTableCloser {
    void operator()(std::FILE* table) const noexcept { ::endmntent(table); }
};

// The mount points that should be there at or above a path, but for the top.
std::vector<std::string> mountPointsTo(const std::string& path) {
    const std::unique_ptr<std::FILE, MountTableCloser> table(::setmntent(MOUNT_TABLE, "re"));
    const std::vector<std::string> directories = directoriesTo(path);
    std::vector<std::string> points;
    while (const mntent* const entry = table ? ::getmntent(table.get()) : nullptr)
        if (entry->mnt_dir != std::string_view("/") &&
            std::find(directories.begin(), directories.end(), entry->mnt_dir) != directories.end())
            points.emplace_back(entry->mnt_dir);
    return points;
}

// Where the kernel does not tell, it is taken for one.
bool isMountPoint(const std::string& path) {
    const UniqueFd directory = safe_path::openTrusted(AT_FDCWD, path.c_str(), O_PATH | O_CLOEXEC);
    struct statx seen = {};
    if (!directory || ::statx(directory.get(), "", AT_EMPTY_PATH, 0, &seen) != 0)
        return false;
    return (seen.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0 ||
           (seen.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

bool isMounted(const Subject& root, const std::string& path) {
    for (const std::string& point : mountPointsTo(path))
        if (!isMountPoint(point)) {
            root.problem(point + " is not mounted, though " + MOUNT_TABLE + " has it",
                         "mount " + point);
            return false;
        }
    return true;
}

bool isWritable(const Subject& root, const std::string& path) {
    if (!isOnReadOnlyDisk(path))
        return true;
    root.problem(path + " is mounted read-only: a run can repair nothing", adviceToRemount(path));
    return false;
}

// Leaves the directory's times as they are, where that is allowed.
DirEntries entriesOf(const std::string& path) {
    constexpr int FLAGS = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    UniqueFd directory = safe_path::openTrusted(AT_FDCWD, path.c_str(), FLAGS | O_NOATIME);
    if (!directory && errno == EPERM)
        directory = safe_path::openTrusted(AT_FDCWD, path.c_str(), FLAGS);
    return directory ? DirEntries(std::move(directory)) : DirEntries();
}

// Whether there is a directory of a domain's, or something that may be one.
bool holdsDomains(DirEntries& entries) {
    const fs::path defaultDelivery = DEFAULT_DELIVERY_FILE;
    while (const dirent64* const entry = entries.next())
        if (entry->d_name != defaultDelivery.filename() &&
            entry->d_name != std::string_view("lost+found"))
            return true;
    return false;
}

bool hasDomains(const Subject& root, mysql::Connection& panel) {
    bool hasSome = false;
    ask(panel, root, std::string("SELECT d.id AS id") + WALKED_DOMAINS + "LIMIT 1",
        [&](const Row&) { hasSome = true; });
    return hasSome;
}

void checkContents(const Subject& root, const std::string& path, mysql::Connection* panel) {
    DirEntries entries = entriesOf(path);
    if (!entries)
        root.unreadable(path, errno);
    else if (!holdsDomains(entries) && panel != nullptr && hasDomains(root, *panel))
        root.warning(path + " holds no domain, though the panel has some",
                     "see that the right file system is mounted: findmnt -T " + path);
    else
        root.ok(path);
}

}  // namespace

void checkMailRoot(const CheckSink& sink, mysql::Connection* panel) {
    const Subject root(sink, "mail names root");
    const std::string path = vhcConfGetDefaultByIndex(CORVO_MAILNAMES_D);
    if (isMounted(root, path) && isWritable(root, path) && isWaySound(root, path))
        checkContents(root, path, panel);
}

}  // namespace corvo::audit
