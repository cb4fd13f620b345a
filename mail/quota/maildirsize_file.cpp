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
#include <optional>
#include <string_view>
#include <utility>

#include "mail/quota/maildir_scan.h"
#include "mail/quota/maildirsize.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/messlog.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

constexpr mode_t CREATION_MODE = 0644;
constexpr int CREATE_ATTEMPTS = 5;
constexpr unsigned ATTEMPT_PAUSE_SECONDS = 2;

// Delivery agents believe a `maildirsize` for 15 minutes; one dated this far back is counted anew.
constexpr std::time_t OUTDATED_SECONDS = 960;

using HostName = char[65];
using TemporaryName = char[192];

int getHostName(HostName& host) noexcept {
    if (::gethostname(host, sizeof host) != 0)
        return -1;
    host[sizeof host - 1] = '\0';
    std::replace(host, host + std::strlen(host), '/', '_');
    return 0;
}

// Creates a file in "tmp" under a name that nobody used before: O_EXCL opens no file that was
// there.
UniqueFd createTemporary(const HostName& host, TemporaryName& name) noexcept {
    for (int attempt = 0; attempt < CREATE_ATTEMPTS; ++attempt) {
        (void)std::snprintf(name, sizeof name, "tmp/%lu.%u.%s-maildirsize",
                            static_cast<unsigned long>(std::time(nullptr)),
                            static_cast<unsigned>(::getpid()), host);
        UniqueFd file =
            safe_path::openFile(AT_FDCWD, name, O_WRONLY | O_CREAT | O_EXCL, CREATION_MODE);
        if (file)
            return file;
        ::sleep(ATTEMPT_PAUSE_SECONDS);
    }
    errno = EAGAIN;
    messlog2(0, 0, "Maximal allowed number of attempts to create a maildirsize file exceeded");
    return UniqueFd();
}

// Writes the text and closes the file; what fails is logged.
int commit(UniqueFd& file, std::string_view text) noexcept {
    if (write_fully(file.get(), text) != 0) {
        messlog2(0, 0, "unable to write data to file");
        return -1;
    }
    if (::fsync(file.get()) != 0 || file.close() != 0) {
        messlog2(0, 0, "unable to commit written data to file");
        return -1;
    }
    return 0;
}

// What was counted in the current Maildir, or why it could not be.
struct Count {
    MaildirUsage usage = {};
    bool isComplete = false;
    int error = 0;
};

Count takeCount() noexcept {
    Count count;
    count.isComplete = countMaildir(count.usage) != 0;
    count.error = errno;
    return count;
}

// Writes a new file for the current Maildir, which is counted unless it has been.
int writeCounted(UniqueFd& file, uid_t uid, gid_t gid, const MaildirsizeLimits& limits,
                 std::optional<Count>& count) noexcept {
    if (::fchown(file.get(), uid, gid) != 0)
        return -1;
    if (!count)
        count = takeCount();
    if (!count->isComplete) {
        errno = count->error;
        return -1;
    }
    return commit(file, MaildirsizeText(limits, count->usage));
}

// Have messages come or gone since the count? True, too, when that cannot be told.
bool isOutdated(const timespec& counted) noexcept {
    timespec newest = {};
    return !raiseToMaildir(newest) || isLater(newest, counted);
}

// Dates the file back, so that it is counted anew soon.
void dateBack(int file, const timespec& counted) noexcept {
    const timespec times[] = {{0, UTIME_NOW}, {counted.tv_sec - OUTDATED_SECONDS, 0}};
    (void)::futimens(file, times);
}

void markIfOutdated(const timespec& counted) noexcept {
    if (!isOutdated(counted))
        return;
    const UniqueFd file = safe_path::openFile(AT_FDCWD, MAILDIRSIZE, O_WRONLY);
    if (file)
        dateBack(file.get(), counted);
}

