// A panel database of the size that a test wants.

#pragma once

#include <stdexcept>
#include <string>

#include "tests/support/process.h"

namespace corvo::test {

/// The rows of a server with that many domains and mail names, as SQL.
inline std::string generatedPanel(int domains, int names, int seed = 1) {
    const ProcessResult result = run({CORVO_GENERATE_PANEL, std::to_string(domains),
                                      std::to_string(names), "--seed", std::to_string(seed)});
    if (result.status != 0)
        throw std::runtime_error("generate_panel: " + result.err);
    return result.out;
}

}  // namespace corvo::test
