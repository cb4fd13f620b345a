#include "mail/quota/mail_user_db.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <span>
#include <system_error>

#include "mail/quota/quota_row.h"
#include "mail/sqlite/sqlite_session.h"
#include "utils/accounts.h"
#include "utils/guards.h"
#include "utils/log.h"
#include "utils/safe_path.h"
#include "utils/size_units.h"
#include "utils/strings.h"

namespace corvo::mail {

namespace {

constexpr const char* CREATION_SCRIPT =
    "BEGIN TRANSACTION;CREATE TABLE IF NOT EXISTS mailbox_quota (domain_name TEXT NOT "
    "NULL,mailbox_name TEXT NOT NULL,quota TEXT NOT NULL,PRIMARY KEY (domain_name, "
    "mailbox_name));COMMIT;";

// The statement does not copy the parameters: they must outlive its steps.
bool bindAll(SqliteStatement& statement, std::span<const Parameter> parameters) {
    for (const Parameter& parameter : parameters)
        if (!statement.bind(parameter.value)) {
            Log().line(LOG_ERR, "Unable to bind parameter %s: %s", parameter.name,
                       statement.error());
            return false;
        }
    return true;
}

// One statement, run once or several times inside one transaction. After a failure to open, begin,
// prepare or bind nothing more is done and the transaction is not ended; nor after a run that made
// SQLite take the transaction back. Any other run that fails spoils the result and nothing else.
class WriteOperation {
public:
    WriteOperation(const SqliteSession& session, const char* sql) : session_(session) {
        if (session_.begin())
            statement_.emplace(session_, sql);
        usable_ = statement_ && *statement_;
    }

    // `logFailure` receives the reason.
    template <typename LogFailure>
    void run(std::span<const Parameter> parameters, LogFailure logFailure) {
        usable_ = usable_ && bindAll(*statement_, parameters);
        if (!usable_)
            return;
        if (statement_->step() != SqliteStep::done) {
            logFailure(statement_->error());
            succeeded_ = false;
            usable_ = session_.inTransaction();
        }
        statement_->rewind();
    }

    template <typename LogFailure>
    void run(std::initializer_list<Parameter> parameters, LogFailure logFailure) {
        run(std::span(parameters.begin(), parameters.size()), logFailure);
    }

