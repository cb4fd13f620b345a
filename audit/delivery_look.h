// A look at the delivery file of a mail name, and at what a run would make of it.

#pragma once

#include "audit/delivery_run.h"
#include "audit/item.h"
#include "audit/means.h"

namespace corvo::audit {

/// Adds an item for each thing in which the file is not what the panel says, and tells of each
/// whether it is gone after a run. `about` has the path of the file. Where the stage for the home
/// is not whole, `isRestored` is false.
void lookAtDelivery(Items& items, const Item& about, const DeliveryWish& wish, const Means& means,
                    bool isRestored);

/// The same where the home is missing, too: adds what a run that makes it would leave wrong.
void lookAtDeliveryToCome(Items& items, const Item& about, const DeliveryWish& wish,
                          const Means& means);

}  // namespace corvo::audit
