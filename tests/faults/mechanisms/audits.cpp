// The auditing program, which only reads: in every state of the worlds, before every trap, at files
// that others hold, and over any rows.

#include <sys/stat.h>

#include <exception>
#include <filesystem>

#include "tests/faults/disturb/lease.h"
#include "tests/faults/disturb/wide_panel.h"
#include "tests/faults/judge/reading_judge.h"
#include "tests/faults/mechanisms/points.h"
#include "tests/faults/world/trap_scene.h"
#include "tests/faults/world/traps.h"
#include "tests/support/installation.h"

namespace corvo::faults {

namespace {

struct Command {
    std::string name;
    std::vector<std::string> arguments;
};

const std::vector<Command> COMMANDS = {
    {"check", {"check"}},
    {"diff", {"diff", "--recount", "--extras"}},
    {"show", {"show"}},
};

// One of so many in a quick campaign.
constexpr std::size_t SAMPLE_OF_TRAPS = 8;
constexpr std::size_t SAMPLE_OF_BATCHES = 26;

using Audit = std::function<Violations(const Command& command)>;

void attempt(Report& report, const std::string& place, bool inQuick, const Audit& audit) {
    for (const Command& command : COMMANDS) {
        const std::string point = place + "/" + command.name;
        if (!report.wants(point, inQuick))
            continue;
        try {
            report.tried(point, audit(command));
        } catch (const std::exception& error) {
            report.tried(point, {std::string("not judged: ") + error.what()});
        }
    }
}

void inStarts(World& world, Report& report) {
    for (const Start start : STARTS)
        attempt(report, nameOf(start), true, [&](const Command& command) {
            world.reset(start);
            return judgeAudit([&] { return tracedAudit(command.arguments); });
        });
}

void beforeTraps(Report& report, const TrapScene& scene) {
    const std::vector<std::string> places = trapPlaces(scene.golden());
    for (std::size_t i = 0; i < places.size(); ++i)
        for (const TrapKind kind : TRAP_KINDS)
            attempt(report, places[i] + "/" + nameOf(kind),
                    (i + static_cast<std::size_t>(kind)) % SAMPLE_OF_TRAPS == 0,
                    [&](const Command& command) {
                        scene.reset();
                        plantTrap(places[i], kind);
                        return judgeAudit([&] { return tracedAudit(command.arguments); });
                    });
}

void atLeasedFiles(Report& report, const TrapScene& scene) {
    const auto attemptAt = [&](const std::string& key, const char* name, Holder holder,
                               int patience) {
        const std::string path = test::MAILNAMES + "/" + key;
        attempt(report, path + "/" + name, holder == Holder::givesWay, [&](const Command& command) {
            scene.reset();
            return judgeAudit([&] {
                const Lease lease(path, holder);
                return tracedAudit(command.arguments, patience);
            });
        });
    };
    for (const auto& [key, entry] : scene.golden().storage)
        if (isIn(TRAPPED_HOME, key) && S_ISREG(entry.mode))
            attemptAt(key, "lease", Holder::givesWay, WATCHDOG);
    attemptAt(TRAPPED_HOME + "/.qmail", "stubborn-lease", Holder::isStubborn,
              WATCHDOG + leaseBreakTime());
}

// Last, because the panel stays wide.
void overHostileRows(World& world, Report& report) {
    WidePanel panel(world.panel());
    std::size_t number = 0;
    for (const Batch& batch : panel.batches()) {
        const RowOrder order = rowOrderOf(number);
        attempt(report, batch.name, number++ % SAMPLE_OF_BATCHES == 0, [&](const Command& command) {
            panel.load(batch.rows, order);
            world.reset(Start::damaged);
            return judgeAudit([&] { return tracedAudit(command.arguments); });
        });
    }
}

}  // namespace

void audits(World& world, Report& report, const Selection& /*selection*/) {
    inStarts(world, report);
    {
        const TrapScene scene;
        beforeTraps(report, scene);
        atLeasedFiles(report, scene);
    }
    world.reset(Start::damaged);
    overHostileRows(world, report);
}

}  // namespace corvo::faults
