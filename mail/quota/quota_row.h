// A row of the user database: what it should hold, and what it holds.

#pragma once

#include <array>
#include <string>

#include "mail/sqlite/row_differences.h"
#include "mail/sqlite/sqlite_session.h"

namespace corvo::mail {

struct Parameter {
    const char* name;  // in messages
    std::string value;
};

Parameter domainParameter(const std::string& domain);
Parameter mailboxParameter(const std::string& mailbox);

/// A mailbox's row; the first two are its key.
using QuotaRow = std::array<Parameter, 3>;

/// What storing a quota in bytes leaves; a negative one is stored as 0.
QuotaRow quotaRow(const std::string& domain, const std::string& mailbox, long long quota);

/// Looks at rows, one after the other: silently, without waiting.
class QuotaRowLook {
public:
    /// The session, which may be closed, outlives this.
    explicit QuotaRowLook(const SqliteSession& session) noexcept;

    /// How a row differs. Reads nothing that popuser could have made long.
    [[nodiscard]] RowDifferences at(const QuotaRow& row);

    /// What stands in the row that was looked at last, cut to 64 characters; empty when it was
    /// missing.
    const std::string& found() const noexcept { return found_; }

private:
    SqliteStatement statement_;
    std::string found_;
};

}  // namespace corvo::mail
