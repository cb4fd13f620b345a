#include "audit/extras.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "lib/db++/connection.h"
#include "mail/home/mail_paths.h"
#include "mail/quota/mail_user_db.h"
#include "restore/walker.h"
#include "utils/safe_path.h"
#include "utils/strings.h"

namespace corvo::audit {

namespace {

using Names = std::vector<std::string>;

// Behind a link, too, that a run follows.
bool isDirectory(const DirEntries& parent, const dirent64& entry) {
    struct stat seen = {};
    return entry.d_type == DT_DIR ||
           ((entry.d_type == DT_LNK || entry.d_type == DT_UNKNOWN) &&
            safe_path::status(parent.descriptor(), entry.d_name, seen) == 0 &&
            S_ISDIR(seen.st_mode));
}

std::string rootOf(const std::string& domain) {
    return mail::mailnamesPrefix() + domain;
}

std::string below(const std::string& folder, const std::string& name) {
    return std::string(folder).append("/").append(name);
}

Item extra(ItemKind kind, const std::string& domain, const std::string& mailbox, std::string path) {
    Item item;
    item.kind = kind;
    item.domain = domain;
    item.mailbox = mailbox;
    item.path = std::move(path);
    item.reason = kind == ItemKind::quotaRow ? "has a row too many" : "is left alone";
    item.isExtra = true;
    return item;
}

Names sorted(Names names) {
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

Extras::Extras(Output& output, const Scope& scope, mysql::Connection& connection)
    : output_(output), scope_(scope), rows_(output) {
    mysql::Result result = connection << "SELECT LOWER(name) AS name FROM domains"
                                      << mysql::Query::fetch;
    mysql::Result::row_t row;
    while (result.fetch(&row))
        ++domains_[row["name"].value];
}

void Extras::enterDomain(const std::string& domain) {
    walked_ = &*told_.try_emplace(domain).first;
    reportsBefore_ = mail::restore::reportsOfLastWalk();
}

void Extras::know(const std::string& mailname) {
    walked_->second.mailnames.insert(to_lower(mailname));
}

void Extras::leaveDomain(const Sink& sink) {
    if (walked_ == nullptr)
        return;
    const std::string domain = walked_->first;
    Told& told = std::exchange(walked_, nullptr)->second;
    told.isWhole = told.isWhole && reportsBefore_ == mail::restore::reportsOfLastWalk();
    if (++told.domains < domains_[domain])
        return;
    if (told.isWhole && mail::isPathComponent(domain) && scope_.reaches(domain)) {
        nameHomes(domain, told.mailnames, sink);
        nameRows(domain, told.mailnames, sink);
    }
    told_.erase(domain);
}

// What is in a directory without being known, sorted; a missing directory has nothing.
template <typename Known>
Names Extras::unknownDirectories(const std::string& path, const Known& known) {
    Names unknown;
    DirEntries entries = safe_path::openEntries(AT_FDCWD, path.c_str());
    if (!entries) {
        if (errno != ENOENT)
            output_.omit(path + ": " + std::strerror(errno) + ": extras were not looked for");
        return unknown;
    }
    while (const auto* const entry = entries.next())
        if (!known.contains(entry->d_name) && isDirectory(entries, *entry))
            unknown.emplace_back(entry->d_name);
    return sorted(std::move(unknown));
}

void Extras::nameHomes(const std::string& domain, const NameSet& known, const Sink& sink) {
    const std::string root = rootOf(domain);
    for (const std::string& name : unknownDirectories(root, known))
        if (scope_.includes(domain, name))
            sink(extra(ItemKind::home, domain, name, below(root, name)));
}

void Extras::nameRows(const std::string& domain, const NameSet& known, const Sink& sink) {
    for (const std::string& name : rows_.mailboxesOf(domain))
        if (!known.contains(name) && scope_.includes(domain, name))
            sink(extra(ItemKind::quotaRow, domain, name, mail::MAIL_USER_DB));
}

void Extras::finish(const Sink& sink) {
    tellOfDomainsNotTold();
    nameUnknownRoots(sink);
    nameUnknownRows(sink);
}

// The walk passes over a domain, or was broken off before it: it may have any mail name.
void Extras::tellOfDomainsNotTold() {
    for (const auto& [domain, told] : told_)
        if (scope_.reaches(domain))
            output_.omit(rootOf(domain) + ": the walk did not report all domains that share it: " +
                         "extras were not looked for");
}

// A root stands for all that is in it, unless only some of that is meant.
void Extras::nameUnknownRoots(const Sink& sink) {
    for (const std::string& name : unknownDirectories(mail::mailnamesPrefix(), domains_))
        if (scope_.includes(name))
            sink(extra(ItemKind::domainRoot, name, "", rootOf(name)));
        else if (scope_.reaches(name))
            nameHomes(name, {}, sink);
}

void Extras::nameUnknownRows(const Sink& sink) {
    for (auto page = rows_.names(); !page.empty(); page = rows_.names(&page.back()))
        for (const auto& [domain, mailbox] : page)
            if (!domains_.contains(domain) && scope_.includes(domain, mailbox))
                sink(extra(ItemKind::quotaRow, domain, mailbox, mail::MAIL_USER_DB));
}

}  // namespace corvo::audit
