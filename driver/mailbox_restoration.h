// What is done with each entity that the walker reports.

#pragma once

#include <string>

#include "driver/restore_mode.h"
#include "restore/entities_callbacks.h"

namespace corvo {

namespace mail {
class MaildirManager;
}  // namespace mail

/// The restoring actions. Failures are thrown as the storage layers throw them, or as
/// std::runtime_error for plain functions; the walker reports them.
class MailboxRestorationHelper {
public:
    /// Looks up the owner of mail storage: throws std::runtime_error when there is no such account.
    MailboxRestorationHelper();

    /// Makes the domain's root directory.
    void registerDomain(const std::string& domain, bool off);

    /// Makes the mail name's home with its Maildir and rewrites its delivery file, with local
    /// delivery when `enable` is set.
    void registerMailbox(const std::string& domain, const std::string& mailname, bool enable);

    /// Adds a forward to the mail name's delivery file. Makes no directory.
    void registerMailRedirect(const std::string& domain, const std::string& mailname,
                              const std::string& target);

    /// Writes the quota (bytes; negative is unlimited) to the Maildir and then to the user
    /// database.
    void setMailboxQuota(const std::string& domain, const std::string& mailname, long quota);

    /// Replaces the records of the handler that rejects mail for full mailboxes.
    void enableRejectOverquota(bool reject, bool permanent);

private:
    mail::MaildirManager* maildirManager_;  // the process-wide one
};

/// Binds the walker's slots to the actions that belong to a mode. Must outlive the walk.
class MailboxRestorationAdaptor : public MailboxRestorationHelper {
public:
    explicit MailboxRestorationAdaptor(RestoreMode mode);
    ~MailboxRestorationAdaptor() = default;
    MailboxRestorationAdaptor(const MailboxRestorationAdaptor&) = delete;
    MailboxRestorationAdaptor& operator=(const MailboxRestorationAdaptor&) = delete;

    mail::restore::MailsrvEntitiesCallbacks& callbacks() noexcept { return slots_; }

private:
    void bindStorage();
    void bindHandlers();

    mail::restore::MailsrvEntitiesCallbacks slots_;
};

}  // namespace corvo
