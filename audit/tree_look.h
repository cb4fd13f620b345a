// A look at domain roots and homes: what a run would make, or stumble over.

#pragma once

#include <string>

#include "audit/item.h"
#include "mail/home/differences.h"
#include "utils/guards.h"

namespace corvo::audit {

/// What stands where a directory should be.
struct FoundDirectory {
    enum class State {
        there,
        missing,
        blocked,  // by something that a run does not get past
        unseen    // it could not be looked at
    };
    State state = State::unseen;
    UniqueFd directory;             // of one that is there
    mail::Differences differences;  // of one that is there
    struct stat seen = {};          // of one that is there
    std::string reason;             // of one that is blocked or unseen
};

/// Follows the links that a run follows.
FoundDirectory findDirectory(int base, const char* path, const mail::Ownership& wanted);

/// Adds an item, like `about` but for reason and values, for each thing in which something that is
/// there differs.
void addOwnershipItems(Items& items, const Item& about, const mail::Differences& differences,
                       const struct stat& seen, const mail::Ownership& wanted);

/// What a run has after its stage for the home of a mailbox.
struct HomeAfterwards {
    bool isWhole = false;     // the stage goes on to the delivery file
    bool hasMaildir = false;  // the quota can be stored
};

/// Looks at the directories in a home, which is open. A missing one stands for all that is in it.
HomeAfterwards lookAtSkeleton(Items& items, const Item& about, int home,
                              const mail::Ownership& wanted);

}  // namespace corvo::audit
