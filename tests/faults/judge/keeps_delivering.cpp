#include "tests/faults/judge/keeps_delivering.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "tests/faults/judge/tree_comparison.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

const std::set<std::string> DELIVERY_LINES = {
    test::DELIVERY_LINE,
    "./Maildir/",
    "| /usr/bin/deliverquota ./Maildir",
    "| /usr/bin/deliverquota -w 94 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    "| /usr/bin/deliverquota -w 95 -x /usr/lib64/corvo-9.0/send-quota-warning ./Maildir",
    R"(| /usr/libexec/dovecot/dovecot-lda -d "$DELIVERED_TO" -a "${ORIGINAL_RECIPIENT:-$DELIVERED_TO}")",
};

// The failure of a step on the file itself, which excuses nothing.
constexpr std::string_view FAILED_ON_THE_FILE = "failed (unable to modify ";

/// A look or read that failed and has excused nothing so far; the deepest first, as it fits fewest.
using Unread = std::vector<std::string>;

Unread deepestFirst(Unread paths) {
    std::ranges::stable_sort(paths, std::ranges::greater(), &std::string::size);
    return paths;
}

/// Uses one of them up; false when none fits.
bool takeUnread(Unread& unread, const std::string& path) {
    const std::string whole = test::MAILNAMES + "/" + path;
    const auto found =
        std::ranges::find_if(unread, [&](const std::string& each) { return isIn(each, whole); });
    if (found == unread.end())
        return false;
    unread.erase(found);
    return true;
}

/// Whether a line tells of this mail name, of its whole domain or of all.
bool concerns(const std::string& line, const std::string& home) {
    const std::string domain = home.substr(0, home.find('/'));
    return line.find(domain) != std::string::npos
               ? line.find('@') == std::string::npos ||
                     line.find(" " + addressOf(home)) != std::string::npos
               : line.find(" restoration cycle failed (") != std::string::npos;
}

bool tellsOfTheWalk(const std::string& line) {
    const bool isFailure = line.find(" failed (") != std::string::npos &&
                           line.find(FAILED_ON_THE_FILE) == std::string::npos;
    return isFailure || line.starts_with("Warning: MySQL ");
}

/// Whether the run has said that something kept it from naming all forwards of a home.
bool hasMissedForwards(const std::string& reports, const std::string& home) {
    return std::ranges::any_of(linesOf(reports), [&](const std::string& line) {
        return tellsOfTheWalk(line) && concerns(line, home);
    });
}

std::set<std::string> forwardsIn(const std::string& content) {
    std::set<std::string> forwards;
    for (const std::string& line : linesOf(content))
        if (line.starts_with('&'))
            forwards.insert(line);
    return forwards;
}

/// The forwards that stood in a file, shall stand in it, and do not.
std::vector<std::string> lostForwards(const std::string& before, const std::string& wanted,
                                      const std::string& now) {
    const std::set<std::string> shallStand = forwardsIn(wanted);
    const std::set<std::string> stand = forwardsIn(now);
    std::vector<std::string> lost;
    for (const std::string& forward : forwardsIn(before))
        if (shallStand.contains(forward) && !stand.contains(forward))
            lost.push_back(forward);
    return lost;
}

Violations judgeFile(const std::string& path, const std::string& before, const std::string& wanted,
                     const Entry* now, const std::string& reports) {
    const std::string content = now == nullptr ? "" : now->content;
    Violations violations;
    if (delivers(before) && delivers(wanted) && !delivers(content))
        violations.push_back("I11 " + path + " delivers no more: " + shown(before) + " became " +
                             shown(now));
    if (hasMissedForwards(reports, homeOf(path)))
        return violations;
    for (const std::string& forward : lostForwards(before, wanted, content))
        violations.push_back("I11 " + path + " has lost " + forward + ": " + shown(before) +
                             " became " + shown(now));
    return violations;
}

Violations firstWrong(const std::string& path, const std::string& before, const std::string& wanted,
                      const std::vector<Tree>& states, const std::string& reports) {
    for (const Tree& state : states) {
        Violations violations = judgeFile(path, before, wanted, entryAt(state, path), reports);
        if (!violations.empty())
            return violations;
    }
    return {};
}

}  // namespace

bool delivers(const std::string& content) {
    return std::ranges::any_of(
        linesOf(content), [](const std::string& line) { return DELIVERY_LINES.contains(line); });
}

Violations checkKeepsDelivering(const Tree& before, const Tree& wanted, const Tree& now,
                                const Excuses& excuses) {
    return checkKeepsDelivering(before, wanted, std::vector<Tree>{now}, excuses);
}

Violations checkKeepsDelivering(const Tree& before, const Tree& wanted,
                                const std::vector<Tree>& states, const Excuses& excuses) {
    Unread unread = deepestFirst(excuses.unread);
    Violations all;
    for (const auto& [path, former] : before) {
        const Entry* const shall = entryAt(wanted, path);
        if (!path.ends_with("/.qmail") || shall == nullptr)
            continue;
        const Violations found =
            firstWrong(path, former.content, shall->content, states, excuses.reports);
        if (!found.empty() && !takeUnread(unread, path))
            append(all, found);
    }
    return all;
}

}  // namespace corvo::faults
