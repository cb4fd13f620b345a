// What is done with each entity that the walker reports.

#pragma once

#include <optional>
#include <string>

#include "driver/carried_forwards.h"
#include "driver/restore_mode.h"
#include "driver/storage_flush.h"
#include "mail/home/mailname.h"
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

    /// Makes the domain's root directory. `off` is not used; the slot has it.
    void registerDomain(const std::string& domain, bool off);

    /// Makes the mail name's home with its Maildir and restores its delivery file, with local
    /// delivery when `enable` is set. The forwards that the file has from before stay until another
    /// mail name or a setting of the server is reported, or until finish(); what was not reported
    /// by then is dropped.
    void registerMailbox(const std::string& domain, const std::string& mailname, bool enable);

    /// Adds a forward to the mail name's delivery file, behind those reported before. Makes no
    /// directory.
    void registerMailRedirect(const std::string& domain, const std::string& mailname,
                              const std::string& target);

    /// Writes the quota (bytes; negative is unlimited) to the Maildir and then to the user
    /// database.
    void setMailboxQuota(const std::string& domain, const std::string& mailname, long quota);

    /// Replaces the records of the handler that rejects mail for full mailboxes.
    void enableRejectOverquota(bool reject, bool permanent);

    /// Ends a walk: what was restored is on the disk afterwards. What cannot be flushed is told in
    /// a line each.
    void finish();

private:
    void goTo(const mail::Mailname& mailname);
    void leaveMailname();

    mail::MaildirManager* maildirManager_;  // the process-wide one
    std::optional<mail::Mailname> at_;      // the last one reported
    CarriedForwards forwards_;              // of that one
    StorageFlush flush_;
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
