// All domains with mail service.

#pragma once

#include <cstddef>

#include "lib/db++/connection.h"
#include "restore/entities_callbacks.h"

namespace corvo::mail::restore {

/// How many domains the cycle has to report; set once it has asked for them.
extern std::size_t domainsOfCycle;

/// Reports every domain with its catch-all setting, its aliases and its mail names. `connection` is
/// busy with the domains while each of them opens one of its own. A stage's failure is reported and
/// the next stage runs; a domain whose registration fails is left out. Throws what is not one
/// domain's fault: a status that is no number (boost::bad_lexical_cast), a connection that cannot
/// be opened (mError), std::bad_alloc.
void processDomainCycle(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

}  // namespace corvo::mail::restore
