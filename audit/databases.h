// Looks at the two local databases, each open at most once.

#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "audit/item.h"
#include "audit/output.h"
#include "mail/quota/quota_row.h"
#include "mail/sqlite/sqlite_session.h"

namespace corvo::audit {

/// Why a SQLite file must not, or cannot, be read without a change to it or beside it; nothing
/// where it can. A journal that waits for its transaction to be rolled back is met later, as a look
/// that fails.
std::optional<std::string> objectionToReading(const std::string& path);

/// Whose a row of the user database is: domain and mailbox.
using RowName = std::pair<std::string, std::string>;

/// The rows of the user database.
class QuotaRows {
public:
    /// Where rows cannot be looked at, that is told once.
    explicit QuotaRows(Output& output);

    /// Adds an item where a mailbox's row is not as storing the quota would leave it. `isReached`
    /// tells whether a run gets as far as that.
    void lookAt(Items& items, Item about, long long quota, bool isReached);

    /// Whose rows there are, page by page in the order of bytes: the first page for null, else the
    /// one behind a name; an empty one at the end. No lock stays behind.
    std::vector<RowName> names(const RowName* behind = nullptr);

    /// The mailboxes of a domain that have rows, in the order of their bytes.
    std::vector<std::string> mailboxesOf(const std::string& domain);

private:
    void open();
    void giveUp(const std::string& reason);
    void giveUpReading();
    void list(const char* sql, std::initializer_list<std::string_view> parameters,
              const std::function<void(const mail::SqliteStatement& row)>& take);

    Output& output_;
    bool isGivenUp_ = false;
    bool isReadOnly_ = false;
    std::optional<mail::SqliteSession> session_;
    std::optional<mail::QuotaRowLook> look_;
};

/// Adds an item where the records of the over-quota handler are not what a run would leave.
void lookAtOverquotaRecords(Items& items, Output& output, bool reject, bool permanent);

}  // namespace corvo::audit
