// Directories: creation with owner and mode, renaming, sizes, searching.
//
// Functions return 0 (or what is stated), or -1 or null with the errno of the call that failed; the
// reason has then been logged once through messlog2, except where stated. None throws. Paths are
// opened as utils/safe_path.h says.

#pragma once

#include <sys/types.h>

/// Makes one directory and gives it owner and mode, even when it exists. One that vanishes at once
/// is no failure. Clears errno first.
int make_dir(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept;

/// make_dir_rec with a umask of 0.
int make_dir_p(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept;

/// Makes a directory and its missing parents, all owned by uid:gid; parents get `mode` & 0777, and
/// the umask counts. A directory that exists is left alone. A mkdir that fails otherwise ends the
/// process with status 1; a chown that fails is logged and not a failure.
int make_dir_rec(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept;

/// Makes a directory and its missing parents with `mode` (the umask counts) and the process's
/// owner. A directory that exists is left alone.
int createNestedDirectory(const char* path, mode_t mode) noexcept;

/// Renames a directory. A missing `from` is no failure; an existing `to` is, with EEXIST.
int rename_dir(const char* from, const char* to) noexcept;

/// The recursive sum, in bytes, of the lstat sizes of everything below `path` that is not a
/// directory; no link below it is followed, and what vanishes meanwhile counts nothing. -1 with
/// errno on failure (silent); sums are held at the largest 64-bit value; trees nested more than 512
/// deep fail with ELOOP.
long long get_dir_size(const char* path) noexcept;

/// The number of entries in the process's working directory, hidden ones included, "." and ".."
/// not. -1 with errno on failure (silent).
long count_cur_dir() noexcept;

/// The path ("directory/...") of an entry of this name in `directory` or below it, of whatever
/// type; a directory is looked at before what is below it. No link below it is followed. Newly
/// allocated; free with free(). Null with ENOENT when there is none, and with another errno on
/// failure (silent).
char* find_file(const char* directory, const char* name) noexcept;

/// The name of the entry in `directory` (not below it) that equals `name` when the case of ASCII
/// letters is disregarded; an exact match wins over others, of which the first found counts. Newly
/// allocated; free with free(). Null as find_file.
char* find_case_file_in_dir(const char* directory, const char* name) noexcept;
