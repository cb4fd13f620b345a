#include "tests/faults/judge/row_judge.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "tests/faults/disturb/row_generator.h"
#include "tests/faults/judge/tree_comparison.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;

using Rows = std::set<std::string>;

Rows rowsOf(const std::string& text) {
    const std::vector<std::string> lines = linesOf(text);
    return {lines.begin(), lines.end()};
}

Violations judgeMessages(const Snapshot& before, const Snapshot& after) {
    Violations violations;
    for (const auto& [path, entry] : before.storage)
        if (isMessageFile(path, entry) && !isUntouched(&entry, entryAt(after.storage, path)))
            violations.push_back("I1 " + printable(path) + ": a message changed or vanished");
    return violations;
}

/// Rows of others that are in one of the two and not in the other.
Violations judgeForeignHandlers(const Rows& rows, const Rows& others, const std::string& what) {
    Violations violations;
    for (const std::string& row : rows)
        if (!isOwnHandler(row) && !others.contains(row))
            violations.push_back("I4 a foreign handler " + what + ": " + printable(row));
    return violations;
}

std::set<std::string> namesOf(const Tree& tree) {
    std::set<std::string> names;
    for (const auto& [path, entry] : tree)
        names.insert(path);
    return names;
}

Violations judgeDatabases(const Golden& golden, const Snapshot& before, const Snapshot& after) {
    Violations violations;
    if (!after.integrity.empty())
        violations.push_back("I4 " + after.integrity);
    if (namesOf(after.databases) != namesOf(before.databases))
        violations.emplace_back("I4 something stays beside the databases");
    const Rows former = rowsOf(golden.before.handlerRows);
    const Rows now = rowsOf(after.handlerRows);
    append(violations, judgeForeignHandlers(former, now, "changed"));
    append(violations, judgeForeignHandlers(now, former, "appeared"));
    return violations;
}

/// "I5 PATH: WHAT" for each canary that differs.
Violations judgeCanary(const Snapshot& before, const Snapshot& after, const std::string& what) {
    Violations violations;
    for (const std::string& path : pathsThat(isChanged, before.canary, after.canary))
        violations.push_back("I5 " + printable(path) + ": " + what);
    return violations;
}

bool metTheShield(const Outcome& outcome) {
    return outcome.err.find(std::strerror(EROFS)) != std::string::npos;
}

bool isMadeWrongly(const Entry& made) {
    const bool isPlain = S_ISREG(made.mode) || S_ISDIR(made.mode);
    return !isPlain || made.uid != test::POPUSER_UID || made.gid != test::POPUSER_GID ||
           (made.mode & WRITABLE_BY_OTHERS) != 0;
}

Violations judgeNewEntries(const Snapshot& before, const Snapshot& after) {
    Violations violations;
    for (const auto& [path, entry] : after.storage)
        if (!before.storage.contains(path) && isMadeWrongly(entry))
            violations.push_back("I6 " + printable(path) +
                                 ": made with a wrong type, owner or mode");
    return violations;
}

/// A status that is no number ends the walk over the domains, which is then said.
bool endedEarly(const Outcome& outcome) {
    return outcome.err.find(" executing the central domain restoration cycle failed (") !=
           std::string::npos;
}

Violations judgeHonest(const Golden& golden, const Snapshot& after) {
    Violations violations;
    for (const auto& [path, entry] : golden.after.storage)
        if (isDifferent(&entry, entryAt(after.storage, path)))
            violations.push_back("honest " + printable(path) + ": not restored");
    const Rows found = rowsOf(after.quotaRows);
    for (const std::string& row : rowsOf(golden.after.quotaRows))
        if (!found.contains(row))
            violations.push_back("honest quota row " + printable(row) + ": not restored");
    return violations;
}

}  // namespace

Violations judgeHostileRows(const Golden& golden, const Snapshot& before, const Snapshot& after,
                            const Outcome& outcome) {
    Violations violations = judgeMessages(before, after);
    append(violations, judgeDatabases(golden, before, after));
    append(violations, judgeCanary(before, after, "changed outside of the mail storage"));
    if (metTheShield(outcome))
        violations.emplace_back("I5 the run reached what lies outside of the sandbox");
    append(violations, judgeNewEntries(before, after));
    append(violations, judgeEnd(outcome));
    if (!endedEarly(outcome))
        append(violations, judgeHonest(golden, after));
    return violations;
}

Violations judgeRepetition(const Snapshot& once, const Outcome& outcome, const Snapshot& twice) {
    Violations violations = judgeEnd(outcome);
    for (const std::string& path : pathsThat(isChanged, once.storage, twice.storage))
        violations.push_back("I10 " + printable(path) + ": changed by a second run");
    if (once.quotaRows != twice.quotaRows)
        violations.emplace_back("I10 the second run changes the user database");
    if (once.handlerRows != twice.handlerRows)
        violations.emplace_back("I10 the second run changes the handlers database");
    append(violations, judgeCanary(once, twice, "changed by the second run"));
    return violations;
}

}  // namespace corvo::faults
