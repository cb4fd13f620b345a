// A second process that works while the test does.

#pragma once

#include <sys/types.h>

#include <functional>

namespace corvo::test {

/// A forked process. It ends when its body returns, and at the latest when this does.
class SecondProcess {
public:
    using Ready = std::function<void()>;

    /// Returns once `body` has called `ready`. Throws std::runtime_error when the process ended
    /// before that.
    explicit SecondProcess(const std::function<void(const Ready& ready)>& body);
    ~SecondProcess();
    SecondProcess(const SecondProcess&) = delete;
    SecondProcess& operator=(const SecondProcess&) = delete;

    /// Waits for its end: whether the body returned. Once only.
    bool endedWell();

private:
    pid_t child_ = -1;
};

}  // namespace corvo::test
