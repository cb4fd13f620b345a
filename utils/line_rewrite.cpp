#include "utils/line_rewrite.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

namespace corvo::line_rewrite {

namespace {

constexpr off_t LARGEST_REWRITE = off_t{64} << 20;

/// Makes a stream of a file; null with errno.
UniqueFile openStream(UniqueFd file, const char* mode) noexcept {
    UniqueFile stream(file ? ::fdopen(file.get(), mode) : nullptr);
    if (stream)
        (void)file.release();
    return stream;
}

}  // namespace

Target::Target(const char* path) noexcept : path_(path) {
    (void)!safe_path::locate(AT_FDCWD, path, safe_path::LastLink::keep, place_);
}

int Target::look() const noexcept {
    struct stat ignored = {};
    return safe_path::status(base(), name(), ignored) == 0 ? 0 : errno;
}

bool LineReader::open(const Target& target) noexcept {
    UniqueFd file = safe_path::openFile(target.base(), target.name(), O_RDONLY, 0, seen_);
    if (file && safe_path::isForeignHardLink(seen_)) {
        errno = EPERM;
        return false;
    }
    if (file && seen_.st_size > LARGEST_REWRITE) {
        errno = EFBIG;
        return false;
    }
    stream_ = openStream(std::move(file), "r");
    return stream_ != nullptr;
}

std::string_view LineReader::next() noexcept {
    char* line = line_.release();
    const ssize_t length = ::getline(&line, &capacity_, stream_.get());
    line_.reset(line);
    if (length < 0) {
        // Neither is set when a line is too long for the memory.
        failed_ = std::feof(stream_.get()) == 0 || std::ferror(stream_.get()) != 0;
        return {};
    }
    return {line, static_cast<std::size_t>(length)};
}

Replacement::Replacement(const Target& target) noexcept : target_(target) {
    (void)std::snprintf(path_, sizeof path_, "%s.tmp", target.path());
}

/// The temporary file's name in the target's parent.
const char* Replacement::name() const noexcept {
    const std::size_t parentLength = std::strlen(target_.path()) - std::strlen(target_.name());
    return path_ + parentLength;
}

UniqueFd Replacement::createFile() const noexcept {
    return safe_path::openFile(target_.base(), name(), O_WRONLY | O_CREAT | O_EXCL, 0600);
}

bool Replacement::create() noexcept {
    UniqueFd file = createFile();
    if (!file && errno == EEXIST && safe_path::unlinkEntry(target_.base(), name()) == 0)
        file = createFile();
    exists_ = static_cast<bool>(file);
    stream_ = openStream(std::move(file), "w");
    return stream_ != nullptr;
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
    if (exists_)
        (void)!safe_path::unlinkEntry(target_.base(), name());
    exists_ = false;
}

}  // namespace corvo::line_rewrite
