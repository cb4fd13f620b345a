// A panel database whose columns hold any value.

#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/faults/disturb/row_generator.h"
#include "tests/support/panel.h"

namespace corvo::faults {

/// Which rows stand first, and are read first.
enum class RowOrder { hostileFirst, honestFirst };

/// By turns.
RowOrder rowOrderOf(std::size_t numberOfBatch);

/// The panel database with columns that hold every value, and a copy of its honest rows. It stays
/// like this until it is dropped.
class WidePanel {
public:
    explicit WidePanel(test::PanelDatabase& panel);

    /// All that a campaign puts into it, always the same.
    std::vector<Batch> batches();

    /// Replaces the rows that were loaded before.
    void load(const std::vector<HostileRow>& rows, RowOrder order);

private:
    using ColumnNames = std::vector<std::string>;

    void keepHonestRows(const std::string& table, const ColumnNames& columns);
    void widen(const std::string& table, const ColumnNames& columns);
    ColumnNames keysOver(const std::string& table, const ColumnNames& columns);

    test::PanelDatabase& panel_;
    std::map<std::string, ColumnNames> tables_;
};

}  // namespace corvo::faults
