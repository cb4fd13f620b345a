// Connections for single domains and mail names.

#pragma once

#include "lib/db++/connection.h"

namespace corvo::mail::restore {

/// Opens connections, and bears with a server that refuses them for a moment: too many connections,
/// the limits of an account, a restart. It is asked five times within three seconds before that is
/// a failure. A server that does not come round in that time is asked once for each further
/// connection, until one succeeds.
class PatientConnector {
public:
    /// Throws mError "connection failed"; the reason, that of the last attempt, has been printed.
    mysql::Connection open();

private:
    bool isPatient_ = true;
};

}  // namespace corvo::mail::restore
