// Opening paths that others may tamper with.
//
// Mail storage belongs to an account that may plant links, pipes and races in it, and this program
// runs as root. Here a path is walked on descriptors, and a symbolic link is followed only when
// root or the running user owns the link itself, at most 40 of them; any other link is ELOOP. A
// link with several names may have been planted under one of them, and is followed only where
// nobody but root can have put it (see isRootsEntry in utils/path_walk.h). A path without links
// costs one system call where the kernel can walk it so.
//
// `base` is a directory's descriptor or AT_FDCWD; it matters for relative paths only. Functions
// return a descriptor or 0, or -1 (an empty guard) with errno, except where stated; none logs or
// throws, and only those that read directories or ask whose a uid is allocate. Descriptors are
// close-on-exec. For a path that nobody tampers with, results and errno are those of the plain
// calls, except where stated.

#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <climits>
#include <string_view>

#include "utils/dir_entries.h"
#include "utils/guards.h"
#include "utils/path_walk.h"

namespace corvo::safe_path {

/// Directories nested deeper than this are not entered by what works on whole trees: ELOOP.
inline constexpr int MAX_DEPTH = 512;

/// Whether a text can be the name of a directory's entry: not empty, "." or "..", without "/" and
/// zero bytes. Its length is not looked at.
[[nodiscard]] bool isComponent(std::string_view name) noexcept;

/// The directory that holds the last component of a path, and that component's name. The descriptor
/// is opened with O_PATH: a base for others, not for reading.
struct Location {
    UniqueFd parent;
    char name[NAME_MAX + 1] = {};
};

/// Walks to the parent of the last component, which need not exist. With LastLink::follow a trusted
/// link there is followed in turn. Paths that end in "/", "." or ".." have no last component:
/// EINVAL.
[[nodiscard]] int locate(int base, const char* path, LastLink last, Location& location) noexcept;

/// Opens a directory for reading and for use as a base.
[[nodiscard]] UniqueFd openDirectory(int base, const char* path) noexcept;

/// Opens a directory to read its entries. With LastLink::keep a link as last component is ENOTDIR.
[[nodiscard]] DirEntries openEntries(int base, const char* path,
                                     LastLink last = LastLink::follow) noexcept;

/// Opens a regular file: waits for nothing but a lease (see awaitLease), follows trusted links
/// only, and takes O_TRUNC to effect only after the file proved sound. EINVAL for anything that is
/// not a regular file (EISDIR for a directory that is opened for writing); for an open that writes,
/// EPERM for what isForeignHardLink() says. An exclusive creation (O_CREAT | O_EXCL) follows no
/// link.
[[nodiscard]] UniqueFd openFile(int base, const char* path, int flags, mode_t mode = 0) noexcept;

/// As above; `seen` receives what fstat said of the file before a truncation.
[[nodiscard]] UniqueFd openFile(int base, const char* path, int flags, mode_t mode,
                                struct stat& seen) noexcept;

/// Takes what an open with O_NONBLOCK among its `flags` came to and hands it back, unless that is
/// EAGAIN for a regular file: somebody holds a lease on it (fcntl), and as a plain open does, this
/// one waits until the holder gives way, for fs.lease-break-time at most. EAGAIN stays for anything
/// else, as it does without /proc.
[[nodiscard]] UniqueFd awaitLease(UniqueFd opened, int base, const char* path, int flags) noexcept;

/// Tells whether a uid is that of the account that owns the storage.
using OwnerTest = bool (*)(uid_t uid) noexcept;

/// Says whose own files may have several names. A program that works on mail storage says so before
/// it opens anything there, with is_popuser of utils/accounts.h; until then they are nobody's.
void setStorageOwner(OwnerTest isOwner) noexcept;

/// True for a file with several names that is not the storage owner's own (see setStorageOwner): it
/// may be another's file that was linked into the mail tree, and nothing may be written to it or
/// handed out from it. `file` is what fstat says of what `path` led to. Where that is an entry of
/// root's (see isRootsEntry), its further names are root's own business.
[[nodiscard]] bool isForeignHardLink(int base, const char* path, const struct stat& file) noexcept;

/// readlink, for a link that is followed: its target's length; ELOOP for any other. The target is
/// not ended by a zero byte.
[[nodiscard]] ssize_t readTrustedLink(int base, const char* path, char* target,
                                      std::size_t size) noexcept;

/// stat, with trusted links followed; with LastLink::keep lstat.
[[nodiscard]] int status(int base, const char* path, struct stat& result,
                         LastLink last = LastLink::follow) noexcept;

/// What setOwnerAndMode does, in this order.
enum class PermissionStep { open, chown, chmod };

/// Sets owner and mode of an open file: fchown, then fchmod, each repeated on EINTR. `failed` (may
/// be null) receives the step that failed and is untouched otherwise.
[[nodiscard]] int setOwnerAndMode(int file, uid_t uid, gid_t gid, mode_t mode,
                                  PermissionStep* failed) noexcept;

/// Opens a regular file or directory and sets its owner and mode as above. The open counts as
/// failed for other kinds of files (EINVAL) and foreign hard links (EPERM), too.
[[nodiscard]] int setOwnerAndMode(int base, const char* path, uid_t uid, gid_t gid, mode_t mode,
                                  PermissionStep* failed) noexcept;

/// As above for a regular file alone, which is not opened for it: a process that closes a file
/// loses every lock (fcntl) that it holds there. The mode needs /proc: ENOENT without.
[[nodiscard]] int setOwnerAndModeUnopened(int base, const char* path, uid_t uid, gid_t gid,
                                          mode_t mode, PermissionStep* failed) noexcept;

/// Makes one directory. Returns 1 when something of that name exists already (what it is, the next
/// step finds out), 0 when it was made.
[[nodiscard]] int makeDirectory(int base, const char* path, mode_t mode) noexcept;

/// Makes a directory and its missing parents, and opens it as openDirectory does. An existing
/// directory is opened. What a dangling link points at is not made: ENOENT. `made` (may be null)
/// receives whether the last directory was missing and made here.
[[nodiscard]] UniqueFd makeDirectories(int base, const char* path, mode_t mode,
                                       bool* made = nullptr) noexcept;

/// Renames within walked parents; links as last components are renamed, not followed.
[[nodiscard]] int renameEntry(int base, const char* from, const char* to) noexcept;

/// Removes a file or a link, never what a link points at.
[[nodiscard]] int unlinkEntry(int base, const char* path) noexcept;

/// Removes what `path` names and everything below it; a link is removed, not followed. A missing
/// path is no failure. Stops at the first failure.
[[nodiscard]] int removeTree(int base, const char* path) noexcept;

/// Changes the process's working directory.
[[nodiscard]] int changeDirectory(const char* path) noexcept;

}  // namespace corvo::safe_path
