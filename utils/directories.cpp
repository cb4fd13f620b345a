#include "utils/directories.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/dir_entries.h"
#include "utils/guards.h"
#include "utils/messlog.h"
#include "utils/numeric.h"
#include "utils/safe_path.h"

using corvo::DirEntries;
namespace safe_path = corvo::safe_path;

namespace {

// Gives a directory that was made just now its owner.
void chownNewDirectory(const char* path, uid_t uid, gid_t gid) noexcept {
    const corvo::UniqueFd directory = safe_path::openDirectory(AT_FDCWD, path);
    if (!directory || ::fchown(directory.get(), uid, gid) != 0)
        messlog2(0, 0, "Cannot chown %s: %s", path, std::strerror(errno));
}

// One step of make_dir_rec.
void makeOneDirectory(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept {
    const int made = safe_path::makeDirectory(AT_FDCWD, path, mode);
    if (made < 0)
        messlog2(1, 1, "Cannot create directory %s: %s", path, std::strerror(errno));
    else if (made == 0)
        chownNewDirectory(path, uid, gid);
}

// Appends "/" and a name to a path; false with ENAMETOOLONG when they do not fit.
bool appendName(char (&path)[PATH_MAX], const char* name) noexcept {
    const std::size_t length = std::strlen(path);
    const int added = std::snprintf(path + length, sizeof path - length, "/%s", name);
    if (added >= 0 && static_cast<std::size_t>(added) < sizeof path - length)
        return true;
    errno = ENAMETOOLONG;
    return false;
}

// Opens a directory below another one; none with ENOTDIR for links and all that is no directory.
DirEntries enter(const DirEntries& parent, const char* name, int depth) noexcept {
    if (depth > safe_path::MAX_DEPTH) {
        errno = ELOOP;
        return DirEntries();
    }
    return safe_path::openEntries(parent.descriptor(), name, safe_path::LastLink::keep);
}

int addSizesBelow(const DirEntries& parent, const char* name, int depth, long long& sum) noexcept;

// Adds the size of an entry and of all below it; 0, or -1 with errno.
int addEntry(const DirEntries& parent, const char* name, int depth, long long& sum) noexcept {
    struct stat seen = {};
    if (::fstatat(parent.descriptor(), name, &seen, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : -1;
    if (S_ISDIR(seen.st_mode))
        return addSizesBelow(parent, name, depth + 1, sum);
    sum = corvo::addSaturated(sum, seen.st_size);
    return 0;
}

int addEntries(DirEntries& directory, int depth, long long& sum) noexcept {
    while (const auto* const entry = directory.next()) {
        if (addEntry(directory, entry->d_name, depth, sum) != 0)
            return -1;
    }
    return errno == 0 ? 0 : -1;
}

int addSizesBelow(const DirEntries& parent, const char* name, int depth, long long& sum) noexcept {
    DirEntries directory = enter(parent, name, depth);
    if (!directory)
        return errno == ENOENT ? 0 : -1;
    return addEntries(directory, depth, sum);
}

// Looks for `name` in the directory that `path` names, then below it; leaves the path of what was
// found in `path`. False with errno: ENOENT when there is nothing.
bool findBelow(DirEntries& directory, const char* name, int depth,
               char (&path)[PATH_MAX]) noexcept {
    const std::size_t length = std::strlen(path);
    struct stat ignored = {};
    if (::fstatat(directory.descriptor(), name, &ignored, AT_SYMLINK_NOFOLLOW) == 0)
        return appendName(path, name);
    while (const auto* const entry = directory.next()) {
        DirEntries below = enter(directory, entry->d_name, depth + 1);
        if (below && appendName(path, entry->d_name) && findBelow(below, name, depth + 1, path))
            return true;
        if (errno != ENOENT && errno != ENOTDIR)
            return false;
        path[length] = '\0';
    }
    if (errno == 0)
        errno = ENOENT;
    return false;
}

}  // namespace

int make_dir(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept {
    errno = 0;
    if (safe_path::makeDirectory(AT_FDCWD, path, mode) < 0) {
        messlog2(0, 0, "ERROR: Unable to mkdir %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    safe_path::PermissionStep failed = {};
    if (safe_path::setOwnerAndMode(AT_FDCWD, path, uid, gid, mode, &failed) == 0 || errno == ENOENT)
        return 0;
    if (failed == safe_path::PermissionStep::chmod)
        messlog2(0, 0, "ERROR: Unable to chmod %s: %s\n", path, std::strerror(errno));
    else
        messlog2(0, 0, "ERROR: Unable to chown %s: %s\n", path, std::strerror(errno));
    return -1;
}

int make_dir_p(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept {
    const corvo::UmaskGuard allBits(0);
    return make_dir_rec(path, uid, gid, mode);
}

int make_dir_rec(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept {
    char parent[PATH_MAX];
    for (std::size_t end = 1; path[0] != '\0' && path[end] != '\0' && end < sizeof parent; ++end) {
        if (path[end] != '/')
            continue;
        std::memcpy(parent, path, end);
        parent[end] = '\0';
        makeOneDirectory(parent, uid, gid, mode & 0777);
    }
    makeOneDirectory(path, uid, gid, mode);
    return 0;
}

int createNestedDirectory(const char* path, mode_t mode) noexcept {
    if (safe_path::makeDirectories(AT_FDCWD, path, mode))
        return 0;
    messlog2(0, 0, "Unable to create directory %s: %s\n", path, std::strerror(errno));
    return -1;
}

int rename_dir(const char* from, const char* to) noexcept {
    struct stat ignored = {};
    if (safe_path::status(AT_FDCWD, from, ignored) != 0 && errno == ENOENT)
        return 0;
    if (safe_path::status(AT_FDCWD, to, ignored) == 0) {
        errno = 0;  // the message tells it all
        messlog2(0, 0, "Directory rename error: target directory %s already exists.\n", to);
        errno = EEXIST;
        return -1;
    }
    if (safe_path::renameEntry(AT_FDCWD, from, to) == 0)
        return 0;
    messlog2(0, 0, "Remaming %s to %s failed: %s\n", from, to, std::strerror(errno));  // sic
    return -1;
}

long long get_dir_size(const char* path) noexcept {
    DirEntries directory = safe_path::openEntries(AT_FDCWD, path);
    long long sum = 0;
    if (!directory || addEntries(directory, 0, sum) != 0)
        return -1;
    return sum;
}

long count_cur_dir() noexcept {
    DirEntries directory = safe_path::openEntries(AT_FDCWD, ".");
    if (!directory)
        return -1;
    long count = 0;
    while (directory.next() != nullptr)
        ++count;
    return errno == 0 ? count : -1;
}

char* find_file(const char* directory, const char* name) noexcept {
    if (!safe_path::isComponent(name)) {
        errno = EINVAL;
        return nullptr;
    }
    DirEntries entries = safe_path::openEntries(AT_FDCWD, directory);
    char path[PATH_MAX];
    if (!entries)
        return nullptr;
    (void)std::snprintf(path, sizeof path, "%s", directory);
    return findBelow(entries, name, 0, path) ? ::strdup(path) : nullptr;
}

char* find_case_file_in_dir(const char* directory, const char* name) noexcept {
    DirEntries entries = safe_path::openEntries(AT_FDCWD, directory);
    if (!entries)
        return nullptr;
    corvo::UniqueCString found;
    while (const auto* const entry = entries.next()) {
        const bool isExact = std::strcmp(entry->d_name, name) == 0;
        if (!isExact && (found || ::strcasecmp(entry->d_name, name) != 0))
            continue;
        found.reset(::strdup(entry->d_name));
        if (!found || isExact)
            return found.release();
    }
    if (errno == 0 && !found)
        errno = ENOENT;
    return errno == 0 ? found.release() : nullptr;
}
