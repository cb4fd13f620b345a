// Single settings of the panel: the rows of misc and of the mail server's configuration.
//
// Where a parameter has several rows the first one counts. Names are pasted into the statement
// unescaped: pass constants.

#pragma once

#include <string>

#include "lib/db++/connection.h"

namespace corvo::mail::restore {

/// The value's text; empty with the null flag for a missing row or a NULL. Throw mError.
mysql::Field getStringMiscParam(const std::string& name, mysql::Connection& connection);
mysql::Field getStringMailServerParam(const std::string& name, mysql::Connection& connection);

/// The same, but a database error is a warning on corvo::uerr and counts as a missing row.
mysql::Field getStringMiscParamSafe(const std::string& name, mysql::Connection& connection);
mysql::Field getStringMailServerParamSafe(const std::string& name, mysql::Connection& connection);

/// Whether the value is exactly "true"; `defaultValue` for a missing row. A database error is a
/// warning on corvo::uerr and counts as a missing row.
bool getBoolMiscParamSafe(const std::string& name, mysql::Connection& connection,
                          bool defaultValue);
bool getBoolMailServerParamSafe(const std::string& name, mysql::Connection& connection,
                                bool defaultValue);

}  // namespace corvo::mail::restore
