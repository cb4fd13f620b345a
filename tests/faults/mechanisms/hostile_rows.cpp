// Rows of the panel database that hold any text.

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/faults/disturb/row_generator.h"
#include "tests/faults/disturb/runner.h"
#include "tests/faults/mechanisms/campaign.h"
#include "tests/faults/world/snapshot.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

constexpr std::size_t ROWS = 5200;
constexpr std::size_t QUICK_STEP = 13;  // a quick campaign takes every so many batches

/// Of the statuses that a run ends with by itself.
constexpr int WORST_STATUS = 2;

constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;

/// Before or after the honest rows: what comes first is restored first.
enum class Position { before, after };

/// Beyond the sandbox's own file systems lies the machine. A run that got there would harm it, so
/// that it gets to see a read-only one instead, and says so.
void shieldTheMachine() {
    if (::mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "making / read-only");
}

bool metTheShield(const Outcome& outcome) {
    return outcome.err.find(std::strerror(EROFS)) != std::string::npos;
}

using ColumnNames = std::vector<std::string>;

std::string joined(const ColumnNames& texts, const std::string& separator) {
    std::string text;
    for (const std::string& each : texts)
        text += (text.empty() ? "" : separator) + each;
    return text;
}

std::set<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::set<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.insert(line);
    return lines;
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

bool isSame(const Entry& one, const Entry& other) {
    return one.mode == other.mode && one.uid == other.uid && one.gid == other.gid &&
           one.content == other.content && one.modified == other.modified;
}

/// The paths at which two trees differ.
std::vector<std::string> differences(const Tree& one, const Tree& other) {
    std::vector<std::string> paths;
    for (const auto& [path, entry] : one) {
        const auto found = other.find(path);
        if (found == other.end() || !isSame(found->second, entry))
            paths.push_back(path);
    }
    for (const auto& [path, entry] : other)
        if (!one.contains(path))
            paths.push_back(path);
    return paths;
}

std::set<std::string> namesOf(const Tree& tree) {
    std::set<std::string> names;
    for (const auto& [path, entry] : tree)
        names.insert(path);
    return names;
}

bool isMessage(const std::string& path, const Entry& entry) {
    return S_ISREG(entry.mode) &&
           (path.find("/new/") != std::string::npos || path.find("/cur/") != std::string::npos ||
            path.find("/@attachments/") != std::string::npos);
}

bool isOwn(const std::string& handlerRow) {
    return handlerRow.find("|check-quota|") != std::string::npos;
}

/// What a run made of honest and hostile rows.
class Verdict {
public:
    Verdict(const Golden& golden, Snapshot before, Snapshot after, Outcome outcome)
        : golden_(golden),
          before_(std::move(before)),
          after_(std::move(after)),
          outcome_(std::move(outcome)) {}

    Violations violations() {
        judgeMessages();
        judgeDatabases();
        judgeOutside();
        judgeNewEntries();
        judgeEnd();
        judgeHonest();
        return std::move(violations_);
    }

private:
    void complain(const std::string& text) { violations_.push_back(text); }

    void judgeMessages() {
        for (const auto& [path, entry] : before_.storage) {
            if (!isMessage(path, entry))
                continue;
            const auto found = after_.storage.find(path);
            if (found == after_.storage.end() || !isSame(found->second, entry) ||
                found->second.inode != entry.inode)
                complain("I1 " + printable(path) + ": a message changed or vanished");
        }
    }

    void judgeDatabases() {
        if (!after_.integrity.empty())
            complain("I4 " + after_.integrity);
        if (namesOf(after_.databases) != namesOf(before_.databases))
            complain("I4 something stays beside the databases");
        for (const std::string& row : linesOf(golden_.before.handlerRows))
            if (!isOwn(row) && !linesOf(after_.handlerRows).contains(row))
                complain("I4 a foreign handler changed: " + printable(row));
        for (const std::string& row : linesOf(after_.handlerRows))
            if (!isOwn(row) && !linesOf(golden_.before.handlerRows).contains(row))
                complain("I4 a foreign handler appeared: " + printable(row));
    }

    void judgeOutside() {
        for (const std::string& path : differences(before_.canary, after_.canary))
            complain("I5 " + printable(path) + ": changed outside of the mail storage");
        if (metTheShield(outcome_))
            complain("I5 the run reached what lies outside of the sandbox");
    }

    void judgeNewEntries() {
        for (const auto& [path, entry] : after_.storage) {
            const bool isMade = !before_.storage.contains(path);
            const bool isPlain = S_ISREG(entry.mode) || S_ISDIR(entry.mode);
            if (isMade &&
                (!isPlain || entry.uid != test::POPUSER_UID || entry.gid != test::POPUSER_GID ||
                 (entry.mode & WRITABLE_BY_OTHERS) != 0))
                complain("I6 " + printable(path) + ": made with a wrong type, owner or mode");
        }
    }

    void judgeEnd() {
        if (outcome_.hung)
            complain("I7 the run hangs");
        else if (outcome_.status > WORST_STATUS)
            complain("I7 the run ends with status " + std::to_string(outcome_.status));
    }

    /// A status that is no number ends the walk over the domains, which is then said.
    bool endedEarly() const {
        return outcome_.err.find(" executing the central domain restoration cycle failed (") !=
               std::string::npos;
    }

    void judgeHonest() {
        if (endedEarly())
            return;
        for (const auto& [path, entry] : golden_.after.storage) {
            const auto found = after_.storage.find(path);
            if (found == after_.storage.end() || !isSame(found->second, entry))
                complain("honest " + printable(path) + ": not restored");
        }
        for (const std::string& row : linesOf(golden_.after.quotaRows))
            if (!linesOf(after_.quotaRows).contains(row))
                complain("honest quota row " + printable(row) + ": not restored");
    }

    const Golden& golden_;
    const Snapshot before_;
    const Snapshot after_;
    const Outcome outcome_;
    Violations violations_;
};

/// What a second run over the same rows changes.
Violations judgeRepetition(const Snapshot& once) {
    const Outcome outcome = undisturbedRun();
    const Snapshot twice = Snapshot::take();
    Violations violations;
    if (outcome.status > WORST_STATUS || outcome.hung)
        violations.push_back("I7 the second run ends with status " +
                             std::to_string(outcome.status));
    for (const std::string& path : differences(once.storage, twice.storage))
        violations.push_back("I10 " + printable(path) + ": changed by a second run");
    if (once.quotaRows != twice.quotaRows)
        violations.push_back("I10 the second run changes the user database");
    if (once.handlerRows != twice.handlerRows)
        violations.push_back("I10 the second run changes the handlers database");
    for (const std::string& path : differences(once.canary, twice.canary))
        violations.push_back("I5 " + printable(path) + ": changed by the second run");
    return violations;
}

/// Loads rows into the panel, runs twice and judges.
class Trial {
public:
    Trial(World& world, WidePanel& panel) : world_(world), panel_(panel) {}

    Violations judge(const std::vector<HostileRow>& rows, Position position) {
        panel_.load(rows, position);
        world_.reset(Start::damaged);
        Snapshot before = Snapshot::take();
        Outcome outcome = undisturbedRun();
        const Snapshot once = Snapshot::take();
        Violations violations =
            Verdict(world_.golden(Start::damaged), std::move(before), once, std::move(outcome))
                .violations();
        for (std::string& violation : judgeRepetition(once))
            violations.push_back(std::move(violation));
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
