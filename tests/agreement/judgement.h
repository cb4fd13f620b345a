// Whether an audit and the run that follows it agree.

#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/agreement/audit.h"
#include "tests/equality/description.h"
#include "tests/equality/scene.h"

namespace corvo::agreement {

/// A server's tree and rows at one moment.
using equality::Ending;

/// One server: looked at, restored, looked at again.
struct Trial {
    equality::Description description;
    Ending before;
    Ending after;  // a full run
    Audit first;
    Audit second;
};

using Violations = std::vector<std::string>;

/// Every disagreement. What two names of the panel share is left out: the last one wins.
Violations judge(const Trial& trial);

/// An audit of a server that a run has just restored without a failure.
Violations judgeUntouched(const equality::Description& description, const Audit& audit);

/// Whether an audit has changed anything or has ended badly.
Violations judgeManners(const Audit& audit);

/// How many objects the audit has named: paths and rows.
std::size_t countObjects(const Trial& trial);

}  // namespace corvo::agreement
