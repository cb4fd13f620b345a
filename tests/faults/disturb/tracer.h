// Runs that are stopped at each of their system calls.
//
// Counting begins with main(): its first call opens /dev/null, and neither the dynamic linker nor a
// library opens that before it. That call is number 1. How often a run looks for an answer of the
// database server is a matter of moments, so these calls have numbers of their own behind the call
// before them: 137, 137.1, 137.2, 138. The process has one thread, and once the last fault
// has happened the rest of the run is left alone, at full speed.

#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tests/faults/disturb/runner.h"

namespace corvo::faults {

/// Where a call stands in its run.
struct Position {
    std::size_t call = 0;
    std::size_t look = 0;  // for an answer, after the call

    auto operator<=>(const Position&) const = default;  // NOLINT(modernize-use-nullptr): false
};

std::string nameOf(const Position& position);  // "137.2", "138"

/// One system call of a run.
struct Call {
    Position position;
    long number = -1;      // as the kernel numbers it
    bool changes = false;  // may leave something that outlives the process
    bool mayFail = true;   // false for the calls that always succeed
    int openFlags = 0;     // of one that opens a path
    bool speaks = false;   // writes to a standard stream
};

/// The calls of an undisturbed run, in their order.
std::vector<Call> callsOfRun();

/// Given the call that a run is about to make.
using Look = std::function<void(const Call&)>;

/// An undisturbed run whose streams go nowhere; `look` is called before each of its calls but the
/// first. Returns its exit status, or 128 + the signal that ended it.
int observeRun(const Look& look);

/// The same, but the run is killed at the entry of a call.
void observeUntil(const Position& end, const Look& look);

enum class Moment {
    entry,  // before the call is executed
    exit,   // when it has been executed
};

struct FaultyRun {
    Outcome outcome;
    bool met = false;                 // false when the run had no such call
    std::vector<std::string> unread;  // the paths whose looks and reads were made to fail
};

/// Kills the run at a call.
FaultyRun killAt(const Position& position, Moment moment);

/// Makes a call fail with `error`. It is not executed; one that releases something is, and only its
/// result changes.
FaultyRun failAt(const Position& position, int error);

/// The same, and `further` calls after it fail, too: those that `isOfTheKind`. A `look` is called
/// before each of the calls behind the first that fails, in a child of this process.
FaultyRun failFrom(const Position& position, int error, std::size_t further,
                   const std::function<bool(const Call&)>& isOfTheKind, const Look& look = {});

}  // namespace corvo::faults
