#include "tests/support/system_calls.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "tests/support/files.h"

namespace corvo::test {

namespace {

constexpr const char* TRACE = "/run/system_calls";

std::string kindOf(const std::string& name) {
    static const std::map<std::string, std::string> kinds = {
        {"openat", "open"},     {"openat2", "open"},     {"newfstatat", "stat"},
        {"fstat", "stat"},      {"lstat", "stat"},       {"statx", "stat"},
        {"fchown", "chown"},    {"fchownat", "chown"},   {"lchown", "chown"},
        {"fchmod", "chmod"},    {"fchmodat", "chmod"},   {"mkdirat", "mkdir"},
        {"renameat", "rename"}, {"renameat2", "rename"}, {"unlinkat", "unlink"},
        {"fchdir", "chdir"},
    };
    const auto found = kinds.find(name);
    return found == kinds.end() ? name : found->second;
}

bool isWaiting(const std::string& line) {
    return line.starts_with("poll(") ||
           (line.starts_with("recvfrom(") && line.find(" = -1 EAGAIN") != std::string::npos);
}

std::vector<std::string> traced(const std::vector<std::string>& command) {
    std::vector<std::string> all = {"strace", "--output", TRACE, "--"};
    all.insert(all.end(), command.begin(), command.end());
    return all;
}

}  // namespace

SystemCalls::SystemCalls(const std::vector<std::string>& command) : result_(run(traced(command))) {
    std::istringstream lines(contentsOf(TRACE));
    for (std::string line; std::getline(lines, line);)
        take(line);
}

// "name(arguments) = result"; anything else is about signals and the end.
void SystemCalls::take(const std::string& line) {
    const std::size_t open = line.find('(');
    if (open == std::string::npos || line.starts_with("+++") || line.starts_with("---") ||
        isWaiting(line))
        return;
    calls_.push_back({kindOf(line.substr(0, open)), line.substr(open)});
    ++counts_[calls_.back().kind];
}

long SystemCalls::count(const std::string& kind) const {
    const auto found = counts_.find(kind);
    return found == counts_.end() ? 0 : found->second;
}

long SystemCalls::total() const {
    return static_cast<long>(calls_.size());
}

long SystemCalls::given(const std::string& kind, const std::string& text) const {
    return std::count_if(calls_.begin(), calls_.end(), [&](const Call& call) {
        return call.kind == kind && call.given.find(text) != std::string::npos;
    });
}

}  // namespace corvo::test
