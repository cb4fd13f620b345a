#include "mail/default_delivery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "mail/text_file.h"
#include "utils/accounts.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/log.h"
#include "utils/safe_path.h"

namespace {

namespace safe_path = corvo::safe_path;

constexpr const char* DEFAULT_DELIVERY = "/var/qmail/mailnames/.default_delivery";

// In bytes. The file belongs to popuser, who must not make this program read without end.
constexpr std::size_t MAX_LINE = 65536;

// 0, or -1 with errno.
int requireContent() noexcept {
    struct stat file {};
    if (safe_path::status(AT_FDCWD, DEFAULT_DELIVERY, file) != 0)
        return -1;
    if (S_ISREG(file.st_mode) && file.st_size > 0)
        return 0;
    errno = EINVAL;
    return -1;
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
    if (requireContent() != 0) {
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "Unable to get default delivery transport string from %s\n", DEFAULT_DELIVERY);
        return -1;
    }
    const corvo::UniqueFd file = safe_path::openFile(AT_FDCWD, DEFAULT_DELIVERY, O_RDONLY);
    if (!file) {
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "Unable to open default delivery config file(%s): %s\n", DEFAULT_DELIVERY,
                  std::strerror(errno));
        return -1;
    }
    corvo::UniqueCString first = readLine(file.get());
    if (!first) {
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "Unable to read line from file: %s: %s\n", DEFAULT_DELIVERY,
                  std::strerror(errno));
        return -1;
    }
    *line = first.release();
    return 0;
}

int set_default_delivery_string(const char* line) noexcept {
    // Private before anything is in it.
    if (create_empty_file(DEFAULT_DELIVERY) != 0 ||
        file_set_user_mode(DEFAULT_DELIVERY, POPUSER, 0600) != 0)
        return -1;
    return write_text_file(DEFAULT_DELIVERY, line);
}
