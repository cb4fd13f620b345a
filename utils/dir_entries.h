// The entries of an open directory.

#pragma once

#include <dirent.h>

#include <cstddef>
#include <memory>

#include "utils/guards.h"

namespace corvo {

/// Reads the entries of a directory that it owns, in the file system's order. Where the library's
/// directory streams look at each directory they get three times before the first read, this one
/// only reads. Movable; converts to false when it holds none.
class DirEntries {
public:
    DirEntries() noexcept = default;
    /// Takes an open directory over; holds none when that is none or, with ENOMEM, when there is no
    /// memory.
    explicit DirEntries(UniqueFd directory) noexcept;

    explicit operator bool() const noexcept { return static_cast<bool>(directory_); }

    /// The directory, as a base for what is done with its entries.
    int descriptor() const noexcept { return directory_.get(); }

    /// The next entry other than "." and "..", valid until the next call. Null at the end, with
    /// errno 0, and on failure, with the errno of that. A directory that was removed has ended.
    const dirent64* next() noexcept;

private:
    /// Keeps a buffer for the next reader.
    struct BufferKeeper {
        void operator()(char* buffer) const noexcept;
    };

    const dirent64* read() noexcept;
    bool refill() noexcept;

    UniqueFd directory_;
    std::unique_ptr<char, BufferKeeper> buffer_;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
};

}  // namespace corvo
