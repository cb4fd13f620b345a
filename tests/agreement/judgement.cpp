#include "tests/agreement/judgement.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>

#include "mail/delivery/delivery_file.h"
#include "mail/delivery/dotqmail.h"
#include "mail/quota/maildirpp_quota.h"
#include "mail/quota/maildirsize.h"
#include "tests/faults/judge/tree_comparison.h"

namespace corvo::agreement {

namespace {

using equality::Description;
using faults::Entry;
using faults::Tree;
using Texts = std::set<std::string>;

// Below STORAGE.
const std::string MAILNAMES = "mailnames/";
const std::string DATABASES = "databases/";

std::string inLowerCase(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

std::string quoted(const std::string& text) {
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("''") : std::string(1, c);
    return result + "'";
}

std::string rowKey(const std::string& domain, const std::string& mailbox) {
    return quoted(inLowerCase(domain)) + "|" + quoted(inLowerCase(mailbox));
}

bool isAtOrBelow(const std::string& path, const std::string& top) {
    return path == top || path.starts_with(top + "/");
}

std::string belowStorage(const std::string& path) {
    const std::string top = equality::STORAGE + "/";
    return path.starts_with(top) ? path.substr(top.size()) : path;
}

Texts linesOf(const std::string& text) {
    std::istringstream stream(text);
    Texts lines;
    for (std::string line; std::getline(stream, line);)
        lines.insert(line);
    return lines;
}

// Where a mail name has its quota: domains that are written in letters and in ASCII share it.
std::string placeOf(const equality::Mailname& name) {
    const std::string place =
        mail::quotaHomeOf(inLowerCase(name.domain).c_str(), inLowerCase(name.name).c_str());
    return place.empty() ? name.home() : place;
}

// Homes that more than one name of the panel comes to.
class SharedHomes {
public:
    explicit SharedHomes(const Description& description) {
        std::map<std::string, std::size_t> names;
        for (const equality::Mailname& name : description.mailnames)
            ++names[placeOf(name)];
        for (const equality::Mailname& name : description.mailnames)
            if (names[placeOf(name)] > 1) {
                homes_.insert(name.home());
                rows_.insert(rowKey(name.domain, name.name));
            }
    }

    bool concern(const Finding& finding) const {
        return !finding.mailbox.empty() && rows_.contains(rowKey(finding.domain, finding.mailbox));
    }
    bool hold(const std::string& path) const {
        return std::any_of(homes_.begin(), homes_.end(), [&](const std::string& home) {
            return isAtOrBelow(path, MAILNAMES + home);
        });
    }
    bool haveRow(const std::string& key) const { return rows_.contains(key); }

private:
    Texts homes_;
    Texts rows_;
};

// --- (a) what the run has changed was named

struct Size {
    long long limit = 0;
    long long limitCount = 0;
    long long bytes = 0;
    long long messages = 0;

    bool operator==(const Size&) const = default;
};

// Nothing for a text that is damaged.
std::optional<Size> sizeOf(const std::string& text) {
    const std::size_t header = text.find('\n');
    Size size;
    if (header == std::string::npos ||
        !parse_header_string(text.substr(0, header), &size.limit, &size.limitCount) ||
        !parse_usage_lines(text.substr(header + 1), &size.bytes, &size.messages))
        return std::nullopt;
    return size;
}

// How many messages the trash of a Maildir holds.
long long messagesInTrash(const std::string& maildir, const Tree& tree) {
    return std::count_if(tree.begin(), tree.end(), [&](const auto& entry) {
        const std::string folder = std::filesystem::path(entry.first).parent_path();
        return folder == maildir + "/.Trash/new" || folder == maildir + "/.Trash/cur";
    });
}

// Whether a file that a run has counted anew was right but for the trash, as some agents leave it.
bool leftOutTrash(const std::string& path, const Trial& trial) {
    const Entry* const before = faults::entryAt(trial.before.tree, path);
    const Entry* const after = faults::entryAt(trial.after.tree, path);
    if (!path.ends_with("/maildirsize") || before == nullptr || after == nullptr ||
        before->mode != after->mode || before->uid != after->uid || before->gid != after->gid)
        return false;
    const std::optional<Size> was = sizeOf(before->content);
    const std::optional<Size> is = sizeOf(after->content);
    const std::string maildir = std::filesystem::path(path).parent_path();
    return was && is && was->limit == is->limit && was->limitCount == is->limitCount &&
           was->messages < is->messages &&
           is->messages - was->messages == messagesInTrash(maildir, trial.before.tree);
}

// A run moves forwards away from their places and back where the panel names one twice, or where it
// cannot restore the home first. A link to a delivery file in which all is right then becomes a
// file in which the same is.
bool isRewrittenLink(const std::string& path, const Trial& trial) {
    const Entry* const before = faults::entryAt(trial.before.tree, path);
    const Entry* const after = faults::entryAt(trial.after.tree, path);
    if (!path.ends_with("/.qmail") || before == nullptr || after == nullptr ||
        !S_ISLNK(before->mode))
        return false;
    const std::filesystem::path link = equality::STORAGE + "/" + path;
    const std::string target = (link.parent_path() / before->content).lexically_normal();
    const Entry* const led = faults::entryAt(trial.before.tree, belowStorage(target));
    return led != nullptr && led->mode == after->mode && led->uid == after->uid &&
           led->gid == after->gid && led->content == after->content;
}

// Whether a run has made something else of the contents, as far as an audit speaks of them.
bool saysSomethingElse(const std::string& path, const std::string& before,
                       const std::string& after) {
    if (path.ends_with("/.qmail"))
        return mail::linesOf(before) != mail::linesOf(after);
    if (path.ends_with("/maildirsize"))
        return sizeOf(before) != sizeOf(after);
    return before != after;
}

bool isChanged(const std::string& path, const Entry* before, const Entry* after) {
    return before == nullptr || after == nullptr || before->mode != after->mode ||
           before->uid != after->uid || before->gid != after->gid ||
           saysSomethingElse(path, before->content, after->content);
}

// What a killed run has left goes with the file that it was for.
bool isLeftover(const std::string& path) {
    return path.ends_with("/.qmail.tmp");
}

// The paths of which an audit has spoken.
class NamedPaths {
public:
    NamedPaths(const Findings& findings, const Tree& tree) {
        for (const Finding& finding : findings)
            for (const std::string& path : {finding.path, finding.resolved}) {
                named_.insert(belowStorage(path));
                if (finding.reason == "is missing")
                    missing_.insert(belowStorage(path));
                if (const Entry* const entry = faults::entryAt(tree, belowStorage(path)))
                    inodes_.insert(entry->inode);
            }
    }

    /// By its own name, by another name of the same file, or by a missing folder that it is in.
    bool include(const std::string& path, const Entry* before) const {
        return named_.contains(path) || (before != nullptr && inodes_.contains(before->inode)) ||
               std::any_of(missing_.begin(), missing_.end(),
                           [&](const std::string& top) { return isAtOrBelow(path, top); });
    }

private:
    Texts named_;
    Texts missing_;
    std::set<ino_t> inodes_;
};

void judgePaths(const Trial& trial, const SharedHomes& shared, Violations& violations) {
    const NamedPaths named(trial.first.findings, trial.before.tree);
    faults::compare(
        trial.before.tree, trial.after.tree,
        [&](const std::string& path, const Entry* before, const Entry* after) {
            const bool isJudged = !path.starts_with(DATABASES) && !isLeftover(path) &&
                                  !shared.hold(path) && !leftOutTrash(path, trial) &&
                                  !isRewrittenLink(path, trial);
            if (isJudged && isChanged(path, before, after) && !named.include(path, before))
                violations.push_back("changed without having been named: " + path);
        });
}

Texts changedLines(const Trial& trial, const std::string& fact) {
    const Texts before = linesOf(trial.before.facts.at(fact));
    const Texts after = linesOf(trial.after.facts.at(fact));
    Texts changed;
    std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                  std::inserter(changed, changed.end()));
    return changed;
}

void judgeRows(const Trial& trial, const SharedHomes& shared, Violations& violations) {
    if (!trial.first.hasQuotaRows())
        return;
    Texts named;
    for (const Finding& finding : trial.first.findings)
        if (finding.kind == "quota-row")
            named.insert(rowKey(finding.domain, finding.mailbox));
    for (const std::string& row : changedLines(trial, "quota rows")) {
        const std::string key = row.substr(0, row.rfind('|'));
        if (!named.contains(key) && !shared.haveRow(key))
            violations.push_back("a row changed without having been named: " + row);
    }
}

void judgeRecords(const Trial& trial, Violations& violations) {
    const bool isNamed =
        std::any_of(trial.first.findings.begin(), trial.first.findings.end(),
                    [](const Finding& finding) { return finding.kind == "overquota-records"; });
    if (trial.first.hasHandlerRecords() && !isNamed)
        for (const std::string& record : changedLines(trial, "handler rows"))
            violations.push_back("a record changed without having been named: " + record);
}

// --- (b) and (c) what was named is gone, or still there, as was said

bool contains(const Findings& findings, const Finding& wanted) {
    return std::any_of(findings.begin(), findings.end(),
                       [&](const Finding& finding) { return finding.isSame(wanted); });
}

// Whether both audits could look at such a thing.
bool isSeenTwice(const Trial& trial, const Finding& finding) {
    if (finding.kind == "quota-row")
        return trial.first.hasQuotaRows() && trial.second.hasQuotaRows();
    if (finding.kind == "overquota-records")
        return trial.first.hasHandlerRecords() && trial.second.hasHandlerRecords();
    return true;
}

void judgeRepairs(const Trial& trial, const SharedHomes& shared, Violations& violations) {
    const auto isJudged = [&](const Finding& finding) {
        return isSeenTwice(trial, finding) && !shared.concern(finding);
    };
    for (const Finding& finding : trial.first.findings) {
        const bool isLeft = contains(trial.second.findings, finding);
        if (isJudged(finding) && isLeft == finding.isRepaired)
            violations.push_back((isLeft ? "not repaired: " : "repaired: ") + finding.text());
    }
    for (const Finding& finding : trial.second.findings)
        if (isJudged(finding) && !contains(trial.first.findings, finding))
            violations.push_back("new: " + finding.text());
}

// --- no forward of the panel is missing silently

// The first link on a path taken for what it leads to; the path itself where there is none.
std::string pastOneLink(const Tree& tree, const std::filesystem::path& path) {
    std::filesystem::path way;
    for (auto name = path.begin(); name != path.end(); ++name) {
        const std::filesystem::path folder = way;
        way /= *name;
        const Entry* const entry = faults::entryAt(tree, way);
        if (entry == nullptr || !S_ISLNK(entry->mode))
            continue;
        way = equality::STORAGE / folder / entry->content;
        while (++name != path.end())
            way /= *name;
        return belowStorage(way.lexically_normal());
    }
    return path;
}

// What lies at a path, or where its links lead to.
const Entry* entryBehindLinks(const Tree& tree, std::string path) {
    constexpr int MOST_LINKS = 8;
    for (int i = 0; i < MOST_LINKS; ++i)
        path = pastOneLink(tree, path);
    return faults::entryAt(tree, path);
}

bool hasLine(const Tree& tree, const std::string& path, const std::string& line) {
    const Entry* const file = entryBehindLinks(tree, path);
    return file != nullptr && linesOf(file->content).contains(line);
}

// By itself, or with the file or the home that it would be in.
bool namesForward(const Finding& finding, const std::string& address, const std::string& line) {
    if (finding.kind == "forward")
        return finding.expected == address || finding.expected == line;
    return finding.kind == "delivery-file" || finding.kind == "home";
}

void judgeForwards(const Audit& audit, const Tree& tree, const equality::Mailname& name,
                   Violations& violations) {
    for (const std::string& address : name.forwards) {
        const std::string line = mail::forwardLine(address);
        const auto isNamed = [&](const Finding& finding) {
            return rowKey(finding.domain, finding.mailbox) == rowKey(name.domain, name.name) &&
                   namesForward(finding, address, line);
        };
        if (!hasLine(tree, MAILNAMES + name.home() + "/.qmail", line) &&
            std::none_of(audit.findings.begin(), audit.findings.end(), isNamed))
            violations.push_back("a forward of " + name.home() +
                                 " is missing without having been named: " + address);
    }
}

// An audit that is not whole need not have read them.
void judgeForwards(const Audit& audit, const Tree& tree, const Description& description,
                   const SharedHomes& shared, Violations& violations) {
    if (!audit.err.empty())
        return;
    for (const equality::Mailname& name : description.mailnames)
        if (name.isGroup && !shared.haveRow(rowKey(name.domain, name.name)))
            judgeForwards(audit, tree, name, violations);
}

void append(Violations& violations, const Violations& more) {
    violations.insert(violations.end(), more.begin(), more.end());
}

int statusFor(const Audit& audit) {
    if (!audit.err.empty())
        return 2;
    return audit.findings.empty() ? 0 : 1;
}

}  // namespace

Violations judgeManners(const Audit& audit) {
    Violations violations;
    for (const std::string& path : audit.touched)
        violations.push_back("touched by an audit: " + path);
    if (audit.hung || audit.status != statusFor(audit))
        violations.push_back("status " + std::to_string(audit.status) + " of an audit with " +
                             std::to_string(audit.findings.size()) + " items and <" + audit.err +
                             ">" + (audit.hung ? ", which hung" : ""));
    return violations;
}

Violations judgeUntouched(const Description& description, const Audit& audit) {
    Violations violations = judgeManners(audit);
    const SharedHomes shared(description);
    for (const Finding& finding : audit.findings)
        if (!shared.concern(finding))
            violations.push_back("in a server in order: " + finding.text());
    if (!audit.err.empty())
        violations.push_back("not whole in a server in order: " + audit.err);
    return violations;
}

Violations judge(const Trial& trial) {
    const SharedHomes shared(trial.description);
    Violations violations = judgeManners(trial.first);
    append(violations, judgeManners(trial.second));
    judgePaths(trial, shared, violations);
    judgeRows(trial, shared, violations);
    judgeRecords(trial, violations);
    judgeRepairs(trial, shared, violations);
    judgeForwards(trial.first, trial.before.tree, trial.description, shared, violations);
    judgeForwards(trial.second, trial.after.tree, trial.description, shared, violations);
    return violations;
}

std::size_t countObjects(const Trial& trial) {
    const SharedHomes shared(trial.description);
    Texts objects;
    for (const Finding& finding : trial.first.findings)
        if (!shared.concern(finding))
            objects.insert(finding.kind == "quota-row" ? rowKey(finding.domain, finding.mailbox)
                                                       : finding.path);
    return objects.size();
}

}  // namespace corvo::agreement
