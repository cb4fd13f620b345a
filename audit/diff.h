// The command `diff`.

#pragma once

#include "audit/options.h"
#include "audit/output.h"

namespace corvo::audit {

/// Compares the storage with what `mail_rebuild --all` would make of it, in the panel's order, and
/// prints each item as it is found, and a summary. Returns the program's status. Throws what keeps
/// it from going on: std::runtime_error without the account, mysql::mError without the panel
/// database.
int diff(const Options& options, Output& output);

}  // namespace corvo::audit
