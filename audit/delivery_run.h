// What a run makes of the delivery file of a mail name: without a look at the disk.

#pragma once

#include <string>
#include <vector>

#include "audit/means.h"
#include "mail/delivery/delivery_file.h"

namespace corvo::audit {

/// What the panel says of a mail name's mail. A run ends its forwards at the first that is to no
/// address. Forwards are whole lines, as they are named.
struct DeliveryWish {
    bool delivers = false;
    bool isReadWhole = true;               // or there are forwards of which nobody knows
    std::vector<std::string> forwards;     // those that a run puts into the file
    std::vector<std::string> noAddresses;  // what is named as one and is none
    std::vector<std::string> unreached;    // behind the first of these
};

/// A delivery file: as it is, or as a run would leave it.
struct DeliveryState {
    bool exists = false;
    bool isTooLong = false;  // to be read
    bool isUnended = false;  // its last line has no line end
    mail::Lines lines;
    mail::Differences differences;  // of an existing one, but for its contents
};

/// What a run would leave. Where the stage for the home is not whole, `isRestored` is false, and
/// only forwards are added. The lines are those of `found`, `wish` and `means`, which outlive the
/// result.
DeliveryState stateAfterRun(const DeliveryState& found, const DeliveryWish& wish,
                            const Means& means, bool isRestored);

}  // namespace corvo::audit