// Puts a new file in place of whatever is there.
int replace(uid_t uid, gid_t gid, const MaildirsizeLimits& limits,
            std::optional<Count>& count) noexcept {
    HostName host;
    if (getHostName(host) != 0) {
        messlog2(0, 0, "Unable to receive hostname");
        return 0;
    }
    TemporaryName name;
    UniqueFd file = createTemporary(host, name);
    if (!file)
        return 0;
    if (writeCounted(file, uid, gid, limits, count) != 0 ||
        safe_path::renameEntry(AT_FDCWD, name, MAILDIRSIZE) != 0) {
        const ErrnoGuard keepErrno;
        file.reset();
        (void)safe_path::unlinkEntry(AT_FDCWD, name);
        return 0;
    }
    markIfOutdated(count->usage.newest);
    return 1;
}

// Gives a file that is right the times that a new one would have. A failure is none: it is right.
void refresh(int file, const timespec& counted) noexcept {
    if (isOutdated(counted))
        dateBack(file, counted);
    else
        (void)::futimens(file, nullptr);
}

Differences differencesOfUnopened(int error) noexcept {
    if (error == ENOENT)
        return {.missing = true};
    const bool isNoFile = error == EINVAL || error == ELOOP;
    return {.kind = isNoFile, .unknown = !isNoFile};
}

bool holds(int file, std::string_view text) noexcept {
    char found[MAILDIRSIZE_CONTENT_MAX + 1];  // what has more than the text is read far enough
    const ssize_t length = retryOnEintr([&] { return ::pread(file, found, sizeof found, 0); });
    return length >= 0 && std::string_view(found, static_cast<std::size_t>(length)) == text;
}

// Leaves a file that is right as it is, but for its times. The Maildir is counted, into `count`,
// only where nothing but the contents could differ.
bool leaveAlone(uid_t uid, gid_t gid, const MaildirsizeLimits& limits,
                std::optional<Count>& count) noexcept {
    struct stat seen = {};
    if (safe_path::status(AT_FDCWD, MAILDIRSIZE, seen, safe_path::LastLink::keep) != 0)
        return false;
    const Ownership wanted = maildirsizeOwnership(uid, gid);
    if (fileDifferences(seen, wanted).any())
        return false;
    count = takeCount();
    if (!count->isComplete)
        return false;
    const SeenMaildirsize found = lookAtMaildirsize(wanted, MaildirsizeText(limits, count->usage));
    if (found.differences.any())
        return false;
    refresh(found.file.get(), count->usage.newest);
    return true;
}

}  // namespace

MaildirsizeLimits limitsOfQuota(long long quota) noexcept {
    // A byte limit of 0 means none, so that a quota of 0 needs the next best.
    return {.bytes = quota < 0 ? 0 : std::max(quota, 1LL), .messages = 0};
}

long long quotaBeside(long long attachments, long long quota) noexcept {
    return std::max(quota - attachments, 0LL);
}

MaildirsizeText::MaildirsizeText(const MaildirsizeLimits& limits,
                                 const MaildirUsage& usage) noexcept
    : length_(format_maildirsize(content_, limits.bytes, limits.messages, usage.bytes,
                                 usage.messages)) {}

Ownership maildirsizeOwnership(uid_t uid, gid_t gid) noexcept {
    const mode_t mask = ::umask(077);
    ::umask(mask);
    return {uid, gid, CREATION_MODE & ~mask};
}

SeenMaildirsize lookAtMaildirsize(const Ownership& wanted, std::string_view text) noexcept {
    struct stat seen = {};
    UniqueFd file = safe_path::openFile(AT_FDCWD, MAILDIRSIZE, O_RDONLY | O_NOFOLLOW, 0, seen);
    if (!file)
        return {UniqueFd(), differencesOfUnopened(errno)};
    Differences differences = fileDifferences(seen, wanted);
    if (!differences.any())
        differences.contents = !holds(file.get(), text);
    return {std::move(file), differences};
}

int writeMaildirsize(uid_t uid, gid_t gid, const MaildirsizeLimits& limits) noexcept {
    std::optional<Count> count;
    return leaveAlone(uid, gid, limits, count) ? 1 : replace(uid, gid, limits, count);
}

}  // namespace corvo::mail
