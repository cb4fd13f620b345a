#include "mail/text_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "utils/guards.h"
#include "utils/log.h"
#include "utils/safe_path.h"

namespace {

namespace safe_path = corvo::safe_path;

corvo::UniqueFile openEmpty(const char* path) noexcept {
    corvo::UniqueFd file = safe_path::openFile(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    corvo::UniqueFile stream(file ? ::fdopen(file.get(), "w") : nullptr);
    if (stream)
        (void)file.release();
    return stream;
}

int writeAndClose(corvo::UniqueFile stream, const char* text) noexcept {
    if (std::fputs(text, stream.get()) < 0)
        return -1;
    return std::fclose(stream.release()) == 0 ? 0 : -1;
}

}  // namespace

int write_text_file(const char* path, const char* text) noexcept {
    corvo::UniqueFile stream = openEmpty(path);
    if (!stream) {
        const corvo::ErrnoGuard keepErrno;
        corvo_log(3, "Unable to open '%s': %s", path, std::strerror(errno));
        return -1;
    }
    if (writeAndClose(std::move(stream), text) != 0) {
        const corvo::ErrnoGuard keepErrno;
        const int error = errno;
        (void)safe_path::unlinkEntry(AT_FDCWD, path);
        corvo_log(3, "Unable to write to '%s': %s", path, std::strerror(error));
        return -1;
    }
    return 0;
}
