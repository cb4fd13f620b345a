#include "mail/quota/maildirpp_quota.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "mail/home/mail_paths.h"
#include "mail/quota/maildir_scan.h"
#include "mail/quota/maildirsize.h"
#include "mail/quota/maildirsize_file.h"
#include "utils/accounts.h"
#include "utils/directories.h"
#include "utils/files.h"
#include "utils/guards.h"
#include "utils/idn.h"
#include "utils/log.h"
#include "utils/messlog.h"
#include "utils/numeric.h"
#include "utils/safe_path.h"

namespace {

using corvo::addSaturated;
using corvo::UniqueCString;
using corvo::UniqueFd;
using corvo::WorkingDirectoryGuard;
using corvo::mail::ATTACHMENTS;
using corvo::mail::countMaildir;
using corvo::mail::isPathComponent;
using corvo::mail::limitsOfQuota;
using corvo::mail::MAILDIRSIZE;
using corvo::mail::MAILDIRSIZE_READ_MAX;
using corvo::mail::MaildirsizeLimits;
using corvo::mail::MaildirUsage;
using corvo::mail::quotaBeside;
using corvo::mail::writeMaildirsize;
namespace safe_path = corvo::safe_path;

constexpr long long LARGEST = std::numeric_limits<long long>::max();

// Writes the path of a mail name's home; false when it is too long, which is logged.
bool formatHomeOrLog(char (&home)[PATH_MAX], const char* domain, const char* mailname) noexcept {
    if (corvo::mail::formatHome(home, sizeof home, domain, mailname))
        return true;
    errno = 0;
    messlog2(0, 0, "domain and/or user name too long to be stored on the filesystem");
    errno = ENAMETOOLONG;
    return false;
}

int changeToHome(const char* home, bool soundNames) noexcept {
    if (soundNames) {
        if (safe_path::changeDirectory(home) == 0)
            return 0;
    } else {
        errno = EINVAL;
    }
    messlog2(0, 0, "unable to change to mbox folder %s: %s", home, std::strerror(errno));
    return -1;
}

// Writes `maildirsize` of a Maildir, into which the process changes.
int writeWithin(const char* maildir, uid_t uid, gid_t gid,
                const MaildirsizeLimits& limits) noexcept {
    return safe_path::changeDirectory(maildir) == 0 ? writeMaildirsize(uid, gid, limits) : 0;
}

// Writes `maildirsize` for popuser, with a quota for the bytes. Changes into the Maildir.
int writeForPopuser(const char* maildir, long long quota) noexcept {
    uid_t uid = 0;
    gid_t gid = 0;
    // One look-up finds both; only where it fails each is asked for, and reported, by itself.
    if (corvo_getpw(POPUSER, &uid, &gid, nullptr) != 0)
        gid = corvo_ugid(POPUSER, WANT_GID);
    return writeWithin(maildir, uid, gid, limitsOfQuota(quota));
}

// Takes the size of the attachments, which lie outside the Maildir, off the quota: 0, or -1 when
// they cannot be counted, which is logged.
int subtractAttachments(long long& quota) noexcept {
    struct stat status = {};
    if (safe_path::status(AT_FDCWD, ATTACHMENTS, status) != 0 || !S_ISDIR(status.st_mode))
        return 0;
    const long long size = get_dir_size(ATTACHMENTS);
    if (size < 0) {
        messlog2(0, 0, "unable to count attachments folder size");
        return -1;
    }
    const bool isTooMuch = size > quota;
    quota = quotaBeside(size, quota);
    if (isTooMuch) {
        errno = 0;
        messlog2(0, 0, "WARNING: @attachments directory is big enough to disable delivery!");
    }
    return 0;
}

int storeHomeQuota(const char* home, bool soundNames, long long quota) noexcept {
    WorkingDirectoryGuard back;
    if (!back.remembered()) {
        messlog2(0, 0, "unable to get current working directory");
        return 0;
    }
    if (changeToHome(home, soundNames) != 0)
        return 0;
    if (quota >= 0 && subtractAttachments(quota) != 0) {
        back.release();  // intended: after this failure the process stays in the home
        return 0;
    }
    return writeForPopuser("./Maildir", quota);  // `back` leads out of it, too
}

// Reads `maildirsize` of the current directory: its length, or -1 with errno; EFBIG when it is
// longer than anything that is believed.
ssize_t readMaildirsize(char (&text)[MAILDIRSIZE_READ_MAX + 1]) noexcept {
    const UniqueFd file = safe_path::openFile(AT_FDCWD, MAILDIRSIZE, O_RDONLY);
    if (!file)
        return -1;
    const ssize_t length = read_fully(file.get(), text, sizeof text);
    if (length <= static_cast<ssize_t>(MAILDIRSIZE_READ_MAX))
        return length;
    errno = EFBIG;
    return -1;
}

int readUsageAndLimits(long long* bytes, long long* messages, long long* byteLimit,
                       long long* countLimit) noexcept {
    char buffer[MAILDIRSIZE_READ_MAX + 1];
    const ssize_t length = readMaildirsize(buffer);
    if (length < 0)
        return 0;
    const std::string_view text(buffer, static_cast<std::size_t>(length));
    const std::size_t header = text.find('\n');
    if (header == std::string_view::npos)
        errno = EINVAL;
    else if (parse_header_string(text.substr(0, header), byteLimit, countLimit))
        return parse_usage_lines(text.substr(header + 1), bytes, messages);
    corvo::Log().line(
        LOG_ERR, "maildirsize quota header is corrupted. Please run mail_rebuild utility to fix.");
    return 0;
}

}  // namespace

