#include "tests/faults/judge/trap_judge.h"

#include <sys/stat.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string_view>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/judge/tree_comparison.h"
#include "tests/faults/judge/vocabulary.h"

namespace corvo::faults {

namespace {

std::string difference(std::string_view invariant, const std::string& key, const Entry* expected,
                       const Entry* found) {
    return std::string(invariant) + " " + key + ": " + shown(found) + " instead of " +
           shown(expected);
}

/// No message appears, vanishes or changes; nor does a folder among them.
Violations judgeMessages(const Trial& trial) {
    Violations violations;
    compare(trial.storageBefore, trial.storageAfter,
            [&](const std::string& key, const Entry* before, const Entry* after) {
                if (liesAmongMessages(key) && !isUntouched(before, after))
                    violations.push_back(difference("I1", key, before, after));
            });
    return violations;
}

bool isSoundMaildirsize(const Entry& entry) {
    static const std::regex complete("[0-9]+S,0C\n *[0-9]+ *[0-9]+\n");
    return S_ISREG(entry.mode) && std::regex_match(entry.content, complete);
}

/// With their ends: the last one may lack its own.
std::set<std::string> wholeLinesOf(const std::string& content) {
    std::set<std::string> lines;
    std::istringstream stream(content);
    for (std::string line; std::getline(stream, line);)
        lines.insert(line + (stream.eof() ? "" : "\n"));
    return lines;
}

/// Stages fail one by one, so old and new lines may stand together.
bool isSoundDelivery(const std::string& content, const std::string& former,
                     const std::string& golden) {
    const std::set<std::string> known = wholeLinesOf(former + golden);
    return std::ranges::includes(known, wholeLinesOf(content));
}

/// Whether an entry is as restored but for a content on the way there.
bool isOnTheWay(const std::string& key, Entry found, const std::string& former,
                const Entry& golden) {
    if ((key.ends_with("/.qmail") && isSoundDelivery(found.content, former, golden.content)) ||
        (key.ends_with("/maildirsize") && isSoundMaildirsize(found)))
        found.content = golden.content;
    return !isDifferent(&found, &golden);
}

/// Whether a run may leave this entry as it is.
bool isAccountedFor(const std::string& key, const Entry* before, const Entry* after,
                    const Entry* restored) {
    if (!isDifferent(after, before) || !isDifferent(after, restored))
        return true;
    if (after == nullptr)
        return key.ends_with("/.qmail.tmp");
    return restored != nullptr &&
           isOnTheWay(key, *after, before == nullptr ? "" : before->content, *restored);
}

/// Every entry is as before, or as restored, or on the way there.
Violations judgeEntries(const Trial& trial, const Restored& golden) {
    Violations violations;
    compare(trial.storageBefore, trial.storageAfter,
            [&](const std::string& key, const Entry* before, const Entry* after) {
                if (!isAccountedFor(key, before, after, entryAt(golden.storage, key)))
                    violations.push_back(difference("I6", key, before, after));
            });
    return violations;
}

/// Nothing of root's own is handed out to popuser.
Violations judgeDisclosure(const Trial& trial) {
    Violations violations;
    for (const auto& [key, entry] : trial.storageAfter)
        if (entry.uid != 0 && entry.content.find(BAIT_MARK) != std::string::npos)
            violations.push_back("I5 " + key + " hands out what is root's: " + shown(&entry));
    return violations;
}

/// Where a tree differs from what it should be.
Violations judgeTree(std::string_view invariant, const Tree& wanted, const Tree& found) {
    Violations violations;
    for (const std::string& key : pathsThat(isDifferent, wanted, found))
        violations.push_back(difference(invariant, key, entryAt(wanted, key), entryAt(found, key)));
    return violations;
}

Violations judgeUnspoiled(const Tree& storage, const Restored& golden, const Spoils& spoils) {
    Violations violations;
    compare(golden.storage, storage,
            [&](const std::string& key, const Entry* wanted, const Entry* found) {
                if (isDifferent(wanted, found) && !spoils(key) && !key.starts_with(".aside"))
                    violations.push_back(difference("I9 beside the trap", key, wanted, found));
            });
    return violations;
}

/// Whether all that the panel describes for a home is there. A size counted around a trap is sound.
bool isHomeRestored(const std::string& home, const Trial& trial, const Restored& golden) {
    for (const auto& [key, wanted] : golden.storage) {
        const Entry* found = entryAt(trial.storageAfter, key);
        const bool isOwners = liesAmongMessages(key) || key.find("/.Other") != std::string::npos;
        if (!isIn(home, key) || isOwners || !isDifferent(found, &wanted))
            continue;
        if (found == nullptr || !key.ends_with("/maildirsize") || !isSoundMaildirsize(*found))
            return false;
    }
    return true;
}

Violations judgeReports(const Trial& trial, const Restored& golden) {
    Violations violations;
    for (const std::string& home : HOMES)
        if (!isHomeRestored(home, trial, golden) && !isNamed(home, trial.outcome.err))
            violations.push_back("I8 " + home + " is not restored and not named: <" +
                                 trial.outcome.err + ">");
    return violations;
}

/// What a run cannot take away when popuser has taken the folder away.
bool isResidue(const std::string& key) {
    return key.ends_with("/.qmail.tmp") || key.ends_with("-maildirsize");
}

}  // namespace

bool isNamed(const std::string& home, const std::string& reports) {
    const std::string domain = home.substr(0, home.find('/'));
    return reports.find(" for " + addressOf(home) + " failed") != std::string::npos ||
           reports.find("basic records for " + domain + " failed") != std::string::npos;
}

Trial tryRun(const std::function<Outcome()>& run) {
    Trial trial;
    trial.storageBefore = readTree(test::MAILNAMES);
    trial.outsideBefore = outsideState();
    trial.outcome = run();
    trial.storageAfter = readTree(test::MAILNAMES);
    trial.outsideAfter = outsideState();
    return trial;
}

Violations judgeOutside(const OutsideState& before, const OutsideState& after) {
    Violations violations;
    for (const auto& [path, entry] : before) {
        const auto found = after.find(path);
        if (found == after.end())
            violations.push_back("I5 " + path + " is gone");
        else if (!found->second.isLeftAloneSince(entry))
            violations.push_back("I5 " + path + ": " + found->second.inWords() + " instead of " +
                                 entry.inWords());
    }
    for (const auto& [path, entry] : after)
        if (!before.contains(path))
            violations.push_back("I5 " + path + " has appeared: " + entry.inWords());
    return violations;
}

Violations judgeTrial(const Trial& trial, const Restored& golden, const Spoils& spoils) {
    Violations violations = judgeEnd(trial.outcome);
    append(violations, judgeOutside(trial.outsideBefore, trial.outsideAfter));
    append(violations, judgeMessages(trial));
    append(violations, judgeEntries(trial, golden));
    append(violations, judgeDisclosure(trial));
    append(violations, judgeUnspoiled(trial.storageAfter, golden, spoils));
    append(violations, judgeReports(trial, golden));
    return violations;
}

Violations judgeRace(const Trial& trial, const Restored& golden, const Spoils& spoils) {
    Violations violations = judgeEnd(trial.outcome);
    append(violations, judgeOutside(trial.outsideBefore, trial.outsideAfter));
    append(violations, judgeMessages(trial));
    append(violations, judgeDisclosure(trial));
    append(violations, judgeUnspoiled(trial.storageAfter, golden, spoils));
    for (const auto& [key, entry] : trial.storageAfter)
        if (!trial.storageBefore.contains(key) && !golden.storage.contains(key) && !isResidue(key))
            violations.push_back("I6 " + key + " has appeared: " + shown(&entry));
    return violations;
}

Violations judgeRows(const Restored& golden, const Restored& found, const Spoils& spoils) {
    Violations violations;
    if (found.handlerRows != golden.handlerRows)
        violations.push_back("I4 handlers: <" + found.handlerRows + ">");
    for (const std::string& home : HOMES) {
        std::string row = home + "|";
        row.replace(row.find('/'), 1, "|");
        const bool isThere = found.quotaRows.find(row) != std::string::npos;
        if (!isThere && !spoils(home))
            violations.push_back("I4 no quota of " + home + ": <" + found.quotaRows + ">");
    }
    for (const std::string& row : linesOf(found.quotaRows))
        if (golden.quotaRows.find(row + "\n") == std::string::npos)
            violations.push_back("I4 a foreign row: " + row);
    return violations;
}

Violations judgeRepair(const Restored& golden) {
    Violations violations = judgeEnd(undisturbedRun());
    const Restored repaired = Restored::look();
    append(violations, judgeTree("I9", golden.storage, repaired.storage));
    if (repaired.quotaRows != golden.quotaRows || repaired.handlerRows != golden.handlerRows)
        violations.push_back("I9 rows: <" + repaired.quotaRows + repaired.handlerRows + ">");
    append(violations, judgeEnd(undisturbedRun()));
    const Restored again = Restored::look();
    append(violations, judgeTree("I10", repaired.storage, again.storage));
    return violations;
}

}  // namespace corvo::faults
