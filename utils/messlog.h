// Messages to standard error and standard output alike, with the program's name and the text of
// the current errno, and optionally the end of the process.
//
// A status that is not 0 makes the message the last one: the process ends with exit(status). With
// status 0 each function returns 0, and errno is the same after the call as before it. Results of
// writes are ignored.

#pragma once

#include <cstdarg>

/// The program's path; set by main() from argv[0]. Its base name opens each message. Null: no
/// prefix.
extern char* PROGNAME;

/// What several families say of a path and the text of an errno.
inline constexpr char MESSLOG_UNABLE_TO_OPEN[] = "Unable to open file %s: %s\n";

/// Writes "<base name>: ", the text and, unless the text ends in one, a newline to standard error,
/// then the same to standard output, flushing each. `flag` is not used, here and
/// below; it is part of the interface.
int ex_messlog(const char* text, int status, int flag);

/// As ex_messlog with a formatted text of any length. Unless errno is 0 on entry, "\nSystem error
/// <n>: <text>" is put directly after the message. Short of memory the text is cut to 4095
/// characters or the second line left out; without any the message is "Can't allocate memory for
/// error message".
int vmesslog2(int status, int flag, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));
int messlog2(int status, int flag, const char* format, ...) __attribute__((format(printf, 3, 4)));
