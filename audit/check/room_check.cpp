#include <fcntl.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <optional>
#include <string>

#include "audit/check/checks.h"
#include "audit/check/panel_query.h"
#include "audit/check/subject.h"
#include "mail/home/mail_paths.h"
#include "mail/home/skeleton.h"
#include "utils/runtime_config.h"
#include "utils/safe_path.h"

namespace corvo::audit {

namespace {

using Count = unsigned long long;

// A home, what is in it, its .qmail and its maildirsize. Each takes an inode and a block.
constexpr Count ENTRIES_OF_A_HOME = 1 + mail::SKELETON.size() + 2;

// What the files that are replaced, the databases and the server itself need beside.
constexpr Count SPARE_ENTRIES = 1000;

// How many homes there should be and are not; empty after a problem.
std::optional<Count> countMissingHomes(const Subject& room, const UniqueFd& root,
                                       mysql::Connection& panel) {
    Count missing = 0;
    const bool isAnswered = ask(
        panel, room,
        std::string("SELECT LOWER(d.name) AS domain, LOWER(m.mail_name) AS name") + WALKED_DOMAINS +
            WALKED_MAILNAMES,
        [&](const Row& row) {
            const std::string home = mail::relativeHomeOf(row["domain"].value, row["name"].value);
            struct stat seen = {};
            if (safe_path::status(root.get(), home.c_str(), seen) != 0 && errno == ENOENT)
                ++missing;
        });
    return isAnswered ? std::optional(missing) : std::nullopt;
}

// A file system that makes its inodes as they are needed says that it has none.
bool hasRoomFor(const struct statvfs& disk, Count entries) {
    return disk.f_bavail >= entries && (disk.f_files == 0 || disk.f_favail >= entries);
}

std::string freeOn(const struct statvfs& disk) {
    const std::string blocks =
        "free: " + std::to_string(disk.f_bavail) + " blocks of " + std::to_string(disk.f_frsize);
    return disk.f_files == 0 ? blocks
                             : blocks + " bytes and " + std::to_string(disk.f_favail) + " inodes";
}

void judgeRoom(const Subject& room, const struct statvfs& disk, Count missing) {
    const Count needed = missing * ENTRIES_OF_A_HOME;
    const std::string finding = freeOn(disk) + "; " + std::to_string(missing) +
                                " missing homes take " + std::to_string(needed) + " of each";
    if (hasRoomFor(disk, needed + SPARE_ENTRIES))
        room.ok(finding);
    else
        room.warning(finding, "make room, and leave " + std::to_string(SPARE_ENTRIES) +
                                  " of each for what runs beside");
}

}  // namespace

void checkRoom(const CheckSink& sink, mysql::Connection* panel) {
    const Subject room(sink, "room for mail");
    const std::string path = vhcConfGetDefaultByIndex(CORVO_MAILNAMES_D);
    const UniqueFd root = safe_path::openTrusted(AT_FDCWD, path.c_str(), safe_path::BASE_FLAGS);
    struct statvfs disk = {};
    if (!root || ::fstatvfs(root.get(), &disk) != 0)
        return room.unreadable(path, errno);
    const auto missing = panel != nullptr ? countMissingHomes(room, root, *panel) : Count{0};
    if (missing)
        judgeRoom(room, disk, *missing);
}

}  // namespace corvo::audit
