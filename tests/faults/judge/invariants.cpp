#include "tests/faults/judge/invariants.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "tests/faults/judge/judgement.h"
#include "tests/faults/judge/keeps_delivering.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;

void addDifference(Violations& found, const std::string& invariant, const std::string& path,
                   const Entry* before, const Entry* after) {
    found.push_back(invariant + " " + path + ": " + shown(before) + " became " + shown(after));
}

void checkMessages(const Snapshot& before, const Snapshot& after, Violations& found) {
    compare(before.storage, after.storage,
            [&](const std::string& path, const Entry* former, const Entry* now) {
                if (!isStoredMessage(path, former != nullptr ? *former : *now))
                    return;
                if (!isUntouched(former, now))
                    addDifference(found, "I1", path, former, now);
            });
}

void checkDeliveryFiles(const Golden& golden, const Snapshot& before, const Snapshot& after,
                        const Outcome& outcome, Violations& found) {
    compare(
        before.storage, after.storage,
        [&](const std::string& path, const Entry* former, const Entry* now) {
            if (path.ends_with("/.qmail") && !isAllowedDelivery(golden, path, former, now, outcome))
                addDifference(found, "I2", path, former, now);
        });
}

void checkSizeFiles(const Golden& golden, const Snapshot& before, const Snapshot& after,
                    Violations& found) {
    compare(before.storage, after.storage,
            [&](const std::string& path, const Entry* former, const Entry* now) {
                if (!path.ends_with("/maildirsize"))
                    return;
                const bool isOld =
                    former != nullptr && now != nullptr && former->content == now->content;
                if (!isOld && (now == nullptr || !isNewSizeFile(golden, path, now->content)))
                    addDifference(found, "I3", path, former, now);
            });
}

using Rows = std::map<std::string, std::string>;

/// Rows by their first `keys` columns.
Rows rowsByKey(const std::string& text, int keys) {
    Rows rows;
    for (const std::string& line : linesOf(text)) {
        std::size_t end = 0;
        for (int i = 0; i < keys; ++i)
            end = line.find('|', end) + 1;
        rows[line.substr(0, end)] = line;
    }
    return rows;
}

std::string rowAt(const Rows& rows, const std::string& key) {
    const auto row = rows.find(key);
    return row == rows.end() ? "no row" : row->second;
}

void checkRows(const Rows& before, const Rows& wanted, const Rows& after, Violations& found) {
    Rows all = before;
    all.insert(wanted.begin(), wanted.end());
    all.insert(after.begin(), after.end());
    for (const auto& [key, row] : all) {
        const std::string now = rowAt(after, key);
        const bool isKnown = now == rowAt(before, key) || now == rowAt(wanted, key);
        // Removed before it is added again, in a transaction of its own.
        if (!isKnown && !(now == "no row" && isOwnHandler(key)))
            found.push_back("I4 " + key + ": " + rowAt(before, key) + " became " + now);
    }
}

bool isDatabase(const std::string& path) {
    const std::string whole = "/var/lib/corvo/" + path;
    return whole == test::USERDB || whole == test::HANDLERS;
}

bool isJournal(const std::string& path) {
    constexpr std::string_view ENDING = "-journal";
    return path.ends_with(ENDING) && isDatabase(path.substr(0, path.size() - ENDING.size()));
}

bool isLockFile(const std::string& path, const Entry& entry) {
    constexpr std::size_t DIGEST_LENGTH = 32;
    return path.size() == DIGEST_LENGTH &&
           std::all_of(path.begin(), path.end(),
                       [](unsigned char c) { return std::isxdigit(c) != 0; }) &&
           entry.mode == (S_IFREG | 0644) && entry.uid == 0 && entry.gid == 0 &&
           entry.content.empty();
}

void checkSurroundings(const Snapshot& before, const Snapshot& after, Violations& found) {
    compare(before.canary, after.canary,
            [&](const std::string& path, const Entry* old, const Entry* now) {
                if (!isUntouched(old, now))
                    addDifference(found, "I5", "/" + path, old, now);
            });
    compare(before.databases, after.databases,
            [&](const std::string& path, const Entry* old, const Entry* now) {
                if (!isUntouched(old, now) && !isDatabase(path) && !isJournal(path))
                    addDifference(found, "I5", "/var/lib/corvo/" + path, old, now);
            });
    compare(before.locks, after.locks,
            [&](const std::string& path, const Entry* old, const Entry* now) {
                const bool isNewLock = old == nullptr && isLockFile(path, *now);
                if (!isUntouched(old, now) && !isNewLock)
                    addDifference(found, "I5", "/run/lock/files/" + path, old, now);
            });
}

