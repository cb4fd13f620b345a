#include "utils/safe_path.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace corvo::safe_path {

namespace {

bool isNobody(uid_t /*uid*/) noexcept {
    return false;
}

OwnerTest isStorageOwner = isNobody;

// The parent of a path's last component, for the calls that follow no link there. The name points
// into the path and keeps what slashes follow it, so that the kernel judges them.
struct Place {
    UniqueFd held;
    int parent = -1;
    const char* name = nullptr;
};

// Length of the text before the last component; 0 for a path of slashes alone.
std::size_t lengthOfParent(const char* path) noexcept {
    std::size_t end = std::strlen(path);
    while (end > 0 && path[end - 1] == '/')
        --end;
    while (end > 0 && path[end - 1] != '/')
        --end;
    return end;
}

int findPlace(int base, const char* path, Place& place) noexcept {
    const std::size_t length = lengthOfParent(path);
    place.name = path + length;
    place.parent = base;
    if (length == 0)
        return 0;
    if (length >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    char parent[PATH_MAX];
    std::memcpy(parent, path, length);
    parent[length] = '\0';
    place.held = openTrusted(base, parent, BASE_FLAGS);
    place.parent = place.held.get();
    return place.held ? 0 : -1;
}

int fillLocation(int parent, UniqueFd& held, const char* name, Location& location) noexcept {
    const std::size_t length = std::strlen(name);
    if (length >= sizeof location.name) {
        errno = ENAMETOOLONG;
        return -1;
    }
    UniqueFd directory = held ? std::move(held) : UniqueFd(::openat(parent, ".", BASE_FLAGS));
    if (!directory)
        return -1;
    location.parent = std::move(directory);
    std::memcpy(location.name, name, length + 1);
    return 0;
}

// A path that leads to what a descriptor stands for; there is none without /proc.
struct DescriptorPath {
    explicit DescriptorPath(int descriptor) noexcept {
        (void)std::snprintf(text, sizeof text, "/proc/self/fd/%d", descriptor);
    }
    char text[32];
};

// Opens what a descriptor stands for; EAGAIN without /proc.
UniqueFd openAnew(int descriptor, int flags) noexcept {
    const DescriptorPath itself(descriptor);
    UniqueFd file(retryOnEintr([&] { return ::open(itself.text, flags); }));
    if (!file && errno == ENOENT)
        errno = EAGAIN;
    return file;
}

int refuse(int error) noexcept {
    errno = error;
    return -1;
}

// Is the file that a path led to one to be worked on? 0, or -1 with errno.
int checkFile(int base, const char* path, int file, bool writes, struct stat& seen) noexcept {
    if (::fstat(file, &seen) != 0)
        return -1;
    if (!S_ISREG(seen.st_mode))
        return refuse(EINVAL);
    if (writes && isForeignHardLink(base, path, seen))
        return refuse(EPERM);
    return 0;
}

// Opens without waiting for a peer, and gives all that is no file the same errno.
UniqueFd openWithoutWaiting(int base, const char* path, int flags, mode_t mode = 0) noexcept {
    const int waitless = flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file = awaitLease(openTrusted(base, path, waitless, mode), base, path, waitless);
    if (!file && errno == ENXIO)  // a socket, or a pipe without reader
        errno = EINVAL;
    return file;
}

// Opens a directory whose last component is no link.
UniqueFd openUnlinkedDirectory(int base, const char* path) noexcept {
    Place place;
    if (findPlace(base, path, place) != 0)
        return UniqueFd();
    return openKeepingTimes(
        O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC,
        [&](int flags) noexcept { return UniqueFd(::openat(place.parent, place.name, flags)); });
}

int removeEntry(int parent, const char* name, int depth) noexcept;

int removeEntriesOf(int parent, const char* name, int depth) noexcept {
    DirEntries entries = openEntries(parent, name, LastLink::keep);
    if (!entries)
        return -1;
    while (const auto* const entry = entries.next()) {
        if (removeEntry(entries.descriptor(), entry->d_name, depth) != 0)
            return -1;
    }
    return errno == 0 ? 0 : -1;
}

int removeEntry(int parent, const char* name, int depth) noexcept {
    if (::unlinkat(parent, name, 0) == 0 || errno == ENOENT)
        return 0;
    if (errno != EISDIR)
        return -1;
    if (depth >= MAX_DEPTH)
        return refuse(ELOOP);
    if (removeEntriesOf(parent, name, depth + 1) != 0)
        return -1;
    return ::unlinkat(parent, name, AT_REMOVEDIR);
}

// The longest leading part of `path` that exists, opened; its length goes to `length`.
UniqueFd openExistingPart(int base, const char* path, std::size_t& length) noexcept {
    char part[PATH_MAX];
    std::memcpy(part, path, length + 1);
    UniqueFd directory = openDirectory(base, part);
    while (!directory && errno == ENOENT && length > 0) {
        length = lengthOfParent(part);
        part[length] = '\0';
        directory = openDirectory(base, length > 0 ? part : ".");
    }
    return directory;
}

// Makes the directory `name` unless it exists, which `made` tells, and opens it.
UniqueFd enterDirectory(int parent, const char* name, mode_t mode, bool& made) noexcept {
    made = ::mkdirat(parent, name, mode) == 0;
    if (!made && errno != EEXIST)
        return UniqueFd();
    return openDirectory(parent, name);
}

// Opens what may be given another owner and mode.
UniqueFd openForPermissions(int base, const char* path) noexcept {
    UniqueFd file = openWithoutWaiting(base, path, O_RDONLY);
    struct stat seen = {};
    if (!file || ::fstat(file.get(), &seen) != 0)
        return UniqueFd();
    const bool isSuitable = S_ISREG(seen.st_mode) || S_ISDIR(seen.st_mode);
    if (isSuitable && !isForeignHardLink(base, path, seen))
        return file;
    errno = isSuitable ? EPERM : EINVAL;
    return UniqueFd();
}

// Finds a regular file that may be given another owner and mode. The descriptor stands for it
// (O_PATH) and opens nothing.
UniqueFd findForPermissions(int base, const char* path) noexcept {
    UniqueFd file = openTrusted(base, path, O_PATH | O_CLOEXEC);
    struct stat seen = {};
    if (!file || checkFile(base, path, file.get(), /*writes=*/true, seen) != 0)
        return UniqueFd();
    return file;
}

// fchown and fchmod in their order, each repeated on EINTR, however they are made.
template <typename Chown, typename Chmod>
int takeSteps(Chown chown, Chmod chmod, PermissionStep* failed) noexcept {
    PermissionStep step = PermissionStep::chown;
    int result = retryOnEintr(chown);
    if (result == 0) {
        step = PermissionStep::chmod;
        result = retryOnEintr(chmod);
    }
    if (result != 0 && failed != nullptr)
        *failed = step;
    return result;
}

int failToOpen(PermissionStep* failed) noexcept {
    if (failed != nullptr)
        *failed = PermissionStep::open;
    return -1;
}

}  // namespace

void setStorageOwner(OwnerTest isOwner) noexcept {
    isStorageOwner = isOwner;
}

bool isComponent(std::string_view name) noexcept {
    return !name.empty() && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

int locate(int base, const char* path, LastLink last, Location& location) noexcept {
    if (!isComponent(path + lengthOfParent(path)))
        return refuse(EINVAL);
    if (last == LastLink::keep) {
        Place place;
        if (findPlace(base, path, place) != 0)
            return -1;
        return fillLocation(place.parent, place.held, place.name, location);
    }
    Walk walk;
    if (!walk.start(base, path) || !walk.reachLast(last))
        return -1;
    if (!isComponent(walk.name()))
        return refuse(EINVAL);
    UniqueFd held(::openat(walk.directory(), ".", BASE_FLAGS));
    return fillLocation(walk.directory(), held, walk.name(), location);
}

UniqueFd openDirectory(int base, const char* path) noexcept {
    return openTrusted(base, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

DirEntries openEntries(int base, const char* path, LastLink last) noexcept {
    return DirEntries(last == LastLink::follow ? openDirectory(base, path)
                                               : openUnlinkedDirectory(base, path));
}

UniqueFd openFile(int base, const char* path, int flags, mode_t mode) noexcept {
    // What an exclusive creation made needs no look.
    if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0)
        return openWithoutWaiting(base, path, flags & ~O_TRUNC, mode);
    struct stat seen = {};
    return openFile(base, path, flags, mode, seen);
}

UniqueFd openFile(int base, const char* path, int flags, mode_t mode, struct stat& seen) noexcept {
    UniqueFd file = openWithoutWaiting(base, path, flags & ~O_TRUNC, mode);
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    if (!file || checkFile(base, path, file.get(), writes, seen) != 0)
        return UniqueFd();
    if ((flags & O_TRUNC) != 0 && seen.st_size != 0 &&
        retryOnEintr([&] { return ::ftruncate(file.get(), 0); }) != 0)
        return UniqueFd();
    return file;
}

UniqueFd awaitLease(UniqueFd opened, int base, const char* path, int flags) noexcept {
    if (opened || errno != EAGAIN)
        return opened;
    const UniqueFd found = openTrusted(base, path, O_PATH | O_CLOEXEC | (flags & O_NOFOLLOW));
    struct stat seen = {};
    if (found && ::fstat(found.get(), &seen) == 0 && S_ISREG(seen.st_mode))
        opened = openAnew(found.get(), flags & ~(O_NONBLOCK | O_NOFOLLOW | O_CREAT | O_EXCL));
    else
        errno = EAGAIN;
    return opened;
}

bool isForeignHardLink(int base, const char* path, const struct stat& file) noexcept {
    if (!S_ISREG(file.st_mode) || file.st_nlink <= 1 || isStorageOwner(file.st_uid))
        return false;
    Location place;
    return locate(base, path, LastLink::follow, place) != 0 ||
           !isRootsEntry(place.parent.get(), place.name, file);
}

ssize_t readTrustedLink(int base, const char* path, char* target, std::size_t size) noexcept {
    Place place;
    if (findPlace(base, path, place) != 0)
        return -1;
    const UniqueFd link(::openat(place.parent, place.name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat seen = {};
    if (!link || ::fstat(link.get(), &seen) != 0)
        return -1;
    return isTrustedLink(place.parent, place.name, seen)
               ? ::readlinkat(link.get(), "", target, size)
               : refuse(ELOOP);
}

int status(int base, const char* path, struct stat& result, LastLink last) noexcept {
    if (std::strchr(path, '/') == nullptr) {
        struct stat seen = {};
        if (::fstatat(base, path, &seen, AT_SYMLINK_NOFOLLOW) != 0)
            return -1;
        if (last == LastLink::keep || !S_ISLNK(seen.st_mode)) {
            result = seen;
            return 0;
        }
    }
    const int keeping = last == LastLink::keep ? O_NOFOLLOW : 0;
    const UniqueFd entry = openTrusted(base, path, O_PATH | O_CLOEXEC | keeping);
    return entry ? ::fstat(entry.get(), &result) : -1;
}

int setOwnerAndMode(int file, uid_t uid, gid_t gid, mode_t mode, PermissionStep* failed) noexcept {
    return takeSteps([=] { return ::fchown(file, uid, gid); }, [=] { return ::fchmod(file, mode); },
                     failed);
}

int setOwnerAndMode(int base, const char* path, uid_t uid, gid_t gid, mode_t mode,
                    PermissionStep* failed) noexcept {
    const UniqueFd file = openForPermissions(base, path);
    return file ? setOwnerAndMode(file.get(), uid, gid, mode, failed) : failToOpen(failed);
}

int setOwnerAndModeUnopened(int base, const char* path, uid_t uid, gid_t gid, mode_t mode,
                            PermissionStep* failed) noexcept {
    const UniqueFd file = findForPermissions(base, path);
    if (!file)
        return failToOpen(failed);
    const DescriptorPath itself(file.get());
    return takeSteps([&] { return ::fchownat(file.get(), "", uid, gid, AT_EMPTY_PATH); },
                     [&] { return ::chmod(itself.text, mode); }, failed);
}

int makeDirectory(int base, const char* path, mode_t mode) noexcept {
    Place place;
    if (findPlace(base, path, place) != 0)
        return -1;
    if (::mkdirat(place.parent, place.name, mode) == 0)
        return 0;
    return errno == EEXIST ? 1 : -1;
}

UniqueFd makeDirectories(int base, const char* path, mode_t mode, bool* made) noexcept {
    std::size_t done = std::strlen(path);
    if (done == 0 || done >= PATH_MAX) {
        errno = done == 0 ? ENOENT : ENAMETOOLONG;
        return UniqueFd();
    }
    bool lastMade = false;
    UniqueFd directory = openExistingPart(base, path, done);
    while (directory && path[done] != '\0') {
        char name[PATH_MAX];
        const std::size_t length = std::strcspn(path + done, "/");
        std::memcpy(name, path + done, length);
        name[length] = '\0';
        directory = enterDirectory(directory.get(), name, mode, lastMade);
        done += length;
        done += std::strspn(path + done, "/");
    }
    if (made != nullptr)
        *made = lastMade;
    return directory;
}

int renameEntry(int base, const char* from, const char* to) noexcept {
    Place source;
    Place target;
    if (findPlace(base, from, source) != 0 || findPlace(base, to, target) != 0)
        return -1;
    return ::renameat(source.parent, source.name, target.parent, target.name);
}

int unlinkEntry(int base, const char* path) noexcept {
    Place place;
    if (findPlace(base, path, place) != 0)
        return -1;
    return ::unlinkat(place.parent, place.name, 0);
}

int removeTree(int base, const char* path) noexcept {
    Place place;
    if (findPlace(base, path, place) != 0)
        return errno == ENOENT ? 0 : -1;
    return removeEntry(place.parent, place.name, 0);
}

int changeDirectory(const char* path) noexcept {
    const UniqueFd directory = openTrusted(AT_FDCWD, path, BASE_FLAGS);
    return directory ? ::fchdir(directory.get()) : -1;
}

}  // namespace corvo::safe_path
