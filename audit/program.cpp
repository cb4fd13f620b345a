#include "audit/program.h"

#include <cstdio>
#include <new>
#include <optional>

#include "audit/check_command.h"
#include "audit/command_line.h"
#include "audit/diff.h"
#include "audit/escaped_errors.h"
#include "audit/library_output.h"
#include "audit/output.h"
#include "audit/show.h"
#include "audit/status.h"

namespace corvo::audit {

namespace {

int carryOut(const Options& options, Output& output) {
    switch (options.command) {
        case Command::check:
            return check(output);
        case Command::diff:
            return diff(options, output);
        case Command::show:
            break;
    }
    return show(options, output);
}

// What escapes a command has kept it from going on, and from ending what it printed.
int carryOutOrOmit(const Options& options, Output& output) {
    try {
        return carryOut(options, output);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        output.omit(failure.what());
        output.finish(std::nullopt, "");
        return NOT_WHOLE;
    }
}

int printInstead(const CommandLine& line) {
    if (line.isError) {
        std::fputs(line.text.c_str(), stderr);
        return NOT_WHOLE;
    }
    StandardOutput out;
    out.write(line.text);
    return out.finish() ? 0 : NOT_WHOLE;
}

}  // namespace

int run(int argc, const char* const* argv) {
    const CommandLine line = readCommandLine(argc, argv);
    if (!line.options)
        return printInstead(line);
    Output output(*line.options);
    const LibraryOutput thrownAway;
    const EscapedErrors escaped;
    return carryOutOrOmit(*line.options, output);
}

}  // namespace corvo::audit
