// How the checks look at files: what was found as a value, nothing said of it.

#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "utils/guards.h"

namespace corvo::audit {

/// A file that was opened for reading.
struct LookedAt {
    UniqueFd file;
    struct stat seen = {};
    int error = 0;  // an errno; the file is then not open
};

/// Opens a regular file, as utils/safe_path.h has it.
LookedAt lookAtFile(const std::string& path);

/// What is in a small file, cut at 64 KiB. Empty, with errno, when it cannot be read.
std::optional<std::string> contentsOfSmall(int base, const std::string& path);

/// Whether anybody but root may change a file or directory, or what is in it.
bool mayOthersWrite(const struct stat& seen) noexcept;

/// Whether anybody may read a file.
bool mayEverybodyRead(const struct stat& seen) noexcept;

/// What to do about a directory on a read-only disk.
std::string adviceToRemount(const std::string& directory);

/// Owner, group and mode, as "uid:gid 0750".
std::string ownerAndMode(const struct stat& seen);

}  // namespace corvo::audit
