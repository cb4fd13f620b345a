// The mailbox quota user database: a SQLite file in which the mail server looks up each mailbox's
// quota, one row per domain and mailbox. Names are stored in lower case.
//
// A process may use SQLite for databases of its own, too. The first operation adds a VFS,
// "corvo-hardened", which is not the default one, and puts this library before SQLite's system
// calls "open", "readlink", "fchmod" and "fchown"; those of other connections it hands on to what
// stood there before. SQLite's table of them has no lock: with several threads, have the first
// operation done before they use SQLite. Nothing else of SQLite changes, and connections opened
// here have no mutex and belong to the calling thread.

#pragma once

#include <string>
#include <vector>

namespace corvo::mail {

/// The mail server's own file.
inline constexpr const char* MAIL_USER_DB = "/var/lib/corvo/mail/userdb/userdb.db";

/// A statement that can be prepared, and need not be run, where the table is as operations need it:
/// its columns and its key.
inline constexpr const char* MAIL_USER_DB_PROBE =
    "INSERT INTO mailbox_quota (domain_name, mailbox_name, quota) VALUES (?, ?, ?) "
    "ON CONFLICT (domain_name, mailbox_name) DO NOTHING";

/// A mailbox's quota in userdbStoreMboxesQuotas.
struct MailQuota {
    std::string mailboxName;
    long long quota;  // bytes; negative: the default
};

/// Each operation opens the file anew and closes it, and waits for a locked file without limit.
/// Unless stated, operations return true when done; a failure has been logged at priority 3, with
/// the names as the caller gave them. No database error is thrown.
class MailUserDbHelper {
public:
    /// An empty path stands for MAIL_USER_DB.
    explicit MailUserDbHelper(const std::string& path = "");

    /// Deletes the file and makes a new one with an empty table, owned by popuser unless
    /// `skipOwnerChange`.
    [[nodiscard]] bool initMailUserdb(bool skipOwnerChange) const;

    /// Gives a file to user and group popuser; its mode stays.
    [[nodiscard]] static bool changeDatabaseOwner(const std::string& path);

    /// Stores a quota in bytes; a negative one is stored as 0. A row that is right is left alone,
    /// and the file then not written.
    [[nodiscard]] bool userdbStoreMboxQuota(const std::string& domain, const std::string& mailbox,
                                            long long quota) const;

    /// Stores many in one transaction, a negative quota as the default and a negative default as 0.
    /// One that fails does not stop the others, unless SQLite takes the whole transaction back (no
    /// space, I/O error): nothing is then stored, of those before it neither. Without any, the file
    /// is not touched.
    [[nodiscard]] bool userdbStoreMboxesQuotas(const std::string& domain,
                                               const std::vector<MailQuota>& quotas,
                                               long long defaultQuota) const;

    [[nodiscard]] bool userdbRemoveMboxQuota(const std::string& domain,
                                             const std::string& mailbox) const;

    /// Removes the quotas of all mailboxes of a domain.
    [[nodiscard]] bool userdbRemoveDefaultDomainQuota(const std::string& domain) const;

    [[nodiscard]] bool userdbRenameMbox(const std::string& domain, const std::string& oldMailbox,
                                        const std::string& newMailbox) const;
    [[nodiscard]] bool userdbRenameDomain(const std::string& oldDomain,
                                          const std::string& newDomain) const;

    /// A stored quota in bytes (0 for an unknown unit), or -1: no such row or a NULL in it
    /// (silently), or a failure.
    [[nodiscard]] long long userdbGetMboxQuota(const std::string& domain,
                                               const std::string& mailbox) const;

private:
    std::string path_;
};

}  // namespace corvo::mail
