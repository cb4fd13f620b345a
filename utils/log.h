// The levelled logger, on the standard streams or to syslog.
//
// Priorities are syslog's, with the names of <syslog.h>: 0 (LOG_EMERG) to 7 (LOG_DEBUG), 3
// (LOG_ERR) is an error. Before corvo_log_init the logger prints priorities 0 to 6, each line to
// standard error and to standard output. Nothing here returns a result or throws, results of writes
// are ignored, and no prefix, time stamp or level name is added. A text that ends in "\n" gets its
// newline all the same: a blank line follows it. Logging leaves errno as it was.
//
// All state is process-wide and unlocked.

#pragma once

#include <syslog.h>

#include <cstdarg>

#include "utils/guards.h"

/// Highest priority that the stream writers still print: 6 until corvo_log_set_level.
extern int LogLevel;
/// The options that corvo_log_init was given for syslog: openlog's 0x01 (pid, always set), 0x02
/// (console) and 0x20 (also to standard error), and CORVO_LOG_TRACE.
extern int LogOpts;
/// The syslog facility, as <syslog.h> has it: 16 is LOG_MAIL.
extern int LogFacility;
/// Where lines go. Null: both standard streams before corvo_log_init, syslog after it. "console":
/// both streams; "stderr": standard error alone; both in any case of letters. Any other name
/// prints nothing. The string belongs to the caller of corvo_log_init and must outlive its use.
extern const char* LogLocation;
/// What syslog calls this program. openlog keeps a pointer to it.
extern char LogIdent[64];
/// Put before each syslog line when LogOpts has CORVO_LOG_TRACE.
extern char LogTraceId[64];

/// Option of corvo_log_init: put the trace id in front of each syslog message.
inline constexpr int CORVO_LOG_TRACE = 0x40;
/// Bit of a level: CORVO_LOG_LEVEL in the environment may raise it.
inline constexpr int CORVO_LOG_ENV_LEVEL = 8;

/// Log a line through the writers chosen by corvo_log_init. A program may point them at functions
/// of its own. The libraries write all their lines through corvo_log, by corvo::Log.
extern void (*corvo_log)(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
extern void (*corvo_logv)(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/// Chooses the output: the standard streams when `location` is set, syslog when it is null. May be
/// called again at any time; syslog is then closed and opened once more.
///
/// Keeps the pointer `location`; copies `ident` (null: the program's short name), cut to 63
/// characters. `opts` and `ident` matter for syslog only. With CORVO_LOG_TRACE in `opts` the trace
/// id is the environment variable CORVO_LOG_TRACE_ID, cut likewise; when that is unset or empty,
/// the program's upper-cased initial and its pid ("M4711"), which is exported under that name so
/// that child processes log under the same id.
void corvo_log_init(const char* location, int level, int facility, int opts,
                    const char* ident) noexcept;

/// Sets the level to `level & 7`. With CORVO_LOG_ENV_LEVEL in `level` the environment variable
/// CORVO_LOG_LEVEL (exactly one digit, 0 to 7) may raise it, never lower it. Without a LogLocation
/// syslog's mask follows.
void corvo_log_set_level(int level) noexcept;

/// LogOpts.
int corvo_log_get_opts() noexcept;

/// The stream writers, which corvo_log and corvo_logv point at from the start. Print priorities up
/// to LogLevel.
void _corvo_utility_log(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void _corvo_utility_logv(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/// The syslog writers. The level filter is syslog's mask. A message with a trace id is cut to 8191
/// characters, the id included.
void _corvo_utility_syslog(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void _corvo_utility_syslogv(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

namespace corvo {

/// Writes a line through corvo_log, and leaves errno as it was whatever corvo_log points to:
///
///     corvo::Log().line(LOG_ERR, "Unable to open '%s': %s", path, std::strerror(errno));
class Log {
public:
    Log() = default;
    ~Log() = default;  // puts errno back
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    void (*const line)(int priority, const char* format, ...)
        __attribute__((format(printf, 2, 3))) = corvo_log;

private:
    ErrnoGuard keepErrno_;
};

}  // namespace corvo
