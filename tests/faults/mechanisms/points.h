// What the mechanisms share when they go through their points.

#pragma once

#include <functional>
#include <string>

#include "tests/faults/mechanisms/campaign.h"

namespace corvo::faults {

inline constexpr Start STARTS[] = {Start::damaged, Start::restored};

/// "damaged" or "restored", the first part of a point's name.
inline std::string nameOf(Start start) {
    return start == Start::damaged ? "damaged" : "restored";
}

/// A run under one fault, in the order that the report wants to hear of it.
class Points {
public:
    Points(World& world, Report& report) : world_(world), report_(report) {}

    /// Tries the point START/`name` when it is wanted. Counts the runs that said something else
    /// than an undisturbed one, so that a fault which never happens is seen. The run may set what
    /// is to be expected of it.
    void attempt(Start start, const std::string& name, bool inQuick,
                 const std::function<Outcome()>& faultyRun, const Expectation& expectation = {}) {
        const std::string point = nameOf(start) + "/" + name;
        if (!report_.wants(point, inQuick))
            return;
        const auto countingRun = [&] {
            Outcome outcome = faultyRun();
            const bool noticed = outcome.status != 0 || outcome.err != world_.golden(start).err;
            report_.add("noticed", noticed ? 1 : 0);
            return outcome;
        };
        report_.tried(point, judge(world_, start, countingRun, expectation));
    }

private:
    World& world_;
    Report& report_;
};

}  // namespace corvo::faults