    // True when everything was done.
    [[nodiscard]] bool finish() {
        if (!usable_)
            return false;
        statement_.reset();
        return session_.end() && succeeded_;
    }

private:
    const SqliteSession& session_;
    std::optional<SqliteStatement> statement_;
    bool usable_;
    bool succeeded_ = true;
};

bool storeQuotas(const SqliteSession& session, const std::string& domain,
                 std::span<const MailQuota> quotas, long long defaultQuota) {
    WriteOperation operation(
        session, "REPLACE INTO mailbox_quota (domain_name, mailbox_name, quota) VALUES (?, ?, ?)");
    for (const auto& [mailbox, quota] : quotas)
        operation.run(quotaRow(domain, mailbox, quota >= 0 ? quota : defaultQuota),
                      [&, &name = mailbox](const char* error) {
                          Log().line(LOG_ERR, "Unable to set quota for '%s@%s': %s", name.c_str(),
                                     domain.c_str(), error);
                      });
    return operation.finish();
}

// A leading number and a unit, as bytes; -1 after logging that there is none.
long long decodeQuota(const char* text) {
    const char* const unit = text + std::strspn(text, "0123456789");
    long long number = 0;
    const std::errc error = std::from_chars(text, unit, number).ec;
    if (error != std::errc()) {
        Log().line(LOG_ERR, "Failed to parse quota value: %s",
                   std::make_error_code(error).message().c_str());
        return -1;
    }
    return static_cast<long long>(
        get_value_in_bytes(static_cast<unsigned long long>(number), *unit == '\0' ? "B" : unit));
}

void logRecreationFailure(const char* reason) {
    Log().line(LOG_ERR, "Unable to re-create email user database: %s", reason);
}

}  // namespace

MailUserDbHelper::MailUserDbHelper(const std::string& path)
    : path_(path.empty() ? MAIL_USER_DB : path) {}

bool MailUserDbHelper::initMailUserdb(bool skipOwnerChange) const {
    const int unlinkError = safe_path::unlinkEntry(AT_FDCWD, path_.c_str()) == 0 ? 0 : errno;
    {
        const SqliteSession session(path_.c_str(), SqliteAccess::readWrite);
        if (!session)
            return false;
        // The script would be content with the old table and its rows.
        if (unlinkError != 0 && unlinkError != ENOENT) {
            logRecreationFailure(std::strerror(unlinkError));
            return false;
        }
        SqliteText error;
        if (!session.execute(CREATION_SCRIPT, error)) {
            if (error)
                logRecreationFailure(error.get());
            else
                Log().line(LOG_ERR, "Unable to re-create email user database");
            return false;
        }
    }
    return skipOwnerChange || changeDatabaseOwner(path_);
}

bool MailUserDbHelper::changeDatabaseOwner(const std::string& path) {
    const UniqueFd file = safe_path::openFile(AT_FDCWD, path.c_str(), O_RDWR);
    if (!file) {
        Log().line(LOG_ERR, "Failed to open email user database: %s", std::strerror(errno));
        return false;
    }
    const passwd* const user = ::getpwnam(POPUSER);
    const group* const owners = ::getgrnam(POPUSER);
    if (user == nullptr) {
        Log().line(LOG_ERR, "User 'popuser' not found");
        return false;
    }
    if (owners == nullptr) {
        Log().line(LOG_ERR, "Group 'popuser' not found");
        return false;
    }
    if (retryOnEintr([&] { return ::fchown(file.get(), user->pw_uid, owners->gr_gid); }) != 0) {
        Log().line(LOG_ERR, "Failed to chown email user database: %s", std::strerror(errno));
        return false;
    }
    return true;
}

bool MailUserDbHelper::userdbStoreMboxQuota(const std::string& domain, const std::string& mailbox,
                                            long long quota) const {
    const SqliteSession session(path_.c_str(), SqliteAccess::readWrite);
    if (!QuotaRowLook(session).at(quotaRow(domain, mailbox, quota)).any())
        return true;
    const MailQuota one[] = {{mailbox, quota}};
    return storeQuotas(session, domain, one, 0);
}

bool MailUserDbHelper::userdbStoreMboxesQuotas(const std::string& domain,
                                               const std::vector<MailQuota>& quotas,
                                               long long defaultQuota) const {
    if (quotas.empty())
        return true;
    const SqliteSession session(path_.c_str(), SqliteAccess::readWrite);
    return storeQuotas(session, domain, quotas, defaultQuota);
}

bool MailUserDbHelper::userdbRemoveMboxQuota(const std::string& domain,
                                             const std::string& mailbox) const {
    const SqliteSession session(path_.c_str(), SqliteAccess::readWrite);
    WriteOperation operation(
        session, "DELETE FROM mailbox_quota WHERE domain_name = ? AND mailbox_name = ?");
    operation.run({domainParameter(domain), mailboxParameter(mailbox)}, [&](const char* error) {
        Log().line(LOG_ERR, "Unable to remove quota for '%s@%s': %s", mailbox.c_str(),
                   domain.c_str(), error);
    });
    return operation.finish();
}

bool MailUserDbHelper::userdbRemoveDefaultDomainQuota(const std::string& domain) const {
    const SqliteSession session(path_.c_str(), SqliteAccess::readWrite);
    WriteOperation operation(session, "DELETE FROM mailbox_quota WHERE domain_name = ?");
    operation.run({domainParameter(domain)}, [&](const char* error) {
        Log().line(LOG_ERR, "Unable to remove quota for '%s': %s", domain.c_str(), error);
    });
    return operation.finish();
}

bool MailUserDbHelper::userdbRenameMbox(const std::string& domain, const std::string& oldMailbox,
                                        const std::string& newMailbox) const {
    const SqliteSession session(path_.c_str(), SqliteAccess::readWrite);
    WriteOperation operation(session,
                             "UPDATE mailbox_quota SET mailbox_name = ? WHERE domain_name = ? AND "
                             "mailbox_name = ?");
    operation.run({mailboxParameter(newMailbox),
                   domainParameter(domain),
                   {"old_mailbox_name", to_lower(oldMailbox)}},
                  [&](const char* error) {
                      Log().line(LOG_ERR, "Unable to rename mailbox '%s@%s' to '%s@%s': %s",
                                 oldMailbox.c_str(), domain.c_str(), newMailbox.c_str(),
                                 domain.c_str(), error);
                  });
    return operation.finish();
}

bool MailUserDbHelper::userdbRenameDomain(const std::string& oldDomain,
                                          const std::string& newDomain) const {
    const SqliteSession session(path_.c_str(), SqliteAccess::readWrite);
    WriteOperation operation(session,
                             "UPDATE mailbox_quota SET domain_name = ? WHERE domain_name = ?");
    operation.run({domainParameter(newDomain), {"old_domain_name", to_lower(oldDomain)}},
                  [&](const char* error) {
                      Log().line(LOG_ERR, "Unable to rename domain '%s' to '%s': %s",
                                 oldDomain.c_str(), newDomain.c_str(), error);
                  });
    return operation.finish();
}

long long MailUserDbHelper::userdbGetMboxQuota(const std::string& domain,
                                               const std::string& mailbox) const {
    const Parameter names[] = {domainParameter(domain), mailboxParameter(mailbox)};
    const SqliteSession session(path_.c_str(), SqliteAccess::readOnly);
    SqliteStatement select(
        session, "SELECT quota FROM mailbox_quota WHERE domain_name = ? AND mailbox_name = ?");
    if (!select || !bindAll(select, names))
        return -1;
    const SqliteStep step = select.step();
    if (step == SqliteStep::failed)
        Log().line(LOG_ERR, "Unable to get quota for '%s@%s': %s", mailbox.c_str(), domain.c_str(),
                   select.error());
    if (step != SqliteStep::row)
        return -1;
    const char* const quota = select.text(0);
    return quota == nullptr ? -1 : decodeQuota(quota);
}

}  // namespace corvo::mail
