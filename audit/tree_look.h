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
        closed,   // to who looks: it is there, and was looked at from outside
        unseen    // it could not be looked at
    };
    State state = State::unseen;
    UniqueFd directory;             // of one that is there
    mail::Differences differences;  // of one that is there or closed
    struct stat seen = {};          // of one that is there or closed
    std::string reason;             // of one that is blocked, closed or unseen
    int error = 0;                  // of one that is closed or unseen: an errno
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

/// Looks at the directories in a home, which is open. A missing one stands for all that is in it,
/// and so does one that is closed to who looks.
HomeAfterwards lookAtSkeleton(Items& items, const Item& about, int home,
                              const mail::Ownership& wanted);

}  // namespace corvo::audit
