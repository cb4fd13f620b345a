#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

#include "mail/delivery/delivery_file.h"
#include "tests/equality/comparison.h"
#include "tests/equality/damage.h"
#include "tests/equality/kept_delivery.h"
#include "tests/faults/judge/tree_comparison.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::equality {

namespace {

using faults::Entry;
using faults::entryAt;
using faults::isDifferent;
using faults::Tree;

const std::string MAIL = "mailnames/";  // in STORAGE
const std::string DELIVERY_FILE = "/.qmail";

bool isDeliveryFile(const std::string& path) {
    return path.starts_with(MAIL) && path.ends_with(DELIVERY_FILE);
}

// Of a delivery file, also where the home lies behind a link.
std::string homeOf(const std::string& path) {
    std::string home = path.substr(MAIL.size(), path.size() - MAIL.size() - DELIVERY_FILE.size());
    if (home.ends_with(MOVED))
        home.resize(home.size() - MOVED.size());
    return home;
}

bool isLink(const Entry* entry) {
    return entry != nullptr && S_ISLNK(entry->mode);
}

// Where a link at a path of the tree leads, as such a path.
std::string targetOf(const std::string& path, const Entry& link) {
    const std::filesystem::path target = link.content;
    if (target.is_absolute())
        return target.lexically_relative(STORAGE);
    return (std::filesystem::path(path).parent_path() / target).lexically_normal();
}

// The entry at a path, or behind the one link there.
const Entry* resolved(const Tree& tree, const std::string& path) {
    const Entry* const entry = entryAt(tree, path);
    return isLink(entry) ? entryAt(tree, targetOf(path, *entry)) : entry;
}

bool isPopusersFile(const Entry* entry) {
    return entry != nullptr && entry->mode == (S_IFREG | 0600) && entry->uid == test::POPUSER_UID &&
           entry->gid == test::POPUSER_GID;
}

bool isKeptFile(const Difference& difference, const Trial& trial) {
    if (!isDeliveryFile(difference.name))
        return false;
    const Entry* const before = resolved(trial.before, difference.name);
    const Entry* const present = resolved(trial.present.tree, difference.name);
    if (before == nullptr || !S_ISREG(before->mode) || !isPopusersFile(present))
        return false;
    const auto kept =
        keptDelivery(before->content, homeOf(difference.name), trial.description, trial.means);
    return kept && present->content == *kept;
}

// Whether both programs leave the same file at the path or behind the link there.
bool isReplacedLink(const Difference& difference, const Trial& trial) {
    return isDeliveryFile(difference.name) && isLink(entryAt(trial.before, difference.name)) &&
           isPopusersFile(resolved(trial.present.tree, difference.name)) &&
           !isDifferent(resolved(trial.former.tree, difference.name),
                        resolved(trial.present.tree, difference.name));
}

// Whether an entry is as it was, but for what a file that stays is given.
bool isSpared(const std::string& path, const Trial& trial) {
    const Entry* const before = entryAt(trial.before, path);
    const Entry* const present = entryAt(trial.present.tree, path);
    return !isDifferent(before, present) ||
           (before != nullptr && isPopusersFile(present) && before->content == present->content);
}

bool isSparedTarget(const Difference& difference, const Trial& trial) {
    const auto leadsThere = [&](const auto& entry) {
        return isDeliveryFile(entry.first) && isLink(&entry.second) &&
               targetOf(entry.first, entry.second) == difference.name;
    };
    return isSpared(difference.name, trial) &&
           std::any_of(trial.before.begin(), trial.before.end(), leadsThere);
}

bool isSparedSecondName(const Difference& difference, const Trial& trial) {
    const Entry* const before = entryAt(trial.before, difference.name);
    const auto isSameFile = [&](const auto& entry) {
        return isDeliveryFile(entry.first) && entry.first != difference.name &&
               entry.second.inode == before->inode;
    };
    return before != nullptr && isSpared(difference.name, trial) &&
           std::any_of(trial.before.begin(), trial.before.end(), isSameFile);
}

bool isUnchangedStorage(const Trial& trial, const Ending& ending) {
    const auto isOfStorage = [](const std::string& path) {
        return !path.starts_with("databases/");
    };
    const auto changed = faults::pathsThat(isDifferent, trial.before, ending.tree);
    return std::none_of(changed.begin(), changed.end(), isOfStorage);
}

using Lines = std::vector<std::string>;

Lines linesOf(const Ending& ending, const std::string& fact) {
    Lines lines;
    std::istringstream text(ending.facts.at(fact));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

struct Changes {
    Lines removed;
    Lines added;
};

// How many lines two texts have in common from those two lines on, in the same order.
std::vector<std::vector<int>> commonLines(const Lines& former, const Lines& present) {
    std::vector<std::vector<int>> common(former.size() + 1,
                                         std::vector<int>(present.size() + 1, 0));
    for (std::size_t i = former.size(); i-- > 0;)
        for (std::size_t j = present.size(); j-- > 0;)
            common[i][j] = former[i] == present[j] ? common[i + 1][j + 1] + 1
                                                   : std::max(common[i + 1][j], common[i][j + 1]);
    return common;
}

// The fewest changes that make the former program's text the present one's.
Changes changesOf(const Trial& trial, const std::string& fact) {
    const Lines former = linesOf(trial.former, fact);
    const Lines present = linesOf(trial.present, fact);
    const auto common = commonLines(former, present);
    Changes changes;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < former.size() || j < present.size()) {
        const bool hasBoth = i < former.size() && j < present.size();
        if (hasBoth && former[i] == present[j]) {
            ++i;
            ++j;
        } else if (j == present.size() || (hasBoth && common[i + 1][j] >= common[i][j + 1])) {
            changes.removed.push_back(former[i++]);
        } else {
            changes.added.push_back(present[j++]);
        }
    }
    return changes;
}

bool isRowOf(const Mailname& name, const std::string& row) {
    std::string key = name.home();
    for (std::size_t at = 0; (at = key.find('\'', at)) != std::string::npos; at += 2)
        key.insert(at, "'");
    key.replace(key.find('/'), 1, "'|'");
    return row.starts_with("'" + key + "'|");
}

// Whether the rows that only the present program leaves are of mail names of the panel.
bool areRowsOfPanel(const Trial& trial) {
    const Lines former = linesOf(trial.former, "quota rows");
    const Lines present = linesOf(trial.present, "quota rows");
    const auto& names = trial.description.mailnames;
    return std::all_of(present.begin(), present.end(), [&](const std::string& row) {
        return std::find(former.begin(), former.end(), row) != former.end() ||
               std::any_of(names.begin(), names.end(),
                           [&](const Mailname& name) { return isRowOf(name, row); });
    });
}

bool isStream(const Difference& difference) {
    return difference.name == "standard error" || difference.name == "standard output";
}

// Where all is right there is nothing to write, so that a storage which cannot be written keeps
// the present program from less: it comes further.
bool isOfReadOnlyStorage(const Difference& difference, const Trial& trial) {
    if (!difference.isFact || !trial.means.isReadOnly ||
        !isUnchangedStorage(trial, trial.present) || !isUnchangedStorage(trial, trial.former) ||
        trial.former.facts.at("standard error").find("Read-only file system") == std::string::npos)
        return false;
    return isStream(difference) || (difference.name == "quota rows" && areRowsOfPanel(trial));
}

constexpr std::string_view NO_PLACE_FOR_SIZE[] = {
    "mail_rebuild: Maximal allowed number of attempts to create a maildirsize file exceeded",
    "System error ",
    "   restoring mailbox quota settings for ",
};

bool isOfSize(const std::string& line) {
    return std::any_of(std::begin(NO_PLACE_FOR_SIZE), std::end(NO_PLACE_FOR_SIZE),
                       [&](std::string_view text) { return line.starts_with(text); });
}

bool isOfUserDatabase(const std::string& line) {
    return line.starts_with("Unable to open database " + std::string(test::USERDB) + ": ") ||
           line.find(
               " failed (Unable to store mbox quota in userdb on mailbox quota restoration ") !=
               std::string::npos;
}

// Whether the step behind maildirsize fails for each mail name.
bool isWithoutUserDatabase(const Trial& trial) {
    const std::filesystem::path folder = std::filesystem::path(test::USERDB).parent_path();
    return entryAt(trial.before, "databases/" + folder.filename().string()) == nullptr;
}

// Whether a run finds a maildirsize beside which no other can be written, and leaves it.
bool hasSizeWithoutPlace(const Trial& trial) {
    return std::any_of(trial.before.begin(), trial.before.end(), [&](const auto& entry) {
        const std::string& path = entry.first;
        if (!path.ends_with("/Maildir/maildirsize"))
            return false;
        const std::string place = std::filesystem::path(path).parent_path() / "tmp";
        const Entry* const found = entryAt(trial.present.tree, place);
        return (found == nullptr || !S_ISDIR(found->mode)) &&
               !isDifferent(&entry.second, entryAt(trial.present.tree, path));
    });
}

bool isOfSizeWithoutPlace(const Difference& difference, const Trial& trial) {
    if (!difference.isFact || !hasSizeWithoutPlace(trial))
        return false;
    if (difference.name == "quota rows")
        return areRowsOfPanel(trial);
    if (!isStream(difference))
        return false;
    const Changes changes = changesOf(trial, difference.name);
    const auto isOfNextStep = [&](const std::string& line) {
        return isWithoutUserDatabase(trial) && isOfUserDatabase(line);
    };
    return std::all_of(changes.removed.begin(), changes.removed.end(), isOfSize) &&
           std::all_of(changes.added.begin(), changes.added.end(), isOfNextStep);
}

ino_t inodeOf(const Entry* entry) {
    return entry != nullptr ? entry->inode : 0;
}

// A new file is made under this name, in place of what a killed run left there; beside a file that
// is left alone nothing is made.
bool isLeftover(const Difference& difference, const Trial& trial) {
    constexpr std::string_view SUFFIX = ".tmp";
    if (!difference.name.ends_with(DELIVERY_FILE + std::string(SUFFIX)))
        return false;
    const std::string file = difference.name.substr(0, difference.name.size() - SUFFIX.size());
    const bool isSameFile =
        inodeOf(entryAt(trial.before, file)) == inodeOf(entryAt(trial.present.tree, file));
    const Entry* const present = entryAt(trial.present.tree, difference.name);
    return isSameFile ? !isDifferent(entryAt(trial.before, difference.name), present)
                      : present == nullptr;
}

// Whether a delivery file misses lines that it had, and that had to stay. Where the home cannot be
// restored, it may hold more than those.
bool hasLost(const std::string& path, const Entry& before, const Trial& trial) {
    const auto kept = keptDelivery(before.content, homeOf(path), trial.description, trial.means);
    if (!kept)
        return false;
    const Entry* const file = entryAt(trial.present.tree, path);
    const auto present = mail::linesOf(file != nullptr ? std::string_view(file->content) : "");
    const auto old = mail::linesOf(before.content);
    const auto wanted = mail::linesOf(*kept);
    return std::any_of(wanted.begin(), wanted.end(), [&](std::string_view line) {
        return std::find(old.begin(), old.end(), line) != old.end() &&
               std::find(present.begin(), present.end(), line) == present.end();
    });
}

struct Exception {
    std::string_view name;
    bool (*isIt)(const Difference& difference, const Trial& trial);
};

constexpr Exception EXCEPTIONS[] = {
    {"a delivery file stays where the new one cannot be had", isKeptFile},
    {"a link in place of a delivery file is replaced", isReplacedLink},
    {"what such a link leads to is not truncated", isSparedTarget},
    {"a second name of a delivery file is not truncated", isSparedSecondName},
    {"what a killed run left goes where its delivery file is replaced", isLeftover},
    {"a maildirsize that is right needs no place for another", isOfSizeWithoutPlace},
    {"nothing is to be written on a read-only storage", isOfReadOnlyStorage},
};

}  // namespace

std::vector<std::string> filesNotKept(const Trial& trial) {
    std::vector<std::string> paths;
    std::map<ino_t, int> names;
    for (const auto& [path, entry] : trial.before)
        ++names[entry.inode];
    for (const auto& [path, before] : trial.before)
        if (isDeliveryFile(path) && S_ISREG(before.mode) && names[before.inode] == 1 &&
            hasLost(path, before, trial))
            paths.push_back(path);
    return paths;
}

std::string_view exceptionFor(const Difference& difference, const Trial& trial) {
    const auto* const found =
        std::find_if(std::begin(EXCEPTIONS), std::end(EXCEPTIONS),
                     [&](const Exception& exception) { return exception.isIt(difference, trial); });
    return found == std::end(EXCEPTIONS) ? std::string_view() : found->name;
}

std::vector<std::string_view> exceptionNames() {
    std::vector<std::string_view> names;
    for (const Exception& exception : EXCEPTIONS)
        names.push_back(exception.name);
    return names;
}

}  // namespace corvo::equality
