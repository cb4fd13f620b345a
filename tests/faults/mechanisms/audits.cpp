// The auditing program, which only reads, in every state of the worlds, and before every trap.

#include <exception>
#include <filesystem>

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

constexpr std::size_t SAMPLE = 8;  // one trap of so many in a quick campaign

void attempt(Report& report, const std::string& point, bool inQuick, const Command& command,
             const std::function<void()>& prepare) {
    if (!report.wants(point + "/" + command.name, inQuick))
        return;
    prepare();
    try {
        report.tried(point + "/" + command.name, judgeAudit(command.arguments));
    } catch (const std::exception& error) {
        report.tried(point + "/" + command.name, {std::string("not judged: ") + error.what()});
    }
}

void beforeTraps(Report& report) {
    const TrapScene scene;
    const std::vector<std::string> places = trapPlaces(scene.golden());
    for (std::size_t i = 0; i < places.size(); ++i)
        for (const TrapKind kind : TRAP_KINDS)
            for (const Command& command : COMMANDS)
                attempt(report, places[i] + "/" + nameOf(kind),
                        (i + static_cast<std::size_t>(kind)) % SAMPLE == 0, command, [&] {
                            scene.reset();
                            plantTrap(places[i], kind);
                        });
}

}  // namespace

void audits(World& world, Report& report, const Selection& /*selection*/) {
    for (const Start start : STARTS)
        for (const Command& command : COMMANDS)
            attempt(report, nameOf(start), true, command, [&] { world.reset(start); });
    beforeTraps(report);
    world.reset(Start::restored);
}

}  // namespace corvo::faults
