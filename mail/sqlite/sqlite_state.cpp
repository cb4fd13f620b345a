#include "mail/sqlite/sqlite_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <iterator>

#include "utils/guards.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

// The bytes that SQLite's locks are on, by its file format: pending, reserved, shared.
constexpr off_t FIRST_LOCK_BYTE = 0x40000000;
constexpr off_t LOCK_BYTES = 512;

// In the header of a database: the versions of the format that a writer and a reader need.
constexpr off_t FORMAT_VERSIONS = 18;
constexpr char WAL_VERSION = 2;

// What lies beside the database whose place this is.
class Beside {
public:
    Beside(const safe_path::Location& database, const char* suffix) noexcept : at_(database) {
        fits_ = std::snprintf(name_, sizeof name_, "%s%s", database.name, suffix) <
                static_cast<int>(sizeof name_);
    }

    bool exists() const noexcept {
        struct stat seen = {};
        return look(seen);
    }

    bool look(struct stat& seen) const noexcept {
        return fits_ &&
               safe_path::status(at_.parent.get(), name_, seen, safe_path::LastLink::keep) == 0;
    }

    UniqueFd open(struct stat& seen) const noexcept {
        return safe_path::openFile(at_.parent.get(), name_, O_RDONLY, 0, seen);
    }

private:
    const safe_path::Location& at_;
    char name_[NAME_MAX + 1];
    bool fits_;
};

// A journal whose header is cleared has done its work; one that cannot be read may have not.
bool holdsTransaction(const Beside& journal) noexcept {
    if (!journal.exists())
        return false;
    struct stat seen = {};
    const UniqueFd file = journal.open(seen);
    if (!file)
        return true;
    char first = 0;
    return seen.st_size > 0 &&
           (retryOnEintr([&] { return ::pread(file.get(), &first, 1, 0); }) != 1 || first != 0);
}

// SQLite gives the mode of the database to an empty journal as soon as it opens it, even to read.
bool isOdd(const Beside& journal, const struct stat& database) noexcept {
    struct stat seen = {};
    return journal.look(seen) && seen.st_size == 0 &&
           (seen.st_mode & ACCESSPERMS) != (database.st_mode & ACCESSPERMS);
}

bool isInWalMode(int database, bool& isWal) noexcept {
    char versions[2] = {};
    const ssize_t got =
        retryOnEintr([&] { return ::pread(database, versions, sizeof versions, FORMAT_VERSIONS); });
    isWal = versions[0] == WAL_VERSION || versions[1] == WAL_VERSION;
    return got >= 0;
}

bool findLock(int database, SqliteState& state) noexcept {
    struct flock lock = {};
    lock.l_type = F_WRLCK;  // which any lock of another's conflicts with
    lock.l_whence = SEEK_SET;
    lock.l_start = FIRST_LOCK_BYTE;
    lock.l_len = LOCK_BYTES;
    if (::fcntl(database, F_GETLK, &lock) != 0)
        return false;
    state.isLocked = lock.l_type != F_UNLCK;
    state.holder = state.isLocked ? lock.l_pid : 0;
    return true;
}

}  // namespace

bool lookAtSqlite(const char* path, SqliteState& state) noexcept {
    safe_path::Location place;
    if (safe_path::locate(AT_FDCWD, path, safe_path::LastLink::follow, place) != 0)
        return false;
    const UniqueFd database =
        safe_path::openFile(place.parent.get(), place.name, O_RDONLY, 0, state.database);
    if (!database || !isInWalMode(database.get(), state.wal) || !findLock(database.get(), state))
        return false;
    state.wal = state.wal || Beside(place, "-wal").exists();
    state.sharedMemory = Beside(place, "-shm").exists();
    state.hasOddJournal = isOdd(Beside(place, "-journal"), state.database);
    state.journal = holdsTransaction(Beside(place, "-journal"));
    return true;
}

}  // namespace corvo::mail
