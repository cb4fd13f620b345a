// Whether mail goes on being delivered while a run is under way and after it has failed: over a
// tree in perfect order, at each of its calls, without what a run needs, and under each error.

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "tests/faults/disturb/lasting_errors.h"
#include "tests/faults/disturb/tracer.h"
#include "tests/faults/judge/keeps_delivering.h"
#include "tests/faults/mechanisms/campaign.h"
#include "tests/faults/world/delivery_scene.h"

namespace corvo::faults {

namespace {

// Primes, so that a quick campaign meets each kind of call.
constexpr std::size_t QUICK_STEP = 7;          // calls at which a run is looked at
constexpr std::size_t QUICK_ERROR_STEP = 197;  // errors

const std::array<LastingError, 4> SINGLE_ERRORS = {{
    {"EIO", EIO},
    {"ENOSPC", ENOSPC},
    {"EACCES", EACCES},
    {"EROFS", EROFS},
}};

/// A killed process leaves what stands on the disk at its last call, so that one run which stands
/// still at each call shows what every kill would leave.
void everyCall(const DeliveryScene& scene, Report& report, Missing missing) {
    scene.reset(missing);
    observeRun([&](const Call& next) {
        const std::string point = nameOf(missing) + "/" + nameOf(next.position);
        if (report.wants(point, next.position.call % QUICK_STEP == 0))
            report.tried(
                point, checkKeepsDelivering(scene.before(), scene.wanted(), scene.deliveryFiles()));
    });
}

/// What a run leaves that has come to its end.
void theEnd(const DeliveryScene& scene, Report& report, Missing missing) {
    const std::string point = nameOf(missing) + "/end";
    if (!report.wants(point))
        return;
    scene.reset(missing);
    const Outcome outcome = undisturbedRun();
    Violations violations = checkKeepsDelivering(scene.before(), scene.wanted(),
                                                 scene.deliveryFiles(), {{}, outcome.err});
    append(violations, judgeEnd(outcome));
    report.tried(point, violations);
}

void tryError(const DeliveryScene& scene, Report& report, const Position& position,
              const LastingError& error, bool inQuick) {
    const std::string point = "error/" + nameOf(position) + "/" + error.name;
    if (!report.wants(point, inQuick))
        return;
    scene.reset();
    const FaultyRun run = failFrom(position, error.number, error.further, error.isConcerned);
    Violations violations = checkKeepsDelivering(
        scene.before(), scene.wanted(), scene.deliveryFiles(), {run.unread, run.outcome.err});
    append(violations, judgeEnd(run.outcome));
    report.tried(point, violations);
    report.add("not_met", run.met ? 0 : 1);
}

std::vector<LastingError> errorsAt(const Call& call) {
    std::vector<LastingError> errors = lastingErrorsAt(call);
    if (call.mayFail)
        errors.insert(errors.end(), SINGLE_ERRORS.begin(), SINGLE_ERRORS.end());
    return errors;
}

/// Only calls on files: the database's connections have a mechanism of their own.
void everyError(const DeliveryScene& scene, Report& report) {
    scene.reset();
    std::size_t number = 0;
    for (const Call& call : callsOfRun()) {
        const std::vector<LastingError> lasting = lastingErrorsAt(call);
        if (lasting.empty())
            continue;
        for (const LastingError& error : errorsAt(call))
            tryError(scene, report, call.position, error, number++ % QUICK_ERROR_STEP == 0);
    }
}

}  // namespace

void deliveries(World& /*world*/, Report& report, const Selection& /*selection*/) {
    {
        const DeliveryScene scene(allRecipients());
        for (const Missing missing : MISSING) {
            everyCall(scene, report, missing);
            theEnd(scene, report, missing);
        }
    }
    const DeliveryScene scene(fewRecipients());
    everyError(scene, report);
}

}  // namespace corvo::faults
