// Adding and removing lines of small text files, under a lock by name.
//
// Functions return 0, or 1 on failure with the errno of what failed; the reason has then been
// reported once, through messlog2 except where stated. None throws. Readers take no lock: a rewrite
// is written to "<path>.tmp", gets the owner, group and mode of the old file and is renamed over
// it, or is removed when it did not reach the disk whole. Set-id and sticky bits stay only with a
// file of root's in a directory that root alone may write. A new file has the process's owner and
// umask. What is written is on the disk before it takes an old file's place or the function ends; a
// flush that fails is a write that fails. Files are opened as utils/safe_path.h says.

#pragma once

#include <cstdio>

/// What file_strings does with the listed strings.
enum file_strings_action {
    FILE_STRINGS_ADD = 0,
    FILE_STRINGS_REMOVE = 1,          // lines that equal one of them
    FILE_STRINGS_REMOVE_PATTERN = 2,  // lines that one of them matches
};

/// Where file_strings adds.
enum file_strings_place { FILE_STRINGS_PREPEND = 0, FILE_STRINGS_APPEND = 1 };

/// How file_strings matches patterns.
enum file_strings_match {
    FILE_STRINGS_PREFIX = 0,
    FILE_STRINGS_SUFFIX = 1,  // of the line without its newline: "...\n" matches none
    FILE_STRINGS_SUBSTRING = 2
};

/// `list` ends with a null. `where` is a file_strings_place when adding, a file_strings_match when
/// removing by pattern, and not used otherwise. A listed string may end in a newline or not; lines
/// are compared whole, however long. An unknown action does nothing, nor does adding at an unknown
/// place; a removal by an unknown match drops no line.
///
/// - Appending to a file whose last line has no newline continues that line. What an append that
///   fails has written is taken back, the file that it made included.
/// - Prepending to a file that does not exist fails, as does removing by pattern.
/// - Removing exact lines from a file that does not exist fails silently.
/// - When a line cannot be written while exact lines are removed, the process ends with status 1.
/// - A temporary file that cannot be made for a removal, and a rename that fails, are reported on
///   standard error alone.
/// - A file that cannot be looked at keeps its lock, as keep_lock says.
/// - A file larger than 64 MiB is not rewritten, nor is one that grows beyond that while it is
/// read:
///   EFBIG. No line is longer than that, and no more memory and disk are taken.
int file_strings(const char* path, const char* const* list, int action, int where) noexcept;

/// file_strings with one line.
int file_str(const char* path, const char* line, int action, int where) noexcept;

/// Appends a line that continues no other: a last line without newline gets its own first, in the
/// same write. Otherwise as file_str with FILE_STRINGS_ADD and FILE_STRINGS_APPEND.
int file_append_line(const char* path, const char* line) noexcept;

/// Writes each string, with a newline where it has none. Returns 0, or -1 at the first short write;
/// logs nothing.
int write_strings(std::FILE* stream, const char* const* list) noexcept;
