// Texts made of values.

#pragma once

#include <sys/types.h>

/// A newly allocated formatted string; free with free(). Ends the process with status 1 when there
/// is no memory.
char* asprintf_safe(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

/// "regular file", "directory", "symbolic link", "block device", "character device", "fifo",
/// "socket" or "unknown", for the st_mode of a file.
const char* filetype_to_string(mode_t mode) noexcept;
