// The file `maildirsize` of the Maildir that is the current directory: what
// mail/quota/maildirpp_quota.h tells of its writing.
//
// Links that the mail account could have planted are refused as the failure of the step that met
// them. None throws.

#pragma once

#include <sys/types.h>

namespace corvo::mail {

inline constexpr const char* MAILDIRSIZE = "maildirsize";

/// What a mailbox may hold; 0 is no limit.
struct MaildirsizeLimits {
    long long bytes;
    long long messages;
};

/// Counts the Maildir and replaces its file. Returns 1, or 0 with errno.
[[nodiscard]] int writeMaildirsize(uid_t uid, gid_t gid, const MaildirsizeLimits& limits) noexcept;

}  // namespace corvo::mail
