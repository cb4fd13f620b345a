// The campaign: mechanisms, their points, and the report.

#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/faults/judge/invariants.h"
#include "tests/faults/world/world.h"

namespace corvo::faults {

/// Which points of a mechanism a process is to try.
struct Selection {
    bool full = false;    // every point; otherwise the mechanism's quick choice
    std::size_t job = 0;  // this process takes every point whose number modulo jobs is job
    std::size_t jobs = 1;
    std::string only;  // the one point with this name; empty: all
};

/// Counts points and violations, prints each violation with the command that repeats it.
class Report {
public:
    Report(std::string mechanism, Selection selection);

    /// Whether this process is to try the point that comes next in the mechanism's fixed order. A
    /// quick campaign passes over points with `inQuick` false.
    bool wants(const std::string& point, bool inQuick = true);
    /// What came of it.
    void tried(const std::string& point, const Violations& violations);
    /// Says why points cannot be tried here.
    void skip(const std::string& what, const std::string& reason) const;
    /// A number beside the points ("runs that met the link"); added up over jobs by script/faults.
    void add(const std::string& figure, std::size_t count);

    /// Prints "faults MECHANISM points=N violations=N [FIGURE=N ...]" on standard output. Returns
    /// the number of violations, or 1 when the only point wanted is none.
    std::size_t finish() const;

private:
    std::string mechanism_;
    Selection selection_;
    std::size_t next_ = 0;
    std::size_t points_ = 0;
    std::size_t violations_ = 0;
    std::map<std::string, std::size_t> figures_;
};

/// One way to disturb a run: goes through its points and asks the report about each.
struct Mechanism {
    std::string name;     // as given to the binary: "kill", "error", "allocation", ...
    std::string summary;  // one line for the usage text
    void (*run)(World& world, Report& report, const Selection& selection);
};

void killPoints(World& world, Report& report, const Selection& selection);
void errorPoints(World& world, Report& report, const Selection& selection);
void allocationPoints(World& world, Report& report, const Selection& selection);
void diskLimits(World& world, Report& report, const Selection& selection);
void processLimits(World& world, Report& report, const Selection& selection);
void databaseFaults(World& world, Report& report, const Selection& selection);
void contention(World& world, Report& report, const Selection& selection);
void standardStreams(World& world, Report& report, const Selection& selection);
void plantedTraps(World& world, Report& report, const Selection& selection);
void races(World& world, Report& report, const Selection& selection);
void hostileRows(World& world, Report& report, const Selection& selection);
void powerCuts(World& world, Report& report, const Selection& selection);
void deliveries(World& world, Report& report, const Selection& selection);
void audits(World& world, Report& report, const Selection& selection);

}  // namespace corvo::faults
