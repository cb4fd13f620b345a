// What differs between rows of a local database and what they should be.
//
// As mail/home/differences.h has it for files: a look changes nothing, logs nothing and does not
// throw.

#pragma once

namespace corvo::mail {

class SqliteStatement;

/// Nothing is set where all is as it should be.
struct RowDifferences {
    bool missing = false;   // a row that should be there
    bool contents = false;  // of a row with the right key
    bool surplus = false;   // a row that should not be there
    bool unknown = false;   // they could not be looked at: locked, damaged, no such table

    bool any() const noexcept { return *this != RowDifferences{}; }
    friend bool operator==(const RowDifferences&, const RowDifferences&) = default;
};

/// Of one row: by the first step of a statement that finds it by its key, and whose only column is
/// 1 where all else is right.
[[nodiscard]] RowDifferences rowDifferences(SqliteStatement& look) noexcept;

}  // namespace corvo::mail
