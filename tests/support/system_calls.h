// The system calls of a run, as strace counts them.

#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace corvo::test {

class SystemCalls {
public:
    /// Runs a command to its end under strace.
    explicit SystemCalls(const std::vector<std::string>& command);

    const ProcessResult& result() const { return result_; }

    /// How many there are of each kind. Calls that do the same to a path, a descriptor or a name in
    /// a directory are of one kind: "open", "stat", "chown". Waiting for an answer of the database
    /// server is left out, because how often depends on the server's speed.
    const std::map<std::string, long>& counts() const { return counts_; }
    long count(const std::string& kind) const;
    long total() const;

    /// How many of a kind have that text among what they were given.
    long given(const std::string& kind, const std::string& text) const;

private:
    void take(const std::string& line);

    struct Call {
        std::string kind;
        std::string given;
    };

    ProcessResult result_;
    std::vector<Call> calls_;
    std::map<std::string, long> counts_;
};

}  // namespace corvo::test
