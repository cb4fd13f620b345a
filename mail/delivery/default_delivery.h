// The server-wide delivery line: the first line of DEFAULT_DELIVERY_FILE.
//
// Functions return 0, or -1 with the errno of what failed; the reason has then been logged once, at
// priority 3 or by the helpers of utils/files.h. None throws.

#pragma once

#include "utils/guards.h"

/// Where it is, wherever the mail names root may be.
inline constexpr const char* DEFAULT_DELIVERY_FILE = "/var/qmail/mailnames/.default_delivery";

/// The line without its line end, newly allocated; free with free(). The file must be a regular
/// one that is not empty (EINVAL), and no foreign hard link (EPERM, see utils/safe_path.h); the
/// line must be text (EINVAL) of at most 64 KiB (EFBIG).
int get_default_delivery_string(char** line) noexcept;

/// Makes `line` the whole content of the file, byte by byte, owned by popuser with mode 0600. A
/// file that cannot be written is removed.
int set_default_delivery_string(const char* line) noexcept;

namespace corvo::mail {

/// What reading the line came to.
struct DefaultDelivery {
    UniqueCString line;  // null when there is none to be had
    bool isOpened;       // what failed is the reading
    int error;           // an errno, unless there is a line
};

/// get_default_delivery_string that logs nothing.
DefaultDelivery readDefaultDelivery() noexcept;

/// Logs why there is no line. errno is the reason afterwards.
void reportMissingLine(const DefaultDelivery& missing) noexcept;

}  // namespace corvo::mail
