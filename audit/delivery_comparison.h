// A delivery file, compared with what the panel says.

#pragma once

#include <sys/stat.h>

#include "audit/delivery_run.h"
#include "audit/item.h"
#include "audit/means.h"

namespace corvo::audit {

/// Adds an item for each thing in which the file is not what the panel says; `seen` is what was
/// found. A missing file stands for all that a run should put into it.
void addDeliveryItems(Items& items, const Item& about, const DeliveryState& state,
                      const struct stat& seen, const DeliveryWish& wish, const Means& means);

}  // namespace corvo::audit
