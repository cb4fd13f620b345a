#include "utils/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "utils/digest.h"
#include "utils/guards.h"
#include "utils/messlog.h"
#include "utils/safe_path.h"

namespace {

constexpr int EXCLUSIVE_OPEN = O_RDWR | O_CREAT | O_TRUNC;

// What keep_lock was given last, until the process ends.
corvo::UniqueLock keptLock;

// Opens a lock file, and empties it only when it is surely one.
corvo::UniqueFd openLockFile(const char* path, int flags) noexcept {
    struct stat seen = {};
    corvo::UniqueFd file = corvo::safe_path::openFile(AT_FDCWD, path, flags & ~O_TRUNC, 0644, seen);
    if (file.get() == 0)  // 0 says "busy" in a handle
        file.reset(::fcntl(0, F_DUPFD_CLOEXEC, 1));
    if (file && (flags & O_TRUNC) != 0 && seen.st_nlink == 1 && seen.st_size != 0 &&
        corvo::retryOnEintr([&] { return ::ftruncate(file.get(), 0); }) != 0)
        file.reset();
    return file;
}

// An empty handle for a lock file.
corvo::UniqueLock makeHandle(corvo::UniqueCString path) noexcept {
    corvo::UniqueLock lock(static_cast<lock_handle*>(std::malloc(sizeof(lock_handle))));
    if (lock)
        *lock = {-1, path.release()};
    return lock;
}

// mk_lock_, silently; `opened` tells whether the lock file could be opened.
corvo::UniqueLock takeLock(const char* path, int open_flags, int flock_op, int by_name,
                           bool& opened) noexcept {
    opened = true;
    corvo::UniqueCString lockPath(by_name != LOCK_ITSELF ? mk_flock_path(path) : ::strdup(path));
    if (!lockPath)
        return nullptr;
    if (keptLock && std::strcmp(keptLock->path, lockPath.get()) == 0)
        keptLock.reset();
    corvo::UniqueLock lock = makeHandle(std::move(lockPath));
    if (!lock)
        return nullptr;
    corvo::UniqueFd file = openLockFile(lock->path, open_flags);
    opened = static_cast<bool>(file);
    if (!opened)
        return lock;
    if (corvo::retryOnEintr([&] { return ::flock(file.get(), flock_op); }) == 0)
        lock->fd = file.release();
    else if (errno == EAGAIN)
        lock->fd = 0;
    return lock;
}

void logNotOpened(const lock_handle* lock) noexcept {
    messlog2(0, 0, "Unable to open file \"%s\": %s.", lock->path, std::strerror(errno));
}

}  // namespace

char* mk_flock_path(const char* path) noexcept {
    char digest[MD5_HEX_SIZE];
    char* lockPath = nullptr;
    if (::asprintf(&lockPath, "%s/%s", LOCK_FOLDER, get_md5sum("", path, digest)) < 0)
        return nullptr;
    return lockPath;
}

lock_handle* mk_lock_(const char* path, int open_flags, int flock_op, int by_name) noexcept {
    bool opened = false;
    corvo::UniqueLock lock = takeLock(path, open_flags, flock_op, by_name, opened);
    if (!opened)
        logNotOpened(lock.get());
    return lock.release();
}

lock_handle* mk_lock(const char* path, int by_name) noexcept {
    return mk_lock_(path, EXCLUSIVE_OPEN, LOCK_EX, by_name);
}

lock_handle* mk_nonblock_lock(const char* path, int by_name) noexcept {
    return mk_lock_(path, EXCLUSIVE_OPEN, LOCK_EX | LOCK_NB, by_name);
}

bool is_locked(const lock_handle* lock) noexcept {
    return lock != nullptr && lock->fd > 0;
}

bool is_already_locked(const lock_handle* lock) noexcept {
    return lock == nullptr || lock->fd == 0;
}

int rm_lock(lock_handle* lock) noexcept {
    if (lock == nullptr)
        return -1;
    int result = 0;
    if (lock->fd > 0 && ::close(lock->fd) != 0) {
        messlog2(0, 0, "An error occured during closing '%s' file: %s\n",  // sic
                 lock->path, std::strerror(errno));
        result = -1;
    }
    lock->fd = -1;
    free_lock(lock);
    return result;
}

void free_lock(lock_handle* lock) noexcept {
    if (lock == nullptr)
        return;
    const corvo::ErrnoGuard keepErrno;
    if (lock->fd > 0)
        (void)::close(lock->fd);
    std::free(lock->path);
    std::free(lock);
}

void keep_lock(lock_handle* lock) noexcept {
    if (lock != nullptr)
        keptLock.reset(lock);
}

namespace corvo {

LineLock::LineLock(const char* path) noexcept
    : path_(path), lock_(takeLock(path, EXCLUSIVE_OPEN, LOCK_EX, LOCK_BY_NAME, opened_)) {
    if (!isHeld())
        error_ = errno;
}

void LineLock::report() const noexcept {
    errno = error_;
    if (!opened_)
        logNotOpened(lock_.get());
    errno = error_;
    messlog2(0, 0, "Error occurred while locking the file %s: %s\n", path_, std::strerror(error_));
    errno = error_;
}

int LineLock::release() noexcept {
    if (rm_lock(lock_.release()) == 0)
        return 0;
    messlog2(0, 0, "Error occurred while unlocking the file %s: %s\n", path_, std::strerror(errno));
    return -1;
}

void LineLock::keep() noexcept {
    keep_lock(lock_.release());
}

}  // namespace corvo
