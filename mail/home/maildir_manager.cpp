#include "mail/home/maildir_manager.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>

#include "mail/home/fs_error.h"
#include "mail/home/mail_paths.h"
#include "mail/home/mailname.h"
#include "mail/home/skeleton.h"
#include "utils/accounts.h"
#include "utils/safe_path.h"
#include "utils/strings.h"

namespace corvo::mail {

namespace fs = std::filesystem;

namespace {

// What failures are called.
constexpr const char* CANNOT_CREATE = "cannot create directories";
constexpr const char* CANNOT_RENAME = "cannot rename";
constexpr const char* CANNOT_REMOVE = "cannot remove all";

// While directories are made, nobody else gets into them. An umask alone would not see to that:
// where the parent has a default ACL, it does not count.
constexpr mode_t CREATION_MODE = 0700;
constexpr mode_t CREATION_UMASK = 077;

std::error_code codeOf(int error) {
    return {error, std::generic_category()};
}

// Names come from a database: one that is no single component would lead to another place.
void require(bool soundNames, const char* failure, const fs::path& path) {
    if (!soundNames)
        throw fs::filesystem_error(failure, path, codeOf(EINVAL));
}

// Makes a directory and opens it; an existing one is opened. What else is there is in the way:
// EEXIST, but ELOOP for a link that is not followed.
UniqueFd makeOrOpen(int parent, const char* name, bool& isNew) {
    const int made = safe_path::makeDirectory(parent, name, CREATION_MODE);
    isNew = made == 0;
    if (made < 0)
        return UniqueFd();
    UniqueFd directory = safe_path::openDirectory(parent, name);
    if (!directory && !isNew && (errno == ENOTDIR || errno == ENOENT))
        errno = EEXIST;
    return directory;
}

void renameDirectory(const fs::path& from, const fs::path& to) {
    if (safe_path::renameEntry(AT_FDCWD, from.c_str(), to.c_str()) != 0) {
        const int error = errno;
        throw fs::filesystem_error(CANNOT_RENAME, from, to, codeOf(error));
    }
}

void removeDirectory(const fs::path& path) {
    if (safe_path::removeTree(AT_FDCWD, path.c_str()) != 0) {
        const int error = errno;
        throw fs::filesystem_error(CANNOT_REMOVE, path, codeOf(error));
    }
}

// Renames `source` to its backup name, which becomes `output`: the empty path when there is nothing
// to back up. False, with errno, when `source` cannot be looked at.
bool backupRename(const fs::path& source, fs::path& output) {
    output.clear();
    struct stat directory = {};
    if (retryOnEintr([&] { return safe_path::status(AT_FDCWD, source.c_str(), directory); }) != 0)
        return errno == ENOENT || errno == ENOTDIR;
    output = source.native() + ".CorvoSaved." + std::to_string(directory.st_ino);
    renameDirectory(source, output);
    return true;
}

void backup(const fs::path& source) {
    fs::path output;
    if (!backupRename(source, output)) {
        const int error = errno;
        throw FSError("rename", source, output, error);
    }
}

}  // namespace

MaildirManager& MaildirManager::getInstance() {
    return MaildirPPManager::getInstance();
}

MaildirPPManager& MaildirPPManager::getInstance() {
    static MaildirPPManager instance;
    instance.init();
    return instance;
}

void MaildirManager::init() {
    const struct passwd* const account = ::getpwnam(POPUSER);
    if (account == nullptr)
        throw std::runtime_error(std::string("user ") + POPUSER + "not found");  // sic
    ownerUid_ = account->pw_uid;
    ownerGid_ = account->pw_gid;
}

fs::path MaildirManager::getDomainRelativeRoot(const std::string& domain) const {
    return to_lower(domain);
}

fs::path MaildirManager::getMailnameRelativeHome(const std::string& domain,
                                                 const std::string& mailname) const {
    return relativeHomeOf(domain, mailname);
}

// Joined as texts: a name that begins with "/" must not take the place of the root.
fs::path MaildirManager::getDomainRoot(const std::string& domain) const {
    return mailnamesPrefix() + to_lower(domain);
}

fs::path MaildirManager::getMailnameHome(const std::string& domain,
                                         const std::string& mailname) const {
    return homeOf(domain, mailname);
}

Ownership MaildirManager::domainRootOwnership() const noexcept {
    return {ownerUid_, ownerGid_, DOMAIN_ROOT_MODE};
}

Ownership MaildirManager::homeOwnership() const noexcept {
    return {ownerUid_, ownerGid_, HOME_MODE};
}

void MaildirManager::createDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    require(isPathComponent(domain), CANNOT_CREATE, root);
    CreationUmask ownerOnly;
    makeTop(root, domainRootOwnership(), ownerOnly);
}

void MaildirManager::createMailnameHome(const std::string& domain, const std::string& mailname) {
    createMailnameHome(Mailname(domain, mailname));
}

