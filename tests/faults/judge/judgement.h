// The questions behind the invariants, for their tests.

#pragma once

#include <string>
#include <vector>

#include "tests/faults/judge/invariants.h"
#include "tests/faults/judge/tree_comparison.h"

namespace corvo::faults {

/// Whether a faulty run may leave a .qmail as `now`; null where there is no file.
bool isAllowedDelivery(const Golden& golden, const std::string& path, const Entry* former,
                       const Entry* now, const Outcome& outcome);

/// Whether this is a whole maildirsize such as a run writes, counted in part at least.
bool isNewSizeFile(const Golden& golden, const std::string& path, const std::string& content);

/// Whether this is a maildirsize whose owner or group could not be looked up, which makes it
/// root's, and whether the run has said so.
bool isOwnedByUnknown(const std::string& path, const Entry& now, const Outcome& outcome);

/// The entities, as a line of standard error would name them, that the run has left unrestored
/// without a word.
std::vector<std::string> unreported(const Golden& golden, const Snapshot& after,
                                    const Outcome& outcome);

/// I4 of what a faulty run leaves.
void checkDatabases(const Golden& golden, const Snapshot& before, const Snapshot& after,
                    Violations& found);

/// I9 of what the run after a fault leaves.
void checkRepaired(const Golden& golden, const Snapshot& repaired, Violations& found);

/// I10 of what the run after that leaves.
void checkUnchanged(const Snapshot& before, const Snapshot& after, Violations& found);

}  // namespace corvo::faults
