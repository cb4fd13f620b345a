// What must hold when the panel database has held any text.

#pragma once

#include "tests/faults/judge/vocabulary.h"
#include "tests/faults/world/world.h"

namespace corvo::faults {

/// Messages (I1), foreign rows and what stands beside the databases (I4), the outside (I5), what is
/// new (I6), the end (I7), and all that the honest rows describe (as restored). A run that reports
/// a read-only file system has reached the machine beyond the sandbox (I5).
Violations judgeHostileRows(const Golden& golden, const Snapshot& before, const Snapshot& after,
                            const Outcome& outcome);

/// What a second run over the same rows may not change (I7, I10, I5).
Violations judgeRepetition(const Snapshot& once, const Outcome& outcome, const Snapshot& twice);

}  // namespace corvo::faults
