// Lists that apply to the whole mail server. Each function reports one list to its slot, which must
// be bound.
//
// A statement or a fetch that fails is a warning on corvo::uerr. What the slot throws, and a
// column that the result lacks (mError), ends the list; what was reported before stays reported.

#pragma once

#include "lib/db++/connection.h"
#include "restore/entities_callbacks.h"

namespace corvo::mail::restore {

/// The certificates of domains, then of domain aliases, each for the name and for "mail." + name.
void processDomainCertsCycle(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

/// A mask that is no decimal number is 32; rows with a NULL are left out.
void processWhiteLists(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

/// A domain without an ASCII form is left out with a warning.
void processBlackListedDomains(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

/// One call with all servers, possibly none; no call when the parameter cannot be read.
void processRBLServersLists(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

}  // namespace corvo::mail::restore
