// The command `check`.

#pragma once

#include "audit/output.h"

namespace corvo::audit {

/// Looks whether this machine is ready for a run, and prints each result as it is found, and a
/// summary. Returns the program's status; warnings alone leave nothing to repair.
int check(Output& output);

}  // namespace corvo::audit
