// A look at what holds a mailbox's quota on the disk.

#pragma once

#include "audit/item.h"
#include "audit/means.h"

namespace corvo::audit {

/// What a run's stage for the quota meets.
enum class QuotaStage { goesOn, fails };

/// Adds an item for each thing in which `maildirsize` is not what storing the quota would leave;
/// with `recount` the messages are counted for it. `home` is open, and `about` has its path. Tells
/// whether a run goes on to the row of the user database; `canWrite` is false where it has no place
/// for a new file. Changes the working directory.
QuotaStage lookAtMaildirsize(Items& items, const Item& about, int home, long long quota,
                             const Means& means, bool recount, bool canWrite);

}  // namespace corvo::audit
