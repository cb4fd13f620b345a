#include "audit/databases.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>

#include "mail/handlers/check_quota_records.h"
#include "mail/handlers/mail_handlers_db.h"
#include "mail/quota/mail_user_db.h"
#include "mail/sqlite/sqlite_state.h"

namespace corvo::audit {

namespace {

using mail::RowDifferences;
using mail::SqliteAccess;
using mail::SqliteStatement;
using mail::SqliteStep;
using mail::SqliteUse;
using Names = std::vector<std::string>;

const char* describe(const RowDifferences& differences) {
    return differences.missing ? "has no row for it" : "has another quota";
}

}  // namespace

std::optional<std::string> objectionToReading(const std::string& path) {
    mail::SqliteState state;
    if (!mail::lookAtSqlite(path.c_str(), state))
        return std::strerror(errno);
    if (state.wal)
        return "it has a write-ahead log, which cannot be read without a change";
    if (state.hasOddJournal)
        return "it has an empty journal of another mode, which SQLite would change";
    return std::nullopt;
}

QuotaRows::QuotaRows(Output& output) : output_(output) {}

void QuotaRows::open() {
    if (session_ || isGivenUp_)
        return;
    if (const auto objection = objectionToReading(mail::MAIL_USER_DB))
        return giveUp(*objection);
    session_.emplace(mail::MAIL_USER_DB, SqliteAccess::readOnly, SqliteUse::look);
    look_.emplace(*session_);
}

void QuotaRows::giveUp(const std::string& reason) {
    isGivenUp_ = true;
    look_.reset();
    session_.reset();
    output_.omit(std::string(mail::MAIL_USER_DB) + ": " + reason +
                 ": the quota rows were not looked at");
}

void QuotaRows::lookAt(Items& items, Item about, long long quota, bool isReached) {
    open();
    if (isGivenUp_)
        return;
    const mail::QuotaRow row = mail::quotaRow(about.domain, about.mailbox, quota);
    const RowDifferences differences = look_->at(row);
    if (differences.unknown)
        return giveUp(
            "the rows cannot be read (locked, damaged, or a transaction to be rolled "
            "back)");
    if (!differences.any())
        return;
    about.kind = ItemKind::quotaRow;
    about.path = mail::MAIL_USER_DB;
    about.reason = describe(differences);
    about.expected = row[2].value;
    if (!differences.missing)
        about.found = look_->found();
    about.repair = isReached ? Repair::all : Repair::none;
    items.push_back(std::move(about));
}

Names QuotaRows::texts(const char* sql, const std::string* parameter) {
    Names found;
    open();
    if (isGivenUp_)
        return found;
    SqliteStatement select(*session_, sql, SqliteUse::look);
    SqliteStep step = select && (parameter == nullptr || select.bind(*parameter))
                          ? select.step()
                          : SqliteStep::failed;
    for (; step == SqliteStep::row; step = select.step())
        if (const std::string_view text = select.bytes(0); text.data() != nullptr)
            found.emplace_back(text);
    if (step == SqliteStep::failed)
        giveUp("the rows cannot be listed");
    return found;
}

std::optional<std::string> QuotaRows::firstDomain() {
    const Names found = texts("SELECT min(domain_name) FROM mailbox_quota", nullptr);
    return found.empty() ? std::nullopt : std::optional(found.front());
}

std::optional<std::string> QuotaRows::domainBehind(const std::string& domain) {
    const Names found =
        texts("SELECT min(domain_name) FROM mailbox_quota WHERE domain_name > ?", &domain);
    if (found.empty())
        return std::nullopt;
    // Something that is no text, or not ordered by its bytes, could come again and again.
    if (found.front() <= domain) {
        giveUp("the rows cannot be listed");
        return std::nullopt;
    }
    return found.front();
}

// Sorted here, for SQLite might need a temporary file.
Names QuotaRows::mailboxesOf(const std::string& domain) {
    Names found = texts("SELECT mailbox_name FROM mailbox_quota WHERE domain_name = ?", &domain);
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

void lookAtOverquotaRecords(Items& items, Output& output, bool reject, bool permanent) {
    const auto omit = [&](const std::string& reason) {
        output.omit(std::string(mh_db_path) + ": " + reason +
                    ": the records of the over-quota handler were not looked at");
    };
    if (const auto objection = objectionToReading(mh_db_path))
        return omit(*objection);
    const auto records = check_quota_records(permanent);
    const std::span<const mh_data> wanted(records.data(), reject ? records.size() : 0);
    const RowDifferences differences = mh_db_name_differences(nullptr, CHECK_QUOTA_HANDLER, wanted);
    if (differences.unknown)
        return omit("it cannot be read");
    if (!differences.any())
        return;
    Item item;
    item.kind = ItemKind::overquotaRecords;
    item.path = mh_db_path;
    item.reason = !reject               ? "rejects mail over quota though the panel says not"
                  : differences.missing ? "does not reject mail over quota as the panel says"
                                        : "has other records of the over-quota handler";
    item.repair = Repair::either;
    items.push_back(std::move(item));
}

}  // namespace corvo::audit
