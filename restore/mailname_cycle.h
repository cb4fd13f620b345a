// The mail names of one domain.

#pragma once

#include <string>

#include "lib/db++/connection.h"
#include "restore/entities_callbacks.h"
#include "restore/patient_connector.h"

namespace corvo::mail::restore {

/// A domain with mail service, as its row has it.
struct Domain {
    std::string id;  // as read; pasted into statements
    std::string name;
    bool off = false;  // the status value is not 0
};

/// Reports every mail name of the domain with its mailbox, quota, aliases and, for a mail group,
/// its forwarding addresses. `connection` is busy with the mail names while each of them gets one
/// of its own from `connector`. A stage's failure is reported and the next stage runs. Throws
/// mError when a connection cannot be opened, and std::bad_alloc.
void processMailnamesCycle(const Domain& domain, MailsrvEntitiesCallbacks& callbacks,
                           mysql::Connection& connection, PatientConnector& connector);

}  // namespace corvo::mail::restore
