#include "mail/sqlite/sqlite_hardening.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <mutex>
#include <new>
#include <string_view>

#include "utils/guards.h"
#include "utils/safe_path.h"

namespace corvo::mail {

namespace {

constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;
constexpr int LONGEST_VALUE = 1 << 20;

// While one lives, its thread works on a file of ours: the system calls below are shared with
// whoever else uses SQLite in this process.
class OwnWork {
public:
    OwnWork() noexcept { ++depth; }
    ~OwnWork() { --depth; }
    OwnWork(const OwnWork&) = delete;
    OwnWork& operator=(const OwnWork&) = delete;

    static bool isUnderWay() noexcept { return depth > 0; }

private:
    static inline thread_local int depth = 0;
};

bool isOursAlone(const struct stat& file) noexcept {
    return file.st_uid == ::geteuid() && (file.st_mode & WRITABLE_BY_OTHERS) == 0;
}

// The errno for a file that SQLite must not work on, or 0.
int objectionTo(int file, const char* path) noexcept {
    struct stat seen = {};
    if (::fstat(file, &seen) != 0)
        return errno;
    if (safe_path::isForeignHardLink(AT_FDCWD, path, seen))
        return EPERM;
    return std::string_view(path).ends_with("-shm") && !isOursAlone(seen) ? EACCES : 0;
}

// In place of the system calls that SQLite makes for files of ours. The modes and owners it asks
// for are the database's. For other files stay the calls that stood there before.
struct SystemCalls {
    int (*open)(const char*, int, int);
    ssize_t (*readLink)(const char*, char*, std::size_t);
    int (*changeMode)(int, mode_t);
    int (*changeOwner)(int, uid_t, gid_t);
};

SystemCalls others = {};

UniqueFd openPlainly(const char* path, int flags, mode_t mode) noexcept {
    return safe_path::openKeepingTimes(flags, [=](int wanted) noexcept {
        return UniqueFd(::open(path, wanted, mode));  // root-owned path, or O_NOFOLLOW in it
    });
}

int openFile(const char* path, int flags, int mode) noexcept {
    if (!OwnWork::isUnderWay())
        return others.open(path, flags, mode);
    const auto ownMode = static_cast<mode_t>(mode) & ~WRITABLE_BY_OTHERS;
    // A pipe in place of a journal must not block.
    const int safeFlags = flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file =
        safe_path::awaitLease(openPlainly(path, safeFlags, ownMode), AT_FDCWD, path, safeFlags);
    const int objection = file ? objectionTo(file.get(), path) : 0;
    if (objection == 0)
        return file.release();
    errno = objection;
    return -1;
}

// SQLite resolves all links of a path itself before it opens what they lead to.
ssize_t readLink(const char* path, char* target, std::size_t size) noexcept {
    return OwnWork::isUnderWay() ? safe_path::readTrustedLink(AT_FDCWD, path, target, size)
                                 : others.readLink(path, target, size);
}

int changeMode(int file, mode_t mode) noexcept {
    return OwnWork::isUnderWay() ? ::fchmod(file, mode & ~WRITABLE_BY_OTHERS)
                                 : others.changeMode(file, mode);
}

int keepOwner(int file, uid_t uid, gid_t gid) noexcept {
    return OwnWork::isUnderWay() ? 0 : others.changeOwner(file, uid, gid);
}

template <typename Call>
bool findSystemCall(sqlite3_vfs* vfs, const char* name, Call& call) noexcept {
    call = reinterpret_cast<Call>(vfs->xGetSystemCall(vfs, name));
    return call != nullptr;
}

template <typename Call>
bool replaceSystemCall(sqlite3_vfs* vfs, const char* name, Call call) noexcept {
    return vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(call)) == SQLITE_OK;
}

bool replaceSystemCalls(sqlite3_vfs* vfs) noexcept {
    SystemCalls found = {};
    if (!findSystemCall(vfs, "open", found.open) ||
        !findSystemCall(vfs, "readlink", found.readLink) ||
        !findSystemCall(vfs, "fchmod", found.changeMode) ||
        !findSystemCall(vfs, "fchown", found.changeOwner))
        return false;
    others = found;
    return replaceSystemCall(vfs, "open", openFile) &&
           replaceSystemCall(vfs, "readlink", readLink) &&
           replaceSystemCall(vfs, "fchmod", changeMode) &&
           replaceSystemCall(vfs, "fchown", keepOwner);
}

// Our VFS: SQLite's own, whose work is marked as ours where it leads to the calls above.

sqlite3_vfs* systemVfs = nullptr;

// What follows each open file of ours: its own methods, and those that stand in for them.
struct FileMethods {
    const sqlite3_io_methods* system;
    sqlite3_io_methods marked;
};

constexpr std::size_t roundedUp(std::size_t size) noexcept {
    constexpr std::size_t PADDING = alignof(FileMethods) - 1;
    return (size + PADDING) & ~PADDING;
}

FileMethods* methodsOf(sqlite3_file* file) noexcept {
    auto* const bytes = reinterpret_cast<std::byte*>(file);
    const auto size = static_cast<std::size_t>(systemVfs->szOsFile);
    return reinterpret_cast<FileMethods*>(bytes + roundedUp(size));
}

// A new journal's folder is flushed with it, and opened for that.
int flush(sqlite3_file* file, int flags) noexcept {
    const OwnWork mark;
    return methodsOf(file)->system->xSync(file, flags);
}

int mapSharedMemory(sqlite3_file* file, int region, int size, int extend,
                    void volatile** memory) noexcept {
    const OwnWork mark;
    return methodsOf(file)->system->xShmMap(file, region, size, extend, memory);
}

void markMethods(sqlite3_file* file) noexcept {
    auto* const methods = ::new (methodsOf(file)) FileMethods{file->pMethods, *file->pMethods};
    methods->marked.xSync = flush;
    if (methods->marked.iVersion >= 2 && methods->marked.xShmMap != nullptr)
        methods->marked.xShmMap = mapSharedMemory;
    file->pMethods = &methods->marked;
}

int openMarked(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags,
               int* opened) noexcept {
    file->pMethods = nullptr;
    if ((flags & SQLITE_OPEN_SUPER_JOURNAL) != 0)
        return SQLITE_CANTOPEN;
    const OwnWork mark;
    const int result = systemVfs->xOpen(vfs, name, file, flags, opened);
    if (file->pMethods != nullptr)
        markMethods(file);
    return result;
}

int resolveMarked(sqlite3_vfs* vfs, const char* name, int size, char* path) noexcept {
    const OwnWork mark;
    return systemVfs->xFullPathname(vfs, name, size, path);
}

bool registerMarkedVfs() noexcept {
    static sqlite3_vfs hardened = *systemVfs;
    hardened.szOsFile = static_cast<int>(roundedUp(static_cast<std::size_t>(systemVfs->szOsFile)) +
                                         sizeof(FileMethods));
    hardened.zName = HARDENED_VFS;
    hardened.xOpen = openMarked;
    hardened.xFullPathname = resolveMarked;
    return sqlite3_vfs_register(&hardened, 0) == SQLITE_OK;
}

}  // namespace

bool registerHardenedVfs() noexcept {
    static std::mutex alone;
    const std::lock_guard lock(alone);
    if (sqlite3_vfs_find(HARDENED_VFS) != nullptr)
        return true;
    if (systemVfs == nullptr) {
        sqlite3_vfs* const vfs = sqlite3_vfs_find("unix");
        if (vfs == nullptr || !replaceSystemCalls(vfs))
            return false;
        systemVfs = vfs;
    }
    return registerMarkedVfs();
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
