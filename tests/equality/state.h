// One generated server, from its first moment to its damaged state.

#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>

#include "tests/equality/description.h"
#include "tests/equality/scene.h"

namespace corvo::equality {

/// What belongs to a seed.
struct State {
    std::mt19937_64 random;
    Description description;
    std::string line;  // the default delivery line
    Means means;       // all there until the damage
};

/// Describes a server to the panel and clears the scene for it: it has no mail yet.
State newState(std::uint64_t seed, Panel& panel, Scene& scene);

/// Has a program restore the server's mail, but for some that stay empty.
std::optional<Ending> restoreMost(State& state, const std::string& program);

/// Damages storage and databases, and takes away some of what a run needs.
void damage(State& state, Panel& panel);

}  // namespace corvo::equality
