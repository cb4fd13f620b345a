// Whether mail goes on being delivered while a run is under way and after it has failed: over a
// tree in perfect order, at each of its calls, without what a run needs, beside other runs, and
// under each error.

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/disturb/background.h"
#include "tests/faults/disturb/lasting_errors.h"
#include "tests/faults/disturb/tracer.h"
#include "tests/faults/judge/keeps_delivering.h"
#include "tests/faults/mechanisms/campaign.h"
#include "tests/faults/world/delivery_record.h"
#include "tests/faults/world/delivery_scene.h"
#include "tests/support/files.h"

namespace corvo::faults {

namespace {

// Primes, so that a quick campaign meets each kind of call.
constexpr std::size_t QUICK_STEP = 7;          // calls at which a run is looked at
constexpr std::size_t QUICK_ERROR_STEP = 197;  // errors

// Three runs at once.
constexpr std::size_t ROUNDS = 200;
constexpr std::size_t QUICK_ROUNDS = 4;
constexpr std::size_t LATEST = 20;  // milliseconds that one begins after another

/// What a watcher beside them has seen.
const std::string SEEN = "/run/seen";

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

/// A run under an error, looked at from then on to its end.
void tryError(const DeliveryScene& scene, Report& report, const Position& position,
              const LastingError& error, bool inQuick) {
    const std::string point = "error/" + nameOf(position) + "/" + error.name;
    if (!report.wants(point, inQuick))
        return;
    scene.reset();
    DeliveryRecord record(scene);
    const FaultyRun run = failFrom(position, error.number, error.further, error.isConcerned,
                                   [&](const Call& /*next*/) { record.note(); });
    record.note();
    const auto judged = [&, states = record.states()](const Excuses& excuses) {
        return checkKeepsDelivering(scene.before(), scene.wanted(), states, excuses);
    };
    Violations violations = judged({run.unread, run.outcome.err});
    const bool isExcused = violations.empty() && !judged({}).empty();
    report.add("excused", isExcused ? 1 : 0);
    append(violations, judgeEnd(run.outcome));
    report.tried(point, violations);
    report.add("not_met", run.met ? 0 : 1);
}

/// What somebody sees who looks at the delivery files again and again. Says so once.
int watch(const DeliveryScene& scene, const Background::Ready& ready) {
    test::writeFile(SEEN, "");
    ready();
    for (;;) {
        const Violations seen =
            checkKeepsDelivering(scene.before(), scene.wanted(), scene.deliveryFiles());
        if (seen.empty())
            continue;
        test::writeFile(SEEN, seen.front());
        return 1;
    }
}

int companion(std::size_t round, const Background::Ready& ready) {
    ready();
    std::this_thread::sleep_for(std::chrono::milliseconds(round % LATEST));
    return undisturbedRun().status;
}

/// Three runs over the same mail names.
Violations meet(const DeliveryScene& scene, std::size_t round) {
    Background watcher([&](const Background::Ready& ready) { return watch(scene, ready); });
    Background second([&](const Background::Ready& ready) { return companion(round, ready); });
    Background third([&](const Background::Ready& ready) { return companion(round / 3, ready); });
    Violations violations = judgeEnd(undisturbedRun());
    for (Background* const each : {&second, &third})
        if (const int status = each->finish(); status != 0)
            violations.push_back("I7 exit status " + std::to_string(status) + " instead of 0");
    for (const std::string& seen : linesOf(test::contentsOf(SEEN)))
        violations.push_back("seen meanwhile: " + seen);
    append(violations, checkKeepsDelivering(scene.before(), scene.wanted(), scene.deliveryFiles()));
    return violations;
}

void manyMeetings(const DeliveryScene& scene, Report& report) {
    for (std::size_t round = 0; round < ROUNDS; ++round) {
        const std::string point = "together/" + std::to_string(round);
        if (!report.wants(point, round < QUICK_ROUNDS))
            continue;
        scene.reset();
        report.tried(point, meet(scene, round));
    }
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
    manyMeetings(scene, report);
    everyError(scene, report);
}

}  // namespace corvo::faults
