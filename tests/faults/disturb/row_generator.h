// Rows that no panel would write, with the sound rows around them that make a run read them.

#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/faults/disturb/hostile_values.h"

namespace corvo::faults {

/// A row of the panel database.
struct Row {
    std::string table;
    std::vector<std::pair<std::string, Cell>> cells;
};

/// A column of a table that a run reads.
struct Column {
    std::string table;
    std::string name;
};

std::vector<Column> columnsThatARunReads();

/// A domain with one mailbox, its quota and a forward, sound but for some cells.
struct HostileRow {
    std::size_t number = 0;  // distinguishes its names and ids from every other's
    std::vector<std::pair<Column, Cell>> changes;

    /// All its rows, in the order of their insertion.
    std::vector<Row> rows() const;

    /// Whether the domain's status is no number, at which the walk over the domains ends.
    bool endsTheWalk() const;

    /// `mail.mail_name="a\x00b" (3 bytes)` for each change.
    std::string describe() const;
};

/// Rows that are put into the database together.
struct Batch {
    std::string name;  // "rows/17"
    std::vector<HostileRow> rows;
};

/// At least `count` rows, known values first and then random ones, always the same for the same
/// arguments. `honestDomains` are given to domains in other letters. Rows that end the walk have
/// batches of their own: what follows them is not read.
std::vector<Batch> hostileBatches(std::size_t count, const std::vector<std::string>& honestDomains);

/// For a terminal: bytes that are no plain characters as \x00, the text cut where it grows long.
std::string printable(std::string_view bytes);

/// An INSERT statement; values as hexadecimal literals.
std::string insertStatement(const Row& row);

}  // namespace corvo::faults
