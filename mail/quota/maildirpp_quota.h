// The quota of a mailbox: written to the `maildirsize` file that delivery agents obey, read back,
// and asked about.
//
// Sizes are in bytes. Functions return 1, or 0 with errno, except check_maildirpp_overquota. The
// current directory is put back on every way out, except where stated. Messages go through messlog2
// unless stated. Links that the mail account could have planted are refused as the failure of the
// step that met them. None throws.

#pragma once

#include <sys/types.h>

#include <string>

/// Writes the quota of a mail name (the domain in UTF-8), less what its "@attachments" hold;
/// negative is unlimited. Failures before the Maildir is entered are logged. When "@attachments"
/// cannot be counted, the current directory stays the mail name's home.
int store_mbox_quota(const char* domain, const char* mailname, long long quota) noexcept;

/// Writes the quota of a Maildir, owned by popuser; negative is unlimited, 0 blocks delivery.
int store_maildirpp_quota_raw(const char* maildir, long long quota) noexcept;

/// Counts a Maildir and replaces its `maildirsize`; limits of 0 are none. Atomic: the file is the
/// old or the complete new one. One that is right already gets new times and nothing else; that
/// they cannot be set is no failure. When mail arrived meanwhile, the file is dated back, so that
/// delivery agents count anew soon. Waits 2 s after each of five attempts at a temporary file.
/// Silent when the Maildir cannot be entered, or its messages counted, or the file given away or
/// renamed.
int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid, long long byteLimit,
                                long long countLimit) noexcept;

/// Reads usage and limits from `maildirsize`. When the file cannot be used: 0 with `strict`, else
/// the usage is counted. Limits that could not be read are the largest value, also on failure. A
/// corrupted header is logged through corvo_log at priority 3; all else is silent.
int get_maildirpp_usage_and_limits(const char* maildir, int strict, long long* bytes,
                                   long long* messages, long long* byteLimit,
                                   long long* countLimit) noexcept;

/// The usage alone, counted when `maildirsize` cannot be used.
int get_maildirpp_usage(const char* maildir, long long* bytes, long long* messages) noexcept;

/// 1 when messages of `bytes` in all would exceed the quota, else 0; 0 also when that cannot be
/// found out. Exactly full is not over quota.
int check_maildirpp_overquota(const char* maildir, long long bytes, long long messages) noexcept;

namespace corvo::mail {

/// The home in which store_mbox_quota works; empty for names that it refuses. Silent. Throws
/// std::bad_alloc.
std::string quotaHomeOf(const char* domain, const char* mailname);

}  // namespace corvo::mail
