// Runs of the production binary under a watchdog.

#pragma once

#include <functional>
#include <string>

namespace corvo::faults {

/// Seconds after which a run counts as hanging.
inline constexpr int WATCHDOG = 20;

struct Outcome {
    int status = -1;  // exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
    bool hung = false;  // ended by the watchdog
};

/// A run with all its means.
Outcome undisturbedRun(const std::string& mode = "--all");

/// A run whose process first does `prepare` (limits, descriptors, environment): between fork and
/// exec.
Outcome preparedRun(const std::function<void()>& prepare, const std::string& mode = "--all");

/// A child of this process under the watchdog; `body` makes the run in it and ends the process.
Outcome watched(const std::function<void()>& body, int seconds = WATCHDOG);

/// Becomes the production binary.
[[noreturn]] void executeRun(const std::string& mode = "--all");

}  // namespace corvo::faults
