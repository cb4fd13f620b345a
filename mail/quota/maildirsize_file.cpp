#include "mail/quota/maildirsize_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "mail/quota/maildir_scan.h"
#include "mail/quota/maildirsize.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/messlog.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

constexpr int CREATE_ATTEMPTS = 5;
constexpr unsigned ATTEMPT_PAUSE_SECONDS = 2;

/// Delivery agents believe a `maildirsize` for 15 minutes; one dated this far back is counted anew.
constexpr std::time_t OUTDATED_SECONDS = 960;

using HostName = char[65];
using TemporaryName = char[192];

int get_host_name(HostName& host) noexcept {
    if (gethostname(host, sizeof host) != 0)
        return -1;
    host[sizeof host - 1] = '\0';
    std::replace(host, host + std::strlen(host), '/', '_');
    return 0;
}

/// Creates a file in "tmp" under a name that nobody used before: O_EXCL opens no file that was
/// there.
UniqueFd create_temporary(const HostName& host, TemporaryName& name) noexcept {
    for (int attempt = 0; attempt < CREATE_ATTEMPTS; ++attempt) {
        (void)std::snprintf(name, sizeof name, "tmp/%lu.%u.%s-maildirsize",
                            static_cast<unsigned long>(std::time(nullptr)),
                            static_cast<unsigned>(getpid()), host);
        UniqueFd file = safe_path::openFile(AT_FDCWD, name, O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (file)
            return file;
        sleep(ATTEMPT_PAUSE_SECONDS);
    }
    errno = EAGAIN;
    messlog2(0, 0, "Maximal allowed number of attempts to create a maildirsize file exceeded");
    return UniqueFd();
}

/// Writes the content and closes the file; what fails is logged.
int commit(UniqueFd& file, const char* content, std::size_t length) noexcept {
    if (write_fully(file.get(), {content, length}) != 0) {
        messlog2(0, 0, "unable to write data to file");
        return -1;
    }
    if (fsync(file.get()) != 0 || file.close() != 0) {
        messlog2(0, 0, "unable to commit written data to file");
        return -1;
    }
    return 0;
}

/// Counts the current Maildir into a new file; `newest` is the time of what was counted.
int write_counted(UniqueFd& file, uid_t uid, gid_t gid, const MaildirsizeLimits& limits,
                  timespec* newest) noexcept {
    MaildirUsage usage{};
    if (fchown(file.get(), uid, gid) != 0 || !countMaildir(usage))
        return -1;
    *newest = usage.newest;
    char content[MAILDIRSIZE_CONTENT_MAX];
    const std::size_t length =
        format_maildirsize(content, limits.bytes, limits.messages, usage.bytes, usage.messages);
    return commit(file, content, length);
}

/// Dates the file back when messages came or went since the count, or when that cannot be told.
void mark_if_outdated(const timespec& counted) noexcept {
    timespec newest{};
    if (raiseToMaildir(newest) && !isLater(newest, counted))
        return;
    const UniqueFd file = safe_path::openFile(AT_FDCWD, MAILDIRSIZE, O_WRONLY);
    const timespec times[] = {{0, UTIME_NOW}, {counted.tv_sec - OUTDATED_SECONDS, 0}};
    if (file)
        (void)futimens(file.get(), times);
}

}  // namespace

int writeMaildirsize(uid_t uid, gid_t gid, const MaildirsizeLimits& limits) noexcept {
    HostName host;
    if (get_host_name(host) != 0) {
        messlog2(0, 0, "Unable to receive hostname");
        return 0;
    }
    TemporaryName name;
    UniqueFd file = create_temporary(host, name);
    if (!file)
        return 0;
    timespec counted{};
    if (write_counted(file, uid, gid, limits, &counted) != 0 ||
        safe_path::renameEntry(AT_FDCWD, name, MAILDIRSIZE) != 0) {
        const ErrnoGuard keepErrno;
        file.reset();
        (void)safe_path::unlinkEntry(AT_FDCWD, name);
        return 0;
    }
    mark_if_outdated(counted);
    return 1;
}

}  // namespace corvo::mail
