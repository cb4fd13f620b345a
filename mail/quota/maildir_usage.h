// What lies in a Maildir++ tree: bytes, messages, and when a folder changed last.
//
// A message whose file name carries its size (",S=<bytes>" before the end or a ":") is counted
// without a look at the file. Links that the mail account could have planted are never followed; a
// folder is a directory itself, named with a leading ".".
//
// Functions return 1, or 0 with errno; paths are relative to the current directory. Bytes and
// messages are added to what the outputs hold, byte sums held at the largest 64-bit value, and
// `newest` is raised to the newest modification time seen. None logs, except where stated, or
// throws.

#pragma once

#include <ctime>

/// Counts one directory of messages. One that cannot be opened counts as empty. Entries that vanish
/// meanwhile are left out; ENAMETOOLONG when an entry that must be looked at has a path of over
/// 4095 characters.
int process_maildir_subdir(const char* directory, long long* bytes, long long* messages,
                           std::time_t* newest) noexcept;

/// Counts "new" and "cur" of a folder.
int process_maildirpp_subfolder(const char* folder, long long* bytes, long long* messages,
                                std::time_t* newest) noexcept;

/// Counts the Maildir that is the current directory, with all folders; sets `bytes` and `messages`
/// to 0 first. An entry whose type cannot be told is named on standard error and skipped.
int get_maildirpp_messages_usage(long long* bytes, long long* messages,
                                 std::time_t* newest) noexcept;

/// Looks at "cur" and "new" of a folder; one that is not there adds nothing.
int get_maildirpp_folder_mtime(const char* folder, std::time_t* newest) noexcept;

/// Looks at the Maildir that is the current directory, with all folders. A Maildir that cannot be
/// opened or read, and each entry named as a folder that is none, is logged through messlog2.
int get_maildirpp_mtime(std::time_t* newest) noexcept;
