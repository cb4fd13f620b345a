// Runs that are killed before or after one of their system calls.

#include <string>
#include <vector>

#include "tests/faults/disturb/tracer.h"
#include "tests/faults/mechanisms/points.h"

namespace corvo::faults {

namespace {

/// Every so many points of a start are in a quick campaign; a prime, so that it meets each kind of
/// call.
constexpr std::size_t QUICK_STEP = 43;

constexpr int KILLED = 128 + 9;

void killAt(World& world, Report& report, Start start, const Position& position, Moment moment) {
    const std::string point =
        nameOf(start) + "/" + nameOf(position) + (moment == Moment::entry ? "/entry" : "/exit");
    if (!report.wants(point, position.call % QUICK_STEP == 1))
        return;
    FaultyRun run;
    Expectation expectation;
    expectation.signal = KILLED - 128;
    report.tried(point, judge(
                            world, start,
                            [&] {
                                run = faults::killAt(position, moment);
                                return run.outcome;
                            },
                            expectation));
    report.add("not_met", run.met ? 0 : 1);
}

}  // namespace

void killPoints(World& world, Report& report, const Selection& /*selection*/) {
    for (const Start start : STARTS) {
        world.reset(start);
        for (const Call& call : callsOfRun()) {
            killAt(world, report, start, call.position, Moment::entry);
            // After a call that changes nothing the state is the one before it.
            if (call.changes)
                killAt(world, report, start, call.position, Moment::exit);
        }
    }
}

}  // namespace corvo::faults
