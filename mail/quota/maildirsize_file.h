// The file `maildirsize` of the Maildir that is the current directory: what
// mail/quota/maildirpp_quota.h tells of its writing.
//
// Links that the mail account could have planted are refused as the failure of the step that met
// them. None throws.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "mail/home/differences.h"
#include "mail/quota/maildir_scan.h"
#include "mail/quota/maildirsize.h"
#include "utils/guards.h"

namespace corvo::mail {

inline constexpr const char* MAILDIRSIZE = "maildirsize";

/// In bytes; a longer file is not believed.
inline constexpr std::size_t MAILDIRSIZE_READ_MAX = 5120;

/// The directory beside the Maildir whose size counts against the quota, too.
inline constexpr const char* ATTACHMENTS = "@attachments";

/// What a mailbox may hold; 0 is no limit.
struct MaildirsizeLimits {
    long long bytes;
    long long messages;
};

/// The limits for a quota in bytes: negative is unlimited, 0 blocks delivery.
[[nodiscard]] MaildirsizeLimits limitsOfQuota(long long quota) noexcept;

/// What is left of a quota that is not negative beside attachments of so many bytes: they lie
/// outside the Maildir.
[[nodiscard]] long long quotaBeside(long long attachments, long long quota) noexcept;

/// All that stands in the file.
class MaildirsizeText {
public:
    MaildirsizeText(const MaildirsizeLimits& limits, const MaildirUsage& usage) noexcept;

    operator std::string_view() const noexcept {  // NOLINT(google-explicit-constructor)
        return {content_, length_};
    }

private:
    char content_[MAILDIRSIZE_CONTENT_MAX];
    std::size_t length_;
};

/// Who a new file belongs to, by the umask of now.
[[nodiscard]] Ownership maildirsizeOwnership(uid_t uid, gid_t gid) noexcept;

/// The file as it was found: open, unless it is missing, of another kind or unknown.
struct SeenMaildirsize {
    UniqueFd file;
    Differences differences;
};

/// Looks at the file. Its contents are read only where all else is right.
[[nodiscard]] SeenMaildirsize lookAtMaildirsize(const Ownership& wanted,
                                                std::string_view text) noexcept;

/// Counts the Maildir and replaces its file, or sets the times of one that is right. Returns 1, or
/// 0 with errno.
[[nodiscard]] int writeMaildirsize(uid_t uid, gid_t gid, const MaildirsizeLimits& limits) noexcept;

}  // namespace corvo::mail
