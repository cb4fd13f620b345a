// The auditing program under strace.

#pragma once

#include <string>
#include <vector>

#include "tests/faults/disturb/runner.h"

namespace corvo::faults {

/// "name(arguments) = result"; descriptors stand with their paths: "3</etc/passwd>".
struct TracedCall {
    std::string name;
    std::string arguments;
    std::string result;
};

/// The calls of a trace; lines about signals and the end are none.
std::vector<TracedCall> callsIn(const std::string& trace);

struct TracedRun {
    Outcome outcome;
    std::vector<TracedCall> calls;
};

/// Runs the program to its end, or to that of the watchdog's patience (in seconds).
TracedRun tracedAudit(const std::vector<std::string>& arguments, int patience = WATCHDOG);

}  // namespace corvo::faults
