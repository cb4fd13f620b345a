#include "tests/faults/world/world.h"

#include <stdexcept>

#include "tests/faults/disturb/runner.h"
#include "tests/faults/disturb/tracer.h"
#include "tests/support/sandbox.h"

namespace corvo::faults {

namespace {

/// The .qmail files of a tree.
std::map<std::string, std::string> deliveryFiles(const Tree& storage) {
    std::map<std::string, std::string> files;
    for (const auto& [path, entry] : storage)
        if (path.ends_with("/.qmail"))
            files[path] = entry.content;
    return files;
}

std::map<std::string, std::set<std::string>> watchDeliveryFiles(const Snapshot& after) {
    std::map<std::string, std::set<std::string>> passing;
    std::set<std::string> paths;
    for (const auto& [path, content] : deliveryFiles(after.storage))
        paths.insert(path);
    observeRun([&](const Call& /*next*/) {
        for (const std::string& path : paths) {
            const Tree file = readTree(test::MAILNAMES + "/" + path);
            if (!file.empty())
                passing[path].insert(file.at("").content);
        }
    });
    return passing;
}

Golden makeGolden(const Snapshot& before) {
    Golden golden;
    golden.before = before;
    const Outcome outcome = undisturbedRun();
    if (outcome.status != 0)
        throw std::runtime_error("the undisturbed run fails: " + outcome.err);
    golden.out = outcome.out;
    golden.err = outcome.err;
    golden.after = Snapshot::take();
    restoreSandbox(golden.before);
    golden.passing = watchDeliveryFiles(golden.after);
    return golden;
}

}  // namespace

World::World() {
    furnish(panel_);
    golden_[Start::damaged] = makeGolden(Snapshot::take());
    golden_[Start::restored] = makeGolden(golden_[Start::damaged].after);
}

void World::reset(Start start) {
    restoreSandbox(golden(start).before);
}

const Golden& World::golden(Start start) const {
    return golden_.at(start);
}

}  // namespace corvo::faults
