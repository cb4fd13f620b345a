#include "tests/equality/pair.h"

#include "tests/equality/state.h"

namespace corvo::equality {

Trial attempt(std::uint64_t seed, const Programs& programs, Panel& panel, Scene& scene) {
    State state = newState(seed, panel, scene);
    (void)restoreMost(state, programs.former);
    damage(state, panel);
    Scene::remember();

    Trial trial;
    trial.description = state.description;
    const Means& means = trial.means = state.means;
    Scene::putBack();
    trial.former = Scene::run(programs.former, means.mode, means.isReadOnly);
    Scene::putBack();
    trial.before = Scene::tree();
    trial.present = Scene::run(programs.present, means.mode, means.isReadOnly);
    return trial;
}

}  // namespace corvo::equality
