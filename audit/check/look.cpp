#include "audit/check/look.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "utils/files.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

constexpr std::size_t SMALL = 65536;

}  // namespace

LookedAt lookAtFile(const std::string& path) {
    LookedAt found;
    found.file = safe_path::openFile(AT_FDCWD, path.c_str(), O_RDONLY, 0, found.seen);
    found.error = found.file ? 0 : errno;
    return found;
}

std::optional<std::string> contentsOfSmall(int base, const std::string& path) {
    const UniqueFd file = safe_path::openFile(base, path.c_str(), O_RDONLY);
    if (!file)
        return std::nullopt;
    std::string text(SMALL, '\0');
    const ssize_t got = read_fully(file.get(), text.data(), text.size());
    if (got < 0)
        return std::nullopt;
    text.resize(static_cast<std::size_t>(got));
    return text;
}

bool mayOthersWrite(const struct stat& seen) noexcept {
    return seen.st_uid != 0 || (seen.st_mode & S_IWOTH) != 0 ||
           ((seen.st_mode & S_IWGRP) != 0 && seen.st_gid != 0);
}

bool mayEverybodyRead(const struct stat& seen) noexcept {
    return (seen.st_mode & S_IROTH) != 0;
}

std::string adviceToRemount(const std::string& directory) {
    return "see why (findmnt -T " + directory + "), and mount it anew, writable";
}

std::string ownerAndMode(const struct stat& seen) {
    constexpr unsigned int PERMISSIONS = 07777;
    std::array<char, 64> text = {};
    (void)std::snprintf(text.data(), text.size(), "%u:%u %04o", seen.st_uid, seen.st_gid,
                        seen.st_mode & PERMISSIONS);
    return text.data();
}

}  // namespace corvo::audit
