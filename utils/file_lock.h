// Advisory locks (flock): a lock file named after the protected path, or the file itself.
//
// A lock file is opened as utils/safe_path.h says, and is never removed. The lock folder is made by
// the installer. None of these throws.

#pragma once

#include <memory>

#include "utils/guards.h"

/// Where lock files by name are.
inline constexpr const char* LOCK_FOLDER = "/run/lock/files";

/// A lock, held or not. Made by the mk_ functions only, and given back to rm_lock, free_lock or
/// keep_lock; see corvo::UniqueLock.
struct lock_handle {
    int fd;      // > 0 while locked, 0 when the lock was busy, -1 on failure
    char* path;  // of the lock file; owned
};

/// Which file a lock is taken on, as `by_name` says: the protected file itself, or the one in the
/// lock folder that is named after it.
inline constexpr int LOCK_ITSELF = 0;
inline constexpr int LOCK_BY_NAME = 1;

/// LOCK_FOLDER, "/" and the MD5 of `path`, newly allocated; free with free(). Null without
/// memory.
char* mk_flock_path(const char* path) noexcept;

/// Opens the lock file (mode 0644) with `open_flags` and locks it with `flock_op`. `by_name` is
/// LOCK_BY_NAME (or anything but 0) or LOCK_ITSELF. O_TRUNC takes effect only on a regular file
/// with one link. Returns null without memory; else a handle whose fd tells how it went, with errno
/// of what failed. Only an open that fails is logged, once through messlog2.
lock_handle* mk_lock_(const char* path, int open_flags, int flock_op, int by_name) noexcept;

/// An exclusive lock; waits for it without limit. Creates the lock file, or empties it.
lock_handle* mk_lock(const char* path, int by_name) noexcept;

/// As mk_lock, but a busy lock gives fd 0 at once.
lock_handle* mk_nonblock_lock(const char* path, int by_name) noexcept;

bool is_locked(const lock_handle* lock) noexcept;

/// True for a busy lock and for null.
bool is_already_locked(const lock_handle* lock) noexcept;

/// Releases and frees. Returns 0, or -1 for null and when closing fails, which is logged through
/// messlog2.
int rm_lock(lock_handle* lock) noexcept;

/// Releases and frees without logging; keeps errno. Null is allowed.
void free_lock(lock_handle* lock) noexcept;

/// Keeps the lock until the process ends, another lock is kept, or this file is locked again: one
/// lock is kept at most, and the next mk_lock_ of its lock file frees it first, so that a process
/// never waits for itself. Null is allowed and changes nothing.
void keep_lock(lock_handle* lock) noexcept;

namespace corvo {

struct LockFreer {
    void operator()(lock_handle* lock) const noexcept { free_lock(lock); }
};

/// Owns what an mk_ function returned; releases it as free_lock does. rm_lock and keep_lock take
/// what it gives up.
using UniqueLock = std::unique_ptr<lock_handle, LockFreer>;

/// The lock by name under which a file of lines is changed: taken when this is made, waiting
/// without limit, and released when it goes, both silently.
class LineLock {
public:
    /// `path` must outlive the lock.
    explicit LineLock(const char* path) noexcept;
    ~LineLock() = default;
    LineLock(const LineLock&) = delete;
    LineLock& operator=(const LineLock&) = delete;

    bool isHeld() const noexcept { return is_locked(lock_.get()); }

    /// Logs why it is not held, through messlog2; errno is then that reason.
    void report() const noexcept;

    /// Releases: 0, or -1 with errno after logging through messlog2.
    int release() noexcept;

    /// Leaves it as keep_lock does.
    void keep() noexcept;

private:
    const char* path_;
    bool opened_ = false;
    UniqueLock lock_;
    int error_ = 0;
};

}  // namespace corvo
