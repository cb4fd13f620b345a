// One pass over the panel database.

#pragma once

#include <cstddef>

#include "restore/entities_callbacks.h"

namespace corvo::mysql {
class Connection;
}

namespace corvo::mail::restore {

/// Opens a connection of its own, walks, and closes it. Throws mError when it cannot connect.
void walkMailServerEntities(MailsrvEntitiesCallbacks& callbacks);

/// Reads every entity for which a slot is bound, in a fixed order, and reports it. A failure
/// derived from std::exception ends the innermost stage that it happens in, is written to standard
/// error (one line, "... failed (<text>), ignored"), and the walk goes on; anything else leaves the
/// walk. Where the server has ended a connection that `connection` owns while a step was at work,
/// the next step gets a new one. With CORVO_INSTALLER_DEBUG set to anything but "0" the walk tells
/// its progress on standard error.
void walkMailServerEntities(MailsrvEntitiesCallbacks& callbacks, mysql::Connection& connection);

/// How many domains the walk that is under way, or else the last one, has to report; 0 until it has
/// asked for them.
std::size_t domainsOfWalk() noexcept;

/// How many warnings and failure lines the walk that is under way, or else the last one, has
/// written: with none, all that was asked for has been reported.
std::size_t reportsOfLastWalk() noexcept;

}  // namespace corvo::mail::restore