namespace corvo::mail {

std::string quotaHomeOf(const char* domain, const char* mailname) {
    const UniqueCString ascii(isPathComponent(domain) ? idn_toascii(domain) : nullptr);
    char home[PATH_MAX];
    const bool isFound = ascii && isPathComponent(ascii.get()) && isPathComponent(mailname) &&
                         formatHome(home, sizeof home, ascii.get(), mailname);
    return isFound ? std::string(home) : std::string();
}

}  // namespace corvo::mail

int store_mbox_quota(const char* domain, const char* mailname, long long quota) noexcept {
    const bool convertible = isPathComponent(domain);
    errno = 0;  // a failed conversion has no system error; the message must not show an old one
    const UniqueCString converted(convertible ? idn_toascii(domain) : nullptr);
    if (convertible && !converted) {
        messlog2(0, 0, IDN_TOASCII_FAILED, domain, idn_strerror(idn_errno));
        errno = EINVAL;
        return 0;
    }
    const char* ascii = convertible ? converted.get() : domain;
    // The conversion makes dots and slashes out of other characters, so its result is looked at.
    const bool soundNames = isPathComponent(ascii) && isPathComponent(mailname);
    char home[PATH_MAX];
    return formatHomeOrLog(home, ascii, mailname) ? storeHomeQuota(home, soundNames, quota) : 0;
}

int store_maildirpp_quota_raw(const char* maildir, long long quota) noexcept {
    const WorkingDirectoryGuard back;
    return back.remembered() ? writeForPopuser(maildir, quota) : 0;
}

int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid, long long byteLimit,
                                long long countLimit) noexcept {
    const WorkingDirectoryGuard back;
    return back.remembered() ? writeWithin(maildir, uid, gid, {byteLimit, countLimit}) : 0;
}

int get_maildirpp_usage_and_limits(const char* maildir, int strict, long long* bytes,
                                   long long* messages, long long* byteLimit,
                                   long long* countLimit) noexcept {
    *byteLimit = LARGEST;
    *countLimit = LARGEST;
    const WorkingDirectoryGuard back;
    if (!back.remembered() || safe_path::changeDirectory(maildir) != 0)
        return 0;
    if (readUsageAndLimits(bytes, messages, byteLimit, countLimit))
        return 1;
    if (strict)
        return 0;
    MaildirUsage usage = {};
    const int result = countMaildir(usage);
    *bytes = usage.bytes;
    *messages = usage.messages;
    return result;
}

int get_maildirpp_usage(const char* maildir, long long* bytes, long long* messages) noexcept {
    long long byteLimit = 0;
    long long countLimit = 0;
    return get_maildirpp_usage_and_limits(maildir, 0, bytes, messages, &byteLimit, &countLimit);
}

int check_maildirpp_overquota(const char* maildir, long long bytes, long long messages) noexcept {
    long long usedBytes = 0;
    long long usedMessages = 0;
    MaildirsizeLimits limits = {};
    if (!get_maildirpp_usage_and_limits(maildir, 0, &usedBytes, &usedMessages, &limits.bytes,
                                        &limits.messages))
        return 0;
    // A limit of 0 is none.
    const long long byteLimit = limits.bytes == 0 ? LARGEST : limits.bytes;
    const long long countLimit = limits.messages == 0 ? LARGEST : limits.messages;
    return byteLimit < addSaturated(bytes, std::max(usedBytes, 0LL)) ||
           addSaturated(messages, std::max(usedMessages, 0LL)) > countLimit;
}