/// Root's, and for nobody else to write: what is made and has not been handed over yet.
Entry asCreated(const Entry& entry) {
    Entry created;
    created.mode = (entry.mode & S_IFMT) | (S_ISDIR(entry.mode) ? 0700U : 0600U);
    return created;
}

bool isTemporary(const std::string& path) {
    return path.ends_with("/.qmail.tmp") ||
           (path.find("/tmp/") != std::string::npos && path.ends_with("-maildirsize"));
}

/// Created readable for all; so is a .qmail that is added to when there is none.
bool isCreatedReadable(const std::string& path) {
    return path.ends_with("/.qmail") || path.ends_with("-maildirsize") ||
           path.ends_with("/maildirsize");
}

/// Whether owner and mode are the former or the specified ones, each for itself: they are set one
/// after the other.
bool isOwnedAsKnown(const std::string& path, const Entry& now, const Entry* former,
                    const Entry* wanted) {
    const Entry created = asCreated(now);
    bool ownerIsKnown = false;
    bool modeIsKnown = former == nullptr && isCreatedReadable(path) && now.mode == (S_IFREG | 0644);
    for (const Entry* known : {former, wanted, former == nullptr ? &created : nullptr}) {
        if (known == nullptr)
            continue;
        ownerIsKnown = ownerIsKnown || (now.uid == known->uid && now.gid == known->gid);
        modeIsKnown = modeIsKnown || now.mode == known->mode;
    }
    return ownerIsKnown && modeIsKnown;
}

/// What a temporary file becomes.
std::string finalPath(const std::string& path) {
    if (path.ends_with("/.qmail.tmp"))
        return path.substr(0, path.size() - std::string_view(".tmp").size());
    return path.substr(0, path.rfind("/tmp/")) + "/maildirsize";
}

void checkOwnersAndModes(const Golden& golden, const Snapshot& before, const Snapshot& after,
                         const Outcome& outcome, Violations& found) {
    for (const auto& [path, now] : after.storage) {
        const Entry* former = entryAt(before.storage, path);
        const bool isNewTemporary =
            isTemporary(path) && (former == nullptr || former->inode != now.inode);
        const std::string known = isNewTemporary ? finalPath(path) : path;
        const Entry* wanted = entryAt(golden.after.storage, known);
        if (isNewTemporary)
            former = entryAt(before.storage, known);
        const bool isExpected = former != nullptr || wanted != nullptr;
        const bool isAllowed = isOwnedAsKnown(known, now, former, wanted) ||
                               (isNewTemporary && isOwnedAsKnown(path, now, nullptr, wanted)) ||
                               isOwnedByUnknown(known, now, outcome);
        if (!isExpected || !isAllowed)
            addDifference(found, "I6", path, former, &now);
        const mode_t newlyWritable = now.mode & WRITABLE_BY_OTHERS;
        if (!S_ISLNK(now.mode) && newlyWritable != 0 &&
            (former == nullptr || (newlyWritable & ~former->mode) != 0))
            found.push_back("I6 " + path + " became writable by others: " + shown(&now));
    }
    for (const auto& [path, now] : after.databases) {
        const Entry* former = entryAt(before.databases, path);
        if (isDatabase(path) && former != nullptr &&
            (former->mode != now.mode || former->uid != now.uid || former->gid != now.gid ||
             former->inode != now.inode))
            addDifference(found, "I6", "/var/lib/corvo/" + path, former, &now);
    }
}

void checkEnd(const Outcome& outcome, const Expectation& expectation, Violations& found) {
    append(found, judgeEnd(outcome, expectation.signal));
    if (expectation.passes && outcome.status != 0)
        found.push_back("I7 exit status " + std::to_string(outcome.status) + " instead of 0");
}

bool isKilled(const Outcome& outcome) {
    return outcome.hung || outcome.status > 128;
}

}  // namespace

