// A second process beside a run.

#pragma once

#include <sys/types.h>

#include <functional>

namespace corvo::faults {

/// Runs `body` in a forked child, whose exit status is what it returns. The child dies with this
/// process.
class Background {
public:
    /// Called by the body when the run may begin.
    using Ready = std::function<void()>;

    /// Returns when the body has called Ready, or has ended without.
    explicit Background(const std::function<int(const Ready&)>& body);
    /// Kills what still runs.
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    /// Waits for the end: the exit status, or 128 + the signal.
    int finish();

private:
    pid_t child_ = -1;
};

}  // namespace corvo::faults
