// Where mail is stored, and who owns it: a root directory for each domain and, below it, a home for
// each mail name with its Maildir, the standard folders and the attachments.
//
// Everything belongs to popuser and its primary group: domain roots with mode 0750, homes and all
// below them 0700. The paths that the getters return are computed from the names alone; the names
// are lower-cased, nothing else is changed.
//
// Operations that change the tree throw std::filesystem::filesystem_error, also with EINVAL, before
// anything is touched, for a name that is no single path component. What they made or removed
// before a failure stays so. The umask is the same after each of them as before.

#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "mail/home/differences.h"
#include "utils/guards.h"

namespace corvo::mail {

class Mailname;
struct SkeletonEntry;

class MaildirManager {
public:
    MaildirManager(const MaildirManager&) = delete;
    MaildirManager& operator=(const MaildirManager&) = delete;

    /// The instance of the process, MaildirPPManager::getInstance().
    static MaildirManager& getInstance();

    /// Looks popuser up. Throws std::runtime_error when there is no such account.
    void init();

    std::filesystem::path getDomainRelativeRoot(const std::string& domain) const;
    std::filesystem::path getMailnameRelativeHome(const std::string& domain,
                                                  const std::string& mailname) const;
    std::filesystem::path getDomainRoot(const std::string& domain) const;
    std::filesystem::path getMailnameHome(const std::string& domain,
                                          const std::string& mailname) const;

    /// Who domain roots belong to, and homes with all that is in them.
    Ownership domainRootOwnership() const noexcept;
    Ownership homeOwnership() const noexcept;

    /// Make what is missing, parents included, and set owner and mode of what belongs to the root
    /// or home, new or old, and is not as it should be; nothing is ever emptied. Parents that had
    /// to be made have mode 0700. Throw FSError for an owner ("chown") or a mode ("chmod") that
    /// cannot be set.
    void createDomainRoot(const std::string& domain);
    void createMailnameHome(const std::string& domain, const std::string& mailname);
    void createMailnameHome(const Mailname& mailname);

    /// The new place's parent must exist.
    void renameDomainRoot(const std::string& oldDomain, const std::string& newDomain);
    void renameMailnameHome(const std::string& domain, const std::string& oldMailname,
                            const std::string& newMailname);

    /// Remove the directory and all below it; a link is removed and never followed. One that does
    /// not exist is no failure. A domain root is renamed first, so that its name is free even when
    /// the removal stops half-way.
    void removeDomainRoot(const std::string& domain);
    void removeMailnameHome(const std::string& domain, const std::string& mailname);

    /// Rename the directory to its path, ".CorvoSaved." and its inode number. One that does not
    /// exist is no failure. Throw FSError ("rename") for one that cannot be looked at.
    void backupDomainRoot(const std::string& domain);
    void backupMailnameHome(const std::string& domain, const std::string& mailname);

protected:
    MaildirManager() = default;
    ~MaildirManager() = default;

private:
    // A directory on the way to the next entry.
    struct Level {
        UniqueFd directory = {};  // none for an entry that was right
        bool isNew = false;
        const char* path = nullptr;  // of an entry: below the home
    };

    // While directories are made, nobody else gets into them; set when the first is to be made.
    using CreationUmask = std::optional<UmaskGuard>;

    Level makeTop(const std::filesystem::path& path, const Ownership& wanted,
                  CreationUmask& ownerOnly) const;
    bool isRight(int home, const SkeletonEntry& entry) const;
    Level makeEntry(int home, Level& parent, const std::filesystem::path& homePath,
                    const SkeletonEntry& entry, CreationUmask& ownerOnly) const;
    void takeOver(int directory, const Ownership& wanted, const std::filesystem::path& top,
                  std::string_view entry = {}) const;

    uid_t ownerUid_ = 0;
    gid_t ownerGid_ = 0;
};

class MaildirPPManager : public MaildirManager {
public:
    /// The one instance, made at the first call. Each call looks popuser up again and throws
    /// std::runtime_error when the account is gone.
    static MaildirPPManager& getInstance();

private:
    MaildirPPManager() = default;
};

}  // namespace corvo::mail
