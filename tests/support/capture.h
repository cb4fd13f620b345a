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

private:
    struct Stream {
        int target = -1;  // 1 or 2
        int saved = -1;   // where the stream went before
        int file = -1;    // where it goes now
    };

    static Stream redirect(int target);
    static std::string take(const Stream& stream);
    static void putBack(Stream& stream);

    Stream out_;
    Stream err_;
};

}  // namespace corvo::test
