// What must hold of a program that only reads.

#pragma once

#include <functional>

#include "tests/faults/disturb/traced.h"
#include "tests/faults/judge/vocabulary.h"
#include "tests/faults/world/outside.h"
#include "tests/faults/world/snapshot.h"

namespace corvo::faults {

/// All that an audit could change, with times and inodes.
struct Untouched {
    Tree storage;
    Tree databases;
    Tree locks;
    OutsideState outside;

    static Untouched look();
};

/// I13: calls that could change something but on the standard streams and the database's
/// connection, locks that hold others up, and descriptors of what only a trap leads to.
Violations judgeCalls(const std::vector<TracedCall>& calls);

/// I13: what is not as it was.
Violations judgeUntouched(const Untouched& before, const Untouched& after);

/// I13: what would drive a terminal, or is no UTF-8, in what is printed.
Violations judgeText(const std::string& printed);

/// Looks, audits, looks again: all of these, the end (I7), and what is told of root's files (I5).
Violations judgeAudit(const std::function<TracedRun()>& audit);

}  // namespace corvo::faults
