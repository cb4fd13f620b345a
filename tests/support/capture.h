// What a test prints on standard output and standard error.

#pragma once

#include <string>

namespace corvo::test {

/// Takes both streams of this process from construction on. A line that was written but never
/// asked for fails the test: every output is declared by looking at it.
class StreamCapture {
public:
    StreamCapture();
    ~StreamCapture();  // NOLINT(bugprone-exception-escape): ends the process, as in capture.cpp
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;

    /// What came on the stream since the last call of the same function; flushes first.
    std::string out();
    std::string err();

    /// What came on both streams alike since the last look at them; fails the test where they
    /// differ.
    std::string both();

private:
    friend class CapturePause;

    struct Stream {
        int target = -1;  // 1 or 2
        int saved = -1;   // where the stream went before
        int file = -1;    // where it goes now
    };

    static Stream redirect(int target);
    static std::string take(const Stream& stream);
    static void putBack(Stream& stream);

    static inline StreamCapture* newest = nullptr;

    StreamCapture* older_ = newest;
    Stream out_;
    Stream err_;
};

/// Lets what is written past the captures while it lives: a test's failures are no output of what
/// is tested. A failure that a capture took would be quoted by the next one, and that one in turn.
class CapturePause {
public:
    CapturePause();
    ~CapturePause();
    CapturePause(const CapturePause&) = delete;
    CapturePause& operator=(const CapturePause&) = delete;
};

/// From now on the framework's word on each failure and skip goes past the captures.
void reportPastCaptures();

}  // namespace corvo::test
