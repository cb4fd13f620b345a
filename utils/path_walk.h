// The way along a path that others may tamper with: which links are followed, and how. Most callers
// want utils/safe_path.h, which is built on it. Nothing here logs, throws or allocates.

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <utility>

#include "utils/guards.h"

namespace corvo::safe_path {

/// For a directory that serves as a base only: it need not be readable.
inline constexpr int BASE_FLAGS = O_PATH | O_DIRECTORY | O_CLOEXEC;

/// What becomes of a link that is the last component.
enum class LastLink { follow, keep };

/// True when `name` in a directory is the entry of which `seen` tells, and nobody but root can have
/// put it there: the directory is root's, and neither its group (nor anybody in an ACL, whose mask
/// stands in the group's bits) nor others may write it. A sticky bit would not keep them from that.
[[nodiscard]] bool isRootsEntry(int directory, const char* name, const struct stat& seen) noexcept;

/// Whether a link, of which lstat says this, is followed: root's or the running user's, and either
/// under a single name or an entry of root's.
[[nodiscard]] bool isTrustedLink(int directory, const char* name, const struct stat& link) noexcept;

/// From now on whatever is opened for reading alone keeps its access time (O_NOATIME), where the
/// kernel lets this user have it so.
void keepAccessTimes() noexcept;

/// Opens by `open(flags)`: with O_NOATIME among the flags after keepAccessTimes(), unless that is
/// refused (EPERM) or the file is not opened for reading alone.
template <typename Open>
[[nodiscard]] UniqueFd openKeepingTimes(int flags, Open open) noexcept;

/// Opens whatever is there, as open does with `flags` (O_PATH and O_NOFOLLOW included). Everything
/// that is opened along a path is opened by this function.
[[nodiscard]] UniqueFd openTrusted(int base, const char* path, int flags, mode_t mode = 0) noexcept;

/// A walk, component by component, that looks at every link before it follows it.
class Walk {
public:
    /// False with errno when there is nothing to walk, or too much.
    bool start(int base, const char* path) noexcept;

    /// Goes as far as the last component. It may be missing; entry() is then empty, with ENOENT.
    bool reachLast(LastLink last) noexcept;

    /// Where the walk has arrived, for *at calls.
    int directory() const noexcept { return held_ ? held_.get() : base_; }
    const char* name() const noexcept { return name_; }

    /// The last component, opened with O_PATH (LastLink::follow only), and its fstat.
    UniqueFd& entry() noexcept { return entry_; }
    const struct stat& seen() const noexcept { return seen_; }

private:
    bool goOn(const char* path) noexcept;
    bool takeName() noexcept;
    bool look() noexcept;
    bool follow() noexcept;

    int base_ = AT_FDCWD;
    UniqueFd held_;
    UniqueFd entry_;
    struct stat seen_ = {};
    char name_[NAME_MAX + 1] = {};
    char path_[PATH_MAX] = {};
    const char* rest_ = path_;  // what follows name_
    int links_ = 0;
};

/// What keepAccessTimes() has set.
extern bool keepsAccessTimes;

template <typename Open>
UniqueFd openKeepingTimes(int flags, Open open) noexcept {
    if (!keepsAccessTimes || (flags & (O_ACCMODE | O_PATH | O_CREAT)) != O_RDONLY)
        return open(flags);
    UniqueFd opened = open(flags | O_NOATIME);
    return opened || errno != EPERM ? std::move(opened) : open(flags);
}

}  // namespace corvo::safe_path
