// Modules that a run loads before its libraries.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/faults/disturb/runner.h"
#include "tests/support/process.h"

namespace corvo::faults {

/// Copies the modules with these names from the folder preload/ to where a run can load them.
/// Returns what a run has to do before it is executed: it sets LD_PRELOAD and `environment`.
std::function<void()> preloading(const std::vector<std::string>& modules,
                                 const test::Environment& environment = {});

/// A run that does not wait between its attempts.
Outcome hurriedRun();

}  // namespace corvo::faults
