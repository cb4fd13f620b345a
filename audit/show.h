// The command `show`.

#pragma once

#include "audit/options.h"
#include "audit/output.h"

namespace corvo::audit {

/// Prints all that the panel knows of mail, each entity as it is read, and a summary; the settings
/// of the whole server only without a scope. Returns the program's status. Throws mysql::mError
/// without the panel database.
int show(const Options& options, Output& output);

}  // namespace corvo::audit
