#include "utils/log.h"

#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/guards.h"

int LogLevel = LOG_INFO;
int LogOpts = LOG_PID;
int LogFacility = LOG_MAIL;
const char* LogLocation = nullptr;
char LogIdent[64] = "";
char LogTraceId[64] = "";

void (*corvo_log)(int priority, const char* format, ...) = _corvo_utility_log;
void (*corvo_logv)(int priority, const char* format, va_list arguments) = _corvo_utility_logv;

namespace {

constexpr const char* LEVEL_VARIABLE = "CORVO_LOG_LEVEL";
constexpr const char* TRACE_ID_VARIABLE = "CORVO_LOG_TRACE_ID";
constexpr int OPENLOG_OPTIONS = LOG_PID | LOG_CONS | LOG_PERROR;
constexpr std::size_t SYSLOG_MESSAGE_SIZE = 8192;  // bytes, the terminating zero included

// `text` may be `target` itself.
void copyCut(char (&target)[64], const char* text) {
    const std::size_t length = ::strnlen(text, sizeof target - 1);
    std::memmove(target, text, length);
    target[length] = '\0';
}

void takeTraceId() {
    const char* inherited = std::getenv(TRACE_ID_VARIABLE);
    if (inherited != nullptr && *inherited != '\0') {
        copyCut(LogTraceId, inherited);
        return;
    }
    const auto initial = static_cast<unsigned char>(*program_invocation_short_name);
    (void)std::snprintf(LogTraceId, sizeof LogTraceId, "%c%ld", std::toupper(initial),
                        static_cast<long>(::getpid()));
    (void)::setenv(TRACE_ID_VARIABLE, LogTraceId, 1);
}

void openSyslog(int opts, const char* ident) {
    ::closelog();
    LogOpts = opts | LOG_PID;
    copyCut(LogIdent, ident != nullptr ? ident : program_invocation_short_name);
    if ((LogOpts & CORVO_LOG_TRACE) != 0)
        takeTraceId();
    ::openlog(LogIdent, LogOpts & OPENLOG_OPTIONS, LogFacility);
}

// The level that the environment asks for, or -1.
int environmentLevel() {
    const char* text = std::getenv(LEVEL_VARIABLE);
    const bool oneDigit = text != nullptr && *text >= '0' && *text <= '7' && text[1] == '\0';
    return oneDigit ? *text - '0' : -1;
}

__attribute__((format(printf, 2, 0))) void writeLine(std::FILE* stream, const char* format,
                                                     va_list arguments) {
    const corvo::ErrnoGuard keepErrno;
    va_list copy;
    va_copy(copy, arguments);
    (void)std::vfprintf(stream, format, copy);
    va_end(copy);
    (void)std::fputc('\n', stream);
    (void)std::fflush(stream);
}

}  // namespace

void corvo_log_init(const char* location, int level, int facility, int opts,
                    const char* ident) noexcept {
    LogFacility = facility;
    LogLocation = location;
    if (location != nullptr) {
        corvo_log = _corvo_utility_log;
        corvo_logv = _corvo_utility_logv;
    } else {
        openSyslog(opts, ident);
        corvo_log = _corvo_utility_syslog;
        corvo_logv = _corvo_utility_syslogv;
    }
    corvo_log_set_level(level);
}

void corvo_log_set_level(int level) noexcept {
    LogLevel = level & LOG_PRIMASK;
    if ((level & CORVO_LOG_ENV_LEVEL) != 0)
        LogLevel = std::max(LogLevel, environmentLevel());
    if (LogLocation == nullptr)
        ::setlogmask(LOG_UPTO(LogLevel));
}

int corvo_log_get_opts() noexcept {
    return LogOpts;
}

void _corvo_utility_logv(int priority, const char* format, va_list arguments) {
    if (LogLevel < priority)
        return;
    const bool bothStreams = LogLocation == nullptr || ::strcasecmp(LogLocation, "console") == 0;
    if (!bothStreams && ::strcasecmp(LogLocation, "stderr") != 0)
        return;
    writeLine(stderr, format, arguments);
    if (bothStreams)
        writeLine(stdout, format, arguments);
}

void _corvo_utility_log(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    _corvo_utility_logv(priority, format, arguments);
    va_end(arguments);
}

void _corvo_utility_syslogv(int priority, const char* format, va_list arguments) {
    const corvo::ErrnoGuard keepErrno;
    if ((LogOpts & CORVO_LOG_TRACE) == 0 || *LogTraceId == '\0') {
        ::vsyslog(priority, format, arguments);
        return;
    }
    char message[SYSLOG_MESSAGE_SIZE];
    const auto prefix =
        static_cast<std::size_t>(std::snprintf(message, sizeof message, "%s: ", LogTraceId));
    (void)std::vsnprintf(message + prefix, sizeof message - prefix, format, arguments);
    ::syslog(priority, "%s", message);
}

void _corvo_utility_syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    _corvo_utility_syslogv(priority, format, arguments);
    va_end(arguments);
}
