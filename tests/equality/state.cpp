#include "tests/equality/state.h"

#include "tests/equality/damage.h"

namespace corvo::equality {

namespace {

constexpr int LEFT_EMPTY = 10;  // in a hundred

}  // namespace

State newState(std::uint64_t seed, Panel& panel, Scene& scene) {
    State state;
    state.random.seed(seed);
    state.description = randomDescription(state.random);
    panel.load(state.description);
    scene.clear();
    state.line = chooseLine(state.random);
    state.means.line = state.line;
    return state;
}

std::optional<Ending> restoreMost(State& state, const std::string& program) {
    if (chance(LEFT_EMPTY, state.random))
        return std::nullopt;
    return Scene::run(program, "--all", false);
}

void damage(State& state, Panel& panel) {
    damageHomes(state.description, state.random);
    damageDelivery(state.description, state.line, state.random);
    state.means = takeMeans(state.line, state.random);
    damageDatabases(state.description, state.means, state.random);
    panel.setForwardTable(state.means.hasForwardTable);
}

}  // namespace corvo::equality