void checkDatabases(const Golden& golden, const Snapshot& before, const Snapshot& after,
                    Violations& found) {
    if (!after.integrity.empty())
        found.push_back("I4 integrity_check: " + after.integrity);
    const auto check = [&](std::string Snapshot::*rows, int keys) {
        checkRows(rowsByKey(before.*rows, keys), rowsByKey(golden.after.*rows, keys),
                  rowsByKey(after.*rows, keys), found);
    };
    check(&Snapshot::quotaRows, 2);
    check(&Snapshot::handlerRows, 4);
}

Violations checkAfterFault(const Golden& golden, const Snapshot& before, const Snapshot& after,
                           const Outcome& outcome, const Expectation& expectation) {
    Violations found;
    checkMessages(before, after, found);
    checkDeliveryFiles(golden, before, after, outcome, found);
    checkSizeFiles(golden, before, after, found);
    checkDatabases(golden, before, after, found);
    checkSurroundings(before, after, found);
    checkOwnersAndModes(golden, before, after, outcome, found);
    checkEnd(outcome, expectation, found);
    append(found, checkKeepsDelivering(before.storage, golden.after.storage, after.storage,
                                       {expectation.unread, outcome.err}));
    if (expectation.passes)
        checkRepaired(golden, after, found);
    if (!isKilled(outcome) && !expectation.reportsLost)
        for (const std::string& entity : unreported(golden, after, outcome))
            found.push_back("I8 " + entity + " is unrestored and not named in " +
                            shown(outcome.err));
    return found;
}

Violations checkRepair(const Golden& golden) {
    Violations found;
    const Outcome repair = undisturbedRun();
    if (repair.status != 0)
        found.push_back("I9 the undisturbed run ends with " + std::to_string(repair.status));
    const Snapshot repaired = Snapshot::take();
    checkRepaired(golden, repaired, found);
    const Outcome again = undisturbedRun();
    if (again.status != 0)
        found.push_back("I10 the last run ends with " + std::to_string(again.status));
    checkUnchanged(repaired, Snapshot::take(), found);
    return found;
}

void checkRepaired(const Golden& golden, const Snapshot& repaired, Violations& found) {
    std::map<std::string, int> residues;
    compare(golden.after.storage, repaired.storage,
            [&](const std::string& path, const Entry* wanted, const Entry* now) {
                const bool isResidue = wanted == nullptr && isTemporary(path);
                if (isResidue && ++residues[finalPath(path)] <= 1)
                    return;
                if (isDifferent(wanted, now))
                    addDifference(found, "I9", path, wanted, now);
            });
    if (repaired.quotaRows != golden.after.quotaRows)
        found.push_back("I9 quota rows " + shown(repaired.quotaRows));
    if (repaired.handlerRows != golden.after.handlerRows)
        found.push_back("I9 handler rows " + shown(repaired.handlerRows));
    if (!repaired.integrity.empty())
        found.push_back("I9 integrity_check: " + repaired.integrity);
}

void checkUnchanged(const Snapshot& before, const Snapshot& after, Violations& found) {
    const auto check = [&](const Tree& former, const Tree& latter) {
        compare(former, latter, [&](const std::string& path, const Entry* was, const Entry* now) {
            const bool isGone = was == nullptr || now == nullptr;
            if (isGone || (!isDatabase(path) && isDifferent(was, now)))
                addDifference(found, "I10", path, was, now);
        });
    };
    check(before.storage, after.storage);
    check(before.databases, after.databases);
    check(before.locks, after.locks);
    check(before.canary, after.canary);
    if (before.quotaRows != after.quotaRows || before.handlerRows != after.handlerRows)
        found.push_back("I10 rows " + shown(after.quotaRows) + shown(after.handlerRows));
    if (!after.integrity.empty())
        found.push_back("I10 integrity_check: " + after.integrity);
}

Violations judge(World& world, Start start, const std::function<Outcome()>& faultyRun,
                 const Expectation& expectation) {
    world.reset(start);
    const Golden& golden = world.golden(start);
    const Snapshot before = Snapshot::take();
    const Outcome outcome = faultyRun();
    Violations found = checkAfterFault(golden, before, Snapshot::take(), outcome, expectation);
    const Violations later = checkRepair(golden);
    append(found, later);
    return found;
}

}  // namespace corvo::faults
