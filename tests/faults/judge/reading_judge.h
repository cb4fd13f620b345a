// What must hold of a program that only reads.

#pragma once

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

/// Looks, audits, looks again: both of these, the end (I7), and what is told of root's files (I5).
Violations judgeAudit(const std::vector<std::string>& arguments);

}  // namespace corvo::faults
