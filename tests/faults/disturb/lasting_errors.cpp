#include "tests/faults/disturb/lasting_errors.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>

namespace corvo::faults {

namespace {

/// How many calls report an error.
struct Length {
    const char* name;
    std::size_t calls;
};
constexpr Length LENGTHS[] = {{"2", 2}, {"3", 3}, {"all", SIZE_MAX}};

using Numbers = std::vector<long>;

// Calls that do the same to a path, a descriptor or a name in a directory.
const Numbers FAMILIES[] = {
    {SYS_open, SYS_openat, SYS_openat2},
    {SYS_socket},
    {SYS_read, SYS_pread64},
    {SYS_write, SYS_pwrite64, SYS_writev},
    {SYS_ftruncate},
    {SYS_fsync, SYS_fdatasync, SYS_syncfs},
    {SYS_stat, SYS_lstat, SYS_fstat, SYS_newfstatat, SYS_statx},
    {SYS_getdents64},
    {SYS_readlink, SYS_readlinkat},
    {SYS_access, SYS_faccessat, SYS_faccessat2},
    {SYS_chdir, SYS_fchdir},
    {SYS_mkdir, SYS_mkdirat},
    {SYS_rename, SYS_renameat, SYS_renameat2},
    {SYS_unlink, SYS_unlinkat},
    {SYS_chown, SYS_fchown, SYS_fchownat},
    {SYS_chmod, SYS_fchmod, SYS_fchmodat},
    {SYS_utimensat},
};

bool isAmong(long number, const Numbers& numbers) {
    return std::ranges::find(numbers, number) != numbers.end();
}

/// Null for calls that no lasting error strikes.
const Numbers* familyOf(const Call& call) {
    const auto* const family = std::ranges::find_if(
        FAMILIES, [&](const Numbers& numbers) { return isAmong(call.number, numbers); });
    return call.speaks || family == std::end(FAMILIES) ? nullptr : family;
}

bool opens(const Call& call) {
    return isAmong(call.number, FAMILIES[0]);
}

bool makesDescriptor(const Call& call) {
    return opens(call) || call.number == SYS_socket;
}

bool takesRoom(const Call& call) {
    constexpr long TAKING[] = {SYS_write,     SYS_pwrite64,  SYS_writev,  SYS_fsync,
                               SYS_fdatasync, SYS_mkdir,     SYS_mkdirat, SYS_rename,
                               SYS_renameat,  SYS_renameat2, SYS_syncfs};
    return (std::ranges::count(TAKING, call.number) > 0 && !call.speaks) ||
           (opens(call) && (call.openFlags & O_CREAT) != 0);
}

bool changesFiles(const Call& call) {
    constexpr long CHANGING[] = {SYS_mkdir,    SYS_mkdirat,  SYS_rename,    SYS_renameat,
                                 SYS_unlink,   SYS_unlinkat, SYS_renameat2, SYS_chown,
                                 SYS_fchown,   SYS_fchownat, SYS_chmod,     SYS_fchmod,
                                 SYS_fchmodat, SYS_utimensat};
    return std::ranges::count(CHANGING, call.number) > 0 ||
           (opens(call) && (call.openFlags & (O_ACCMODE | O_CREAT)) != O_RDONLY);
}

bool mayWantMemory(const Call& call) {
    return familyOf(call) != nullptr;
}

bool meetsDisk(const Call& call) {
    return familyOf(call) != nullptr && call.number != SYS_socket;
}

/// An error, and the calls that can report it.
struct Trouble {
    int number;
    const char* name;
    bool (*strikes)(const Call&);
    bool isGeneral;  // strikes all of them at once, and not only calls of one family
};

constexpr Trouble TROUBLES[] = {
    {EMFILE, "EMFILE", makesDescriptor, true},
    {ENFILE, "ENFILE", makesDescriptor, true},
    {ENOMEM, "ENOMEM", mayWantMemory, false},
    {ENOSPC, "ENOSPC", takesRoom, true},
    {EIO, "EIO", meetsDisk, false},
    {EROFS, "EROFS", changesFiles, true},
};

std::vector<Trouble> troublesAt(const Call& call) {
    std::vector<Trouble> troubles;
    std::ranges::copy_if(TROUBLES, std::back_inserter(troubles),
                         [&](const Trouble& trouble) { return trouble.strikes(call); });
    return troubles;
}

/// Differs from one mail name to the next, however many calls are made for each.
std::size_t scattered(std::size_t number) {
    constexpr std::uint32_t FACTOR = 2654435769;  // 2^32 by the golden ratio
    return static_cast<std::uint32_t>(number) * FACTOR >> 16U;
}

std::function<bool(const Call&)> concernedBy(const Trouble& trouble, const Call& first) {
    if (trouble.isGeneral)
        return trouble.strikes;
    const Numbers* const family = familyOf(first);
    return [family](const Call& call) { return familyOf(call) == family; };
}

}  // namespace

std::vector<LastingError> lastingErrorsAt(const Call& call) {
    std::vector<LastingError> errors;
    for (const Length& length : LENGTHS)
        for (const Trouble& trouble : troublesAt(call))
            errors.push_back({std::string(trouble.name) + "-" + length.name, trouble.number,
                              length.calls - 1, concernedBy(trouble, call)});
    return errors;
}

std::vector<LastingError> someLastingErrorsAt(const Call& call) {
    const std::vector<LastingError> all = lastingErrorsAt(call);
    const std::size_t troubles = all.size() / std::size(LENGTHS);
    std::vector<LastingError> some;
    for (std::size_t i = 0; i < all.size(); i += troubles)
        some.push_back(all[i + (scattered(call.position.call) + some.size()) % troubles]);
    return some;
}

}  // namespace corvo::faults
