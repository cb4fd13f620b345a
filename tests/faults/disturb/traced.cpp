#include "tests/faults/disturb/traced.h"

#include <sstream>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace corvo::faults {

namespace {

constexpr const char* TRACE = "/run/audit_calls";

}  // namespace

std::vector<TracedCall> callsIn(const std::string& trace) {
    std::vector<TracedCall> calls;
    std::istringstream lines(trace);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t open = line.find('(');
        const std::size_t end = line.rfind(" = ");
        if (open == std::string::npos || line.starts_with("+++") || line.starts_with("---"))
            continue;
        calls.push_back({line.substr(0, open),
                         line.substr(open + 1, line.rfind(')', end) - open - 1),
                         end == std::string::npos ? std::string() : line.substr(end + 3)});
    }
    return calls;
}

TracedRun tracedAudit(const std::vector<std::string>& arguments, int patience) {
    std::vector<std::string> command = {"strace", "--decode-fds=path",    "--output", TRACE,
                                        "--",     test::mailAuditBinary()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const test::ProcessResult result = test::run(command, {}, patience);
    return {{result.status, result.out, result.err, result.timedOut},
            callsIn(test::contentsOf(TRACE))};
}

}  // namespace corvo::faults
