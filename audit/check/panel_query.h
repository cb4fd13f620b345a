// Statements of the checks' own for the panel database.

#pragma once

#include <functional>
#include <string>

#include "audit/check/subject.h"
#include "lib/db++/connection.h"

namespace corvo::audit {

using Row = mysql::Result::row_t;

/// The domains that a walk comes to, each once, as "d", and their mail service as "s".
inline constexpr const char* WALKED_DOMAINS =
    " FROM domains d JOIN DomainServices s ON s.dom_id=d.id AND s.type='mail' "
    "JOIN Parameters p ON p.id=s.parameters_id AND p.parameter='nonexist_mail' ";

/// Their mail names, as "m".
inline constexpr const char* WALKED_MAILNAMES = "JOIN mail m ON m.dom_id=d.id ";

/// Runs a statement and visits each row. False when it failed, which is then a problem of the
/// subject's.
bool ask(mysql::Connection& panel, const Subject& subject, const std::string& statement,
         const std::function<void(const Row& row)>& visit);

}  // namespace corvo::audit
