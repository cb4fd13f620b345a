#include "utils/line_rewrite.h"

#include <fcntl.h>
#include <stdio_ext.h>

#include <cerrno>
#include <cstring>

#include "utils/files.h"

namespace corvo::line_rewrite {

namespace {

// A stream on functions of our own, which nobody else knows: it needs no lock, and it makes none
// of the calls with which the library's streams get to know a file.
UniqueFile openOwnStream(void* cookie, const char* mode, cookie_io_functions_t calls) noexcept {
    UniqueFile stream(::fopencookie(cookie, mode, calls));
    if (stream)
        ::__fsetlocking(stream.get(), FSETLOCKING_BYCALLER);
    return stream;
}

// Writes a stream's block; 0 says that it failed.
ssize_t writeBlock(void* cookie, const char* block, std::size_t size) noexcept {
    const auto& file = *static_cast<const UniqueFd*>(cookie);
    return write_fully(file.get(), {block, size}) == 0 ? static_cast<ssize_t>(size) : 0;
}

}  // namespace

Target::Target(const char* path) noexcept : path_(path) {
    (void)!safe_path::locate(AT_FDCWD, path, safe_path::LastLink::keep, place_);
}

int Target::look() const noexcept {
    struct stat ignored = {};
    return safe_path::status(base(), name(), ignored) == 0 ? 0 : errno;
}

bool Target::isNameOf(int file) const noexcept {
    struct stat entry = {};
    struct stat opened = {};
    return ::fstatat(base(), name(), &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::fstat(file, &opened) == 0 && entry.st_dev == opened.st_dev &&
           entry.st_ino == opened.st_ino;
}

bool Target::isRootsOwn(const struct stat& file) const noexcept {
    return file.st_uid == 0 && safe_path::isRootsEntry(base(), name(), file);
}

bool LineReader::open(const Target& target) noexcept {
    file_ = safe_path::openFile(target.base(), target.name(), O_RDONLY, 0, seen_);
    if (!file_)
        return false;
    if (safe_path::isForeignHardLink(target.base(), target.name(), seen_)) {
        errno = EPERM;
        return false;
    }
    if (seen_.st_size > LARGEST_REWRITE) {
        errno = EFBIG;
        return false;
    }
    stream_ = openOwnStream(this, "r", {&LineReader::read, nullptr, nullptr, nullptr});
    return stream_ != nullptr;
}

// Feeds the stream. The owner may let the file grow while it is read, so what counts is what
// comes.
ssize_t LineReader::read(void* reader, char* block, std::size_t size) noexcept {
    auto& self = *static_cast<LineReader*>(reader);
    const ssize_t count = retryOnEintr([&] { return ::read(self.file_.get(), block, size); });
    if (count > 0)
        self.total_ += count;
    if (self.total_ <= LARGEST_REWRITE)
        return count;
    errno = EFBIG;
    return -1;
}

std::string_view LineReader::next() noexcept {
    char* line = line_.release();
    const ssize_t length = ::getline(&line, &capacity_, stream_.get());
    line_.reset(line);
    // After a failed read the part of a line may be there. When a line is too long for the memory,
    // neither the end nor an error is noted.
    failed_ = std::ferror(stream_.get()) != 0 || (length < 0 && std::feof(stream_.get()) == 0);
    if (failed_ || length < 0)
        return {};
    return {line, static_cast<std::size_t>(length)};
}

UniqueFile openWriter(UniqueFd& file) noexcept {
    return openOwnStream(&file, "w", {nullptr, writeBlock, nullptr, nullptr});
}

Replacement::Replacement(const Target& target) noexcept : target_(target) {
    (void)std::snprintf(path_, sizeof path_, "%s.tmp", target.path());
}

// The temporary file's name in the target's parent.
const char* Replacement::name() const noexcept {
    const std::size_t parentLength = std::strlen(target_.path()) - std::strlen(target_.name());
    return path_ + parentLength;
}

UniqueFd Replacement::createFile() const noexcept {
    return safe_path::openFile(target_.base(), name(), O_WRONLY | O_CREAT | O_EXCL, 0600);
}

bool Replacement::create() noexcept {
    file_ = createFile();
    if (!file_ && errno == EEXIST && safe_path::unlinkEntry(target_.base(), name()) == 0)
        file_ = createFile();
    exists_ = static_cast<bool>(file_);
    stream_ = exists_ ? openWriter(file_) : nullptr;
    return stream_ != nullptr;
}

int Replacement::close() noexcept {
    if (std::fclose(stream_.release()) != 0 || flush_data(file_.get()) != 0)
        return -1;
    return file_.close();
}

int Replacement::moveIntoPlace() noexcept {
    if (safe_path::renameEntry(target_.base(), name(), target_.name()) != 0)
        return -1;
    exists_ = false;
    return 0;
}

void Replacement::discard() noexcept {
    const ErrnoGuard keepErrno;
    stream_.reset();
    file_.reset();
    if (exists_)
        (void)!safe_path::unlinkEntry(target_.base(), name());
    exists_ = false;
}

}  // namespace corvo::line_rewrite
