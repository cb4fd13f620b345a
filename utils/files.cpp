#include "utils/files.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "utils/guards.h"
#include "utils/log.h"
#include "utils/messlog.h"
#include "utils/safe_path.h"

namespace safe_path = corvo::safe_path;

namespace {

using safe_path::PermissionStep;

// What setOwnerAndMode could not do. Keeps errno.
void logPermissionFailure(const char* path, PermissionStep failed) noexcept {
    if (failed == PermissionStep::chmod)
        corvo::Log().line(LOG_ERR, "ERROR: unable to chmod %s: %s\n", path, std::strerror(errno));
    else
        corvo::Log().line(LOG_ERR, "ERROR: unable to chown %s: %s\n", path, std::strerror(errno));
}

// Whether an open that failed with errno says that nothing is at the path, or no way leads to it.
// Keeps errno.
bool isOutOfReach(const char* path) noexcept {
    if (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG)
        return true;
    if (errno != EACCES)
        return false;
    // What must not be read is there all the same.
    const corvo::ErrnoGuard keepErrno;
    struct stat ignored = {};
    return safe_path::status(AT_FDCWD, path, ignored) != 0 && errno == EACCES;
}

int openAndClose(const char* path, int flags) noexcept {
    corvo::UniqueFd file = safe_path::openFile(AT_FDCWD, path, flags, 0644);
    return file ? file.close() : -1;
}

// The message tells it all, so it goes without the text of an errno.
int bufferTooShort() noexcept {
    errno = 0;
    messlog2(0, 0, "The buffer too short\n");
    errno = ERANGE;
    return -1;
}

// Reads to the end of the first line. 0, or -1 with errno after a report.
int readLine(std::FILE* stream, char* buffer, std::size_t size) noexcept {
    if (size == 0)
        return bufferTooShort();
    std::size_t length = 0;
    int character = EOF;
    while ((character = std::getc(stream)) != EOF && character != '\n') {
        if (length + 1 >= size)
            return bufferTooShort();
        buffer[length++] = static_cast<char>(character);
    }
    if (character == EOF && (length == 0 || std::ferror(stream) != 0)) {
        if (std::ferror(stream) == 0)
            errno = ENODATA;
        messlog2(0, 0, "Unable to read line from file: %s\n", std::strerror(errno));
        return -1;
    }
    buffer[length] = '\0';
    return 0;
}

}  // namespace

int file_set_perms_internal(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept {
    PermissionStep failed = {};
    if (safe_path::setOwnerAndMode(AT_FDCWD, path, uid, gid, mode, &failed) == 0)
        return 0;
    logPermissionFailure(path, failed);
    return -1;
}

int file_set_perms(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept {
    errno = 0;
    PermissionStep failed = {};
    if (safe_path::setOwnerAndMode(AT_FDCWD, path, uid, gid, mode, &failed) == 0)
        return 0;
    if (failed == PermissionStep::open && isOutOfReach(path))
        return 0;
    logPermissionFailure(path, failed);
    return -1;
}

int file_set_user_mode(const char* path, const char* user, mode_t mode) noexcept {
    errno = 0;
    const struct passwd* const entry = ::getpwnam(user);
    if (entry == nullptr) {
        messlog2(0, 0, "user %s not found", user);
        if (errno == 0)
            errno = ENOENT;
        return -1;
    }
    return file_set_perms(path, entry->pw_uid, entry->pw_gid, mode);
}

int create_empty_file(const char* path) noexcept {
    if (openAndClose(path, O_WRONLY | O_CREAT | O_TRUNC) == 0)
        return 0;
    corvo::Log().line(LOG_ERR, "Unable to truncate or create file %s: %s", path,
                      std::strerror(errno));
    return -1;
}

int create_file(const char* path) noexcept {
    if (openAndClose(path, O_WRONLY | O_CREAT) == 0)
        return 0;
    messlog2(0, 0, "Unable to create file %s: %s", path, std::strerror(errno));
    return -1;
}

int write_fully(int fd, std::string_view data) noexcept {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0 && errno != EAGAIN && errno != EINTR)
            return -1;
        if (written > 0)
            data.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

int flush_data(int fd) noexcept {
    if (corvo::retryOnEintr([&] { return fdatasync(fd); }) == 0)
        return 0;
    const bool canBeFlushed = errno != EINVAL && errno != ENOSYS && errno != ENOTSUP;
    return canBeFlushed ? -1 : 0;
}

ssize_t read_fully(int fd, char* buffer, std::size_t size) noexcept {
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t got =
            corvo::retryOnEintr([&] { return ::read(fd, buffer + filled, size - filled); });
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        filled += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(filled);
}

int p_fclose(std::FILE* stream) noexcept {
    if (std::fclose(stream) == 0)
        return 0;
    messlog2(0, 0, "Unable to close the file: %s\n", std::strerror(errno));
    return -1;
}

int get_string_from_file(const char* path, char* buffer, std::size_t size) noexcept {
    const corvo::UniqueFile stream =
        corvo::openStream(safe_path::openFile(AT_FDCWD, path, O_RDONLY), "r");
    if (!stream) {
        messlog2(0, 0, MESSLOG_UNABLE_TO_OPEN, path, std::strerror(errno));
        return -1;
    }
    return readLine(stream.get(), buffer, size);
}
