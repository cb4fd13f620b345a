#include "mail/delivery/text_file.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "mail/delivery/delivery_reports.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/safe_path.h"

namespace {

namespace safe_path = corvo::safe_path;

corvo::UniqueFd openEmpty(const char* path) noexcept {
    return safe_path::openFile(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
}

int writeAndClose(corvo::UniqueFd file, const char* text) noexcept {
    if (write_fully(file.get(), text) != 0 || flush_data(file.get()) != 0)
        return -1;
    return file.close();
}

}  // namespace

int write_text_file(const char* path, const char* text) noexcept {
    corvo::UniqueFd file = openEmpty(path);
    if (!file)
        return corvo::mail::reportUnopened(path);
    if (writeAndClose(std::move(file), text) == 0)
        return 0;
    const int error = errno;
    (void)safe_path::unlinkEntry(AT_FDCWD, path);
    errno = error;
    return corvo::mail::reportUnwritten(path);
}
