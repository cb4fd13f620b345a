#include "tests/faults/disturb/runner.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>

#include "tests/support/process.h"

namespace corvo::faults {

namespace {

constexpr int NOT_EXECUTED = 127;

/// Ends the child here, whatever happens: on its way out of its parent's functions it would undo
/// what its parent goes on using.
[[noreturn]] void endWith(const std::function<void()>& body) {
    try {
        body();
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
    }
    ::_exit(NOT_EXECUTED);
}

}  // namespace

Outcome undisturbedRun(const std::string& mode) {
    return preparedRun([] {}, mode);
}

Outcome preparedRun(const std::function<void()>& prepare, const std::string& mode) {
    return watched([&] {
        prepare();
        executeRun(mode);
    });
}

Outcome watched(const std::function<void()>& body, int seconds) {
    const test::ProcessResult result = test::runForked([&] { endWith(body); }, seconds);
    return {result.status, result.out, result.err, result.timedOut};
}

void executeRun(const std::string& mode) {
    const std::string binary = test::mailRebuildBinary();
    ::execl(binary.c_str(), "mail_rebuild", mode.c_str(), nullptr);
    std::perror(binary.c_str());
    ::_exit(NOT_EXECUTED);
}

}  // namespace corvo::faults
