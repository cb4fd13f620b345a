#include "tests/faults/disturb/call_kinds.h"

#include <sys/syscall.h>

#include <algorithm>
#include <iterator>

namespace corvo::faults {

namespace {

constexpr long CHANGING[] = {
    SYS_chmod,     SYS_chown,    SYS_connect,   SYS_copy_file_range, SYS_fallocate, SYS_fchmod,
    SYS_fchmodat,  SYS_fchown,   SYS_fchownat,  SYS_fdatasync,       SYS_fsync,     SYS_ftruncate,
    SYS_link,      SYS_linkat,   SYS_mkdir,     SYS_mkdirat,         SYS_pwrite64,  SYS_pwritev,
    SYS_rename,    SYS_renameat, SYS_renameat2, SYS_rmdir,           SYS_sendmsg,   SYS_sendto,
    SYS_symlink,   SYS_syncfs,   SYS_symlinkat, SYS_truncate,        SYS_unlink,    SYS_unlinkat,
    SYS_utimensat, SYS_write,    SYS_writev,
};

// A futex is woken or waited for by the C library.
constexpr long INFALLIBLE[] = {
    SYS_exit,   SYS_exit_group, SYS_futex,  SYS_getegid, SYS_geteuid, SYS_getgid,
    SYS_getpid, SYS_gettid,     SYS_getuid, SYS_getppid, SYS_umask,   SYS_rt_sigreturn,
};

constexpr long LOOKING[] = {SYS_poll, SYS_recvfrom};

constexpr long RELEASING[] = {SYS_close, SYS_munmap};

constexpr long FLUSHING[] = {SYS_fsync, SYS_fdatasync, SYS_syncfs};

constexpr long READING[] = {
    SYS_open,  SYS_openat,     SYS_openat2, SYS_read,  SYS_pread64,  SYS_stat,
    SYS_lstat, SYS_newfstatat, SYS_fstat,   SYS_statx, SYS_readlink, SYS_readlinkat,
};

constexpr long WITH_PATH_FIRST[] = {SYS_open, SYS_stat, SYS_lstat, SYS_readlink};

constexpr long WITH_PATH_SECOND[] = {
    SYS_openat, SYS_openat2, SYS_newfstatat, SYS_statx, SYS_readlinkat,
};

template <std::size_t size>
bool isAmong(long number, const long (&calls)[size]) {
    return std::find(std::begin(calls), std::end(calls), number) != std::end(calls);
}

}  // namespace

bool leavesTraces(long number) {
    return isAmong(number, CHANGING);
}

bool isInfallible(long number) {
    return isAmong(number, INFALLIBLE);
}

bool looksForAnswer(long number) {
    return isAmong(number, LOOKING);
}

bool releases(long number) {
    return isAmong(number, RELEASING);
}

bool flushes(long number) {
    return isAmong(number, FLUSHING);
}

bool reads(long number) {
    return isAmong(number, READING);
}

PathAt pathAt(long number) {
    if (isAmong(number, WITH_PATH_FIRST))
        return PathAt::first;
    return isAmong(number, WITH_PATH_SECOND) ? PathAt::second : PathAt::nowhere;
}

}  // namespace corvo::faults
