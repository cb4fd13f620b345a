#include "mail/home/differences.h"

#include <fcntl.h>

#include <cerrno>

namespace corvo::mail {

namespace {

constexpr mode_t ALL_MODE_BITS = 07777;

Differences differencesOfUnseen(int error) noexcept {
    const bool missing = error == ENOENT || error == ENOTDIR;
    return {.missing = missing, .unknown = !missing};
}

Differences ownershipDifferences(const struct stat& seen, const Ownership& wanted) noexcept {
    return {.owner = seen.st_uid != wanted.uid,
            .group = seen.st_gid != wanted.gid,
            .mode = (seen.st_mode & ALL_MODE_BITS) != wanted.mode};
}

}  // namespace

Differences fileDifferences(const struct stat& seen, const Ownership& wanted) noexcept {
    if (!S_ISREG(seen.st_mode))
        return {.kind = true};
    Differences differences = ownershipDifferences(seen, wanted);
    differences.names = seen.st_nlink != 1;
    return differences;
}

Differences directoryDifferences(const struct stat& seen, const Ownership& wanted) noexcept {
    return S_ISDIR(seen.st_mode) ? ownershipDifferences(seen, wanted) : Differences{.kind = true};
}

Differences directoryDifferences(int base, const char* path, const Ownership& wanted) noexcept {
    struct stat seen = {};
    if (::fstatat(base, path, &seen, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) != 0)
        return differencesOfUnseen(errno);
    return directoryDifferences(seen, wanted);
}

}  // namespace corvo::mail
