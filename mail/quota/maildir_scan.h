// What mail/quota/maildir_usage.h tells in whole seconds, for those inside who compare times: mail
// may come and go within a second.
//
// What that header says of results, paths, links and logging holds here.

#pragma once

#include <ctime>

namespace corvo::mail {

/// What was counted so far.
struct MaildirUsage {
    long long bytes;
    long long messages;
    timespec newest;  // the modification time of what changed last
    int refusal = 0;  // EACCES or EPERM where a directory was refused, and counted as empty
};

[[nodiscard]] bool isLater(const timespec& one, const timespec& other) noexcept;

/// process_maildir_subdir, process_maildirpp_subfolder and get_maildirpp_messages_usage.
[[nodiscard]] int countDirectory(const char* directory, MaildirUsage& usage) noexcept;
[[nodiscard]] int countFolder(const char* folder, MaildirUsage& usage) noexcept;
[[nodiscard]] int countMaildir(MaildirUsage& usage) noexcept;

/// get_maildirpp_folder_mtime and get_maildirpp_mtime.
[[nodiscard]] int raiseToFolder(const char* folder, timespec& newest) noexcept;
[[nodiscard]] int raiseToMaildir(timespec& newest) noexcept;

}  // namespace corvo::mail
