// What must hold after any fault, and after the undisturbed run that follows it.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/judge/vocabulary.h"
#include "tests/faults/world/snapshot.h"
#include "tests/faults/world/world.h"

namespace corvo::faults {

/// What a mechanism asks to be judged differently.
struct Expectation {
    int signal = 0;            // the injected signal, which may end the run
    bool reportsLost = false;  // standard error could not be read: nothing must be named in it
    bool passes = false;       // the run outlives the fault: it ends well, and all is restored
    std::vector<std::string> unread = {};  // paths whose looks and reads were made to fail
};

/// Messages, delivery files, sizes, databases, canaries, owners and modes, exit status, reports
/// (I1 to I8), and that what was delivered is delivered on (I11).
Violations checkAfterFault(const Golden& golden, const Snapshot& before, const Snapshot& after,
                           const Outcome& outcome, const Expectation& expectation = {});

/// Makes an undisturbed run and compares with the golden one (I9), then another that may change
/// nothing (I10).
Violations checkRepair(const Golden& golden);

/// checkAfterFault and checkRepair around a faulty run: resets the world, snapshots, runs, judges.
Violations judge(World& world, Start start, const std::function<Outcome()>& faultyRun,
                 const Expectation& expectation = {});

}  // namespace corvo::faults
