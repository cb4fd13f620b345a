#include "audit/extras.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

bool isDirectory(const DirEntries& parent, const dirent64& entry) {
    struct stat seen = {};
    return entry.d_type == DT_DIR ||
           (entry.d_type == DT_UNKNOWN &&
            ::fstatat(parent.descriptor(), entry.d_name, &seen, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(seen.st_mode));
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
        domains_.insert(row["name"].value);
}

void Extras::enterDomain(const std::string& domain) {
    domain_ = domain;
    mailnames_.clear();
    reportsBefore_ = mail::restore::reportsOfLastWalk();
}

void Extras::know(const std::string& mailname) {
    mailnames_.insert(to_lower(mailname));
}

// What is in a directory without being known, sorted; a missing directory has nothing.
Names Extras::unknownDirectories(const std::string& path, const NameSet& known) {
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

void Extras::leaveDomain(const Sink& sink) {
    const bool isKnownWhole = reportsBefore_ == mail::restore::reportsOfLastWalk();
    if (scope_.reaches(domain_) && isKnownWhole && mail::isPathComponent(domain_)) {
        const std::string root = mail::mailnamesPrefix() + domain_;
        for (const std::string& name : unknownDirectories(root, mailnames_))
            if (scope_.includes(domain_, name))
                sink(extra(ItemKind::home, domain_, name, mail::homeOf(domain_, name)));
        for (const std::string& name : rows_.mailboxesOf(domain_))
            if (!mailnames_.contains(name) && scope_.includes(domain_, name))
                sink(extra(ItemKind::quotaRow, domain_, name, mail::MAIL_USER_DB));
    }
    domain_.clear();
    mailnames_.clear();
}

void Extras::finish(const Sink& sink) {
    for (const std::string& name : unknownDirectories(mail::mailnamesPrefix(), domains_))
        if (scope_.includes(name))
            sink(extra(ItemKind::domainRoot, name, "", mail::mailnamesPrefix() + name));
    for (const std::string& domain : rows_.domains())
        if (!domains_.contains(domain) && scope_.includes(domain))
            sink(extra(ItemKind::quotaRow, domain, "", mail::MAIL_USER_DB));
}

}  // namespace corvo::audit
