#include <cctype>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/faults/judge/judgement.h"

namespace corvo::faults {

namespace {

constexpr const char* HANDLER = "check-quota";

bool isPartOfName(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '@' ||
           c == '/' || c == '_';
}

/// Whether a line speaks of `name` and not of a longer name.
bool speaksOf(std::string_view line, std::string_view name) {
    for (std::size_t at = line.find(name); at != std::string_view::npos;
         at = line.find(name, at + 1)) {
        const std::size_t end = at + name.size();
        const bool beginsThere = at == 0 || !isPartOfName(line[at - 1]);
        const bool endsThere = end == line.size() || !isPartOfName(line[end]);
        if (beginsThere && endsThere)
            return true;
    }
    return false;
}

/// As a path in the mail storage, or a path below it.
bool speaksOfPath(std::string_view line, const std::string& path) {
    const std::string whole = "/var/qmail/mailnames/" + path;
    const std::size_t at = line.find(whole);
    return at != std::string_view::npos &&
           (at + whole.size() == line.size() || line[at + whole.size()] == '/' ||
            !isPartOfName(line[at + whole.size()]));
}

/// The failure of a step that all mail names pass through.
bool speaksOfAll(std::string_view line) {
    return line.find("central domain restoration cycle") != std::string_view::npos ||
           line.find("top Domains cycle") != std::string_view::npos;
}

bool speaksOfHandlers(std::string_view line) {
    return line.find("handler") != std::string_view::npos ||
           line.find("mail rejection when mailbox is over quota") != std::string_view::npos;
}

/// An entity is a home ("example.com/info"), a domain root ("example.com") or the handler.
bool names(std::string_view line, const std::string& entity) {
    if (entity == HANDLER)
        return speaksOfHandlers(line);
    const std::size_t slash = entity.find('/');
    const std::string domain = entity.substr(0, slash);
    if (speaksOfAll(line) || speaksOf(line, domain) || speaksOfPath(line, entity))
        return true;
    return slash != std::string::npos && speaksOf(line, entity.substr(slash + 1) + "@" + domain);
}

bool isSpokenOf(const std::string& entity, const std::string& err) {
    for (const std::string& line : linesOf(err))
        if (names(line, entity))
            return true;
    return false;
}

/// The failures that a run reports without a name, or not at all. All are prescribed, and concern
/// maildirsize:
/// - a "new" or "cur" that cannot be opened counts as empty: the sum is too low;
/// - an "@attachments" that cannot be looked at is none: the limit is the whole quota;
/// - an account that cannot be looked up is root: the line names the account.
bool isUnnamed(const Golden& golden, const std::string& path, const Entry& wanted, const Entry* now,
               const Outcome& outcome) {
    if (!path.ends_with("/maildirsize") || now == nullptr ||
        !isNewSizeFile(golden, path, now->content))
        return false;
    const bool isOwned =
        now->uid == wanted.uid && now->gid == wanted.gid && now->mode == wanted.mode;
    return isOwned || isOwnedByUnknown(path, *now, outcome);
}

void addUnrestoredPaths(const Golden& golden, const Snapshot& after, const Outcome& outcome,
                        std::set<std::string>& found) {
    for (const auto& [path, wanted] : golden.after.storage) {
        const Entry* now = entryAt(after.storage, path);
        if (isDifferent(&wanted, now) && !isUnnamed(golden, path, wanted, now, outcome))
            found.insert(homeOf(path));
    }
}

void addUnrestoredQuotas(const Golden& golden, const Snapshot& after,
                         std::set<std::string>& found) {
    for (const std::string& row : linesOf(golden.after.quotaRows)) {
        if (after.quotaRows.find(row + "\n") != std::string::npos)
            continue;
        std::string entity = row.substr(0, row.rfind('|'));
        entity[entity.find('|')] = '/';
        found.insert(entity);
    }
}

}  // namespace

std::vector<std::string> unreported(const Golden& golden, const Snapshot& after,
                                    const Outcome& outcome) {
    // What ends the whole run is reported once.
    if (outcome.status != 0 && !outcome.err.empty())
        return {};
    std::set<std::string> unrestored;
    addUnrestoredPaths(golden, after, outcome, unrestored);
    addUnrestoredQuotas(golden, after, unrestored);
    if (after.handlerRows != golden.after.handlerRows)
        unrestored.insert(HANDLER);
    std::vector<std::string> unnamed;
    for (const std::string& entity : unrestored)
        if (!isSpokenOf(entity, outcome.err))
            unnamed.push_back(entity);
    return unnamed;
}

}  // namespace corvo::faults
