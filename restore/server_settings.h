// Server-wide mail settings. Each function reads one setting and calls its slot, which must be
// bound.
//
// Values that do not convert give a warning on corvo::uerr and a default. Throw mError where a
// setting has no default for a database error, and whatever the slot throws.

#pragma once

#include "lib/db++/connection.h"
#include "restore/entities_callbacks.h"

namespace corvo::mail::restore {

void restoreSubmission(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

/// The panel keeps KiB. Without a row, or with one that is no number, the slot is not called.
void restoreMaxMessageSize(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

/// Throws mError when the relay kind cannot be read.
void restoreSmtpRelayAndAuth(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

void restoreShortNamesAuth(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

void restoreOverquotaRejection(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

/// Reads nothing; the connection is there because every step has the same parameters.
void restoreRecipientCanonicalMapper(MailsrvEntitiesCallbacks& callbacks,
                                     mysql::Connection& connection);

}  // namespace corvo::mail::restore
