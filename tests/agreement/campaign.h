// Generated servers, each audited, restored and audited again.

#pragma once

#include <cstddef>
#include <cstdint>

#include "tests/agreement/judgement.h"

namespace corvo::agreement {

/// What came of one server.
struct Result {
    Violations violations;
    std::size_t objects = 0;  // that the audit has named
    bool wasInOrder = false;  // before its damage: an audit had to find nothing
    std::string missing;      // what a run needs and the server lacks, in words
    std::string account;      // all sides of it, for a terminal
};

class Campaign {
public:
    /// Needs a sandbox in its first state.
    Campaign() = default;

    /// The server that belongs to a seed.
    Result attempt(std::uint64_t seed);

private:
    equality::Panel panel_;
    equality::Scene scene_;
};

}  // namespace corvo::agreement
