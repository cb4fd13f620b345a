#include "mail/text_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "utils/files.h"
#include "utils/guards.h"
#include "utils/log.h"
#include "utils/safe_path.h"

namespace {

namespace safe_path = corvo::safe_path;

constexpr mode_t PRIVATE_MODE = 0600;

corvo::UniqueFd openEmpty(const char* path) noexcept {
    corvo::UniqueFd file =
        safe_path::openFile(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, PRIVATE_MODE);
    if (!file) {
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "Unable to open '%s': %s", path, std::strerror(errno));
    }
    return file;
}

int removeUnwritten(const char* path) noexcept {
    const corvo::ErrnoGuard keepErrno;
    const int error = errno;
    (void)safe_path::unlinkEntry(AT_FDCWD, path);
    corvo_log(3, "Unable to write to '%s': %s", path, std::strerror(error));
    return -1;
}

// Writes the text; `finish` is the step between the last byte and the close, with a result of its
// own.
template <typename Finish>
int writeWhole(const char* path, const char* text, Finish finish) noexcept {
    corvo::UniqueFd file = openEmpty(path);
    if (!file)
        return -1;
    if (write_fully(file.get(), text) != 0)
        return removeUnwritten(path);
    const int result = finish(file.get());
    return file.close() == 0 ? result : removeUnwritten(path);
}

}  // namespace

int write_text_file(const char* path, const char* text) noexcept {
    return writeWhole(path, text, [](int) { return 0; });
}

int write_text_file_for(const char* path, const char* text, const char* user) noexcept {
    return writeWhole(path, text,
                      [&](int file) { return fd_set_user_mode(file, path, user, PRIVATE_MODE); });
}
