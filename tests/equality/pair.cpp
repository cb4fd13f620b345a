#include "tests/equality/pair.h"

#include "tests/equality/damage.h"

namespace corvo::equality {

Trial attempt(std::uint64_t seed, const Programs& programs, Panel& panel, Scene& scene) {
    std::mt19937_64 random(seed);
    Trial trial;
    trial.description = randomDescription(random);
    panel.load(trial.description);
    scene.clear();
    const std::string line = chooseLine(random);
    if (!chance(10, random))
        (void)Scene::run(programs.former, "--all", false);
    damageHomes(trial.description, random);
    damageDelivery(trial.description, line, random);
    trial.means = takeMeans(line, random);
    damageDatabases(trial.description, trial.means, random);
    panel.setForwardTable(trial.means.hasForwardTable);
    Scene::remember();

    const Means& means = trial.means;
    Scene::putBack();
    trial.former = Scene::run(programs.former, means.mode, means.isReadOnly);
    Scene::putBack();
    trial.before = Scene::tree();
    trial.present = Scene::run(programs.present, means.mode, means.isReadOnly);
    return trial;
}

}  // namespace corvo::equality
