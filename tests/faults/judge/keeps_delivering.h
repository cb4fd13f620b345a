// Whether what was delivered before a run is delivered on (I11).

#pragma once

#include <string>
#include <vector>

#include "tests/faults/judge/vocabulary.h"
#include "tests/faults/world/snapshot.h"

namespace corvo::faults {

/// What a run may have lost its way by. Each is an exception that a reader of its reports, or
/// whoever struck its calls, knows by name.
struct Excuses {
    /// Unreadable: the paths of the looks and reads that failed. One of them excuses one .qmail,
    /// its own or one below it: what cannot be read is made anew.
    std::vector<std::string> unread;
    /// Not named: what the run said. A forward is dropped when the panel's database, an address or
    /// a want of memory has kept the run from naming it, which is then said.
    std::string reports;
};

/// Whether this .qmail delivers into a mailbox: by the default line or by one known of old.
bool delivers(const std::string& content);

/// I11 for each .qmail: one that delivered and shall deliver does, and each forward that stood
/// there and shall stand stands there. The three trees are as below the mail names root; `before`
/// is what the run found, `wanted` what an undisturbed run leaves.
Violations checkKeepsDelivering(const Tree& before, const Tree& wanted, const Tree& now,
                                const Excuses& excuses = {});

/// The same for all states that a run has gone through: what is wrong in the first state that is
/// wrong, for each .qmail.
Violations checkKeepsDelivering(const Tree& before, const Tree& wanted,
                                const std::vector<Tree>& states, const Excuses& excuses = {});

}  // namespace corvo::faults
