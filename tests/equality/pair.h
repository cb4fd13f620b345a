// One generated pair of panel and mail storage.

#pragma once

#include <cstdint>

#include "tests/equality/comparison.h"
#include "tests/equality/description.h"
#include "tests/equality/scene.h"

namespace corvo::equality {

/// The two programs that are to end in the same way.
struct Programs {
    std::string former;
    std::string present;
};

/// Makes the pair that belongs to a seed and runs both programs over it.
Trial attempt(std::uint64_t seed, const Programs& programs, Panel& panel, Scene& scene);

}  // namespace corvo::equality
