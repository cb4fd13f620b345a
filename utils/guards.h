// What is undone later, whichever way a function ends.
//
// No guard changes errno when it goes. A close or flush whose failure has a message is called
// explicitly; the destructor is the silent safety net. None can be copied.

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace corvo {

/// Puts errno back to what it was when the guard was made.
class ErrnoGuard {
public:
    ErrnoGuard() noexcept : saved_(errno) {}
    ~ErrnoGuard() { errno = saved_; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

private:
    int saved_;
};

/// Repeats a system call that a signal interrupted. Returns the call's last result.
template <typename Call>
auto retryOnEintr(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

/// Owns a file descriptor; -1 is "none".
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    /// Gives the descriptor up; the caller closes it.
    int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes what is held, silently, and holds `fd` from now on.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            const ErrnoGuard keepErrno;
            ::close(fd_);
        }
        fd_ = fd;
    }

    /// Closes and says how that went: 0, or -1 with errno. Holds nothing afterwards.
    [[nodiscard]] int close() noexcept { return ::close(release()); }

private:
    int fd_ = -1;
};

struct FileCloser {
    void operator()(std::FILE* stream) const noexcept {
        const ErrnoGuard keepErrno;
        (void)std::fclose(stream);
    }
};

/// Owns a stdio stream.
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

/// A stdio stream that takes an open file over, as fdopen does with `mode`. Null for no file, and
/// with errno on failure; the file is then closed.
inline UniqueFile openStream(UniqueFd file, const char* mode) noexcept {
    UniqueFile stream(file ? ::fdopen(file.get(), mode) : nullptr);
    if (stream)
        (void)file.release();
    return stream;
}

struct FreeDeleter {
    void operator()(void* memory) const noexcept {
        const ErrnoGuard keepErrno;
        std::free(memory);
    }
};

/// Owns memory that came from malloc and its kin.
template <typename T>
using UniqueMalloc = std::unique_ptr<T, FreeDeleter>;

/// Owns a string that a plain function allocated.
using UniqueCString = UniqueMalloc<char>;

/// Sets the process's umask and puts the old one back.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) noexcept : saved_(::umask(mask)) {}
    ~UmaskGuard() { ::umask(saved_); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t saved_;
};

/// Remembers the current directory by descriptor and changes back to it. The way back needs no
/// path, so neither a renamed parent nor one that may not be searched can cut it off. But one that
/// has no path, since it was removed (ENOENT), or a path of 4096 bytes and more (ERANGE or
/// ENAMETOOLONG), is not remembered: nobody could come back to it.
class WorkingDirectoryGuard {
public:
    WorkingDirectoryGuard() noexcept {
        char path[PATH_MAX];
        if (::getcwd(path, sizeof path) != nullptr)
            saved_.reset(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    ~WorkingDirectoryGuard() {
        const ErrnoGuard keepErrno;
        if (saved_)
            (void)!::fchdir(saved_.get());
    }
    WorkingDirectoryGuard(const WorkingDirectoryGuard&) = delete;
    WorkingDirectoryGuard& operator=(const WorkingDirectoryGuard&) = delete;

    /// False when the current directory could not be remembered; errno then says why.
    bool remembered() const noexcept { return static_cast<bool>(saved_); }

    /// Stays where the process is now.
    void release() noexcept { saved_.reset(); }

private:
    UniqueFd saved_;
};

}  // namespace corvo
