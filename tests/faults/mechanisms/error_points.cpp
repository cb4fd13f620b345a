// Runs in which one system call reports an error, or several do.

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "tests/faults/disturb/lasting_errors.h"
#include "tests/faults/disturb/tracer.h"
#include "tests/faults/mechanisms/points.h"

namespace corvo::faults {

namespace {

const std::array<LastingError, 6> SINGLE_ERRORS = {{
    {"EIO", EIO},
    {"ENOSPC", ENOSPC},
    {"EINTR", EINTR},
    {"EACCES", EACCES},
    {"ENOMEM", ENOMEM},
    {"EMFILE", EMFILE},
}};

/// A call gets every third of the errors, and the next call the next ones. As the steps for each
/// mail name are the same, each of them meets all errors.
constexpr std::size_t TURNS = 3;

// Primes, so that a quick campaign meets each kind of call.
constexpr std::size_t QUICK_STEP = 31;           // calls
constexpr std::size_t QUICK_LASTING_STEP = 131;  // lasting errors

class ErrorPoints {
public:
    ErrorPoints(World& world, Report& report, const Selection& selection, Start start)
        : world_(world), report_(report), isOnly_(!selection.only.empty()), start_(start) {}

    void singleErrors(const std::vector<Call>& calls);
    void lastingErrors(const std::vector<Call>& calls);

private:
    void attempt(const Position& position, const LastingError& error, bool inQuick);

    World& world_;
    Report& report_;
    bool isOnly_;  // the one point that is wanted may be of any error
    Start start_;
};

void ErrorPoints::singleErrors(const std::vector<Call>& calls) {
    std::size_t turn = start_ == Start::damaged ? 0 : 1;
    for (const Call& call : calls) {
        if (!call.mayFail)
            continue;
        ++turn;
        for (std::size_t i = 0; i < SINGLE_ERRORS.size(); ++i)
            if ((turn + i) % TURNS == 0 || isOnly_)
                attempt(call.position, SINGLE_ERRORS[i], call.position.call % QUICK_STEP == 1);
    }
}

void ErrorPoints::lastingErrors(const std::vector<Call>& calls) {
    const auto errorsAt = isOnly_ ? lastingErrorsAt : someLastingErrorsAt;
    std::size_t number = 0;
    for (const Call& call : calls)
        for (const LastingError& error : errorsAt(call))
            attempt(call.position, error, number++ % QUICK_LASTING_STEP == 0);
}

void ErrorPoints::attempt(const Position& position, const LastingError& error, bool inQuick) {
    const std::string point = nameOf(start_) + "/" + nameOf(position) + "/" + error.name;
    if (!report_.wants(point, inQuick))
        return;
    FaultyRun run;
    Expectation expectation;
    report_.tried(point, judge(
                             world_, start_,
                             [&] {
                                 run = failFrom(position, error.number, error.further,
                                                error.isConcerned);
                                 expectation.unread = run.unread;
                                 return run.outcome;
                             },
                             expectation));
    report_.add("not_met", run.met ? 0 : 1);
}

}  // namespace

void errorPoints(World& world, Report& report, const Selection& selection) {
    for (const Start start : STARTS) {
        world.reset(start);
        const std::vector<Call> calls = callsOfRun();
        ErrorPoints points(world, report, selection, start);
        points.singleErrors(calls);
        points.lastingErrors(calls);
    }
}

}  // namespace corvo::faults
