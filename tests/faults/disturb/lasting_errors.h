// Errors that last: a call reports one, and so do later calls that the same trouble concerns.

#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tests/faults/disturb/tracer.h"

namespace corvo::faults {

/// What happens to a run at one of its calls, and from then on.
struct LastingError {
    std::string name;  // "EMFILE-2", "EROFS-all"; the number is that of the calls
    int number = 0;
    std::size_t further = 0;                            // calls that report it, too
    std::function<bool(const Call&)> isConcerned = {};  // which of the later calls do
};

/// The errors that may begin to last at this call, each for two calls, for three and for all. A
/// want of descriptors concerns all calls that make one, a want of room all that take some, a file
/// system that is read-only all that change it; other errors concern calls that do the same.
///
/// What is said on a standard stream gets through, as a run is judged by that. The calls on the
/// database's connections have a mechanism of their own.
std::vector<LastingError> lastingErrorsAt(const Call& call);

/// One of them for each length, by the call's position. As the steps for each mail name are the
/// same, each of them meets all.
std::vector<LastingError> someLastingErrorsAt(const Call& call);

}  // namespace corvo::faults
