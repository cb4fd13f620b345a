// What a run finds on this server besides mail, looked at once.

#pragma once

#include <optional>
#include <string>

#include "mail/home/differences.h"

namespace corvo::audit {

struct Means {
    mail::Ownership domainRoot;
    mail::Ownership home;         // and all directories in it
    mail::Ownership delivery;     // of `.qmail`
    mail::Ownership maildirsize;  // as a run of this user makes it
    bool isReadOnly = false;      // the file system of the mail root: a run changes nothing there
    bool hasAgent = false;
    bool hasLocks = false;
    std::optional<std::string> deliveryLine;
    std::string hidden;  // which of these three is unknown for want of rights, and why; or empty

    /// Is there a line that delivers? An empty one does not.
    bool hasDeliveryLine() const;
};

/// Throws std::runtime_error without the account to which all belongs: no run is possible then, and
/// there is nothing to compare with.
Means findMeans();

}  // namespace corvo::audit
