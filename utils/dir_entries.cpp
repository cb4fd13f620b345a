#include "utils/dir_entries.h"

#include <cerrno>

namespace corvo {

namespace {

// As much as the library's directory streams read at once.
constexpr std::size_t BUFFER_SIZE = 32768;

// What the last reader that has gone used: a mailbox has thirteen directories read, most of them
// one after another. There is one thread.
UniqueMalloc<char> spareBuffer;

bool isDirectoryItselfOrParent(const dirent64& entry) noexcept {
    const char* const name = entry.d_name;
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

DirEntries::DirEntries(UniqueFd directory) noexcept {
    if (!directory)
        return;
    buffer_.reset(spareBuffer ? spareBuffer.release()
                              : static_cast<char*>(std::malloc(BUFFER_SIZE)));
    if (buffer_)
        directory_ = std::move(directory);
}

void DirEntries::BufferKeeper::operator()(char* buffer) const noexcept {
    spareBuffer.reset(buffer);
}

const dirent64* DirEntries::next() noexcept {
    const dirent64* entry = read();
    while (entry != nullptr && isDirectoryItselfOrParent(*entry))
        entry = read();
    return entry;
}

const dirent64* DirEntries::read() noexcept {
    errno = 0;
    if (position_ == filled_ && !refill())
        return nullptr;
    // malloc aligned the buffer, the kernel the entries in it.
    const auto* const entry =
        static_cast<const dirent64*>(static_cast<const void*>(buffer_.get() + position_));
    position_ += entry->d_reclen;
    return entry;
}

// False at the end and on failure.
bool DirEntries::refill() noexcept {
    const ssize_t length = ::getdents64(directory_.get(), buffer_.get(), BUFFER_SIZE);
    if (length < 0 && errno == ENOENT)
        errno = 0;
    position_ = 0;
    filled_ = length > 0 ? static_cast<std::size_t>(length) : 0;
    return filled_ > 0;
}

}  // namespace corvo
