// What is logged and printed during a test.

#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/sandbox.h"

namespace corvo::test {

/// A line as the logger prints it and its priority. A text alone is an error's.
struct LoggedLine {
    static constexpr int ERROR = 3;
    static constexpr int UNLOGGED = -1;  // printed past the logger, as utils/messlog does

    // NOLINTBEGIN(google-explicit-constructor)
    LoggedLine(const char* itsText, int itsPriority = ERROR)
        : text(itsText), priority(itsPriority) {}
    LoggedLine(std::string itsText, int itsPriority = ERROR)
        : text(std::move(itsText)), priority(itsPriority) {}
    // NOLINTEND(google-explicit-constructor)

    bool operator==(const LoggedLine&) const = default;

    std::string text;
    int priority;
};

void PrintTo(const LoggedLine& line, std::ostream* stream);

using LoggedLines = std::vector<LoggedLine>;

/// What is printed for these lines, on either stream.
std::string textOf(const LoggedLines& lines);

/// While it lives, notes what comes through corvo_log, in this process and in forked children, and
/// passes it on to where it went before. Allocates nothing, so that a test can do without memory.
class LogRecorder {
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    /// The lines since the last call: of any priority, or those that the log level let through.
    static LoggedLines all();
    static LoggedLines printed();
};

/// A test in which every line that is printed is asserted.
class LoggingTest : public SandboxTest {
protected:
    /// Exactly these lines came on both streams since the last look, those that were logged at
    /// their priorities.
    void expectLogged(const LoggedLines& lines);

    /// What came on both streams alike since the last look.
    std::string message() { return streams.both(); }

    StreamCapture streams;
    LogRecorder log;
};

/// Runs `body` in a forked child: it must print exactly these lines on both streams, those that are
/// logged at their priorities, and end well. Needs a LogRecorder.
void expectChildLogs(const LoggedLines& lines, const std::function<void()>& body);

}  // namespace corvo::test
