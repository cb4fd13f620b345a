// What the tests of functions that log share.

#pragma once

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"
#include "utils/log.h"

namespace corvo::test {

/// While it lives, notes what corvo_log prints.
class LogRecorder {
public:
    LogRecorder() {
        noted().clear();
        corvo_log = note;
    }
    ~LogRecorder() { corvo_log = _corvo_utility_log; }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    /// "<priority> <text>" of each message since the last call.
    static std::vector<std::string> messages() { return std::exchange(noted(), {}); }

private:
    static std::vector<std::string>& noted() {
        static std::vector<std::string> messages;
        return messages;
    }

    [[gnu::format(printf, 2, 3)]] static void note(int priority, const char* format, ...) {
        const ErrnoGuard keepErrno;
        va_list arguments;
        va_start(arguments, format);
        char* text = nullptr;
        EXPECT_GE(vasprintf(&text, format, arguments), 0);
        va_end(arguments);
        const UniqueCString owned(text);
        if (priority <= LogLevel)
            noted().push_back(std::to_string(priority) + " " + text);
        _corvo_utility_log(priority, "%s", text);
    }
};

class LoggingTest : public SandboxTest {
protected:
    /// Expects this on both streams, and nothing of it logged at another priority than 3 but
    /// `others`, each "<priority> <text>".
    void expectLogged(const std::string& text, const std::vector<std::string>& others = {}) {
        EXPECT_EQ(capture.err(), text);
        EXPECT_EQ(capture.out(), text);
        std::vector<std::string> messages = LogRecorder::messages();
        std::erase_if(messages, [](const std::string& line) { return line.starts_with("3 "); });
        EXPECT_EQ(messages, others);
    }

    StreamCapture capture;
    LogRecorder recorder;
};

}  // namespace corvo::test
