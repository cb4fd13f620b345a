// Files: owner, mode, creation, first lines.
//
// Functions return 0, or -1 with the errno of the call that failed; the reason has then been logged
// once, through messlog2 except where stated. None throws. Paths are opened as utils/safe_path.h
// says.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <string_view>

/// chown, then chmod, of a regular file or directory; stops at the first failure, which is logged
/// through corvo_log at priority 3. A path that is refused counts as a failed chown.
int file_set_perms_internal(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept;

/// As file_set_perms_internal, but a path that is not there or not reachable (ENOENT, ENOTDIR,
/// EACCES, ENAMETOOLONG) is left alone (result 0). A link that safe_path does not follow is a
/// failure, and so is a want of descriptors or memory. Clears errno first.
int file_set_perms(const char* path, uid_t uid, gid_t gid, mode_t mode) noexcept;

/// file_set_perms with the uid and primary gid of `user`. An unknown user is ENOENT.
int file_set_user_mode(const char* path, const char* user, mode_t mode) noexcept;

/// Creates the file (0644) or empties it. Logs through corvo_log at priority 3.
int create_empty_file(const char* path) noexcept;

/// Creates the file (0644) or leaves it as it is.
int create_file(const char* path) noexcept;

/// Writes all of `data` to an open file; what is interrupted or would block is repeated. Logs
/// nothing.
int write_fully(int fd, std::string_view data) noexcept;

/// Brings what was written to an open file to the disk, with what is needed to read it again; 0
/// also where the file is none that can be flushed. Logs nothing.
int flush_data(int fd) noexcept;

/// Reads up to `size` bytes of an open file into `buffer`, fewer only where it ends; what is
/// interrupted is repeated. Returns the number of bytes. Logs nothing.
ssize_t read_fully(int fd, char* buffer, std::size_t size) noexcept;

/// Closes the stream; it is gone in any case.
int p_fclose(std::FILE* stream) noexcept;

/// Reads the first line, without its newline, into `buffer`; the end of the file may end it, too. A
/// file without a line is ENODATA, a line that does not fit in `size` - 1 characters ERANGE, as is
/// a size of 0. After a failure the buffer's contents are undefined.
int get_string_from_file(const char* path, char* buffer, std::size_t size) noexcept;
