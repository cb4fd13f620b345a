#include "utils/path_walk.h"

#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace corvo::safe_path {

namespace {

constexpr int MAX_LINKS = 40;

bool isSame(const struct stat& one, const struct stat& other) noexcept {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Opens a path that has no link in it, in one system call; ELOOP at a link.
UniqueFd openWithoutLinks(int base, const char* path, int flags, mode_t mode) noexcept {
    struct open_how how = {};
    how.flags = static_cast<unsigned>(flags);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return UniqueFd(static_cast<int>(::syscall(SYS_openat2, base, path, &how, sizeof how)));
}

// There is a link, or the kernel or a system call filter cannot do it in one call. (EAGAIN is of
// the file, not of the way: somebody holds a lease on it.)
bool mustWalk(int error) noexcept {
    return error == ELOOP || error == ENOSYS || error == EPERM || error == EINVAL || error == E2BIG;
}

// Opens by walking. `flags` may hold O_PATH.
UniqueFd openByWalking(int base, const char* path, int flags, mode_t mode) noexcept {
    const bool exclusive = (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0;
    const bool keepsLink = exclusive || (flags & O_NOFOLLOW) != 0;
    Walk walk;
    if (!walk.start(base, path) || !walk.reachLast(keepsLink ? LastLink::keep : LastLink::follow))
        return UniqueFd();
    if (keepsLink || (flags & O_PATH) == 0)
        return UniqueFd(::openat(walk.directory(), walk.name(), flags | O_NOFOLLOW, mode));

    // With O_PATH a link would be opened without complaint, so what was looked at is used.
    if (walk.entry() && (flags & O_DIRECTORY) != 0 && !S_ISDIR(walk.seen().st_mode)) {
        errno = ENOTDIR;
        return UniqueFd();
    }
    return std::move(walk.entry());
}

}  // namespace

bool isRootsEntry(int directory, const char* name, const struct stat& seen) noexcept {
    struct stat folder = {};
    struct stat entry = {};
    return ::fstatat(directory, "", &folder, AT_EMPTY_PATH) == 0 && folder.st_uid == 0 &&
           (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
           ::fstatat(directory, name, &entry, AT_SYMLINK_NOFOLLOW) == 0 && isSame(entry, seen);
}

bool isTrustedLink(int directory, const char* name, const struct stat& link) noexcept {
    const bool isOurs = link.st_uid == 0 || link.st_uid == ::geteuid();
    return isOurs && (link.st_nlink == 1 || isRootsEntry(directory, name, link));
}

bool Walk::start(int base, const char* path) noexcept {
    base_ = base;
    if (*path == '\0') {
        errno = ENOENT;
        return false;
    }
    return goOn(path);
}

// Takes `path` as the text that is still to be walked, from the directory reached or from "/".
bool Walk::goOn(const char* path) noexcept {
    const std::size_t length = std::strlen(path);
    if (length >= sizeof path_) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(path_, path, length + 1);
    rest_ = path_;
    if (path_[0] != '/')
        return true;
    held_.reset(::open("/", BASE_FLAGS));
    return static_cast<bool>(held_);
}

// Moves the next component to name_; "." stands for the nothing behind a final "/".
bool Walk::takeName() noexcept {
    rest_ += std::strspn(rest_, "/");
    const std::size_t length = std::strcspn(rest_, "/");
    if (length >= sizeof name_) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(name_, rest_, length);
    name_[length] = '\0';
    rest_ += length;
    if (length == 0)
        std::memcpy(name_, ".", 2);
    return true;
}

// Opens what name_ names, whatever that is.
bool Walk::look() noexcept {
    entry_.reset(::openat(directory(), name_, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return entry_ && ::fstat(entry_.get(), &seen_) == 0;
}

// Puts the target of the link in entry_ before the rest of the path.
bool Walk::follow() noexcept {
    if (!isTrustedLink(directory(), name_, seen_) || ++links_ > MAX_LINKS) {
        errno = ELOOP;
        return false;
    }
    char path[PATH_MAX];
    const ssize_t length = ::readlinkat(entry_.get(), "", path, sizeof path);
    if (length < 0)
        return false;
    const auto targetLength = static_cast<std::size_t>(length);
    const std::size_t restLength = std::strlen(rest_);
    if (targetLength + restLength >= sizeof path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(path + targetLength, rest_, restLength + 1);
    return goOn(path);
}

bool Walk::reachLast(LastLink last) noexcept {
    while (takeName()) {
        const bool isLast = *rest_ == '\0';
        if (isLast && last == LastLink::keep)
            return true;
        if (!look())
            return isLast && errno == ENOENT;
        if (S_ISLNK(seen_.st_mode)) {
            if (!follow())
                return false;
        } else if (isLast) {
            return true;
        } else {
            held_ = std::move(entry_);
        }
    }
    return false;
}

bool keepsAccessTimes = false;

void keepAccessTimes() noexcept {
    keepsAccessTimes = true;
}

UniqueFd openTrusted(int base, const char* path, int flags, mode_t mode) noexcept {
    return openKeepingTimes(flags, [=](int wanted) noexcept {
        UniqueFd file = openWithoutLinks(base, path, wanted, mode);
        return file || !mustWalk(errno) ? std::move(file) : openByWalking(base, path, wanted, mode);
    });
}

}  // namespace corvo::safe_path
