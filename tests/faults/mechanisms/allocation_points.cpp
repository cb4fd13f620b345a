// Allocations that fail: one of a run's, or one and all that follow it.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/faults/disturb/preloaded.h"
#include "tests/faults/mechanisms/points.h"
#include "tests/support/files.h"

namespace corvo::faults {

namespace {

constexpr const char* RECORD = "/run/allocations";

/// Points of each start and each mode in a full campaign, when a run has as many allocations.
constexpr std::size_t SAMPLE = 400;

/// Every so many of them are in a quick one.
constexpr std::size_t QUICK_STEP = 40;

struct Mode {
    const char* name;
    const char* forGood;
};
constexpr Mode MODES[] = {{"once", "0"}, {"for-good", "1"}};

/// A number for each allocation of an undisturbed run; equal ones have the same callers.
std::vector<std::uint64_t> allocationsOfARun(World& world, Start start) {
    world.reset(start);
    const Outcome outcome =
        preparedRun(preloading({"counting_allocator"}, {{"CORVO_ALLOCATIONS_FILE", RECORD}}));
    if (outcome.status != 0)
        throw std::runtime_error("the run that counts allocations fails: " + outcome.err);
    const std::string record = test::contentsOf(RECORD);
    std::vector<std::uint64_t> chains(record.size() / sizeof(std::uint64_t));
    std::memcpy(chains.data(), record.data(), chains.size() * sizeof(std::uint64_t));
    return chains;
}

/// Which allocations are to fail, counted from 1: the first of each chain of callers, then others
/// at equal distances, until there are SAMPLE of them.
std::set<std::size_t> sampleOf(const std::vector<std::uint64_t>& chains) {
    std::set<std::size_t> sample;
    std::set<std::uint64_t> seen;
    for (std::size_t i = 0; i < chains.size(); ++i)
        if (seen.insert(chains[i]).second)
            sample.insert(i + 1);
    for (std::size_t parts = SAMPLE - std::min(SAMPLE, sample.size()); parts > 0; --parts)
        sample.insert(1 + (chains.size() - 1) * parts / SAMPLE);
    return sample;
}

Outcome runWithFailing(std::size_t number, const Mode& mode) {
    return preparedRun(preloading({"counting_allocator", "hurried_sleep"},
                                  {{"CORVO_FAIL_ALLOCATION", std::to_string(number)},
                                   {"CORVO_FAIL_FOR_GOOD", mode.forGood}}));
}

/// Whether the run was ended by the database's client library, which copies names while it connects
/// and does not look whether that succeeds (3.3). No caller can be in its way.
bool isClientLibrarysCrash(const Outcome& outcome) {
    return outcome.status == 128 + SIGSEGV && outcome.err.find("CRASH IN ") != std::string::npos &&
           outcome.err.find("/libmariadb.so", outcome.err.find("CRASH IN ")) != std::string::npos;
}

void tryAllocation(Points& points, Report& report, Start start, std::size_t number, bool inQuick) {
    for (const Mode& mode : MODES) {
        Expectation expectation;
        points.attempt(
            start, mode.name + ("/" + std::to_string(number)), inQuick,
            [&] {
                Outcome outcome = runWithFailing(number, mode);
                if (isClientLibrarysCrash(outcome)) {
                    expectation.signal = SIGSEGV;
                    report.add("crashes-in-the-client-library", 1);
                }
                return outcome;
            },
            expectation);
    }
}

}  // namespace

void allocationPoints(World& world, Report& report, const Selection& /*selection*/) {
    Points points(world, report);
    for (const Start start : STARTS) {
        const std::vector<std::uint64_t> chains = allocationsOfARun(world, start);
        std::size_t position = 0;
        for (const std::size_t number : sampleOf(chains))
            tryAllocation(points, report, start, number, position++ % QUICK_STEP == 0);
    }
}

}  // namespace corvo::faults
