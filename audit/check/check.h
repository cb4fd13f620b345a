// Is this machine ready for a run? Everything that an administrator looks at before one.

#pragma once

#include <functional>
#include <string>

namespace corvo::audit {

enum class Verdict {
    ok,
    warning,  // a run comes to its end, and may do less, or more, than is expected of it
    problem,  // a run fails at it, or cannot do what it is for
};

/// Texts may hold bytes from the database or the disk as they are.
struct CheckResult {
    Verdict verdict;
    std::string subject;  // what was looked at, a few words that stay the same
    std::string finding;  // what was found
    std::string advice;   // what to do; empty for ok
};

using CheckSink = std::function<void(const CheckResult&)>;

/// Looks at everything in a fixed order and hands out each result as it is found, at least one for
/// each subject. Changes nothing, prints nothing, and takes no lock but SQLite's for one read.
/// Needs no rights, and says what could not be read. What is found is never thrown; running out of
/// memory is, and what the sink throws. The panel database is asked over one connection. Call
/// safe_path::setStorageOwner before.
void checkMachine(const CheckSink& sink);

}  // namespace corvo::audit
