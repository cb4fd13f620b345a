#include "tests/faults/disturb/runner.h"

#include <unistd.h>

#include <cstdio>

#include "tests/support/process.h"

namespace corvo::faults {

namespace {

constexpr int NOT_EXECUTED = 127;

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
    const test::ProcessResult result = test::runForked(body, seconds);
    return {result.status, result.out, result.err, result.timedOut};
}

void executeRun(const std::string& mode) {
    const std::string binary = test::mailRebuildBinary();
    ::execl(binary.c_str(), "mail_rebuild", mode.c_str(), nullptr);
    std::perror(binary.c_str());
    ::_exit(NOT_EXECUTED);
}

}  // namespace corvo::faults
