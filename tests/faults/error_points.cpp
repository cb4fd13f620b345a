// Runs in which one system call reports an error.

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "tests/faults/points.h"
#include "tests/faults/tracer.h"

namespace corvo::faults {

namespace {

struct Error {
    int number;
    const char* name;
};
constexpr std::array<Error, 6> ERRORS = {{
    {EIO, "EIO"},
    {ENOSPC, "ENOSPC"},
    {EINTR, "EINTR"},
    {EACCES, "EACCES"},
    {ENOMEM, "ENOMEM"},
    {EMFILE, "EMFILE"},
}};

/// A call gets every third of the errors, and the next call the next ones. As the steps for each
/// mail name are the same, each of them meets all errors.
constexpr std::size_t TURNS = 3;

constexpr std::size_t QUICK_STEP = 31;  // a prime, so that it meets each kind of call

void failAt(World& world, Report& report, Start start, const Position& position,
            const Error& error) {
    const std::string point = nameOf(start) + "/" + nameOf(position) + "/" + error.name;
    if (!report.wants(point, position.call % QUICK_STEP == 1))
        return;
    FaultyRun run;
    report.tried(point, judge(world, start, [&] {
                     run = faults::failAt(position, error.number);
                     return run.outcome;
                 }));
    report.add("not_met", run.met ? 0 : 1);
}

}  // namespace

void errorPoints(World& world, Report& report, const Selection& selection) {
    for (const Start start : STARTS) {
        world.reset(start);
        std::size_t turn = start == Start::damaged ? 0 : 1;
        for (const Call& call : callsOfRun()) {
            if (!call.mayFail)
                continue;
            ++turn;
            for (std::size_t i = 0; i < ERRORS.size(); ++i)
                if ((turn + i) % TURNS == 0 || !selection.only.empty())
                    failAt(world, report, start, call.position, ERRORS[i]);
        }
    }
}

}  // namespace corvo::faults
