// The command line.

#pragma once

#include <optional>
#include <string>

#include "audit/options.h"

namespace corvo::audit {

/// What reading the command line came to: options, or a text to print and end with.
struct CommandLine {
    std::optional<Options> options;
    std::string text;      // whole lines; without options only
    bool isError = false;  // the text is a usage error's
};

/// Prints nothing and does not throw for what it reads.
CommandLine readCommandLine(int argc, const char* const* argv);

}  // namespace corvo::audit
