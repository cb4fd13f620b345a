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
#include "utils/accounts.h"
#include "utils/safe_path.h"
#include "utils/strings.h"

namespace corvo::mail {

namespace fs = std::filesystem;

struct SkeletonEntry {
    std::string_view path;  // below the home
    const char* name;
    std::size_t depth;  // how many directories of the skeleton it lies in
};

namespace {

constexpr mode_t DOMAIN_ROOT_MODE = 0750;
constexpr mode_t HOME_MODE = 0700;

// While directories are made, nobody else gets into them. An umask alone would not see to that:
// where the parent has a default ACL, it does not count.
constexpr mode_t CREATION_MODE = 0700;
constexpr mode_t CREATION_UMASK = 077;

// What a home holds, in the order of creation: a directory comes before what is in it.
constexpr std::array<std::string_view, 21> SKELETON_PATHS = {
    "Maildir",         "Maildir/tmp",         "Maildir/new",         "Maildir/cur",
    "Maildir/.Spam",   "Maildir/.Spam/tmp",   "Maildir/.Spam/new",   "Maildir/.Spam/cur",
    "Maildir/.Sent",   "Maildir/.Sent/tmp",   "Maildir/.Sent/new",   "Maildir/.Sent/cur",
    "Maildir/.Drafts", "Maildir/.Drafts/tmp", "Maildir/.Drafts/new", "Maildir/.Drafts/cur",
    "Maildir/.Trash",  "Maildir/.Trash/tmp",  "Maildir/.Trash/new",  "Maildir/.Trash/cur",
    "@attachments",
};

constexpr SkeletonEntry entryOf(std::string_view path) {
    return {.path = path,
            .name = path.substr(path.rfind('/') + 1).data(),  // the end of a literal
            .depth = static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'))};
}

constexpr auto SKELETON = [] {
    std::array<SkeletonEntry, SKELETON_PATHS.size()> entries{};
    std::transform(SKELETON_PATHS.begin(), SKELETON_PATHS.end(), entries.begin(), entryOf);
    return entries;
}();

constexpr std::size_t SKELETON_LEVELS = 3;

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
UniqueFd makeOrOpen(int parent, const char* name) {
    const int made = safe_path::makeDirectory(parent, name, CREATION_MODE);
    if (made < 0)
        return UniqueFd();
    UniqueFd directory = safe_path::openDirectory(parent, name);
    if (!directory && made == 1 && (errno == ENOTDIR || errno == ENOENT))
        errno = EEXIST;
    return directory;
}

void renameDirectory(const fs::path& from, const fs::path& to) {
    if (safe_path::renameEntry(AT_FDCWD, from.c_str(), to.c_str()) != 0) {
        const int error = errno;
        throw fs::filesystem_error("cannot rename", from, to, codeOf(error));
    }
}

void removeDirectory(const fs::path& path) {
    if (safe_path::removeTree(AT_FDCWD, path.c_str()) != 0) {
        const int error = errno;
        throw fs::filesystem_error("cannot remove all", path, codeOf(error));
    }
}

// Renames `source` to its backup name, which becomes `output`: the empty path when there is nothing
// to back up. False, with errno, when `source` cannot be looked at.
bool backupRename(const fs::path& source, fs::path& output) {
    output.clear();
    struct stat directory {};
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

void MaildirManager::createDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    require(isPathComponent(domain), "cannot create directories", root);
    const UmaskGuard ownerOnly(CREATION_UMASK);
    makeTop(root, DOMAIN_ROOT_MODE);
}

void MaildirManager::createMailnameHome(const std::string& domain, const std::string& mailname) {
    createMailnameHome(Mailname(domain, mailname));
}

void MaildirManager::createMailnameHome(const Mailname& mailname) {
    const fs::path& home = mailname.home();
    require(mailname.isSound(), "cannot create directories", home);
    const UmaskGuard ownerOnly(CREATION_UMASK);
    // The home, then the directory made last at each level below it: the next one's parent.
    std::array<UniqueFd, SKELETON_LEVELS + 1> opened;
    opened[0] = makeTop(home, HOME_MODE);
    for (const SkeletonEntry& entry : SKELETON)
        opened.at(entry.depth + 1) = makeEntry(opened.at(entry.depth).get(), home, entry);
}

// Makes a domain root or a home with its missing parents and opens it.
UniqueFd MaildirManager::makeTop(const fs::path& path, mode_t mode) const {
    UniqueFd directory = safe_path::makeDirectories(AT_FDCWD, path.c_str(), CREATION_MODE);
    if (!directory) {
        const int error = errno;
        throw fs::filesystem_error("cannot create directories", path, codeOf(error));
    }
    takeOver(directory.get(), mode, path);
    return directory;
}

// Makes an entry of the skeleton in its open parent and opens it.
UniqueFd MaildirManager::makeEntry(int parent, const fs::path& home,
                                   const SkeletonEntry& entry) const {
    UniqueFd directory = makeOrOpen(parent, entry.name);
    if (!directory) {
        const int error = errno;
        throw fs::filesystem_error("cannot create directory", home / entry.path, codeOf(error));
    }
    takeOver(directory.get(), HOME_MODE, home, entry.path);
    return directory;
}

// `top` and the entry below it, if any, are put together for a message only: there are many
// entries.
void MaildirManager::takeOver(int directory, mode_t mode, const fs::path& top,
                              std::string_view entry) const {
    safe_path::PermissionStep failed{};
    if (safe_path::setOwnerAndMode(directory, ownerUid_, ownerGid_, mode, &failed) != 0) {
        const int error = errno;
        throw FSError(failed == safe_path::PermissionStep::chmod ? "chmod" : "chown",
                      entry.empty() ? top : top / entry, error);
    }
}

void MaildirManager::renameDomainRoot(const std::string& oldDomain, const std::string& newDomain) {
    const fs::path root = getDomainRoot(oldDomain);
    require(isPathComponent(oldDomain) && isPathComponent(newDomain), "cannot rename", root);
    renameDirectory(root, getDomainRoot(newDomain));
}

void MaildirManager::renameMailnameHome(const std::string& domain, const std::string& oldMailname,
                                        const std::string& newMailname) {
    const Mailname from(domain, oldMailname);
    const Mailname to(domain, newMailname);
    require(from.isSound() && to.isSound(), "cannot rename", from.home());
    renameDirectory(from.home(), to.home());
}

void MaildirManager::removeDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    require(isPathComponent(domain), "cannot remove all", root);
    fs::path saved;
    if (!backupRename(root, saved))
        removeDirectory(root);
    else if (!saved.empty())
        removeDirectory(saved);
}

void MaildirManager::removeMailnameHome(const std::string& domain, const std::string& mailname) {
    const Mailname name(domain, mailname);
    require(name.isSound(), "cannot remove all", name.home());
    removeDirectory(name.home());
}

void MaildirManager::backupDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    require(isPathComponent(domain), "cannot rename", root);
    backup(root);
}

void MaildirManager::backupMailnameHome(const std::string& domain, const std::string& mailname) {
    const Mailname name(domain, mailname);
    require(name.isSound(), "cannot rename", name.home());
    backup(name.home());
}

}  // namespace corvo::mail
