#include "tests/agreement/campaign.h"

#include "tests/equality/comparison.h"
#include "tests/equality/state.h"
#include "tests/support/process.h"

namespace corvo::agreement {

namespace {

using equality::Scene;

bool hasReportedNothing(const Ending& ending) {
    return ending.facts.at("status") == "0" &&
           ending.facts.at("standard error").find(" failed (") == std::string::npos;
}

std::string inWords(const char* title, const Audit& audit) {
    std::string text = std::string(title) + ", status " + std::to_string(audit.status) + "\n";
    for (const Finding& finding : audit.findings)
        text += "  " + finding.text() + "\n";
    return text + audit.err;
}

std::string inWords(const Trial& trial) {
    std::string text = inWords("The first audit", trial.first) + "The run\n" +
                       trial.after.facts.at("standard error");
    const equality::Trial sides = {.description = {},
                                   .means = {},
                                   .before = trial.before.tree,
                                   .former = trial.before,
                                   .present = trial.after};
    for (const equality::Difference& difference : equality::differences(sides))
        text += equality::describe(difference, sides) + "\n";
    return text + inWords("The second audit", trial.second);
}

}  // namespace

Result Campaign::attempt(std::uint64_t seed) {
    const std::string program = test::mailRebuildBinary();
    Result result;
    equality::State state = equality::newState(seed, panel_, scene_);
    if (const auto ending = equality::restoreMost(state, program);
        ending && hasReportedNothing(*ending)) {
        result.wasInOrder = true;
        result.violations = judgeUntouched(state.description, runAudit());
    }
    equality::damage(state, panel_);
    Trial trial;
    trial.description = state.description;
    trial.first = runAudit();
    trial.before = {Scene::tree(), Scene::rows()};
    // What the storage lies on is no matter of an audit: it is never read-only here.
    trial.after = Scene::run(program, "--all", false);
    trial.second = runAudit();
    for (const std::string& violation : judge(trial))
        result.violations.push_back(violation);
    result.objects = countObjects(trial);
    result.missing = state.means.missing;
    result.account = inWords(trial);
    return result;
}

}  // namespace corvo::agreement
