#include "audit/program.h"

#include <cstdio>
#include <new>
#include <optional>
#include <string>

#include "audit/check_command.h"
#include "audit/command_line.h"
#include "audit/diff.h"
#include "audit/escaped_errors.h"
#include "audit/library_output.h"
#include "audit/output.h"
#include "audit/show.h"
#include "audit/status.h"
#include "lib/db++/error.h"

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

// Ends what a command has not ended itself.
int breakOff(Output& output, const std::string& reason) {
    output.omit(reason);
    output.finish(std::nullopt, "");
    return NOT_WHOLE;
}

// What escapes a command has kept it from going on. Of the panel database only the first connection
// does: a walk deals with all else.
int carryOutOrOmit(const Options& options, Output& output) {
    try {
        return carryOut(options, output);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const mysql::mError& failure) {
        return breakOff(output, std::string("the panel database: ") + failure.what() +
                                    ": nothing was looked at");
    } catch (const std::exception& failure) {
        return breakOff(output, failure.what());
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
