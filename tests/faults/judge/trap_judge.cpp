#include "tests/faults/judge/trap_judge.h"

#include <sys/stat.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string_view>

#include "tests/faults/disturb/runner.h"

namespace corvo::faults {

namespace {

/// All of an entry that a repaired one shares with it.
std::string inWords(const Entry& entry) {
    std::ostringstream text;
    text << std::oct << entry.mode << std::dec << ' ' << entry.uid << ':' << entry.gid << " <"
         << entry.content << '>';
    return text.str();
}

std::string inWords(const Tree& tree, const std::string& key) {
    const auto found = tree.find(key);
    return found == tree.end() ? "nothing" : inWords(found->second);
}

std::string difference(std::string_view invariant, const std::string& key,
                       const std::string& expected, const std::string& found) {
    return std::string(invariant) + " " + key + ": " + found + " instead of " + expected;
}

std::set<std::string> keysOf(const Tree& one, const Tree& other) {
    std::set<std::string> keys;
    for (const auto& [key, entry] : one)
        keys.insert(key);
    for (const auto& [key, entry] : other)
        keys.insert(key);
    return keys;
}

bool isMessage(const std::string& key) {
    return key.find("/new/") != std::string::npos || key.find("/cur/") != std::string::npos ||
           key.find("/@attachments/") != std::string::npos;
}

bool isSameFile(const Tree& before, const Tree& after, const std::string& key) {
    const auto one = before.find(key);
    const auto other = after.find(key);
    return one != before.end() && other != after.end() && one->second == other->second;
}

/// No message appears, vanishes or changes.
Violations judgeMessages(const Trial& trial) {
    Violations violations;
    for (const std::string& key : keysOf(trial.storageBefore, trial.storageAfter))
        if (isMessage(key) && !isSameFile(trial.storageBefore, trial.storageAfter, key))
            violations.push_back(difference("I1", key, inWords(trial.storageBefore, key),
                                            inWords(trial.storageAfter, key)));
    return violations;
}

bool isSoundMaildirsize(const Entry& entry) {
    static const std::regex complete("[0-9]+S,0C\n *[0-9]+ *[0-9]+\n");
    return S_ISREG(entry.mode) && std::regex_match(entry.content, complete);
}

/// The lines of a file of lines, which must be whole.
std::set<std::string> linesOf(const std::string& content) {
    std::set<std::string> lines;
    std::istringstream stream(content);
    for (std::string line; std::getline(stream, line);)
        lines.insert(line + (stream.eof() ? "" : "\n"));
    return lines;
}

/// Stages fail one by one, so old and new lines may stand together.
bool isSoundDelivery(const std::string& content, const std::string& former,
                     const std::string& golden) {
    const std::set<std::string> known = linesOf(former + golden);
    return std::ranges::includes(known, linesOf(content));
}

/// Whether an entry is as restored but for a content on the way there.
bool isOnTheWay(const std::string& key, Entry found, const std::string& former,
                const Entry& golden) {
    if ((key.ends_with("/.qmail") && isSoundDelivery(found.content, former, golden.content)) ||
        (key.ends_with("/maildirsize") && isSoundMaildirsize(found)))
        found.content = golden.content;
    return inWords(found) == inWords(golden);
}

/// Whether a run may leave this entry as it is.
bool isAccountedFor(const std::string& key, const Trial& trial, const Restored& golden) {
    const std::string found = inWords(trial.storageAfter, key);
    if (found == inWords(trial.storageBefore, key) || found == inWords(golden.storage, key))
        return true;
    const auto after = trial.storageAfter.find(key);
    if (after == trial.storageAfter.end())
        return key.ends_with("/.qmail.tmp");
    const auto before = trial.storageBefore.find(key);
    const auto restored = golden.storage.find(key);
    return restored != golden.storage.end() &&
           isOnTheWay(key, after->second,
                      before == trial.storageBefore.end() ? "" : before->second.content,
                      restored->second);
}

/// Every entry is as before, or as restored, or on the way there.
Violations judgeEntries(const Trial& trial, const Restored& golden) {
    Violations violations;
    for (const std::string& key : keysOf(trial.storageBefore, trial.storageAfter))
        if (!isAccountedFor(key, trial, golden))
            violations.push_back(difference("I6", key, inWords(trial.storageBefore, key),
                                            inWords(trial.storageAfter, key)));
    return violations;
}

/// Nothing of root's own is handed out to popuser.
Violations judgeDisclosure(const Trial& trial) {
    Violations violations;
    for (const auto& [key, entry] : trial.storageAfter)
        if (entry.uid != 0 && entry.content.find(BAIT_MARK) != std::string::npos)
            violations.push_back("I5 " + key + " hands out what is root's: " + inWords(entry));
    return violations;
}

bool isRestored(const std::string& key, const Tree& storage, const Restored& golden) {
    return inWords(storage, key) == inWords(golden.storage, key);
}

Violations judgeUnspoiled(const Tree& storage, const Restored& golden, const Spoils& spoils) {
    Violations violations;
    for (const std::string& key : keysOf(storage, golden.storage))
        if (!spoils(key) && !isRestored(key, storage, golden) && !key.starts_with(".aside"))
            violations.push_back(difference("I9 beside the trap", key, inWords(golden.storage, key),
                                            inWords(storage, key)));
    return violations;
}

bool isIn(const std::string& home, const std::string& key) {
    return key == home || key.starts_with(home + "/");
}

/// Whether all that the panel describes for a home is there. A size counted around a trap is sound.
bool isHomeRestored(const std::string& home, const Trial& trial, const Restored& golden) {
    for (const auto& [key, entry] : golden.storage) {
        const auto found = trial.storageAfter.find(key);
        const bool isOwners = isMessage(key) || key.find("/.Other") != std::string::npos;
        if (!isIn(home, key) || isOwners || isRestored(key, trial.storageAfter, golden))
            continue;
        if (found == trial.storageAfter.end() || !key.ends_with("/maildirsize") ||
            !isSoundMaildirsize(found->second))
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

Violations judgeExit(const Outcome& outcome) {
    if (outcome.hung)
        return {"I7 the run hangs"};
    if (outcome.status < 0 || outcome.status > 2)
        return {"I7 exit status " + std::to_string(outcome.status) + ": <" + outcome.err + ">"};
    return {};
}

}  // namespace

void append(Violations& all, const Violations& more) {
    all.insert(all.end(), more.begin(), more.end());
}

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
    Violations violations = judgeExit(trial.outcome);
    append(violations, judgeOutside(trial.outsideBefore, trial.outsideAfter));
    append(violations, judgeMessages(trial));
    append(violations, judgeEntries(trial, golden));
    append(violations, judgeDisclosure(trial));
    append(violations, judgeUnspoiled(trial.storageAfter, golden, spoils));
    append(violations, judgeReports(trial, golden));
    return violations;
}

Violations judgeRace(const Trial& trial, const Restored& golden, const Spoils& spoils) {
    Violations violations = judgeExit(trial.outcome);
    append(violations, judgeOutside(trial.outsideBefore, trial.outsideAfter));
    append(violations, judgeMessages(trial));
    append(violations, judgeDisclosure(trial));
    append(violations, judgeUnspoiled(trial.storageAfter, golden, spoils));
    for (const auto& [key, entry] : trial.storageAfter)
        if (!trial.storageBefore.contains(key) && !golden.storage.contains(key) && !isResidue(key))
            violations.push_back("I6 " + key + " has appeared: " + inWords(entry));
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
    std::istringstream rows(found.quotaRows);
    for (std::string row; std::getline(rows, row);)
        if (golden.quotaRows.find(row + "\n") == std::string::npos)
            violations.push_back("I4 a foreign row: " + row);
    return violations;
}

Violations judgeRepair(const Restored& golden) {
    Violations violations = judgeExit(undisturbedRun());
    const Restored repaired = Restored::look();
    for (const std::string& key : keysOf(repaired.storage, golden.storage))
        if (!isRestored(key, repaired.storage, golden))
            violations.push_back(difference("I9", key, inWords(golden.storage, key),
                                            inWords(repaired.storage, key)));
    if (repaired.quotaRows != golden.quotaRows || repaired.handlerRows != golden.handlerRows)
        violations.push_back("I9 rows: <" + repaired.quotaRows + repaired.handlerRows + ">");
    append(violations, judgeExit(undisturbedRun()));
    const Restored again = Restored::look();
    for (const std::string& key : keysOf(repaired.storage, again.storage))
        if (inWords(repaired.storage, key) != inWords(again.storage, key))
            violations.push_back(difference("I10", key, inWords(repaired.storage, key),
                                            inWords(again.storage, key)));
    return violations;
}

}  // namespace corvo::faults
