#include "audit/databases.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <span>

#include "audit/disk.h"
#include "mail/handlers/check_quota_records.h"
#include "mail/handlers/mail_handlers_db.h"
#include "mail/quota/mail_user_db.h"
#include "mail/sqlite/sqlite_state.h"

namespace corvo::audit {

namespace {

using mail::RowDifferences;
using mail::SqliteAccess;
using mail::SqliteSession;
using mail::SqliteStatement;
using mail::SqliteStep;
using mail::SqliteUse;

// A page has so many rows that few are needed, and so few that it is read at once.
constexpr const char* FIRST_NAMES =
    "SELECT domain_name, mailbox_name FROM mailbox_quota ORDER BY 1, 2 LIMIT 1000";
constexpr const char* NAMES_BEHIND =
    "SELECT domain_name, mailbox_name FROM mailbox_quota "
    "WHERE (domain_name, mailbox_name) > (?, ?) ORDER BY 1, 2 LIMIT 1000";

const char* describe(const RowDifferences& differences) {
    return differences.missing ? "has no row for it" : "has another quota";
}

// By SQLite's own word; ask before the next call.
std::string whyUnreadable(const SqliteSession& session) {
    return std::string("cannot be read: ") + (session ? session.error() : "it cannot be opened");
}

bool isReadOnly(const std::string& database) {
    return isOnReadOnlyDisk(std::filesystem::path(database).parent_path());
}

// In a table without its key a run puts the right row behind the wrong one.
bool hasKey(const SqliteSession& session) {
    return static_cast<bool>(SqliteStatement(session, mail::MAIL_USER_DB_PROBE, SqliteUse::look));
}

// What SQLite does not say. No session may be open.
std::string journalOf(const std::string& path) {
    mail::SqliteState state;
    return mail::lookAtSqlite(path.c_str(), state) && state.journal
               ? " (a transaction is under way, or waits to be rolled back)"
               : "";
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
    isReadOnly_ = isReadOnly(mail::MAIL_USER_DB);
}

void QuotaRows::giveUp(const std::string& reason) {
    isGivenUp_ = true;
    look_.reset();
    session_.reset();
    output_.omit(std::string(mail::MAIL_USER_DB) + ": " + reason +
                 ": the quota rows were not looked at");
}

void QuotaRows::giveUpReading() {
    const std::string reason = "the rows " + whyUnreadable(*session_);
    look_.reset();
    session_.reset();
    giveUp(reason + journalOf(mail::MAIL_USER_DB));
}

void QuotaRows::lookAt(Items& items, Item about, long long quota, bool isReached) {
    open();
    if (isGivenUp_)
        return;
    const mail::QuotaRow row = mail::quotaRow(about.domain, about.mailbox, quota);
    const RowDifferences differences = look_->at(row);
    if (differences.unknown)
        return giveUpReading();
    if (!differences.any())
        return;
    about.kind = ItemKind::quotaRow;
    about.path = mail::MAIL_USER_DB;
    about.reason = describe(differences);
    about.expected = row[2].value;
    if (!differences.missing)
        about.found = look_->found();
    const bool isPutRight = !isReadOnly_ && (differences.missing || hasKey(*session_));
    about.repair = isReached && isPutRight ? Repair::all : Repair::none;
    items.push_back(std::move(about));
}

void QuotaRows::list(const char* sql, std::initializer_list<std::string_view> parameters,
                     const std::function<void(const SqliteStatement& row)>& take) {
    open();
    if (isGivenUp_)
        return;
    SqliteStatement select(*session_, sql, SqliteUse::look);
    const bool isReady =
        select && std::all_of(parameters.begin(), parameters.end(),
                              [&](std::string_view parameter) { return select.bind(parameter); });
    SqliteStep step = isReady ? select.step() : SqliteStep::failed;
    for (; step == SqliteStep::row; step = select.step())
        take(select);
    if (step == SqliteStep::failed)
        giveUp("the rows cannot be listed");
}

std::vector<RowName> QuotaRows::names(const RowName* behind) {
    std::vector<RowName> page;
    const auto take = [&](const SqliteStatement& row) {
        RowName name{std::string(row.bytes(0)), std::string(row.bytes(1))};
        if (page.empty() || page.back() != name)
            page.push_back(std::move(name));
    };
    if (behind == nullptr)
        list(FIRST_NAMES, {}, take);
    else
        list(NAMES_BEHIND, {behind->first, behind->second}, take);
    // What is no text, or not ordered by its bytes, could come again and again.
    if (behind != nullptr && !page.empty() && page.back() <= *behind) {
        giveUp("the rows cannot be listed");
        page.clear();
    }
    return page;
}

// Sorted here, for SQLite might need a temporary file.
std::vector<std::string> QuotaRows::mailboxesOf(const std::string& domain) {
    std::vector<std::string> found;
    list("SELECT mailbox_name FROM mailbox_quota WHERE domain_name = ?", {domain},
         [&](const SqliteStatement& row) { found.emplace_back(row.bytes(0)); });
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
    std::optional<SqliteSession> session(std::in_place, mh_db_path, SqliteAccess::readOnly,
                                         SqliteUse::look);
    const RowDifferences differences =
        *session ? mh_db_name_differences(session->handle(), CHECK_QUOTA_HANDLER, wanted)
                 : RowDifferences{.unknown = true};
    if (differences.unknown) {
        const std::string reason = "it " + whyUnreadable(*session);
        session.reset();
        return omit(reason + journalOf(mh_db_path));
    }
    if (!differences.any())
        return;
    Item item;
    item.kind = ItemKind::overquotaRecords;
    item.path = mh_db_path;
    item.reason = !reject               ? "rejects mail over quota though the panel says not"
                  : differences.missing ? "does not reject mail over quota as the panel says"
                                        : "has other records of the over-quota handler";
    item.repair = isReadOnly(mh_db_path) ? Repair::none : Repair::either;
    items.push_back(std::move(item));
}

}  // namespace corvo::audit