void MaildirManager::createMailnameHome(const Mailname& mailname) {
    const fs::path& home = mailname.home();
    require(mailname.isSound(), CANNOT_CREATE, home);
    CreationUmask ownerOnly;
    // The home, then the directory seen to last at each level below it: the next one's parent.
    std::array<Level, SKELETON_LEVELS + 1> levels;
    levels[0] = makeTop(home, homeOwnership(), ownerOnly);
    const int top = levels[0].directory.get();
    for (const SkeletonEntry& entry : SKELETON) {
        Level& parent = levels.at(entry.depth);
        levels.at(entry.depth + 1) = !parent.isNew && isRight(top, entry)
                                         ? Level{.path = entry.path}
                                         : makeEntry(top, parent, home, entry, ownerOnly);
    }
}

// Makes a domain root or a home with its missing parents and opens it.
MaildirManager::Level MaildirManager::makeTop(const fs::path& path, const Ownership& wanted,
                                              CreationUmask& ownerOnly) const {
    Level top;
    top.directory = safe_path::openDirectory(AT_FDCWD, path.c_str());
    if (!top.directory && errno == ENOENT) {
        ownerOnly.emplace(CREATION_UMASK);
        top.directory =
            safe_path::makeDirectories(AT_FDCWD, path.c_str(), CREATION_MODE, &top.isNew);
    }
    if (!top.directory) {
        const int error = errno;
        throw fs::filesystem_error(CANNOT_CREATE, path, codeOf(error));
    }
    if (top.isNew || directoryDifferences(top.directory.get(), "", wanted).any())
        takeOver(top.directory.get(), wanted, path);
    return top;
}

// One call by the path below the home: what the entry lies in was a directory when it was looked at
// or opened just before. A link that popuser puts there since can only make us leave something
// alone: whatever is changed is opened first.
bool MaildirManager::isRight(int home, const SkeletonEntry& entry) const {
    return !directoryDifferences(home, entry.path, homeOwnership()).any();
}

// Makes an entry of the skeleton, or takes over what is there, and keeps it open. Its parent is
// opened now where it was right itself.
MaildirManager::Level MaildirManager::makeEntry(int home, Level& parent, const fs::path& homePath,
                                                const SkeletonEntry& entry,
                                                CreationUmask& ownerOnly) const {
    if (!ownerOnly)
        ownerOnly.emplace(CREATION_UMASK);
    if (!parent.directory)
        parent.directory = safe_path::openDirectory(home, parent.path);
    Level level{.path = entry.path};
    if (parent.directory)
        level.directory = makeOrOpen(parent.directory.get(), entry.name, level.isNew);
    if (!level.directory) {
        const int error = errno;
        throw fs::filesystem_error("cannot create directory", homePath / entry.path, codeOf(error));
    }
    takeOver(level.directory.get(), homeOwnership(), homePath, entry.path);
    return level;
}

// `top` and the entry below it, if any, are put together for a message only: there are many
// entries.
void MaildirManager::takeOver(int directory, const Ownership& wanted, const fs::path& top,
                              std::string_view entry) const {
    safe_path::PermissionStep failed = {};
    if (safe_path::setOwnerAndMode(directory, wanted.uid, wanted.gid, wanted.mode, &failed) != 0) {
        const int error = errno;
        throw FSError(failed == safe_path::PermissionStep::chmod ? "chmod" : "chown",
                      entry.empty() ? top : top / entry, error);
    }
}

void MaildirManager::renameDomainRoot(const std::string& oldDomain, const std::string& newDomain) {
    const fs::path root = getDomainRoot(oldDomain);
    require(isPathComponent(oldDomain) && isPathComponent(newDomain), CANNOT_RENAME, root);
    renameDirectory(root, getDomainRoot(newDomain));
}

void MaildirManager::renameMailnameHome(const std::string& domain, const std::string& oldMailname,
                                        const std::string& newMailname) {
    const Mailname from(domain, oldMailname);
    const Mailname to(domain, newMailname);
    require(from.isSound() && to.isSound(), CANNOT_RENAME, from.home());
    renameDirectory(from.home(), to.home());
}

void MaildirManager::removeDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    require(isPathComponent(domain), CANNOT_REMOVE, root);
    fs::path saved;
    if (!backupRename(root, saved))
        removeDirectory(root);
    else if (!saved.empty())
        removeDirectory(saved);
}

void MaildirManager::removeMailnameHome(const std::string& domain, const std::string& mailname) {
    const Mailname name(domain, mailname);
    require(name.isSound(), CANNOT_REMOVE, name.home());
    removeDirectory(name.home());
}

void MaildirManager::backupDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    require(isPathComponent(domain), CANNOT_RENAME, root);
    backup(root);
}

void MaildirManager::backupMailnameHome(const std::string& domain, const std::string& mailname) {
    const Mailname name(domain, mailname);
    require(name.isSound(), CANNOT_RENAME, name.home());
    backup(name.home());
}

}  // namespace corvo::mail
