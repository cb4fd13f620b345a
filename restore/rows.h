// The rows of a statement, one by one, with warnings in place of exceptions.

#pragma once

#include <optional>
#include <string>

#include "lib/db++/connection.h"

namespace corvo::mail::restore {

using Row = mysql::Result::row_t;

/// How a cycle is named in the warnings about its statement.
struct CycleLabel {
    std::string name;
    /// Stands between the name and the text of a failed fetch.
    const char* separator = "";
    /// Written in debug mode for every row that cannot be fetched.
    const char* skipMark = "";
};

/// Runs a statement and hands out its rows. Database errors become warnings on corvo::uerr: a
/// statement that fails has no rows, and a row that cannot be fetched is passed over.
class Rows {
public:
    Rows(mysql::Connection& connection, const std::string& statement, CycleLabel label);

    /// How many rows the statement has; none when it failed.
    std::size_t size() const noexcept { return result_ ? result_->size() : 0; }

    /// Refills `row` with the next row that can be fetched. False at the end.
    bool next(Row& row);

    /// Refills `row` with the very next row. False at the end, and when that row cannot be fetched.
    bool fetchOnce(Row& row);

private:
    enum class Fetched { ROW, NOTHING, END };
    Fetched fetch(Row& row);

    CycleLabel cycle_;
    std::optional<mysql::Result> result_;  // empty when the statement failed
};

}  // namespace corvo::mail::restore
