// Rewriting a line file: reading the old lines, writing the new contents beside it, putting them in
// its place. For utils/line_file.cpp alone. Nothing here logs or throws.

#pragma once

#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <string_view>

#include "utils/guards.h"
#include "utils/safe_path.h"

namespace corvo::line_rewrite {

/// Bytes that are read of a file; one that is larger or grows beyond it is not rewritten.
inline constexpr off_t LARGEST_REWRITE = off_t{64} << 20;

/// The file that is worked on: its parent is walked to once.
class Target {
public:
    /// `path` must outlive the target.
    explicit Target(const char* path) noexcept;

    const char* path() const noexcept { return path_; }

    /// The directory and the name in it, for the functions of safe_path. When there is no way to
    /// the parent, the path itself stands in for the name, so that each step fails with its own
    /// errno.
    int base() const noexcept { return place_.parent ? place_.parent.get() : AT_FDCWD; }
    const char* name() const noexcept { return place_.parent ? place_.name : path_; }

    /// Whether the name is that of an open file, which no link stands for.
    bool isNameOf(int file) const noexcept;

    /// Whether an open file, of which fstat says this, is root's, and so is the entry (see
    /// safe_path::isRootsEntry).
    bool isRootsOwn(const struct stat& file) const noexcept;

    /// 0 when the file is there, ENOENT, or the errno that hides it.
    int look() const noexcept;

private:
    const char* path_;
    safe_path::Location place_;
};

/// The lines of a file, each as long as it may be: all together are LARGEST_REWRITE bytes at most.
/// Lines may hold zero bytes.
class LineReader {
public:
    LineReader() noexcept = default;
    ~LineReader() = default;
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// False with errno: EPERM for a file that may be another's, as what is read is handed on;
    /// EFBIG for one larger than LARGEST_REWRITE.
    bool open(const Target& target) noexcept;

    /// The next line with its newline, valid until the next call; empty at the end and on failure.
    std::string_view next() noexcept;

    /// Whether the reading ended before the end, with errno: EFBIG for a file that grew beyond
    /// LARGEST_REWRITE meanwhile.
    bool failed() const noexcept { return failed_; }

    /// The file that is read.
    int file() const noexcept { return file_.get(); }

    /// The file's status as of the open.
    const struct stat& seen() const noexcept { return seen_; }

private:
    static ssize_t read(void* reader, char* block, std::size_t size) noexcept;

    UniqueFd file_;
    UniqueFile stream_;  // reads from file_
    off_t total_ = 0;    // bytes read so far
    UniqueCString line_;
    std::size_t capacity_ = 0;
    bool failed_ = false;
    struct stat seen_ = {};
};

/// A stream that writes to an open file, which stays open when the stream is closed and must
/// outlive it. Null with errno when there is no memory.
UniqueFile openWriter(UniqueFd& file) noexcept;

/// The new contents of a file, in "<path>.tmp" until they are whole; removed unless they were moved
/// into place.
class Replacement {
public:
    /// `target` must outlive the replacement.
    explicit Replacement(const Target& target) noexcept;
    ~Replacement() { discard(); }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    /// Makes the temporary file (0600), in place of one that a crash left behind. False with errno.
    bool create() noexcept;

    /// Where to write; null before create() and after close().
    std::FILE* stream() const noexcept { return stream_.get(); }

    /// The temporary file while it is written.
    int file() const noexcept { return file_.get(); }

    /// The temporary file's path.
    const char* path() const noexcept { return path_; }

    /// Brings what is buffered to the disk and closes: 0, or -1 with errno.
    int close() noexcept;

    /// Renames over the target: 0, or -1 with errno.
    int moveIntoPlace() noexcept;

    /// Removes what was written. Keeps errno.
    void discard() noexcept;

private:
    UniqueFd createFile() const noexcept;
    const char* name() const noexcept;

    const Target& target_;
    char path_[PATH_MAX + sizeof ".tmp"];
    UniqueFd file_;
    UniqueFile stream_;  // writes to file_
    bool exists_ = false;
};

}  // namespace corvo::line_rewrite
