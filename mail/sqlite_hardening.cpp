#include "mail/sqlite_hardening.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "utils/guards.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

constexpr const char* VFS_NAME = "hardened";
constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;
constexpr int LONGEST_VALUE = 1 << 20;

bool isOursAlone(const struct stat& file) noexcept {
    return file.st_uid == ::geteuid() && (file.st_mode & WRITABLE_BY_OTHERS) == 0;
}

// The errno for a file that SQLite must not work on, or 0.
int objectionTo(int file, std::string_view path) noexcept {
    struct stat seen {};
    if (::fstat(file, &seen) != 0)
        return errno;
    if (safe_path::isForeignHardLink(seen))
        return EPERM;
    return path.ends_with("-shm") && !isOursAlone(seen) ? EACCES : 0;
}

// In place of the system calls that SQLite makes. The modes and owners it asks for are the
// database's.

int openFile(const char* path, int flags, int mode) noexcept {
    const auto ownMode = static_cast<mode_t>(mode) & ~WRITABLE_BY_OTHERS;
    // A pipe in place of a journal must not block.
    const int safeFlags = flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file(::open(path, safeFlags, ownMode));  // root-owned path, or O_NOFOLLOW in it
    const int objection = file ? objectionTo(file.get(), path) : 0;
    if (objection == 0)
        return file.release();
    errno = objection;
    return -1;
}

// SQLite resolves all links of a path itself before it opens what they lead to.
ssize_t readLink(const char* path, char* target, std::size_t size) noexcept {
    return safe_path::readTrustedLink(AT_FDCWD, path, target, size);
}

int changeMode(int file, mode_t mode) noexcept {
    return ::fchmod(file, mode & ~WRITABLE_BY_OTHERS);
}

int keepOwner(int /*file*/, uid_t /*uid*/, gid_t /*gid*/) noexcept {
    return 0;
}

template <typename Call>
bool replaceSystemCall(sqlite3_vfs* vfs, const char* name, Call call) noexcept {
    return vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(call)) == SQLITE_OK;
}

// SQLite's own; null until it has been replaced.
decltype(sqlite3_vfs::xOpen) systemOpen = nullptr;

int openNoSuperJournal(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags,
                       int* opened) noexcept {
    if ((flags & SQLITE_OPEN_SUPER_JOURNAL) == 0)
        return systemOpen(vfs, name, file, flags, opened);
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
}

}  // namespace

bool hardenSqlite() noexcept {
    if (systemOpen != nullptr)
        return true;
    sqlite3_vfs* const vfs = sqlite3_vfs_find(nullptr);
    if (vfs == nullptr || !replaceSystemCall(vfs, "open", openFile) ||
        !replaceSystemCall(vfs, "readlink", readLink) ||
        !replaceSystemCall(vfs, "fchmod", changeMode) ||
        !replaceSystemCall(vfs, "fchown", keepOwner))
        return false;
    systemOpen = vfs->xOpen;
    static sqlite3_vfs hardened = *vfs;
    hardened.zName = VFS_NAME;
    hardened.xOpen = openNoSuperJournal;
    return sqlite3_vfs_register(&hardened, 1) == SQLITE_OK;
}

void hardenConnection(sqlite3* database) noexcept {
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    for (const int power : {SQLITE_DBCONFIG_TRUSTED_SCHEMA, SQLITE_DBCONFIG_ENABLE_TRIGGER,
                            SQLITE_DBCONFIG_ENABLE_VIEW})
        sqlite3_db_config(database, power, 0, nullptr);
    (void)sqlite3_drop_modules(database, nullptr);
    sqlite3_limit(database, SQLITE_LIMIT_LENGTH, LONGEST_VALUE);
}

}  // namespace corvo::mail
