#include "tests/faults/disturb/wide_panel.h"

namespace corvo::faults {

namespace {

constexpr std::size_t ROWS = 5200;

std::string joined(const std::vector<std::string>& texts, const std::string& separator) {
    std::string text;
    for (const std::string& each : texts)
        text += (text.empty() ? "" : separator) + each;
    return text;
}

std::string insertOfHonestRows(const std::string& table, const std::string& columns) {
    return "INSERT INTO " + table + " (" + columns + ") SELECT " + columns + " FROM honest_" +
           table + ";";
}

}  // namespace

RowOrder rowOrderOf(std::size_t numberOfBatch) {
    return numberOfBatch % 2 == 0 ? RowOrder::hostileFirst : RowOrder::honestFirst;
}

WidePanel::WidePanel(test::PanelDatabase& panel) : panel_(panel) {
    for (const Column& column : columnsThatARunReads())
        tables_[column.table].push_back(column.name);
    for (const auto& [table, columns] : tables_) {
        widen(table, columns);
        keepHonestRows(table, columns);
    }
}

void WidePanel::keepHonestRows(const std::string& table, const ColumnNames& columns) {
    panel_.execute("CREATE TABLE honest_" + table + " AS SELECT " + joined(columns, ",") +
                   " FROM " + table);
}

std::vector<Batch> WidePanel::batches() {
    return hostileBatches(ROWS, panel_.query("SELECT name FROM honest_domains"));
}

void WidePanel::load(const std::vector<HostileRow>& rows, RowOrder order) {
    std::string honest;
    std::string hostile;
    std::string script;
    for (const auto& [table, columns] : tables_) {
        script += "DELETE FROM " + table + ";";
        honest += insertOfHonestRows(table, joined(columns, ","));
    }
    for (const HostileRow& hostileRow : rows)
        for (const Row& row : hostileRow.rows())
            hostile += insertStatement(row);
    script += order == RowOrder::hostileFirst ? hostile + honest : honest + hostile;
    panel_.execute(script);
}

void WidePanel::widen(const std::string& table, const ColumnNames& columns) {
    std::vector<std::string> changes;
    for (const std::string& key : keysOver(table, columns))
        changes.push_back(key == "PRIMARY" ? "DROP PRIMARY KEY" : "DROP KEY " + key);
    for (const std::string& column : columns)
        changes.push_back("MODIFY " + column + " LONGBLOB NULL");
    panel_.execute("ALTER TABLE " + table + " " + joined(changes, ", "));
}

WidePanel::ColumnNames WidePanel::keysOver(const std::string& table, const ColumnNames& columns) {
    return panel_.query(
        "SELECT DISTINCT index_name FROM information_schema.statistics WHERE "
        "table_schema=DATABASE() AND table_name='" +
        table + "' AND column_name IN ('" + joined(columns, "','") + "')");
}

}  // namespace corvo::faults
