#include "mail/delivery/default_delivery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "mail/delivery/text_file.h"
#include "utils/accounts.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/log.h"
#include "utils/safe_path.h"

namespace {

namespace safe_path = corvo::safe_path;

// In bytes. The file belongs to popuser, who must not make this program read without end.
constexpr std::size_t MAX_LINE = 65536;

// Opens the file: none, with errno, unless it has content that is popuser's to see.
corvo::UniqueFd openWithContent() noexcept {
    struct stat seen = {};
    corvo::UniqueFd file = safe_path::openFile(AT_FDCWD, DEFAULT_DELIVERY_FILE, O_RDONLY, 0, seen);
    if (!file)
        return file;
    // The first line goes into files that popuser may read.
    const bool foreign = safe_path::isForeignHardLink(AT_FDCWD, DEFAULT_DELIVERY_FILE, seen);
    if (!foreign && seen.st_size > 0)
        return file;
    file.reset();
    errno = foreign ? EPERM : EINVAL;
    return file;
}

// Whether an open failed for want of a regular file with content, and not of rights or resources.
bool isNoUsableFile(int error) noexcept {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == EINVAL;
}

void logNotOpened(int error) noexcept {
    if (isNoUsableFile(error))
        corvo::Log().line(LOG_ERR, "Unable to get default delivery transport string from %s\n",
                          DEFAULT_DELIVERY_FILE);
    else
        corvo::Log().line(LOG_ERR, "Unable to open default delivery config file(%s): %s\n",
                          DEFAULT_DELIVERY_FILE, std::strerror(error));
}

// 0, or -1 with errno, for a line of `length` bytes that was read to `line`.
int judgeLine(const char* line, std::size_t length) noexcept {
    if (length > MAX_LINE)
        errno = EFBIG;
    else if (length != ::strnlen(line, length))
        errno = EINVAL;
    else
        return 0;
    return -1;
}

// The first line without its line end, or null with errno.
corvo::UniqueCString readLine(int file) noexcept {
    corvo::UniqueCString line(static_cast<char*>(std::malloc(MAX_LINE + 1)));
    if (!line)
        return nullptr;
    const ssize_t got = corvo::retryOnEintr([&] { return ::read(file, line.get(), MAX_LINE + 1); });
    if (got < 0)
        return nullptr;
    const auto size = static_cast<std::size_t>(got);
    const void* const end = std::memchr(line.get(), '\n', size);
    const std::size_t length =
        end != nullptr ? static_cast<std::size_t>(static_cast<const char*>(end) - line.get())
                       : size;
    if (judgeLine(line.get(), length) != 0)
        return nullptr;
    line.get()[length] = '\0';
    return line;
}

}  // namespace

int get_default_delivery_string(char** line) noexcept {
    corvo::mail::DefaultDelivery found = corvo::mail::readDefaultDelivery();
    if (!found.line) {
        reportMissingLine(found);
        return -1;
    }
    *line = found.line.release();
    return 0;
}

int set_default_delivery_string(const char* line) noexcept {
    // Private before anything is in it.
    if (create_empty_file(DEFAULT_DELIVERY_FILE) != 0 ||
        file_set_user_mode(DEFAULT_DELIVERY_FILE, POPUSER, 0600) != 0)
        return -1;
    return write_text_file(DEFAULT_DELIVERY_FILE, line);
}

namespace corvo::mail {

DefaultDelivery readDefaultDelivery() noexcept {
    const UniqueFd file = openWithContent();
    if (!file)
        return {nullptr, false, errno};
    UniqueCString line = readLine(file.get());
    const int error = line ? 0 : errno;
    return {std::move(line), true, error};
}

void reportMissingLine(const DefaultDelivery& missing) noexcept {
    if (missing.isOpened)
        Log().line(LOG_ERR, "Unable to read line from file: %s: %s\n", DEFAULT_DELIVERY_FILE,
                   std::strerror(missing.error));
    else
        logNotOpened(missing.error);
    errno = missing.error;
}

}  // namespace corvo::mail
