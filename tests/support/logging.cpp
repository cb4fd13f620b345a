#include "tests/support/logging.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <system_error>

#include "tests/support/process.h"
#include "utils/guards.h"
#include "utils/log.h"

namespace corvo::test {

namespace {

/// Lies in memory that forked children share. Each line is kept as "+<priority> <text>" and a zero
/// byte; with "-" where the log level held it back.
struct Record {
    std::size_t used;
    bool isFull;
    char lines[1 << 20];
};

Record& record() {
    static Record* const shared = [] {
        void* const memory = ::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), "mmap");
        return static_cast<Record*>(memory);
    }();
    return *shared;
}

decltype(corvo_log) formerLog = nullptr;

[[gnu::format(printf, 2, 0)]] void append(int priority, const char* format, va_list arguments) {
    constexpr std::size_t LONGEST_HEAD = 16;
    Record& kept = record();
    char* const line = kept.lines + kept.used;
    const std::size_t room = sizeof kept.lines - kept.used;
    kept.isFull = kept.isFull || room < LONGEST_HEAD;
    if (kept.isFull)
        return;
    const int head = std::snprintf(line, room, "%c%d ", priority <= LogLevel ? '+' : '-', priority);
    const int body =
        std::vsnprintf(line + head, room - static_cast<std::size_t>(head), format, arguments);
    const std::size_t size = static_cast<std::size_t>(head) + static_cast<std::size_t>(body) + 1;
    kept.isFull = size > room;
    if (!kept.isFull)
        kept.used += size;
}

[[gnu::format(printf, 2, 3)]] void note(int priority, const char* format, ...) {
    const ErrnoGuard keepErrno;
    va_list arguments;
    va_start(arguments, format);
    append(priority, format, arguments);
    va_end(arguments);
    va_start(arguments, format);
    corvo_logv(priority, format, arguments);
    va_end(arguments);
}

void clear() {
    record().used = 0;
    record().isFull = false;
}

enum class Wanted { all, printed };

LoggedLines take(Wanted wanted) {
    EXPECT_FALSE(record().isFull) << "more was logged than can be noted";
    LoggedLines lines;
    const char* const end = record().lines + record().used;
    for (const char* line = record().lines; line != end; line += std::string(line).size() + 1) {
        char* text = nullptr;
        const long priority = std::strtol(line + 1, &text, 10);
        if (*line == '+' || wanted == Wanted::all)
            lines.emplace_back(text + 1, static_cast<int>(priority));
    }
    clear();
    return lines;
}

void expectPriorities(LoggedLines lines) {
    std::erase_if(lines,
                  [](const LoggedLine& line) { return line.priority == LoggedLine::UNLOGGED; });
    EXPECT_EQ(LogRecorder::printed(), lines);
}

}  // namespace

void PrintTo(const LoggedLine& line, std::ostream* stream) {
    *stream << line.priority << " " << line.text;
}

std::string textOf(const LoggedLines& lines) {
    std::string all;
    for (const LoggedLine& line : lines)
        all += line.text + "\n";
    return all;
}

LogRecorder::LogRecorder() {
    clear();
    formerLog = corvo_log;
    corvo_log = note;
}

LogRecorder::~LogRecorder() {
    corvo_log = formerLog;
}

LoggedLines LogRecorder::all() {
    return take(Wanted::all);
}

LoggedLines LogRecorder::printed() {
    return take(Wanted::printed);
}

void LoggingTest::expectLogged(const LoggedLines& lines) {
    EXPECT_EQ(message(), textOf(lines));
    expectPriorities(lines);
}

void expectChildLogs(const LoggedLines& lines, const std::function<void()>& body) {
    const ProcessResult child = runForked(body);
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, textOf(lines));
    EXPECT_EQ(child.out, textOf(lines));
    expectPriorities(lines);
}

}  // namespace corvo::test
