#include "audit/program.h"

#include <fmt/format.h>

#include <cstdio>
#include <iostream>
#include <new>

#include "audit/command_line.h"
#include "audit/diff.h"
#include "audit/output.h"
#include "audit/status.h"

namespace corvo::audit {

namespace {

int carryOut(const Options& options, Output& output) {
    return diff(options, output);
}

// What escapes a command has kept it from going on.
int carryOutOrOmit(const Options& options, Output& output) {
    try {
        return carryOut(options, output);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        output.omit(failure.what());
        return NOT_WHOLE;
    }
}

}  // namespace

int run(int argc, const char* const* argv) {
    const CommandLine line = readCommandLine(argc, argv);
    if (!line.options) {
        fmt::print(line.isError ? stderr : stdout, "{}", line.text);
        return line.isError ? NOT_WHOLE : 0;
    }
    // The walk's warnings stand on both streams; the one is for what this program prints.
    std::cout.rdbuf(nullptr);
    Output output(*line.options);
    return carryOutOrOmit(*line.options, output);
}

}  // namespace corvo::audit
