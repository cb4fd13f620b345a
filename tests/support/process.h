// Child processes and what came of them.

#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace corvo::test {

struct ProcessResult {
    int status = -1;  // exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
    bool timedOut = false;
};

using Environment = std::vector<std::pair<std::string, std::string>>;

/// Runs a program to its end, both streams captured apart, standard input empty, and no descriptor
/// open beside them. `environment` is added to this process's. Ends it by SIGKILL after
/// `timeoutSeconds`.
ProcessResult run(const std::vector<std::string>& arguments, const Environment& environment = {},
                  int timeoutSeconds = 120);

/// Runs `body` in a forked child, which exits with 0 when it returns.
ProcessResult runForked(const std::function<void()>& body, int timeoutSeconds = 120);

/// A copy of a library under a path that LD_PRELOAD can name: without blanks and colons.
std::string preloadable(const std::string& library);

/// Paths of the production binaries.
std::string mailRebuildBinary();
std::string mailAuditBinary();

}  // namespace corvo::test
