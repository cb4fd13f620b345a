// Rows of the panel database that hold any text.

#include <sys/mount.h>

#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/disturb/wide_panel.h"
#include "tests/faults/judge/row_judge.h"
#include "tests/faults/mechanisms/campaign.h"
#include "tests/faults/world/snapshot.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

constexpr std::size_t QUICK_STEP = 13;  // a quick campaign takes every so many batches

/// Beyond the sandbox's own file systems lies the machine. A run that got there would harm it, so
/// that it gets to see a read-only one instead, and says so.
void shieldTheMachine() {
    if (::mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "making / read-only");
}

/// Loads rows into the panel, runs twice and judges.
class Trial {
public:
    Trial(World& world, WidePanel& panel) : world_(world), panel_(panel) {}

    Violations judge(const std::vector<HostileRow>& rows, RowOrder order) {
        panel_.load(rows, order);
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
    std::vector<HostileRow> culprits(std::vector<HostileRow> rows, RowOrder order) {
        while (rows.size() > 1) {
            const auto middle = rows.begin() + static_cast<std::ptrdiff_t>(rows.size() / 2);
            std::vector<HostileRow> first(rows.begin(), middle);
            std::vector<HostileRow> second(middle, rows.end());
            if (!judge(first, order).empty())
                rows = std::move(first);
            else if (!judge(second, order).empty())
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
    for (const Batch& batch : panel.batches()) {
        const RowOrder order = rowOrderOf(number);
        const bool inQuick = number % QUICK_STEP == 0;
        ++number;
        if (!report.wants(batch.name, inQuick))
            continue;
        Violations violations = trial.judge(batch.rows, order);
        if (!violations.empty())
            for (const HostileRow& row : trial.culprits(batch.rows, order))
                violations.push_back("by " + row.describe());
        report.tried(batch.name, violations);
        report.add("rows", batch.rows.size());
    }
}

}  // namespace corvo::faults
