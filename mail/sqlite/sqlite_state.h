// What lies at the path of a database and beside it, seen without SQLite, which would roll an
// interrupted transaction back or make shared memory for a log.
//
// A look changes nothing and logs nothing. Paths are opened as utils/safe_path.h says.

#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace corvo::mail {

struct SqliteState {
    struct stat database = {};
    bool journal = false;  // "-journal" holds a transaction: one under way or an interrupted one
    bool hasOddJournal = false;  // "-journal" is empty, with a mode of its own: SQLite changes that
    bool wal = false;            // in WAL mode, or there is a "-wal"
    bool sharedMemory = false;   // there is a "-shm"
    bool isLocked = false;       // by another process
    pid_t holder = 0;            // of the lock; 0 or less: one that cannot be named from here

    /// Whether SQLite can read it, read-only, and leave everything as it is.
    bool isQuiet() const noexcept { return !journal && !hasOddJournal && !wal; }
};

/// Looks at a database, which need not be one. False with errno when it cannot be opened or read.
/// As POSIX has it, all locks that this process holds on the file are gone afterwards: nothing may
/// have it open here.
[[nodiscard]] bool lookAtSqlite(const char* path, SqliteState& state) noexcept;

}  // namespace corvo::mail
