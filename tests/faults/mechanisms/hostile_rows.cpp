// Rows of the panel database that hold any text.

#include <sys/mount.h>

#include <cerrno>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/faults/disturb/row_generator.h"
#include "tests/faults/disturb/runner.h"
#include "tests/faults/judge/row_judge.h"
#include "tests/faults/mechanisms/campaign.h"
#include "tests/faults/world/snapshot.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

constexpr std::size_t ROWS = 5200;
constexpr std::size_t QUICK_STEP = 13;  // a quick campaign takes every so many batches

/// Before or after the honest rows: what comes first is restored first.
enum class Position { before, after };

/// Beyond the sandbox's own file systems lies the machine. A run that got there would harm it, so
/// that it gets to see a read-only one instead, and says so.
void shieldTheMachine() {
    if (::mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "making / read-only");
}

using ColumnNames = std::vector<std::string>;

std::string joined(const ColumnNames& texts, const std::string& separator) {
    std::string text;
    for (const std::string& each : texts)
        text += (text.empty() ? "" : separator) + each;
    return text;
}

/// The panel database with columns that hold every value, and a copy of its honest rows. It stays
/// like this until it is dropped.
class WidePanel {
public:
    explicit WidePanel(test::PanelDatabase& panel) : panel_(panel) {
        for (const Column& column : columnsThatARunReads())
            tables_[column.table].push_back(column.name);
        for (const auto& [table, columns] : tables_) {
            widen(table, columns);
            panel_.execute("CREATE TABLE honest_" + table + " AS SELECT " + joined(columns, ",") +
                           " FROM " + table);
        }
    }

    /// Replaces the rows that were loaded before.
    void load(const std::vector<HostileRow>& rows, Position position) {
        std::string honest;
        std::string hostile;
        std::string script;
        for (const auto& [table, columns] : tables_) {
            const std::string list = joined(columns, ",");
            script += "DELETE FROM " + table + ";";
            honest += "INSERT INTO " + table + " (" + list + ") SELECT " + list + " FROM honest_" +
                      table + ";";
        }
        for (const HostileRow& hostileRow : rows)
            for (const Row& row : hostileRow.rows())
                hostile += insertStatement(row);
        script += position == Position::before ? hostile + honest : honest + hostile;
        panel_.execute(script);
    }

    std::vector<std::string> honestDomains() {
        return panel_.query("SELECT name FROM honest_domains");
    }

private:
    void widen(const std::string& table, const ColumnNames& columns) {
        std::vector<std::string> changes;
        for (const std::string& key : keysOver(table, columns))
            changes.push_back(key == "PRIMARY" ? "DROP PRIMARY KEY" : "DROP KEY " + key);
        for (const std::string& column : columns)
            changes.push_back("MODIFY " + column + " LONGBLOB NULL");
        panel_.execute("ALTER TABLE " + table + " " + joined(changes, ", "));
    }

    std::vector<std::string> keysOver(const std::string& table, const ColumnNames& columns) {
        return panel_.query(
            "SELECT DISTINCT index_name FROM information_schema.statistics WHERE "
            "table_schema=DATABASE() AND table_name='" +
            table + "' AND column_name IN ('" + joined(columns, "','") + "')");
    }

    test::PanelDatabase& panel_;
    std::map<std::string, ColumnNames> tables_;
};

/// Loads rows into the panel, runs twice and judges.
class Trial {
public:
    Trial(World& world, WidePanel& panel) : world_(world), panel_(panel) {}

    Violations judge(const std::vector<HostileRow>& rows, Position position) {
        panel_.load(rows, position);
        world_.reset(Start::damaged);
        const Snapshot before = Snapshot::take();
        const Outcome outcome = undisturbedRun();
        const Snapshot once = Snapshot::take();
        Violations violations =
            judgeHostileRows(world_.golden(Start::damaged), before, once, outcome);
        append(violations, judgeRepetition(once, undisturbedRun(), Snapshot::take()));
        return violations;
    }

    /// The half of the half ... that still violates: a single row, unless it takes several.
    std::vector<HostileRow> culprits(std::vector<HostileRow> rows, Position position) {
        while (rows.size() > 1) {
            const auto middle = rows.begin() + static_cast<std::ptrdiff_t>(rows.size() / 2);
            std::vector<HostileRow> first(rows.begin(), middle);
            std::vector<HostileRow> second(middle, rows.end());
            if (!judge(first, position).empty())
                rows = std::move(first);
            else if (!judge(second, position).empty())
                rows = std::move(second);
            else
                break;
        }
        return rows;
    }

private:
    World& world_;
    WidePanel& panel_;
};

}  // namespace

void hostileRows(World& world, Report& report, const Selection& /*selection*/) {
    shieldTheMachine();
    WidePanel panel(world.panel());
    Trial trial(world, panel);
    std::size_t number = 0;
    for (const Batch& batch : hostileBatches(ROWS, panel.honestDomains())) {
        const Position position = number % 2 == 0 ? Position::before : Position::after;
        const bool inQuick = number % QUICK_STEP == 0;
        ++number;
        if (!report.wants(batch.name, inQuick))
            continue;
        Violations violations = trial.judge(batch.rows, position);
        if (!violations.empty())
            for (const HostileRow& row : trial.culprits(batch.rows, position))
                violations.push_back("by " + row.describe());
        report.tried(batch.name, violations);
        report.add("rows", batch.rows.size());
    }
}

}  // namespace corvo::faults
