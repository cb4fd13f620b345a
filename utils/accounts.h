// The password and group databases.
//
// Look-ups that fail are reported once through messlog2, except where stated. errno is cleared
// before a look-up, so that "not found" (0) and "could not look" differ. None throws.

#pragma once

#include <grp.h>
#include <sys/types.h>

/// The account that owns all mail storage.
inline constexpr const char* POPUSER = "popuser";

/// The reason that is given for a group that is not there.
inline constexpr const char* GROUP_NOT_FOUND = "Group not found";

/// Whether the uid is popuser's; false without such an account. Logs nothing; may leave any errno.
bool is_popuser(uid_t uid) noexcept;

/// A group by name, or by number when the text is all digits. Null for an empty or null text
/// (silently) and when there is none. The result lives in the C library's static storage.
struct group* lookup_group(const char* name_or_number) noexcept;

/// The id of the group that lookup_group finds, or 0.
gid_t get_group_id(const char* name) noexcept;

/// As get_group_id; `found` tells whether there is such a group (1 or 0).
gid_t get_group_if_exists(const char* name, int* found) noexcept;

/// Fills the outputs that are not null. `home` is newly allocated; free with free(). Returns 0 or
/// -1.
int corvo_getpw(const char* name, uid_t* uid, gid_t* gid, char** home) noexcept;

/// What corvo_ugid is asked for.
inline constexpr int WANT_UID = 0;
inline constexpr int WANT_GID = 1;

/// The user's primary gid when `want_gid` is WANT_GID (or anything but 0), else the uid; 0 when the
/// user is unknown.
id_t corvo_ugid(const char* name, int want_gid) noexcept;

/// The uid, or 0.
uid_t get_user_id(const char* name) noexcept;

/// The name, or the number in decimal; logs nothing. The result lives in one static buffer of 4096
/// bytes that the next call overwrites.
const char* get_user_name(uid_t uid) noexcept;
