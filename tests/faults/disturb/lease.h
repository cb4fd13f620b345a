// Files that popuser holds a lease on, so that whoever opens them has to wait.

#pragma once

#include <string>

#include "tests/faults/disturb/background.h"

namespace corvo::faults {

/// What popuser does when somebody wants the file: leaves it a moment later, or waits until the
/// kernel takes the lease away.
enum class Holder { givesWay, isStubborn };

/// A lease for writing, until the end of this object. There is none on a file that popuser may not
/// write to.
class Lease {
public:
    Lease(const std::string& path, Holder holder);

private:
    Background process_;
};

/// Seconds after which the kernel takes a lease away.
int leaseBreakTime();

}  // namespace corvo::faults
